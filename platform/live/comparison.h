// Whether the kernel has what the store says: `vshost check`.
#pragma once

#include <string>
#include <vector>

#include "platform/host/engine.h"

namespace live {

// Compares everything that vshostd puts into the kernel with what the store wants there: interfaces and their
// settings, filters, words, snapshots. It only reads, and works without vshostd. One line for each
// difference. False: `message` says why nothing could be compared.
bool CompareWithKernel(const std::string &bpffs, vshost::Engine &engine,
                       std::vector<std::string> &differences, std::string &message);

}

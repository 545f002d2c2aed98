// A plan file on this machine, as `vsctl` reads it.
#pragma once

#include <string>

namespace vsfleet {

// The file as JSON. Throws vsctl's own message, with the place in the file, and its exit code.
std::string ReadPlanFile(const std::string &vsctl, const std::string &file);

}

// Documents: plan files of `vsctl`, as JSON, each for the hosts that its selector names.
#pragma once

#include "fleet/protocol/records.h"

namespace vsfleet {

// etcd takes requests of 1.5 MiB; what a stored document may have of that.
inline constexpr size_t MAX_STORED_SIZE = 1400000;

// `text` is a plan file in JSON. Throws std::runtime_error when it is too long even compressed.
StoredDocument Store(const std::string &text);
// Throws std::runtime_error when the stored bytes are not those of the sum.
std::string Restore(const StoredDocument &document);

// One plan file of several, which name different switches.
Json Merge(const std::vector<Json> &files);

bool Matches(const Labels &selector, const Labels &labels);
// "a=b,c=d". Throws std::runtime_error.
Labels ParseLabels(const std::string &text);

}

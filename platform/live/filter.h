// The data path's place at an interface: a tc filter at the ingress side of its clsact queueing discipline.
#pragma once

#include <cstdint>

namespace live {

// Every plugged interface has the filter at the same place, so that it is found again and replaced there.
inline constexpr uint32_t FILTER_HANDLE = 1;
inline constexpr uint32_t FILTER_PRIORITY = 1;

// The functions answer 0 or a negative errno.

// The program at our place; -ENOENT: there is none.
int QueryFilter(uint32_t ifindex, uint32_t &programId);

// Makes the queueing discipline when it is missing. -EEXIST when there is a filter already.
int AddFilter(uint32_t ifindex, int program);

// No packet passes between the old program and the new one.
int ReplaceFilter(uint32_t ifindex, int program);

int RemoveFilter(uint32_t ifindex);
int RemoveClsact(uint32_t ifindex);

}

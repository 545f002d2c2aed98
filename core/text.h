#pragma once

#include <cstddef>
#include <cstring>

namespace text {

// Copies at most size - 1 characters and always terminates; gives the source's whole length.
// Ours, because the platform's libc has none.
size_t strlcpy(char *destination, const char *source, size_t size);

// Cuts as strlcpy does. The field is zero before, so that whatever is copied ends there.
inline void CopyIntoZeros(char *field, const char *source, size_t size)
{
    const size_t length = strlen(source);
    memcpy(field, source, length < size ? length : size - 1);
}

}

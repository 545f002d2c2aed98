#pragma once

#include <cstddef>
#include <cstring>

namespace text {

// Copies at most size - 1 characters, always terminates, and returns the source's whole length.
// The platform's libc lacks this function.
size_t strlcpy(char *destination, const char *source, size_t size);

// Cuts as strlcpy does. The field must be zero before, so that the copied text is terminated.
inline void CopyIntoZeros(char *field, const char *source, size_t size)
{
    const size_t length = strlen(source);
    memcpy(field, source, length < size ? length : size - 1);
}

}

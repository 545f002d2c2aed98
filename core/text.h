#pragma once

#include <cstddef>
#include <cstring>

namespace text {

// Copies at most size - 1 characters and always terminates; gives the source's whole length.
// Ours, because the platform's libc has none.
inline size_t strlcpy(char *destination, const char *source, size_t size)
{
    const size_t length = strlen(source);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(destination, source, copied);
        destination[copied] = '\0';
    }
    return length;
}

}

#include "core/text.h"

#include <cstring>

size_t text::strlcpy(char *destination, const char *source, size_t size)
{
    const size_t length = strlen(source);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(destination, source, copied);
        destination[copied] = '\0';
    }
    return length;
}

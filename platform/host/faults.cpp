#include "platform/host/faults.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vshost {
namespace {

// The parts joined by spaces, cut to the field.
void JoinText(const CallDetails &details, char *field, size_t size)
{
    for (size_t i = 0, used = 0; i < details.textCount && used < size; i++) {
        const char *part = details.text[i] ? details.text[i] : "-";
        const int length = snprintf(field + used, size - used, i > 0 ? " %s" : "%s", part);
        used += static_cast<size_t>(std::max(length, 0));
    }
}

}

void InterceptedCall::Record() const
{
    struct vshost_call call = {};
    call.kind = kind;
    call.outcome = effect.outcome;
    call.length = details.length;
    call.flags = details.flags;
    call.process = getpid();
    snprintf(call.operation, sizeof(call.operation), "%s", operation);
    JoinText(details, call.text, sizeof(call.text));
    if (details.input) memcpy(call.input, details.input, std::min(details.inputLength, sizeof(call.input)));
    faults->Record(effect.index, call);
}

}

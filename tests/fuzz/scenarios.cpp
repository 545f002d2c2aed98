// Scenario files: applied as a whole, or refused with a message and without a change.
#include "tests/fuzz/host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    const std::string json = Input{data, size}.Text();
    const uint64_t before = vshost_fingerprint();
    if (vshost_scenario(json.c_str()) != 0) {
        Require(*vshost_error() != '\0');
        Require(vshost_fingerprint() == before);
    }
    vshost_clear();
    return 0;
}

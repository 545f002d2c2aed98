// Serialized bundles and configurations with any bytes: accepted as a whole or refused.
#include "tests/fuzz/host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    const auto length = static_cast<uint32_t>(size);
    const uint64_t before = vshost_fingerprint();
    if (DVSZOR_PortAdd(SWITCH, "fuzzed", data, length) == STATUS_OK)
        Require(DVSZOR_PortRemove(SWITCH, "fuzzed") == STATUS_OK);
    Require(vshost_fingerprint() == before);
    DVSState_ConfigReset();
    DVSState_ConfigDeserialize(data, length);
    LibraryInit();
    char switchId[SWITCH_ID_SIZE];
    Require(DVSAliasToSwitchId(SWITCH, switchId) == STATUS_OK);
    return 0;
}

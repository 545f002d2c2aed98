// The output of the system-information shell for the MTU query and the uplink listing.
#include "tests/fuzz/host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    Input input = {data, size};
    const Input query = input.Take(input.Byte());
    vshost_clear();
    vshost_shell_output("get", query.data, query.Length());
    vshost_shell_output("ls", input.data, input.Length());
    int32_t mtu = -7;
    const VsStatus status = VSDVS_GetMTU(SWITCH, &mtu);
    Require(status == STATUS_OK || mtu == -7);
    VSDVS_SetMTU(SWITCH, 1500);
    return 0;
}

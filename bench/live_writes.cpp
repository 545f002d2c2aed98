// Nanoseconds that a VLAN policy takes on the host that this process is on: the mean of WRITES calls.
// Usage: live_writes SWITCH PORTS WRITES [bulk]. The ports, "0", "1", …, take turns.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>

#include "vswitchctl.h"

namespace {

using Clock = std::chrono::steady_clock;

VsStatus WriteAll(const char *switchName, int ports, int writes)
{
    const auto first =
        static_cast<int>(Clock::now().time_since_epoch().count() / 1000 % 4000); // not the last run's
    for (int i = 0; i < writes; i++) {
        const std::string port = std::to_string(i % ports);
        const auto vlan = static_cast<uint16_t>(1 + (first + i) % 4000);
        const VsStatus status =
            VSDVS_SetPortVLANPolicy(switchName, port.c_str(), vlan, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0);
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

}

int main(int count, char **arguments)
{
    const bool inBulk = count == 5 && !strcmp(arguments[4], "bulk");
    if (count != 4 && !inBulk) return fputs("usage: live_writes SWITCH PORTS WRITES [bulk]\n", stderr), 2;
    const auto bulk = reinterpret_cast<int (*)(int)>(dlsym(RTLD_DEFAULT, "vshost_bulk"));
    if (inBulk && !bulk) return fputs("live_writes: the platform has no vshost_bulk\n", stderr), 1;

    const int writes = atoi(arguments[3]);
    VSDVS_SetPortVLANPolicy(arguments[1], "0", 4001, VLAN_PRIORITY_NONE, 0, 0, nullptr,
                            0); // attaches to the host
    const auto begin = Clock::now();
    if (inBulk && bulk(1) != 0) return fputs("live_writes: the bulk does not begin\n", stderr), 1;
    const VsStatus status = WriteAll(arguments[1], atoi(arguments[2]), writes);
    if (inBulk && bulk(0) != 0) return fputs("live_writes: the bulk is not carried out\n", stderr), 1;
    const std::chrono::duration<double, std::nano> time = Clock::now() - begin;
    if (status != STATUS_OK) return fprintf(stderr, "live_writes: status 0x%08X\n", status), 1;
    printf("%.0f\n", time.count() / writes);
}

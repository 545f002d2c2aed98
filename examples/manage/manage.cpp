// manage.c in C++: failing statuses become exceptions, buffers release themselves.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vswitchctl.h>

namespace {
void Require(const char *what, VsStatus status)
{
    char text[128];
    std::snprintf(text, sizeof(text), "%s: status 0x%08X", what, status);
    if (status != STATUS_OK) throw std::runtime_error(text);
}

struct Release {
    void operator()(void *buffer) const { VSDVS_FreeMemory(buffer); }
};
template<class Record> using Buffer = std::unique_ptr<Record, Release>;

// A switch that its destructor destroys, unless the program keeps it.
class NewSwitch {
public:
    explicit NewSwitch(const char *alias) : alias(alias)
    {
        Require("creating it", VSDVS_CreateVSwitch(alias, nullptr, nullptr, 1, 0, 64, 2, 2));
    }
    NewSwitch(const NewSwitch &) = delete;
    NewSwitch &operator=(const NewSwitch &) = delete;
    ~NewSwitch()
    {
        if (alias) VSDVS_DestroyVSwitch(alias);
    }
    void Keep() { alias = nullptr; }

private:
    const char *alias;
};

void Configure(const char *alias)
{
    const VLANRange trunk{200, 299};
    Require("port0", VSDVS_SetPortVLANPolicy(alias, "port0", 100, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0));
    Require("port1", VSDVS_SetPortVLANPolicy(alias, "port1", 0, VLAN_PRIORITY_NONE, 1, 0, &trunk, 1));
    Require("MTU", VSDVS_SetMTU(alias, 9000));
}

void ShowVLAN(const char *alias, const char *port)
{
    PortVLANRecord *record = nullptr;
    uint32_t priority = 0;
    Require(port, VSDVS_GetPortVLANPolicy(alias, port, &record, &priority));
    const Buffer<PortVLANRecord> owner(record);
    const auto *range = reinterpret_cast<const VLANRange *>(record + 1);
    if (record->flags & VLAN_FLAG_TRUNK)
        std::printf("%s: trunk %u-%u\n", port, range->first, range->last);
    else
        std::printf("%s: VLAN %u\n", port, record->vlanId);
}

void Show(const char *alias)
{
    int32_t mtu = 0;
    UplinkNameList *names = nullptr;
    UplinkPortIdList *ids = nullptr;
    Require("MTU", VSDVS_GetMTU(alias, &mtu));
    Require("uplinks", VSDVS_GetSwitchUplinkPorts(alias, &names, &ids));
    const Buffer<UplinkNameList> nameOwner(names);
    const Buffer<UplinkPortIdList> idOwner(ids);
    std::printf("switch %s: MTU %d\n", alias, mtu);
    for (uint32_t i = 0; i < names->count; i++)
        std::printf("uplink %s\n", reinterpret_cast<const UplinkName *>(names + 1)[i].text);
    ShowVLAN(alias, "port0");
    ShowVLAN(alias, "port1");
}
}

int main(int argc, char **argv)
try {
    const char *alias = argc > 1 ? argv[1] : "office";
    NewSwitch created(alias);
    Configure(alias);
    Show(alias);
    created.Keep();
} catch (const std::exception &error) {
    std::fprintf(stderr, "manage: %s\n", error.what());
    return 1;
}

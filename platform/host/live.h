// What the switches of a host do: their MAC tables, counters and choices of an uplink. On an emulated host no
// switch does anything, and rows say all. The daemon of a live host fills this from the kernel.
#pragma once

#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/host/transaction.h"
#include "platform/include/vswitch_driver.h"

namespace vshost {

// A switch that runs.
struct RunningSwitch {
    std::string portset;
    std::string switchId;
};

// A port of a switch that runs.
struct RunningPort {
    std::string portset;
    std::string switchId;
    std::string portId;
    uint32_t number;
};

// A multicast group in a VLAN: its addresses are those of its kind, without a separator.
struct MulticastGroup {
    std::string address;
    VSwitchMcastStats stats;
    std::string sources;
};

inline constexpr size_t MAX_LAGS = std::extent_v<decltype(VSwitchLagTable::lags)>;

// Whether a NIC is a member of the LAG, or is the LAG itself.
bool IsInLag(const VSwitchLag &lag, std::string_view nic);

// Threads share it.
class Live {
public:
    virtual ~Live() = default;

    // Adds the entries of the MAC tables of ports of one switch.
    virtual VsStatus ReadAddresses(Reader &reader, std::span<const RunningPort> ports,
                                   std::vector<VSwitchMacEntry> &entries) = 0;
    // Fills in the counters; `entries` and `limit` stay as they are.
    virtual VsStatus ReadLearning(Reader &reader, const RunningPort &port,
                                  VSwitchPortLearningStats &stats) = 0;
    virtual VsStatus ReadStatistics(Reader &reader, const RunningPort &port,
                                    VSwitchPortStatistics &stats) = 0;
    // Of the team of a switch, whose uplink ports are `uplinks`.
    virtual VsStatus ReadTeaming(Reader &reader, std::string_view portset,
                                 std::span<const RunningPort> uplinks, VSwitchTeamingStats &stats) = 0;
    // Of the announcements that a running switch has sent.
    virtual VsStatus ReadRarp(Reader &reader, std::string_view portset, std::string_view switchId,
                              VSwitchRarpStats &stats) = 0;
    // The multicast groups of a switch with addresses of a kind, in the order of VLANs and addresses.
    virtual VsStatus ReadGroups(Reader &reader, const RunningSwitch &vswitch, uint32_t addressKind,
                                std::vector<MulticastGroup> &groups) = 0;
    // The number of the uplink port that a port sent by last. STATUS_NOT_FOUND: it has sent by none.
    virtual VsStatus ReadUplink(const RunningPort &port, uint32_t &uplinkNumber) = 0;
    // The mirror sessions of a switch with what they have done.
    virtual VsStatus ReadMirrors(Reader &reader, const RunningSwitch &vswitch,
                                 std::vector<VSwitchMirrorStats> &sessions) = 0;
    // The numbers of the ports that get frames which are not for them, besides sink ports.
    virtual VsStatus ReadObservers(Reader &reader, const RunningSwitch &vswitch,
                                   std::set<uint32_t> &portNumbers) = 0;
    // The LAGs that uplinks of a switch are in, or are; at most MAX_LAGS.
    virtual VsStatus ReadLags(Reader &reader, const RunningSwitch &vswitch,
                              std::vector<VSwitchLag> &lags) = 0;
    // Removes an address that the port has learned, also one that has become static. STATUS_NOT_FOUND: the
    // port has not learned it.
    virtual VsStatus ForgetAddress(const RunningPort &port, const VSwitchMacEntry &address) = 0;
    // Whether a command may put learned addresses into MAC tables.
    virtual bool TakesLearnedAddresses() const = 0;
};

// The emulated host's.
class LiveRows : public Live {
public:
    VsStatus ReadAddresses(Reader &reader, std::span<const RunningPort> ports,
                           std::vector<VSwitchMacEntry> &entries) override;
    VsStatus ReadLearning(Reader &reader, const RunningPort &port, VSwitchPortLearningStats &stats) override;
    VsStatus ReadStatistics(Reader &reader, const RunningPort &port, VSwitchPortStatistics &stats) override;
    VsStatus ReadTeaming(Reader &reader, std::string_view portset, std::span<const RunningPort> uplinks,
                         VSwitchTeamingStats &stats) override;
    VsStatus ReadRarp(Reader &reader, std::string_view portset, std::string_view switchId,
                      VSwitchRarpStats &stats) override;
    VsStatus ReadGroups(Reader &reader, const RunningSwitch &vswitch, uint32_t addressKind,
                        std::vector<MulticastGroup> &groups) override;
    VsStatus ReadUplink(const RunningPort &, uint32_t &) override { return STATUS_NOT_FOUND; }
    VsStatus ReadMirrors(Reader &reader, const RunningSwitch &vswitch,
                         std::vector<VSwitchMirrorStats> &sessions) override;
    VsStatus ReadObservers(Reader &reader, const RunningSwitch &vswitch,
                           std::set<uint32_t> &portNumbers) override;
    VsStatus ReadLags(Reader &reader, const RunningSwitch &vswitch, std::vector<VSwitchLag> &lags) override;
    VsStatus ForgetAddress(const RunningPort &, const VSwitchMacEntry &) override { return STATUS_NOT_FOUND; }
    bool TakesLearnedAddresses() const override { return true; }
};

}

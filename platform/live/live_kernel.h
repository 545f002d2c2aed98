// What the switches of a live host do, read from the kernel. Rows say what was configured: static addresses.
#pragma once

#include "platform/host/live.h"
#include "platform/live/bonds.h"
#include "platform/live/kernel_tables.h"

namespace live {

class LiveKernel : public vshost::Live {
public:
    LiveKernel(const KernelTables &tables, const SharedLags &lags) : tables(tables), lags(lags) {}

    VsStatus ReadAddresses(vshost::Reader &reader, std::span<const vshost::RunningPort> ports,
                           std::vector<VSwitchMacEntry> &entries) override;
    VsStatus ReadLearning(vshost::Reader &reader, const vshost::RunningPort &port,
                          VSwitchPortLearningStats &stats) override;
    VsStatus ReadStatistics(vshost::Reader &reader, const vshost::RunningPort &port,
                            VSwitchPortStatistics &stats) override;
    VsStatus ReadTeaming(vshost::Reader &reader, std::string_view portset,
                         std::span<const vshost::RunningPort> uplinks, VSwitchTeamingStats &stats) override;
    VsStatus ReadRarp(vshost::Reader &reader, std::string_view portset, std::string_view switchId,
                      VSwitchRarpStats &stats) override;
    VsStatus ReadGroups(vshost::Reader &reader, const vshost::RunningSwitch &vswitch, uint32_t addressKind,
                        std::vector<vshost::MulticastGroup> &groups) override;
    VsStatus ReadUplink(const vshost::RunningPort &port, uint32_t &uplinkNumber) override;
    VsStatus ReadMirrors(vshost::Reader &reader, const vshost::RunningSwitch &vswitch,
                         std::vector<VSwitchMirrorStats> &sessions) override;
    VsStatus ReadObservers(vshost::Reader &reader, const vshost::RunningSwitch &vswitch,
                           std::set<uint32_t> &portNumbers) override;
    VsStatus ReadLags(vshost::Reader &reader, const vshost::RunningSwitch &vswitch,
                      std::vector<VSwitchLag> &found) override;
    VsStatus ForgetAddress(const vshost::RunningPort &port, const VSwitchMacEntry &address) override
    {
        return tables.ForgetAddress(port.number, address.vlanId, address.address);
    }
    bool TakesLearnedAddresses() const override { return false; }

private:
    const KernelTables &tables;
    const SharedLags &lags;
};

}

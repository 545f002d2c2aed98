// Keeps the data path, the store and the network interfaces together: what one says the others follow.
//
// The daemon's main thread alone uses it.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/host/engine.h"
#include "platform/host/live_requests.h"
#include "platform/host/runtime.h"
#include "platform/live/data_path.h"
#include "platform/live/links.h"
#include "platform/live/plugged.h"

namespace live {

class Forwarder {
public:
    explicit Forwarder(vshost::Engine &engine) : engine(engine) {}

    // Loads the data path, with its pins in `bpffs`. What a daemon before has left goes on. False: `message`
    // says why.
    bool Start(const std::string &bpffs, std::string &message);

    const KernelTables &Tables() { return path.Tables(); }
    int LinkDescriptor() const { return links.EventDescriptor(); }

    void FollowStore(); // after a commit
    void FollowLinks(); // after an event
    void PollCarriers();
    void Sweep();

    // Takes every filter, pin and changed setting away.
    void RemoveAll();

    // Requests of `vshost`.
    vshost::LiveAnswer PlugPort(const std::string &switchName, const std::string &portId,
                                const std::string &interface, bool keeps);
    vshost::LiveAnswer AddNic(const std::string &interface, bool keeps);
    vshost::LiveAnswer Unplug(const std::string &interface, bool isNic);
    vshost::LiveAnswer DescribeLink(const std::string &interface); // "up", "no carrier", "down" or "away"

private:
    void Apply();
    void ReadPlugs();
    void SyncNic(const std::string &name);
    void PutNic(const std::string &name, const vshost::Nic &nic);
    void PublishAll(const Wanted &wanted);
    bool PublishSwitch(const SwitchConfig &config);
    void RemoveSwitch(const std::string &switchId);
    void DetachUnwanted(const Wanted &wanted);
    void AttachAll(const Wanted &wanted);
    void SetUp(const SwitchConfig &config);
    void PutBack(const std::string &interface, const vshost::Plug &plug);
    void ForgetLostLinks();
    bool VerifyFilter(uint32_t ifindex); // false: it was gone
    bool VerifyFilters();
    bool NoteClsact(const std::string &interface);
    void LogLinks();
    void LogFailovers(bool isFirst);
    vshost::LiveAnswer CheckInterface(const std::string &interface, bool keeps, vshost::Plug &plug);
    vshost::LiveAnswer Write(const std::string &interface, const vshost::Work &work);
    vshost::LiveAnswer StorePlug(const std::string &interface, const vshost::Plug &plug);
    void Complain(const std::string &subject, const std::string &text);

    vshost::Engine &engine;
    DataPath path;
    Links links;
    Plugs plugs;
    std::map<std::string, vshost::Nic> nics; // of the plugs, as this process last saw or wrote them
    std::map<std::string, SwitchConfig> published;
    std::set<uint32_t> attached; // interfaces with our filter
    Plugs released;              // their settings are to be put back
    std::set<uint32_t> withCarrier;
    uint32_t lastVerified = 0;
    std::map<std::string, std::string> linkStates;   // by interface, as logged
    std::map<uint32_t, LiveCounters> uplinkCounters; // by port number, as logged
    std::map<std::string, std::string> complaints;   // what was logged last, by subject
};

}

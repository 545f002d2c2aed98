// Keeps the data path, the store and the network interfaces together: what one says the others follow.
//
// The daemon's main thread alone uses it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/host/engine.h"
#include "platform/host/live_requests.h"
#include "platform/host/runtime.h"
#include "platform/live/announcer.h"
#include "platform/live/data_path.h"
#include "platform/live/links.h"
#include "platform/live/plugged.h"
#include "platform/live/scribe.h"
#include "platform/live/touched.h"

namespace live {

class Forwarder {
public:
    Forwarder(vshost::Engine &engine, Scribe &scribe) : engine(engine), scribe(scribe) {}

    // Loads the data path, with its pins in a bpf file system. What a daemon before has left goes on. False:
    // `message` says why.
    struct Place {
        std::string bpffs;
        Capacity capacity;
    };
    bool Start(const Place &place, std::string &message);

    const KernelTables &Tables() { return path.Tables(); }
    const SharedLags &Lags() const { return lags; }
    int LinkDescriptor() const { return links.EventDescriptor(); }

    // For a transaction that has changed these rows and is still open. STATUS_NO_SPACE: it must not commit.
    // What was prepared before and not published is forgotten.
    vshost::VsStatus Prepare(vshost::RowChanges rows);
    // It has committed: the next packet obeys it.
    void Publish();
    // It has committed, and a later Publish() is to publish it.
    void Postpone();
    // Its writer is gone; it may have committed.
    void Abandon();
    // What was prepared is to be published by following the store.
    void Forget() { preparation.reset(); }

    void FollowStore(); // after a commit
    void FollowLinks(); // after an event
    void PollCarriers();
    void ShowLife() { path.ShowLife(); }
    void Announce() { announcer.Send(); }
    void Sweep();
    void CollectWrites(); // that the scribe has finished

    // Takes every filter, pin and changed setting away.
    void RemoveAll();

    // Requests of `vshost`. The answer may come later.
    using Reply = std::function<void(const vshost::LiveAnswer &)>;
    struct PortPlace {
        std::string switchName;
        std::string portId;
    };
    void PlugPort(const PortPlace &place, const std::string &interface, bool keeps, const Reply &reply);
    void AddNic(const std::string &interface, bool keeps, const Reply &reply);
    void Unplug(const std::string &interface, bool isNic, const Reply &reply);
    vshost::LiveAnswer DescribeLink(const std::string &interface); // "up", "no carrier", "down" or "away"

private:
    // What a transaction needs of the data path.
    struct Preparation {
        vshost::RowChanges rows; // none for what is stored already
        Touched touched;
        bool follows = false; // it is published by following the store as a whole
        std::map<std::string, SwitchConfig> configs;
        std::map<std::string, PortConfig> ports; // by switch, one of each
        std::vector<std::unique_ptr<Change>> changes;

        bool ReadsAddresses() const { return rows.empty() || touched.addresses; }
    };

    vshost::VsStatus PrepareTouched(vshost::Reader &reader, Preparation &prepared);
    vshost::VsStatus PrepareAll(vshost::Reader &reader, Preparation &prepared);
    vshost::VsStatus PrepareWhole(vshost::Reader &reader, const std::string &switchId, Preparation &prepared);
    vshost::VsStatus PreparePorts(vshost::Reader &reader, const std::string &switchId, Preparation &prepared);
    vshost::VsStatus PrepareConfig(const SwitchConfig &config, Preparation &prepared);
    vshost::VsStatus Judge(vshost::VsStatus status, Preparation &prepared);
    bool IsStored(const vshost::RowChanges &rows);
    void PublishPrepared(Preparation &prepared);
    void PublishPostponed();

    void Apply();
    void ReadPlugs();
    void SyncNic(const std::string &name);
    void PutNic(const std::string &name, const std::string &read, const vshost::Nic &nic);
    void PublishAll();
    bool PublishSwitch(const SwitchConfig &config);
    void RemoveSwitch(const std::string &switchId);
    void DetachUnwanted();
    void AttachAll();
    void SetUp(const SwitchConfig &config);
    void PutBack(const std::string &interface, const vshost::Plug &plug);
    void ForgetLostLinks();
    bool VerifyFilter(uint32_t ifindex); // false: it was gone
    bool VerifyFilters();
    bool PrepareInterface(const Link &link); // false: not yet
    void LogLinks();
    void LogFailovers(bool isFirst);
    vshost::LiveAnswer CheckInterface(const std::string &interface, bool keeps, vshost::Plug &plug);
    vshost::LiveAnswer CheckPort(const std::string &switchName, const std::string &portId,
                                 const std::string &interface, vshost::Plug &plug);
    void Write(const std::string &interface, const vshost::Work &work, const Reply &reply);
    void ChangePlug(const std::string &interface, const vshost::Plug &from, const vshost::Plug &to);
    void Complain(const std::string &subject, const std::string &text);

    vshost::Engine &engine;
    Scribe &scribe;
    DataPath path;
    Announcer announcer{path};
    Links links;
    SharedLags lags;
    Plugs plugs;
    std::vector<std::string> nicNames;       // of the plugs, for the frequent look at their carriers
    std::map<std::string, vshost::Nic> nics; // of the plugs, as this process last saw or wrote them
    Wanted wanted;
    std::map<std::string, SwitchConfig> published;
    std::unique_ptr<Preparation> preparation; // of the transaction that is under way
    Touched postponed;
    std::string refusal;           // why the last transaction was refused; empty when it was not
    std::set<std::string> pending; // interfaces of which a record is being written
    bool mustFollow = false;
    std::set<uint32_t> attached; // interfaces with our filter
    Plugs released;              // their settings are to be put back
    std::set<uint32_t> withCarrier;
    uint32_t lastVerified = 0;
    std::map<std::string, std::string> linkStates;   // by interface, as logged
    std::map<uint32_t, LiveCounters> uplinkCounters; // by port number, as logged
    std::map<std::string, std::string> complaints;   // what was logged last, by subject
};

}

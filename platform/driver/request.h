// A driver command that is being run: its input, what the names in it refer to, and its answer.
#pragma once

#include <string>
#include <string_view>

#include "platform/host/live.h"
#include "platform/host/port_policies.h"
#include "platform/host/runtime.h"

namespace vshost {

// The fields of the common input that a command reads. Their names are checked and looked up first.
enum InputField : unsigned {
    PORTSET = 1,     // of a switch that runs
    SWITCH = 2,      // by its id; its portset must run
    PORT = 4,        // dvPortId, a port of SWITCH
    PORT_NUMBER = 8, // of a port whose portset runs
    UPLINK = 16,     // on PORTSET, or, without it, on the host
    MIRROR_SESSION = 32,
};

struct DriverRequest {
    // `input` is filled from `raw` when `raw` has the size of the common input.
    DriverRequest(Reader &reader, Live &live, std::string_view raw, Transaction *transaction = nullptr);

    Reader &reader;
    Live &live;
    const std::string_view raw;     // the whole input
    Transaction *const transaction; // of a command that changes something
    VSwitchInput input = {};

    std::string portset;
    Portset running;
    std::string switchId; // empty when the portset has no switch in the store
    std::string portId;
    uint32_t portNumber = 0;
    std::string uplink;
    Nic nic;

    std::string answer;
    size_t headerSize = 0; // of a list, and the size of its entries: only whole entries are answered
    size_t entrySize = 0;

    // The port that the request names.
    RunningPort Port() const { return {portset, switchId, portId, portNumber}; }

    // The switch of the portset that the request names.
    RunningSwitch Switch() const { return {portset, switchId}; }

    // Checks and looks up the fields that the command reads; 0 or an errno value.
    int Resolve(unsigned fields);

    template<class Record> int Answer(const Record &record)
    {
        answer = BytesOf(record);
        return 0;
    }

    // Starts a list whose header holds the count as a u32 at `countAt`.
    template<class Header> void StartList(const Header &header, size_t entry, size_t countAt = 0)
    {
        Answer(header);
        headerSize = sizeof(header);
        entrySize = entry;
        countOffset = countAt;
    }

    // Adds a list entry: `bytes`, cut or padded with zeros to the size of an entry.
    void Add(std::string_view bytes);

    template<class Record> void AddRecord(const Record &record) { Add(BytesOf(record)); }

    // How many bytes of the answer fit into `room` bytes.
    size_t Fitting(size_t room) const;

private:
    int ResolvePortset(unsigned fields);
    int ResolveSwitch(unsigned fields);
    int ResolvePort(unsigned fields);
    int ResolvePortNumber(unsigned fields);
    int ResolveUplink(unsigned fields); // of the portset, when `fields` names it
    int CheckMirrorSession(unsigned fields);
    int RequireRunning(int otherwise);

    size_t countOffset = 0;
};

using Handler = int (*)(DriverRequest &); // 0 or an errno value

// A row of the table of commands. If inLength is 0, the handler checks the length.
struct DriverCommand {
    uint32_t number;
    uint32_t inLength;
    unsigned fields;
    Handler handler;

    bool Changes() const { return number >= VSWITCH_SET_OPTIONS; }
};

// Null when there is no such command.
const DriverCommand *FindCommand(uint32_t number);

// Handlers, by family.
int GetSwitches(DriverRequest &request);
int GetInfo(DriverRequest &request);
int GetUplinks(DriverRequest &request);
int GetUplinkLink(DriverRequest &request);
int GetUplinkLacp(DriverRequest &request);
int GetLags(DriverRequest &request);
int GetUplinkHint(DriverRequest &request);
int GetUplinkPort(DriverRequest &request);
int SetUplinkAdmin(DriverRequest &request);
int RefreshNuma(DriverRequest &request);

int GetPortMacs(DriverRequest &request);
int GetPortStatistics(DriverRequest &request);
int GetTeamMacs(DriverRequest &request);
int GetPortLearningStats(DriverRequest &request);
int GetLearningProps(DriverRequest &request);
int GetLearningInfo(DriverRequest &request);
int SetPortMac(DriverRequest &request);
int ClearPortMac(DriverRequest &request);
int SetLearningProps(DriverRequest &request);

int GetMcastMode(DriverRequest &request);
int GetMcastGroups(DriverRequest &request);
int GetMcastStats(DriverRequest &request);
int GetMirrorSessions(DriverRequest &request);
int GetMirrorStats(DriverRequest &request);
int GetPromiscuousPorts(DriverRequest &request);

int GetRarpStats(DriverRequest &request);
int GetServiceTeamingStats(DriverRequest &request);
int GetPortLsPolicy(DriverRequest &request);
int GetLsPolicies(DriverRequest &request);
int GetOptions(DriverRequest &request);
int SetOptions(DriverRequest &request);

// Reads of the store that several families need.
// The value of a property, empty when it is absent; 0 or an errno value.
int ReadProperty(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value);
int ListUplinkPortsOf(DriverRequest &request, std::vector<RunningPort> &ports);
int ListPortIds(Reader &reader, std::string_view switchId, std::vector<std::string> &portIds);
int IsSnooping(Reader &reader, std::string_view switchId, bool &snooping);
int IsMirroring(Reader &reader, std::string_view switchId, bool &mirroring);

}

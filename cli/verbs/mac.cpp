// vsctl mac: MAC tables and MAC learning of the running switch.
#include <fmt/format.h>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

uint8_t Selector(const Arguments &arguments)
{
    return static_cast<uint8_t>(arguments.Number("--selector", 0));
}

Json Entries(const Target &port, uint8_t selector)
{
    DriverBuffer<> table;
    CheckDriver(VSZOR_GetPortMACTable(port.Alias(), port.Port(), selector, table.Out()),
                "reading the MAC table of", port);
    return DecodeList(Record::MAC_ENTRY, table.Get(), sizeof(ZorMacTableEntry));
}

Result List(const Verb &, const Arguments &arguments)
{
    const Target port = arguments.Target();
    SwitchId(port.alias);
    return Rows(Entries(port, Selector(arguments)));
}

Result Team(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    DriverBuffer<> table;
    CheckDriver(VSZOR_GetTeamMACTable(target.Alias(), Selector(arguments), table.Out()),
                "reading the team's MAC table of", target);
    return Rows(DecodeList(Record::MAC_ENTRY, table.Get(), sizeof(ZorMacTableEntry)));
}

ZorMacTableEntry GivenEntry(const Arguments &arguments)
{
    Bytes bytes;
    if (arguments.Has("--address")) {
        RequirePublishedLayout("--address");
        bytes = MacEntry(arguments.Text("--address"), static_cast<uint16_t>(arguments.Number("--vlan", 0)));
    } else {
        bytes = GivenBytes(arguments, sizeof(ZorMacTableEntry), "--address, --hex or --file");
    }
    ZorMacTableEntry entry;
    memcpy(&entry, bytes.data(), sizeof entry);
    return entry;
}

// Whether changing the entry has an effect; true where the layout of entries is not published.
bool WouldChange(const Target &port, const Json &entry, bool adds)
{
    if (!IsEmbedded()) return true;
    for (const Json &row : Entries(port, 0)) {
        if (row["address"] != entry["address"] || row["vlan"] != entry["vlan"]) continue;
        return !adds || row["type"] != entry["type"] || row["age"] != entry["age"];
    }
    return adds;
}

template<auto CHANGE> Result ChangeEntry(const Verb &verb, const Arguments &arguments)
{
    const Target port = arguments.Target();
    const bool adds = verb.name == "add";
    const char *const action = adds ? "adding a MAC address to" : "removing a MAC address from";
    SwitchId(port.alias);
    const ZorMacTableEntry entry = GivenEntry(arguments);
    RequireRunning(action, port);
    if (!PortExists(port)) Check(STATUS_NOT_FOUND, "finding", port);
    if (adds) RequireStation(entry);
    const Json fields = Decode(Record::MAC_ENTRY, &entry, sizeof entry);
    const bool changes = !arguments.IsDryRun() || WouldChange(port, fields, adds);
    const VsStatus status = !arguments.IsDryRun() ? CHANGE(port.Alias(), port.Port(), &entry)
                            : adds || changes     ? STATUS_OK
                                                  : STATUS_NOT_FOUND;
    CheckDriver(status, action, port,
                fmt::format("'vsctl mac list {} {}' lists its addresses", port.alias, port.port));
    return Changed(arguments, RowOf(port, fields), changes);
}

Result Stats(const Verb &, const Arguments &arguments)
{
    const Target port = arguments.Target();
    SwitchId(port.alias);
    uint8_t stats[PORT_MAC_LEARNING_STATS_SIZE];
    CheckDriver(VSZOR_GetPortMACLearningStats(port.Port(), port.Alias(), stats),
                "reading the MAC learning statistics of", port);
    return Rows(RowOf(port, Decode(Record::PORT_LEARNING_STATS, stats, sizeof stats)));
}

Result Info(const Verb &, const Arguments &arguments)
{
    uint8_t info[SWITCH_MAC_LEARNING_INFO_SIZE] = {};
    const Target target = arguments.Target();
    CheckDriver(VSZOR_GetSwitchMACLearningInfo(PortsetOf(target.alias).c_str(), info),
                "reading the MAC learning state of", target);
    return Rows(RowOf(target, Decode(Record::LEARNING_INFO, info, sizeof info)));
}

bool HasFields(const Arguments &arguments)
{
    return arguments.Has("--enabled") || arguments.Has("--aging") || arguments.Has("--limit");
}

ZorMacLearningProps GivenProps(const Arguments &arguments, const ZorMacLearningProps &now)
{
    Bytes bytes;
    if (HasFields(arguments)) {
        RequirePublishedLayout("--enabled, --aging or --limit");
        const Json fields = Decode(Record::LEARNING_PROPS, &now, sizeof now);
        const std::string enabled = arguments.Text("--enabled", fields["enabled"] ? "on" : "off");
        bytes = LearningProps(enabled == "on", arguments.Number("--aging", fields["aging"]),
                              arguments.Number("--limit", fields["limit"]));
    } else {
        bytes = GivenBytes(arguments, sizeof now);
    }
    ZorMacLearningProps props;
    memcpy(&props, bytes.data(), sizeof props);
    return props;
}

Result Props(const Verb &, const Arguments &arguments)
{
    ZorMacLearningProps props{};
    CheckDriver(VSZOR_GetGlobalMACLearningProps(&props), "reading the MAC learning properties of", {});
    const ZorMacLearningProps before = props;
    if (HasFields(arguments) || arguments.Has("--hex") || arguments.Has("--file")) {
        props = GivenProps(arguments, props);
        if (!arguments.IsDryRun())
            CheckDriver(VSZOR_SetGlobalMACLearningProps(&props), "setting the MAC learning properties of",
                        {});
    }
    return Changed(arguments, Decode(Record::LEARNING_PROPS, &props, sizeof props),
                   memcmp(&props, &before, sizeof props) != 0);
}

}

std::vector<Verb> MacVerbs()
{
    const Argument selector =
        NumberOption("--selector", "Entries to list, by a number that the driver defines", UINT8_MAX);
    const std::vector<std::string> bytes = {"--hex", "--file"};
    Argument vlan = NumberOption("--vlan", "VLAN of the address (0: untagged)", 4094);
    vlan.needs = {"--address"};
    const std::vector<Argument> entry = {
        SWITCH, ONE_PORT, Excluding({"--address", Shape::OPTION, "MAC address"}, bytes),
        vlan,   HEX,      FROM_FILE};
    return {
        Reads("mac list", List, {SWITCH, ONE_PORT, selector},
              {"List the MAC table of a port", "lab port0", "VSZOR_GetPortMACTable", "", Record::MAC_ENTRY}),
        ChangesNow("mac add", ChangeEntry<VSZOR_SetPortMACTable>, entry,
                   {"Add a MAC address to a port", "lab port0 --address 02:00:00:00:00:01 --vlan 100",
                    "VSZOR_SetPortMACTable", "switch, port", Record::MAC_ENTRY}),
        ChangesNow("mac remove", ChangeEntry<VSZOR_ClearPortMACTable>, entry,
                   {"Remove a MAC address from a port", "lab port0 --address 02:00:00:00:00:01 --vlan 100",
                    "VSZOR_ClearPortMACTable", "switch, port", Record::MAC_ENTRY}),
        Reads("mac team", Team, {SWITCH, selector},
              {"List the MAC addresses behind the uplinks of a switch", "lab", "VSZOR_GetTeamMACTable", "",
               Record::MAC_ENTRY}),
        Reads("mac stats", Stats, {SWITCH, ONE_PORT},
              {"Show the MAC learning statistics of a port", "lab port0", "VSZOR_GetPortMACLearningStats",
               "switch, port", Record::PORT_LEARNING_STATS}),
        Reads("mac info", Info, {SWITCH},
              {"Show the MAC learning state of a switch", "lab", "VSZOR_GetSwitchMACLearningInfo", "switch",
               Record::LEARNING_INFO}),
        ChangesNow(
            "mac props", Props,
            {Excluding(ChoiceOption("--enabled", "Whether ports learn: on or off", "on|off"), bytes),
             Excluding(NumberOption("--aging", "Seconds until an address is forgotten", UINT32_MAX), bytes),
             Excluding(NumberOption("--limit", "Learned addresses of all ports together", UINT32_MAX), bytes),
             HEX, FROM_FILE},
            {"Show or set the MAC learning properties of the host", "\n--aging 300",
             "VSZOR_GetGlobalMACLearningProps VSZOR_SetGlobalMACLearningProps", "", Record::LEARNING_PROPS}),
    };
}

}

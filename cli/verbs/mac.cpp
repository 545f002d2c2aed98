// vsctl mac: MAC tables and MAC learning of the running switch.
#include <fmt/format.h>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Result List(const Verb &, const Arguments &arguments)
{
    SwitchId(arguments.Text("SWITCH"));
    return Rows(MacTable(arguments.Target(), static_cast<uint8_t>(arguments.Number("--selector", 0))));
}

Bytes GivenEntry(const Arguments &arguments)
{
    if (!arguments.Has("--address"))
        return GivenBytes(arguments, sizeof(ZorMacTableEntry), "--address, --hex or --file");
    RequirePublishedLayout("--address");
    return Encode(Record::MAC_ENTRY,
                  {{"address", arguments.Text("--address")}, {"vlan", arguments.Number("--vlan", 0)}});
}

// Whether changing the entry has an effect; true where the layout of entries is not published.
bool WouldChange(const Target &port, const Json &entry, bool adds)
{
    if (!IsEmbedded()) return true;
    for (const Json &row : MacTable(port, 0)) {
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
    ZorMacTableEntry entry;
    memcpy(&entry, GivenEntry(arguments).data(), sizeof entry);
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
    return Rows(RowOf(port, ReadRecord(Record::PORT_LEARNING_STATS, port, [&](void *stats) {
                          return VSZOR_GetPortMACLearningStats(port.Port(), port.Alias(), stats);
                      })));
}

constexpr Field PROPS[] = {{"enabled", Form::BOOLEAN, "Whether ports learn: on or off"},
                           {"aging", Form::NUMBER, "Seconds until an address is forgotten", 0, UINT32_MAX},
                           {"limit", Form::NUMBER, "Learned addresses of all ports together", 0, UINT32_MAX}};

Bytes GivenProps(const Arguments &arguments, const Bytes &now)
{
    const Json given = GivenFields(PROPS, arguments);
    if (given.is_null()) return GivenBytes(arguments, now.size());
    RequirePublishedLayout("--enabled, --aging or --limit");
    Json fields = Decode(Record::LEARNING_PROPS, now.data(), now.size());
    fields.update(given);
    return Encode(Record::LEARNING_PROPS, fields);
}

Result Props(const Verb &, const Arguments &arguments)
{
    ZorMacLearningProps props;
    const Bytes before = ReadBytes(Record::LEARNING_PROPS, {}, [&](void *bytes) {
        return VSZOR_GetGlobalMACLearningProps(static_cast<ZorMacLearningProps *>(bytes));
    });
    const bool isGiven = GivesBytes(arguments) || !GivenFields(PROPS, arguments).is_null();
    const Bytes after = isGiven ? GivenProps(arguments, before) : before;
    memcpy(&props, after.data(), sizeof props);
    if (isGiven && !arguments.IsDryRun())
        CheckDriver(VSZOR_SetGlobalMACLearningProps(&props), "setting the MAC learning properties of", {});
    return Changed(arguments, Decode(Record::LEARNING_PROPS, after.data(), after.size()), after != before);
}

}

std::vector<Verb> MacVerbs()
{
    const Argument selector =
        NumberOption("--selector", "Entries to list, by a number that the driver defines", UINT8_MAX);
    const std::vector<Argument> entry =
        OrBytes({SWITCH,
                 ONE_PORT,
                 {"--address", Shape::OPTION, "MAC address"},
                 Needing(NumberOption("--vlan", "VLAN of the address (0: untagged)", 4094), "--address")});
    return {
        Reads("mac list", List, {SWITCH, ONE_PORT, selector},
              {"List the MAC table of a port", "lab port0", "VSZOR_GetPortMACTable", "", Record::MAC_ENTRY}),
        ChangesNow("mac add", ChangeEntry<VSZOR_SetPortMACTable>, entry,
                   {"Add a MAC address to a port", "lab port0 --address 02:00:00:00:00:01 --vlan 100",
                    "VSZOR_SetPortMACTable", "switch, port", Record::MAC_ENTRY}),
        ChangesNow("mac remove", ChangeEntry<VSZOR_ClearPortMACTable>, entry,
                   {"Remove a MAC address from a port", "lab port0 --address 02:00:00:00:00:01 --vlan 100",
                    "VSZOR_ClearPortMACTable", "switch, port", Record::MAC_ENTRY}),
        Reads("mac team", List, {SWITCH, selector},
              {"List the MAC addresses behind the uplinks of a switch", "lab", "VSZOR_GetTeamMACTable", "",
               Record::MAC_ENTRY}),
        Reads("mac stats", Stats, {SWITCH, ONE_PORT},
              {"Show the MAC learning statistics of a port", "lab port0", "VSZOR_GetPortMACLearningStats",
               "switch, port", Record::PORT_LEARNING_STATS}),
        Reads("mac info", ShowRecord<VSZOR_GetSwitchMACLearningInfo, Record::LEARNING_INFO>, {SWITCH},
              {"Show the MAC learning state of a switch", "lab", "VSZOR_GetSwitchMACLearningInfo", "switch",
               Record::LEARNING_INFO}),
        ChangesNow("mac props", Props, OrBytes(FieldOptions(PROPS)),
                   {"Show or set the MAC learning properties of the host", "\n--aging 300",
                    "VSZOR_GetGlobalMACLearningProps VSZOR_SetGlobalMACLearningProps", "",
                    Record::LEARNING_PROPS}),
    };
}

}

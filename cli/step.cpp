// Steps of a change, and the objects that they are about.
#include "step.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/random.h>

#include "decode.h"

namespace vsctl {

namespace {

// ---- Attributes of switches and ports that only their creation sets ----

template<class Number> Json NumberProperty(const Property &property)
{
    Bytes bytes;
    Number number = 0;
    if (property.Get(bytes) != STATUS_OK || bytes.size() != sizeof number) return nullptr;
    memcpy(&number, bytes.data(), sizeof number);
    return number;
}

Json TextProperty(const Property &property)
{
    Bytes bytes;
    if (property.Get(bytes) != STATUS_OK) return nullptr;
    return Name(reinterpret_cast<const char *>(bytes.data()), bytes.size());
}

void SetIfPresent(Json &entry, const char *key, const Json &value)
{
    if (!value.is_null()) entry[key] = value;
}

bool IsDerived(const Policy &policy) { return policy.read == FindPolicy("sink", true)->read; }

void AddPolicies(Json &entry, const Target &target)
{
    for (const Policy *policy : PoliciesOf(!target.port.empty())) {
        if (!IsDerived(*policy)) SetIfPresent(entry, policy->name, ReadStored(*policy, target));
    }
}

void RestorePolicies(const Json &entry, const Target &target)
{
    for (const Policy *policy : PoliciesOf(!target.port.empty())) {
        const Json wanted = entry.value(policy->name, Json());
        if (!IsDerived(*policy) && ReadStored(*policy, target) != wanted)
            WritePolicy(*policy, target, wanted);
    }
}

// ---- Switches ----

Json ReadSwitchItem(const Step &step) { return ReadSwitch(step.target.alias, {}); }

// The library answers such names like any other failure of the shell.
void RequirePortsetName(const std::string &name)
{
    if (!name.empty() && name != "." && name != ".." && name[0] != '-' && name.find('/') == std::string::npos)
        return;
    throw Error(Exit::BAD_VALUE, fmt::format("'{}' cannot be the name of a portset", name),
                "take one without '/' that does not begin with '-', or give one with --portset");
}

void CreateSwitch(const std::string &alias, const Json &value)
{
    const std::string id = value.value("id", "");
    const std::string portset = value.value("portset", alias);
    RequirePortsetName(portset);
    if (SwitchExists(alias)) Check(STATUS_EXISTS, "creating", {alias, ""});
    const VsStatus status = VSDVS_CreateVSwitch(
        alias.c_str(), id.empty() ? nullptr : id.c_str(), portset.c_str(), value.value("version", 1u),
        value.value("opaque", false), value.value("max-ports", 0u), value.value("uplink-count", 0u),
        value.value("port-count", 0u));
    LibraryInit(); // the cache need not follow what this process creates
    CheckDriver(status, "creating", {alias, ""});
}

void DestroySwitch(const std::string &alias)
{
    const VsStatus status = VSDVS_DestroyVSwitch(alias.c_str());
    LibraryInit();
    Check(status, "destroying", {alias, ""});
}

void PerformSwitch(const Step &step)
{
    if (step.value.is_null())
        DestroySwitch(step.target.alias);
    else
        CreateSwitch(step.target.alias, step.value);
}

bool SwitchIsDone(const Step &step) { return SwitchExists(step.target.alias) != step.value.is_null(); }

// A creation that was cut short has left a switch without a name: it is given one, and goes by it.
void DestroyHalfMade(const Step &step)
{
    const std::string id = step.value.value("id", "");
    const std::string &alias = step.target.alias;
    const std::string portset = step.value.value("portset", alias);
    const auto text = [](const std::string &name) {
        return Bytes(name.c_str(), name.c_str() + name.size() + 1);
    };
    const Target byId{id, ""};
    if (Property{Level::GLOBAL, byId, "com.talpex.common.alias", true}.Set(text(alias)) == STATUS_OK) {
        Check(Property{Level::HOST, byId, "com.talpex.common.host.portset", true}.Set(text(portset)),
              "removing the half-made", step.target);
        LibraryInit();
        DestroySwitch(alias);
    }
    if (DeviceError(ZOR_DEVICE)) return; // nothing runs where there is no driver
    const auto running = Portsets();
    if (std::find(running.begin(), running.end(), portset) == running.end()) return;
    throw Error(Exit::FAILURE,
                fmt::format("portset {} runs without a switch, which the library cannot remove", portset),
                fmt::format("remove it with /bin/tybel -e set /net/portsets/{}/destroy destroy", portset));
}

void AddUplinks(const std::string &alias, const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        Check(VSDVS_AddSwitchUplinkPort(alias.c_str(), name.c_str()), "adding uplink " + name + " to",
              {alias, ""});
    }
}

void RestorePorts(const std::string &alias, const Json &before);

void RestoreSwitch(const Step &step)
{
    const std::string &alias = step.target.alias;
    const bool exists = SwitchExists(alias);
    if (step.before.is_null()) {
        if (exists)
            DestroySwitch(alias);
        else if (!step.value.is_null())
            DestroyHalfMade(step);
        return;
    }
    if (!exists) CreateSwitch(alias, step.before);
    if (exists) return;
    AddUplinks(alias, step.before.value("uplinks", std::vector<std::string>()));
    RestorePolicies(step.before, step.target);
    RestorePorts(alias, step.before);
}

// ---- Ports ----

Json ReadPortItem(const Step &step) { return ReadPort(step.target); }

void AddPort(const Target &port, const Json &value)
{
    const VsStatus status = value.contains("external-id")
                                ? VSDVS_AddOpaqueDVPort(port.Alias(), port.Port(),
                                                        value["external-id"].get<std::string>().c_str())
                                : VSDVS_AddDVPort(port.Alias(), port.Port(), value.value("connect-id", 1u));
    Check(status, "adding", port);
}

void PerformPort(const Step &step)
{
    if (step.value.is_null())
        Check(VSDVS_RemoveDVPort(step.target.Alias(), step.target.Port()), "removing", step.target);
    else
        AddPort(step.target, step.value);
}

bool PortIsDone(const Step &step)
{
    return (SwitchExists(step.target.alias) && PortExists(step.target)) != step.value.is_null();
}

void RestorePort(const Target &target, const Json &before)
{
    const bool exists = SwitchExists(target.alias) && PortExists(target);
    if (before.is_null()) {
        if (exists) Check(VSDVS_RemoveDVPort(target.Alias(), target.Port()), "removing", target);
        return;
    }
    if (exists) return;
    AddPort(target, before);
    RestorePolicies(before, target);
}

void RestorePorts(const std::string &alias, const Json &before)
{
    if (!before.contains("ports")) return;
    for (const auto &[port, entry] : before["ports"].items())
        RestorePort({alias, port}, entry);
}

void RestorePortItem(const Step &step) { RestorePort(step.target, step.before); }

// ---- Uplinks: what a step does is {"add": NAME}, {"remove": ID}, {"set": …}, {"count": N} or {"clear":
// true} ----

Json ToJson(const Uplinks &uplinks) { return {{"names", uplinks.names}, {"ids", uplinks.ids}}; }

Uplinks FromJson(const Json &json) { return {json["names"], json["ids"]}; }

template<class Entry, class List> Bytes PackList(const std::vector<std::string> &names)
{
    Bytes bytes(sizeof(List) + names.size() * sizeof(Entry));
    const auto count = static_cast<uint32_t>(names.size());
    memcpy(bytes.data(), &count, sizeof count);
    for (size_t i = 0; i < names.size(); i++) {
        if (names[i].size() >= sizeof(Entry)) {
            throw Error(Exit::BAD_VALUE,
                        fmt::format("uplink name '{}' is longer than {} bytes", names[i], sizeof(Entry) - 1));
        }
        memcpy(bytes.data() + sizeof(List) + i * sizeof(Entry), names[i].c_str(), names[i].size());
    }
    return bytes;
}

Bytes PackNames(const Uplinks &uplinks) { return PackList<UplinkName, UplinkNameList>(uplinks.names); }
Bytes PackIds(const Uplinks &uplinks) { return PackList<UplinkPortId, UplinkPortIdList>(uplinks.ids); }

Json ReadUplinksItem(const Step &step)
{
    if (!SwitchExists(step.target.alias)) return nullptr;
    Json before = ToJson(ReadUplinks(step.target.alias));
    if (step.value.contains("remove")) {
        const std::string id = step.value["remove"];
        before["ports"][id] = ReadPort({step.target.alias, id});
    }
    return before;
}

VsStatus ChangeUplinks(const char *alias, const std::string &verb, const Json &what)
{
    if (verb == "add") return VSDVS_AddSwitchUplinkPort(alias, what.get<std::string>().c_str());
    if (verb == "remove") return VSDVS_RemoveSwitchUplinkPort(alias, what.get<std::string>().c_str());
    if (verb == "clear") return VSDVS_ClearSwitchUplinkPorts(alias);
    if (verb == "count") return SetNumSwitchUplinkPortsByUUID(SwitchId(alias).c_str(), what.get<uint32_t>());
    const Uplinks uplinks = FromJson(what);
    return VSDVS_SetSwitchUplinkPorts(alias,
                                      reinterpret_cast<const UplinkNameList *>(PackNames(uplinks).data()),
                                      reinterpret_cast<const UplinkPortIdList *>(PackIds(uplinks).data()));
}

// The library takes the removal of a port that is no uplink for done.
void RequireListed(const std::string &alias, const std::string &id)
{
    const Uplinks uplinks = ReadUplinks(alias);
    if (std::find(uplinks.ids.begin(), uplinks.ids.end(), id) != uplinks.ids.end()) return;
    throw Error(Exit::NOT_FOUND, fmt::format("switch {} has no uplink {}", alias, id),
                Suggest(id, uplinks.ids));
}

void PerformUplinks(const Step &step)
{
    const auto change = step.value.items().begin();
    if (change.key() == "remove") RequireListed(step.target.alias, change.value());
    Check(ChangeUplinks(step.target.Alias(), change.key(), change.value()), "changing the uplinks of",
          step.target);
}

bool UplinksAreDone(const Step &step)
{
    const auto change = step.value.items().begin();
    const Uplinks now = SwitchExists(step.target.alias) ? ReadUplinks(step.target.alias) : Uplinks();
    const auto listed = [&now](const Json &id) {
        return std::find(now.ids.begin(), now.ids.end(), id.get<std::string>()) != now.ids.end();
    };
    if (change.key() == "add") return listed(change.value());
    if (change.key() == "remove") return !listed(change.value());
    if (change.key() == "clear") return now.ids.empty();
    if (change.key() == "count") return now.ids.size() == change.value().get<size_t>();
    return now == FromJson(change.value());
}

// Writes both lists as they were. The generic setters keep them with the flags that they have anyway.
void WriteUplinkLists(const std::string &alias, const Uplinks &uplinks)
{
    const Target target{alias, ""};
    constexpr const char *ACTION = "restoring the uplinks of";
    if (uplinks.ids.empty()) {
        Check(VSDVS_ClearSwitchUplinkPorts(alias.c_str()), ACTION, target);
        return;
    }
    Check(Property{Level::GLOBAL, target, "com.talpex.common.uplinkPorts"}.Set(PackNames(uplinks)), ACTION,
          target);
    Check(Property{Level::HOST, target, "com.talpex.common.host.uplinkPorts"}.Set(PackIds(uplinks)), ACTION,
          target);
}

// Ports that the step has made: those that `set`, `count` and `add` name and that were not listed before.
std::vector<std::string> PortsMade(const Step &step, const Uplinks &before)
{
    std::vector<std::string> made;
    if (step.value.contains("add")) made.push_back(step.value["add"]);
    if (step.value.contains("set")) made = FromJson(step.value["set"]).ids;
    for (uint32_t i = 0; i < step.value.value("count", 0u); i++)
        made.push_back(fmt::format("uplink{}", i));
    std::erase_if(made, [&before](const std::string &id) {
        return std::find(before.ids.begin(), before.ids.end(), id) != before.ids.end();
    });
    return made;
}

void RestoreUplinks(const Step &step)
{
    const std::string &alias = step.target.alias;
    if (!SwitchExists(alias)) return; // they went with it
    const Uplinks before = step.before.is_null() ? Uplinks() : FromJson(step.before);
    for (const std::string &id : PortsMade(step, before)) {
        if (PortExists({alias, id}))
            Check(VSDVS_RemoveDVPort(alias.c_str(), id.c_str()), "removing", Target{alias, id});
    }
    RestorePorts(alias, step.before);
    Uplinks now;
    try {
        now = ReadUplinks(alias);
    } catch (const Error &) {
        now.ids.emplace_back(); // lists and ports don't fit together halfway: they are written anew
    }
    if (now != before) WriteUplinkLists(alias, before);
}

// ---- Properties: {"level", "key", "bytes", "by-id"} ----

Property PropertyOf(const Step &step)
{
    const auto level =
        std::find(std::begin(LEVEL_NAMES), std::end(LEVEL_NAMES), step.value["level"].get<std::string>());
    return {static_cast<Level>(level - std::begin(LEVEL_NAMES)), step.target, step.value["key"],
            step.value.value("by-id", false)};
}

void WriteProperty(const Step &step, const Json &bytes)
{
    const Property property = PropertyOf(step);
    const std::string action = (bytes.is_null() ? "clearing " : "setting ") + property.key + " of";
    const VsStatus status =
        bytes.is_null() ? property.Clear() : property.Set(FromHex(bytes.get<std::string>()));
    Check(status, action, step.target);
}

Json ReadProperty(const Step &step)
{
    Bytes bytes;
    const Property property = PropertyOf(step);
    const VsStatus status = property.Get(bytes);
    if (status == STATUS_NOT_FOUND) return nullptr;
    Check(status, "reading " + property.key + " of", step.target);
    return Hex(bytes.data(), bytes.size());
}

void PerformProperty(const Step &step) { WriteProperty(step, step.value["bytes"]); }

bool PropertyIsDone(const Step &step) { return ReadProperty(step) == step.value["bytes"]; }

void RestoreProperty(const Step &step)
{
    if (ReadProperty(step) != step.before) WriteProperty(step, step.before);
}

// ---- Mirror sessions: {"append": […]} or {"remove": ID} ----

const Policy &MirrorPolicy(const Target &target)
{
    return target.port.empty() ? *FindPolicy("uplink-mirror", false) : *FindPolicy("mirror", true);
}

Json ReadSessions(const Step &step) { return ReadStored(MirrorPolicy(step.target), step.target); }

void PerformMirror(const Step &step)
{
    const Target &target = step.target;
    if (step.value.contains("remove")) {
        const std::string id = step.value["remove"];
        Check(VSDVS_RemoveDVMirrorSession(target.Alias(), target.Port(), id.c_str()),
              "removing mirror session " + id + " from", target);
        return;
    }
    const Bytes list = SessionsFromJson(step.value["append"]);
    Check(VSDVS_AppendDVMirrorSessions(target.Alias(), target.Port(),
                                       reinterpret_cast<const MirrorSessionList *>(list.data())),
          "appending mirror sessions to", target);
}

bool MirrorIsDone(const Step &step) { return ReadSessions(step) != step.before; }

void RestoreMirror(const Step &step)
{
    if (ReadSessions(step) != step.before) WritePolicy(MirrorPolicy(step.target), step.target, step.before);
}

// ---- Whether an uplink is up: {"uplink", "up"} ----

Json ReadAdmin(const Step &step)
{
    const std::string uplink = step.value["uplink"];
    return UplinkIsUp(PortsetOf(step.target.alias), uplink, step.target);
}

void SetAdmin(const Step &step, bool up)
{
    const std::string uplink = step.value["uplink"];
    CheckDriver(VSZOR_SetUplinkAdminLinkState(PortsetOf(step.target.alias).c_str(), uplink.c_str(), up),
                fmt::format("taking uplink {} {} at", uplink, up ? "up" : "down"), step.target);
}

void PerformAdmin(const Step &step) { SetAdmin(step, step.value["up"]); }
bool AdminIsDone(const Step &step) { return ReadAdmin(step) == step.value["up"]; }

void RestoreAdmin(const Step &step)
{
    if (ReadAdmin(step) != step.before) SetAdmin(step, step.before);
}

// ---- The table ----

struct Item {
    const char *name;
    Json (*read)(const Step &);
    void (*perform)(const Step &);
    bool (*isDone)(const Step &);
    void (*restore)(const Step &);
};

constexpr Item ITEMS[] = {
    {"switch", ReadSwitchItem, PerformSwitch, SwitchIsDone, RestoreSwitch},
    {"port", ReadPortItem, PerformPort, PortIsDone, RestorePortItem},
    {"uplinks", ReadUplinksItem, PerformUplinks, UplinksAreDone, RestoreUplinks},
    {"property", ReadProperty, PerformProperty, PropertyIsDone, RestoreProperty},
    {"mirror-sessions", ReadSessions, PerformMirror, MirrorIsDone, RestoreMirror},
    {"uplink-admin", ReadAdmin, PerformAdmin, AdminIsDone, RestoreAdmin},
};

const Policy &PolicyOf(const Step &step) { return *FindPolicy(step.item, !step.target.port.empty()); }

// What every policy has in common.
constexpr Item POLICY_ITEM = {
    "", [](const Step &step) { return ReadStored(PolicyOf(step), step.target); },
    [](const Step &step) { WritePolicy(PolicyOf(step), step.target, step.value); },
    [](const Step &step) { return ReadStored(PolicyOf(step), step.target) == step.value; },
    [](const Step &step) {
        if (!SwitchExists(step.target.alias)) return;
        if (ReadStored(PolicyOf(step), step.target) != step.before)
            WritePolicy(PolicyOf(step), step.target, step.before);
    }};

const Item &ItemOf(const Step &step)
{
    for (const Item &item : ITEMS) {
        if (step.item == item.name) return item;
    }
    return POLICY_ITEM;
}

}

void ReadBefore(Step &step)
{
    if (step.isRead) return;
    step.before = ItemOf(step).read(step);
    step.isRead = true;
}

void Perform(const Step &step) { ItemOf(step).perform(step); }
bool IsDone(const Step &step) { return ItemOf(step).isDone(step); }
void Restore(const Step &step) { ItemOf(step).restore(step); }

bool IsRemoval(const Step &step)
{
    if (step.item == "uplinks") return step.value.contains("remove");
    return step.value.is_null() && (step.item == "switch" || step.item == "port");
}

Step SetPolicy(const Policy &policy, const Target &target, const Json &value)
{
    return {policy.name, target, Canonical(policy, value)};
}

Json StepRow(const Step &step)
{
    Json row;
    row["switch"] = step.target.alias;
    row["port"] = step.target.port.empty() ? Json() : Json(step.target.port);
    row["item"] = step.item;
    row["before"] = step.before;
    row["after"] = step.value;
    return row;
}

std::string StepText(const Step &step)
{
    if (step.item == "switch" || step.item == "port") return step.target.Text();
    return fmt::format("{} of {}", step.item, step.target.Text());
}

Json ToJson(const Step &step)
{
    Json json;
    json["item"] = step.item;
    json["switch"] = step.target.alias;
    json["port"] = step.target.port;
    json["value"] = step.value;
    json["before"] = step.before;
    return json;
}

Step StepFromJson(const Json &json)
{
    return {json.at("item"), {json.at("switch"), json.at("port")}, json.at("value"), json.at("before"), true};
}

Json ReadPort(const Target &port)
{
    if (!SwitchExists(port.alias) || !PortExists(port)) return nullptr;
    Json entry = Json::object();
    SetIfPresent(entry, "connect-id",
                 NumberProperty<uint32_t>({Level::PORT, port, "com.talpex.common.port.connectid"}));
    SetIfPresent(entry, "external-id",
                 TextProperty({Level::PORT, port, "com.talpex.port.extraConfig.vnic.external.id"}));
    AddPolicies(entry, port);
    return entry;
}

Json ReadSwitch(const std::string &alias, const std::vector<std::string> &ports)
{
    if (!SwitchExists(alias)) return nullptr;
    const Target target{alias, ""};
    Json entry = {{"id", SwitchId(alias)}, {"portset", PortsetOf(alias)}};
    SetIfPresent(entry, "version",
                 NumberProperty<uint32_t>({Level::GLOBAL, target, "com.talpex.common.version"}));
    entry["opaque"] = TextProperty({Level::GLOBAL, target, "com.talpex.common.opaqueDvs"}) == "true";
    SetIfPresent(entry, "max-ports", MaxPorts(entry["portset"]));
    entry["uplinks"] = ReadUplinks(alias).names;
    AddPolicies(entry, target);
    for (const std::string &port : ports)
        entry["ports"][port] = ReadPort({alias, port});
    return entry;
}

Uplinks ReadUplinks(const std::string &alias)
{
    StoreBuffer<UplinkNameList> names;
    StoreBuffer<UplinkPortIdList> ids;
    const VsStatus status = VSDVS_GetSwitchUplinkPorts(alias.c_str(), names.Out(), ids.Out());
    if (status == STATUS_NOT_FOUND) return {};
    Check(status, "reading the uplinks of", {alias, ""});
    Uplinks uplinks;
    for (const UplinkName &name : Entries<UplinkName>(names.Get(), names->count))
        uplinks.names.push_back(Name(name.text, sizeof name.text));
    for (const UplinkPortId &id : Entries<UplinkPortId>(ids.Get(), ids->count))
        uplinks.ids.push_back(Name(id.text, sizeof id.text));
    return uplinks;
}

// In the form of the ids that the library derives from aliases, but never the same for two switches.
std::string NewSwitchId()
{
    uint8_t bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        throw Error(Exit::FAILURE, "the kernel gives no random bytes for a switch id", "give one with --id");
    return fmt::format("{:02x}-{:02x}", fmt::join(bytes, bytes + 8, " "),
                       fmt::join(bytes + 8, bytes + 16, " "));
}

}

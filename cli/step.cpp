// Steps of a change, and the objects that they are about.
#include "step.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <sys/random.h>

#include "decode.h"
#include "limit.h"

namespace vsctl {

namespace {

constexpr const char *UPLINK_NAMES = "com.talpex.common.uplinkPorts";
constexpr const char *UPLINK_IDS = "com.talpex.common.host.uplinkPorts";

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

Json ReadSwitchItem(const Step &step) { return ReadSwitch(step.target.alias); }

void CreateSwitch(const std::string &alias, const Json &value)
{
    const std::string id = value.value("id", "");
    const std::string portset = value.value("portset", alias);
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
    const bool isRunning = IsRunning(alias);
    const VsStatus status = VSDVS_DestroyVSwitch(alias.c_str());
    LibraryInit();
    // The portset comes last, and of a switch that doesn't run there is none to destroy.
    if (status == STATUS_FAILURE && !isRunning && !SwitchExists(alias)) return;
    Check(status, "destroying", {alias, ""});
}

void PerformSwitch(const Step &step)
{
    if (step.value.is_null())
        DestroySwitch(step.target.alias);
    else
        CreateSwitch(step.target.alias, step.value);
}

bool IsNamed(const std::string &alias, const std::string &portset)
{
    char found[PORTSET_NAME_SIZE];
    return DVSAliasToPortsetName(alias.c_str(), found) == STATUS_OK && portset == found;
}

// A creation makes the switch, its names, its association, uplinks and ports, in this order.
bool IsWhole(const std::string &alias, const Json &value)
{
    if (!SwitchExists(alias) || !IsNamed(alias, value["portset"])) return false;
    const uint32_t uplinks = value.value("uplink-count", 0u);
    const uint32_t ports = value.value("port-count", 0u);
    return IsAssociated(value["portset"]) && ReadUplinks(alias).ids.size() >= uplinks &&
           (ports == 0 || PortExists({alias, fmt::format("port{}", ports - 1)}));
}

bool SwitchIsDone(const Step &step)
{
    if (!step.value.is_null()) return IsWhole(step.target.alias, step.value);
    if (SwitchExists(step.target.alias)) return false;
    if (!step.before.is_null()) RequireNoBarePortset(step.before["portset"]);
    return true;
}

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
    RequireNoBarePortset(portset);
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
        if (exists && IsNamed(alias, step.value.value("portset", alias)))
            DestroySwitch(alias);
        else if (!step.value.is_null())
            DestroyHalfMade(step);
        return;
    }
    if (exists) return;
    RequireNoBarePortset(step.before["portset"]);
    CreateSwitch(alias, step.before);
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

void RemovePort(const Target &port)
{
    Check(VSDVS_RemoveDVPort(port.Alias(), port.Port()), "removing", port);
}

void PerformPort(const Step &step)
{
    if (step.value.is_null())
        RemovePort(step.target);
    else
        AddPort(step.target, step.value);
}

// A port that was cut short may lack the external id.
bool PortIsDone(const Step &step)
{
    const Json now = ReadPort(step.target);
    if (step.value.is_null() || now.is_null()) return step.value.is_null() == now.is_null();
    return now.value("external-id", Json()) == step.value.value("external-id", Json());
}

// What only the creation of a port sets.
bool HaveSameIds(const Json &port, const Json &other)
{
    return port.value("connect-id", Json()) == other.value("connect-id", Json()) &&
           port.value("external-id", Json()) == other.value("external-id", Json());
}

void RestorePort(const Target &target, const Json &before)
{
    Json now = ReadPort(target);
    if (!now.is_null() && (before.is_null() || !HaveSameIds(now, before))) {
        RemovePort(target);
        now = nullptr;
    }
    if (before.is_null()) return;
    if (now.is_null()) AddPort(target, before);
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

void PerformUplinks(const Step &step)
{
    const auto change = step.value.items().begin();
    Check(ChangeUplinks(step.target.Alias(), change.key(), change.value()), "changing the uplinks of",
          step.target);
}

// The lists and ports that the step leaves.
Json UplinksAfter(const Step &step)
{
    const auto change = step.value.items().begin();
    Uplinks after = step.before.is_null() ? Uplinks() : FromJson(step.before);
    if (change.key() == "set") after = FromJson(change.value());
    if (change.key() == "count" || change.key() == "clear") after = {};
    for (uint32_t i = 0; i < step.value.value("count", 0u); i++)
        after.ids.push_back(fmt::format("uplink{}", i));
    if (change.key() == "add") after.ids.push_back(change.value());
    if (change.key() == "count") after.names = after.ids;
    if (change.key() == "add") after.names.push_back(change.value());
    const auto removed = std::find(after.ids.begin(), after.ids.end(), step.value.value("remove", ""));
    if (removed != after.ids.end()) {
        after.names.erase(after.names.begin() + (removed - after.ids.begin()));
        after.ids.erase(removed);
    }
    return ToJson(after);
}

bool UplinksAreDone(const Step &step)
{
    if (!SwitchExists(step.target.alias)) return false;
    try {
        return ToJson(ReadUplinks(step.target.alias)) == UplinksAfter(step);
    } catch (const Error &) {
        return false; // the lists don't fit together halfway
    }
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
    Check(Property{Level::GLOBAL, target, UPLINK_NAMES}.Set(PackNames(uplinks)), ACTION, target);
    Check(Property{Level::HOST, target, UPLINK_IDS}.Set(PackIds(uplinks)), ACTION, target);
}

void RestoreUplinks(const Step &step)
{
    const std::string &alias = step.target.alias;
    if (!SwitchExists(alias)) return; // they went with it
    const Uplinks before = step.before.is_null() ? Uplinks() : FromJson(step.before);
    for (const std::string &id : PortsMade(step)) {
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

Json PropertyAfter(const Step &step) { return step.value["bytes"]; }

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

Json MirrorAfter(const Step &step)
{
    Json after = step.before.is_null() ? Json::array() : step.before;
    for (const Json &session : step.value.value("append", Json::array()))
        after.push_back(session);
    std::erase_if(after.get_ref<Json::array_t &>(), [&step](const Json &session) {
        return step.value.contains("remove") && session["id"] == step.value["remove"];
    });
    return after.empty() ? Json() : Canonical(MirrorPolicy(step.target), after);
}

bool MirrorIsDone(const Step &step) { return ReadSessions(step) == MirrorAfter(step); }

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
                fmt::format("taking uplink {} {} at", uplink, up ? "up" : "down"), step.target,
                RunningUplinksAdvice(step.target.alias));
}

void PerformAdmin(const Step &step) { SetAdmin(step, step.value["up"]); }
bool AdminIsDone(const Step &step) { return ReadAdmin(step) == step.value["up"]; }
Json AdminAfter(const Step &step) { return step.value["up"]; }

void RestoreAdmin(const Step &step)
{
    try {
        if (ReadAdmin(step) != step.before) SetAdmin(step, step.before);
    } catch (const Error &error) {
        if (error.exit != Exit::NOT_FOUND) throw; // its state went with the uplink
    }
}

// ---- The table ----

Json ValueOf(const Step &step) { return step.value; }

struct Item {
    const char *name;
    Json (*read)(const Step &);
    void (*perform)(const Step &);
    bool (*isDone)(const Step &);
    void (*restore)(const Step &);
    Json (*after)(const Step &); // what a later step about the same object finds before it
};

constexpr Item ITEMS[] = {
    {"switch", ReadSwitchItem, PerformSwitch, SwitchIsDone, RestoreSwitch, ValueOf},
    {"port", ReadPortItem, PerformPort, PortIsDone, RestorePortItem, ValueOf},
    {"uplinks", ReadUplinksItem, PerformUplinks, UplinksAreDone, RestoreUplinks, UplinksAfter},
    {"property", ReadProperty, PerformProperty, PropertyIsDone, RestoreProperty, PropertyAfter},
    {"mirror-sessions", ReadSessions, PerformMirror, MirrorIsDone, RestoreMirror, MirrorAfter},
    {"uplink-admin", ReadAdmin, PerformAdmin, AdminIsDone, RestoreAdmin, AdminAfter},
};

const Policy &PolicyOf(const Step &step) { return *FindPolicy(step.item, !step.target.port.empty()); }

Json ReadPolicyItem(const Step &step) { return ReadStored(PolicyOf(step), step.target); }

Json PolicyAfter(const Step &step) { return Merged(PolicyOf(step), step.before, step.value); }

// Steps before this one may have changed what it is merged with.
void PerformPolicy(const Step &step)
{
    const Policy &policy = PolicyOf(step);
    const bool keepsFields = !policy.IsScalar() && !step.value.is_null();
    const Json stored = keepsFields ? ReadStored(policy, step.target) : Json();
    WritePolicy(policy, step.target, Merged(policy, stored, step.value));
}

bool PolicyIsDone(const Step &step)
{
    const Json stored = ReadPolicyItem(step);
    return stored == Merged(PolicyOf(step), stored, step.value);
}

void RestorePolicy(const Step &step)
{
    if (!SwitchExists(step.target.alias)) return;
    if (ReadPolicyItem(step) != step.before) WritePolicy(PolicyOf(step), step.target, step.before);
}

// What every policy has in common.
constexpr Item POLICY_ITEM = {"", ReadPolicyItem, PerformPolicy, PolicyIsDone, RestorePolicy, PolicyAfter};

const Item &ItemOf(const Step &step)
{
    for (const Item &item : ITEMS) {
        if (step.item == item.name) return item;
    }
    return POLICY_ITEM;
}

}

std::vector<std::string> PortsMade(const Step &step)
{
    std::vector<std::string> made;
    if (step.value.contains("add")) made.push_back(step.value["add"]);
    if (step.value.contains("set")) made = FromJson(step.value["set"]).ids;
    for (uint32_t i = 0; i < step.value.value("count", 0u); i++)
        made.push_back(fmt::format("uplink{}", i));
    return made;
}

void RequirePortsetName(const std::string &name)
{
    constexpr Field RULE{"", Form::TEXT, "the name of a portset", 1, PORTSET_NAME_SIZE - 1};
    RequireName(RULE, name);
    if (name != "." && name != ".." && name[0] != '-' && name.find('/') == std::string::npos) return;
    throw Error(Exit::BAD_VALUE, fmt::format("'{}' cannot be the name of a portset", name),
                "take one without '/' that does not begin with '-', or give one with --portset");
}

void ReadBefore(Step &step)
{
    if (step.isRead) return;
    step.before = ItemOf(step).read(step);
    step.isRead = true;
}

void Perform(const Step &step) { ItemOf(step).perform(step); }
void Restore(const Step &step) { ItemOf(step).restore(step); }
Json After(const Step &step) { return ItemOf(step).after(step); }

// Steps in the journal all hold what was there before the first of them. Where what a step leaves depends on
// that, it is carried on from each step to the next.
void Repeat(std::span<Step> steps)
{
    std::map<std::pair<std::string, std::string>, Json> objects;
    for (Step &step : steps) {
        ThrowIfStopped();
        const Item &item = ItemOf(step);
        const auto known = objects.try_emplace({step.item, step.target.Text()}, step.before).first;
        if (step.before.is_object() && step.before.contains("ports"))
            known->second["ports"] = step.before["ports"]; // of uplinks
        step.before = known->second;
        known->second = item.after(step);
        if (item.isDone(step)) continue;
        if (&item != &POLICY_ITEM) item.restore(step); // it may have got half-way
        item.perform(step);
    }
}

bool IsRemoval(const Step &step)
{
    if (step.item == "uplinks") return step.value.contains("remove");
    return step.value.is_null() && (step.item == "switch" || step.item == "port");
}

Step SetPolicy(const Policy &policy, const Target &target, const Json &value)
{
    return {policy.name, target, CanonicalPart(policy, value)};
}

Json StepRow(const Step &step)
{
    Json row;
    row["switch"] = step.target.alias;
    row["port"] = step.target.port.empty() ? Json() : Json(step.target.port);
    row["item"] = step.item;
    row["before"] = step.before;
    row["after"] = &ItemOf(step) == &POLICY_ITEM ? After(step) : step.value;
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

Json ReadSwitch(const std::string &alias)
{
    if (!SwitchExists(alias)) return nullptr;
    const Target target{alias, ""};
    Json entry = {{"id", SwitchId(alias)}, {"portset", PortsetOf(alias)}};
    SetIfPresent(entry, "version",
                 NumberProperty<uint32_t>({Level::GLOBAL, target, "com.talpex.common.version"}));
    entry["opaque"] = TextProperty({Level::GLOBAL, target, "com.talpex.common.opaqueDvs"}) == "true";
    SetIfPresent(entry, "max-ports", MaxPorts(entry["portset"]));
    entry["uplinks"] = ReadUplinks(alias).ids;
    AddPolicies(entry, target);
    return entry;
}

namespace {

template<class Entry> std::vector<std::string> StoredList(const Property &property)
{
    Bytes bytes;
    std::vector<std::string> names;
    if (property.Get(bytes) != STATUS_OK) return names;
    for (size_t start = sizeof(uint32_t); start + sizeof(Entry) <= bytes.size(); start += sizeof(Entry))
        names.push_back(Name(reinterpret_cast<const char *>(bytes.data() + start), sizeof(Entry)));
    return names;
}

}

Uplinks ReadUplinks(const std::string &alias)
{
    StoreBuffer<UplinkNameList> names;
    StoreBuffer<UplinkPortIdList> ids;
    const VsStatus status = VSDVS_GetSwitchUplinkPorts(alias.c_str(), names.Out(), ids.Out());
    if (status == STATUS_NOT_FOUND) {
        // There are no lists, or a port is gone that they name.
        return {StoredList<UplinkName>({Level::GLOBAL, {alias, ""}, UPLINK_NAMES}),
                StoredList<UplinkPortId>({Level::HOST, {alias, ""}, UPLINK_IDS})};
    }
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

// Steps of a change, by the kind of object.
#include "cli/change/step.h"

#include <algorithm>
#include <fmt/format.h>

#include "cli/base/decode.h"

namespace vsctl {

namespace {

// ---- Switches ----

void PerformSwitch(const Step &step)
{
    if (step.value.is_null())
        DestroySwitch(step.target.alias);
    else
        CreateSwitch(step.target.alias, step.value);
}

// At once, because undoing earlier steps may need the NICs.
void RestoreNics(const Step &step)
{
    Places places;
    places.Add(step.target, step.saved);
    places.RestoreNics();
}

Json SaveSwitch(const Step &step, Saver &saver)
{
    const std::string &alias = step.target.alias;
    if (!step.before.is_null()) return saver.Switch(alias);
    return step.value.is_null() ? Json() : SaveFreeNames(alias, step.value);
}

bool RestoreSwitchItem(const Step &step)
{
    if (!step.before.is_null()) {
        const bool madeAgain = RestoreSwitch(step.target.alias, step.saved);
        RestoreNics(step);
        return madeAgain;
    }
    if (!step.saved.is_null()) RemoveNewSwitch(step.target.alias, step.saved);
    return false;
}

// ---- Ports ----

void PerformPort(const Step &step)
{
    if (step.value.is_null())
        RemovePort(step.target);
    else
        AddPort(step.target, step.value);
}

Json SavePort(const Step &step, Saver &saver) { return saver.Port(step.target); }

// A switch takes its ports with it.
bool RestorePortItem(const Step &step)
{
    return SwitchExists(step.target.alias) && RestorePort(step.target, step.saved);
}

// ---- Uplinks: {"add": NAME}, {"remove": ID}, {"set": …}, {"count": N} or {"clear": true} ----

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
    // The library does not report lists that it failed to clear.
    if (change.key() == "clear" && !ReadUplinks(step.target.alias).ids.empty())
        Check(STATUS_IO_ERROR, "clearing the uplinks of", step.target);
}

Json SaveUplinks(const Step &step, Saver &saver)
{
    const Target &target = step.target;
    if (!SwitchExists(target.alias)) return nullptr;
    Json saved = {{"lists", SaveProperties({{PropertyLevel::GLOBAL, target, UPLINK_NAMES_KEY},
                                            {PropertyLevel::HOST, target, UPLINK_IDS_KEY}})}};
    std::vector<std::string> changed = PortsMade(step);
    const bool removes = step.value.contains("remove"), adds = step.value.contains("add");
    if (removes) changed.push_back(step.value["remove"]);
    for (const std::string &id : changed)
        saved["ports"].push_back({{"id", id}, {"port", saver.Port({target.alias, id})}});
    // An uplink that leaves the list loses its NIC.
    if (!adds && !removes) saved["places"] = saver.UplinkPlaces(target.alias);
    return saved;
}

bool RestoreUplinks(const Step &step)
{
    const std::string &alias = step.target.alias;
    if (!SwitchExists(alias) || step.saved.is_null()) return false; // the uplinks went with the switch
    bool madeAgain = false;
    for (const Json &entry : step.saved.value("ports", Json::array()))
        madeAgain = RestorePort({alias, entry["id"]}, entry["port"]) || madeAgain;
    RestoreProperties(step.target, step.saved["lists"]);
    RestoreNics(step);
    return madeAgain || (!IsEmbedded() && step.saved.contains("places"));
}

// The lists after the step.
Json UplinksAfter(const Step &step)
{
    const auto change = step.value.items().begin();
    if (change.key() == "set") return change.value();
    if (change.key() == "clear") return ToJson(Uplinks());
    if (change.key() == "count") return ToJson({PortsMade(step), PortsMade(step)});
    auto [names, ids] = step.before.is_null() ? Uplinks() : FromJson(step.before);
    const std::string id = change.value();
    if (change.key() == "add") {
        ids.push_back(id);
        names.push_back(id);
    } else if (const auto place = std::find(ids.begin(), ids.end(), id); place != ids.end()) {
        if (names.size() == ids.size()) names.erase(names.begin() + (place - ids.begin()));
        ids.erase(place);
    }
    return ToJson({names, ids});
}

// ---- Properties: {"level", "key", "bytes", "by-id"} ----

NamedProperty PropertyOf(const Step &step)
{
    return {LevelOf(step.value["level"].get<std::string>()), step.target, step.value["key"],
            step.value.value("by-id", false)};
}

void WriteProperty(const Step &step, const Json &bytes)
{
    const NamedProperty property = PropertyOf(step);
    const std::string action = (bytes.is_null() ? "clearing " : "setting ") + property.key + " of";
    const VsStatus status =
        bytes.is_null() ? property.Clear() : property.Set(FromHex(bytes.get<std::string>()));
    Check(status, action, step.target);
}

Json ReadProperty(const Step &step)
{
    Bytes bytes;
    const NamedProperty property = PropertyOf(step);
    const VsStatus status = property.Get(bytes);
    if (status == STATUS_NOT_FOUND) return nullptr;
    Check(status, "reading " + property.key + " of", step.target);
    return Hex(bytes.data(), bytes.size());
}

void PerformProperty(const Step &step) { WriteProperty(step, step.value["bytes"]); }

Json SaveNothing(const Step &, Saver &) { return nullptr; }

bool RestoreProperty(const Step &step)
{
    const bool byId = step.value.contains("by-id");
    if (byId ? !SwitchIdExists(step.target.alias) : !IsThere(step.target)) return false;
    if (ReadProperty(step) != step.before) WriteProperty(step, step.before);
    return false;
}

// ---- Policies: a value, or {"add": [entries]} or {"remove": [names]} of a list ----

// The properties that the policy stores.
Json SavePolicyKeys(const Policy &policy, const Target &target)
{
    if (std::string_view(policy.name) == "mtu") {
        return SaveProperties({{PropertyLevel::GLOBAL, target, "com.talpex.vswitch.mtu"},
                               {PropertyLevel::GLOBAL, target, "com.talpex.etherswitch.mtu"}});
    }
    std::vector<NamedProperty> properties = {{policy.level, target, policy.key}};
    if (std::string_view(policy.name) == "vlan")
        properties.push_back({PropertyLevel::PORT, target, "com.talpex.vswitch.port.priority"});
    return SaveProperties(properties);
}

Json SavePolicy(const Step &step, Saver &saver)
{
    if (!IsThere(step.target)) return nullptr;
    Json saved = {{"properties", SavePolicyKeys(*PolicyOf(step), step.target)}};
    if (step.item == "mtu") saved["mtus"] = saver.Mtus(step.target.alias);
    return saved;
}

// Writes the old value through the library, then the exact bytes where the library wrote others.
bool RestorePolicy(const Step &step)
{
    const Policy &policy = *PolicyOf(step);
    if (step.saved.is_null() || !IsThere(step.target)) return false;
    if (ReadStored(policy, step.target) != step.before) WritePolicy(policy, step.target, step.before);
    RestoreProperties(step.target, step.saved["properties"]);
    return false;
}

// ---- Whether an uplink is up: {"uplink", "up"} ----

Json ReadAdmin(const Step &step) { return UplinkIsUp(step.target.alias, step.value["uplink"]); }

void SetAdmin(const Step &step, bool up)
{
    const std::string uplink = step.value["uplink"];
    CheckDriver(VSZOR_SetUplinkAdminLinkState(PortsetOf(step.target.alias).c_str(), uplink.c_str(), up),
                fmt::format("taking uplink {} {} at", uplink, up ? "up" : "down"), step.target,
                RunningUplinksAdvice(step.target.alias));
}

void PerformAdmin(const Step &step) { SetAdmin(step, step.value["up"]); }

bool RestoreAdmin(const Step &step)
{
    if (!IsThere(step.target)) return false;
    try {
        if (ReadAdmin(step) != step.before) SetAdmin(step, step.before);
    } catch (const Error &error) {
        if (error.exit != Exit::NOT_FOUND) throw; // the state went with the uplink
    }
    return false;
}

// ---- The interface that is plugged to a port: {"plugged"}, null for none ----

Json ReadInterface(const Step &step)
{
    if (!IsThere(step.target)) return nullptr;
    for (const vshost_port &port : PortsOf(step.target.alias)) {
        if (step.target.port == port.id && *port.interface) return port.interface;
    }
    return nullptr;
}

void SetInterface(const Target &port, const Json &present, const Json &wanted)
{
    if (present == wanted) return;
    std::string fault = present.is_null() ? "" : Unplug(present);
    if (fault.empty() && !wanted.is_null()) fault = Plug(port.alias, port.port, wanted);
    if (fault.empty()) return;
    throw Error(Exit::FAILURE, fmt::format("plugging to {} failed: {}", port.Text(), fault),
                "interfaces are plugged on a live host, by root");
}

void PerformInterface(const Step &step)
{
    SetInterface(step.target, ReadInterface(step), step.value["plugged"]);
}

bool RestoreInterface(const Step &step)
{
    if (IsThere(step.target)) SetInterface(step.target, ReadInterface(step), step.before);
    return false;
}

// ---- The table ----

Json ValueOf(const Step &step) { return step.value; }
template<const char *MEMBER> Json MemberOf(const Step &step) { return step.value[MEMBER]; }
struct Item {
    const char *name;
    Json (*read)(const Step &);
    void (*perform)(const Step &);
    Json (*save)(const Step &, Saver &);
    bool (*restore)(const Step &);
    Json (*after)(const Step &); // the value that a later step about the same object finds
    const char *subject[2] = {}; // what the step is about, beside its target
};

constexpr char BYTES[] = "bytes", PLUGGED[] = "plugged", UP[] = "up";

const Item ITEMS[] = {
    {"switch", [](const Step &step) { return ReadSwitch(step.target.alias); }, PerformSwitch, SaveSwitch,
     RestoreSwitchItem, ValueOf},
    {"port", [](const Step &step) { return ReadPort(step.target); }, PerformPort, SavePort, RestorePortItem,
     ValueOf},
    {"uplinks", ReadUplinksItem, PerformUplinks, SaveUplinks, RestoreUplinks, UplinksAfter},
    {"property",
     ReadProperty,
     PerformProperty,
     SaveNothing,
     RestoreProperty,
     MemberOf<BYTES>,
     {"level", "key"}},
    {"plugged", ReadInterface, PerformInterface, SaveNothing, RestoreInterface, MemberOf<PLUGGED>},
    {"uplink-admin", ReadAdmin, PerformAdmin, SaveNothing, RestoreAdmin, MemberOf<UP>, {"uplink"}},
};

Json ReadPolicyItem(const Step &step) { return ReadStored(*PolicyOf(step), step.target); }

Json PolicyAfter(const Step &step) { return Merged(*PolicyOf(step), step.before, step.value); }

// Earlier steps may have changed the stored value.
void PerformPolicy(const Step &step)
{
    const Policy &policy = *PolicyOf(step);
    if (policy.IsList() && step.value.is_object()) return WriteEntries(policy, step.target, step.value);
    const bool keepsFields = !policy.IsScalar() && !step.value.is_null();
    Json stored = keepsFields ? ReadStored(policy, step.target) : Json();
    // A failed look-up looks like an absent policy, so an absent policy is read a second time.
    if (keepsFields && stored.is_null()) stored = ReadStored(policy, step.target);
    WritePolicy(policy, step.target, Merged(policy, stored, step.value));
}

// All policies.
const Item POLICY_ITEM = {"", ReadPolicyItem, PerformPolicy, SavePolicy, RestorePolicy, PolicyAfter};

const Item &ItemOf(const Step &step)
{
    for (const Item &item : ITEMS) {
        if (step.item == item.name) return item;
    }
    return POLICY_ITEM;
}

}

const Policy *PolicyOf(const Step &step) { return FindPolicy(step.item, !step.target.port.empty()); }

std::vector<std::string> PortsMade(const Step &step)
{
    if (!step.value.is_object()) return {};
    if (step.value.contains("add")) return {step.value["add"]};
    if (step.value.contains("set")) return step.value["set"]["ids"];
    const char *const count = step.item == "switch" ? "uplink-count" : "count";
    std::vector<std::string> made;
    for (uint32_t i = 0; i < step.value.value(count, 0u); i++)
        made.push_back(fmt::format("uplink{}", i));
    return made;
}

// What is gone is restored by another step, with everything that belongs to it.
bool IsThere(const Target &target)
{
    return SwitchExists(target.alias) && (target.port.empty() || PortExists(target));
}

void ReadBefore(Step &step)
{
    if (step.isRead) return;
    step.before = ItemOf(step).read(step);
    step.isRead = true;
}

void Perform(const Step &step) { ItemOf(step).perform(step); }
bool Restore(const Step &step) { return ItemOf(step).restore(step); }
Json After(const Step &step) { return ItemOf(step).after(step); }
void Save(Step &step, Saver &saver) { step.saved = ItemOf(step).save(step, saver); }

bool IsRemoval(const Step &step)
{
    if (step.item == "uplinks") return step.value.contains("remove");
    return step.value.is_null() && (step.item == "switch" || step.item == "port");
}

Step SetPolicy(const Policy &policy, const Target &target, const Json &value)
{
    return {policy.name, target, CanonicalPart(policy, value)};
}

Step AddEntries(const Policy &policy, const Target &target, const Json &entries)
{
    return {policy.name, target, {{"add", Canonical(policy, entries)}}};
}

Step RemoveEntries(const Policy &policy, const Target &target, const Json &names)
{
    return {policy.name, target, {{"remove", names}}};
}

std::string SubjectOf(const Step &step)
{
    std::string subject = step.item;
    for (const char *key : ItemOf(step).subject)
        if (key) subject += " " + step.value[key].get<std::string>();
    return subject;
}

Json StepRow(const Step &step)
{
    Json row = {{"switch", step.target.alias},
                {"port", step.target.port.empty() ? Json() : Json(step.target.port)},
                {"item", step.item}};
    for (const char *key : ItemOf(step).subject)
        if (key) row[key] = step.value[key];
    row["before"] = step.before;
    row["after"] = After(step);
    return row;
}

bool Loses(const Step &step)
{
    const bool movesNics = step.item == "uplinks" && !step.value.contains("add");
    return IsRemoval(step) || (movesNics && !IsEmbedded());
}

std::string LossText(const Step &step)
{
    const std::string &port = step.item == "uplinks" ? step.value.value("remove", "") : step.target.port;
    const std::string object = Target{step.target.alias, port}.Text();
    if (IsEmbedded()) return fmt::format("statistics and learned addresses of {}", object);
    if (step.item == "uplinks" && port.empty())
        return fmt::format("which NICs are behind the uplinks of {}", object);
    if (!port.empty()) return fmt::format("number, NIC, statistics and unknown properties of {}", object);
    return fmt::format("all ports of {} except its uplinks, and unknown properties", object);
}

std::string StepText(const Step &step)
{
    if (step.item == "switch" || step.item == "port") return step.target.Text();
    return fmt::format("{} of {}", step.item, step.target.Text());
}

Json ToJson(const Step &step)
{
    return {{"item", step.item},   {"switch", step.target.alias}, {"port", step.target.port},
            {"value", step.value}, {"before", step.before},       {"saved", step.saved}};
}

Step StepFromJson(const Json &json)
{
    Step step{
        json.at("item"), {json.at("switch"), json.at("port")}, json.at("value"), json.at("before"), true};
    step.saved = json.at("saved");
    return step;
}

}

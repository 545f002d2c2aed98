// Steps of a change, by the kind of object.
#include "cli/change/step.h"

#include <algorithm>
#include <fmt/format.h>

#include "cli/base/decode.h"
#include "cli/base/plug.h"

namespace vsctl {

namespace {

// ---- Switches ----

Json ReadSwitchItem(const Step &step) { return ReadSwitch(step.target.alias); }

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

Json ReadPortItem(const Step &step) { return ReadPort(step.target); }

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

Json PropertyAfter(const Step &step) { return step.value["bytes"]; }

Json SaveNothing(const Step &, Saver &) { return nullptr; }

// Whether the object is gone by now. Another step then restores it with everything that belongs to it.
bool IsGone(const Target &target)
{
    return !SwitchExists(target.alias) || (!target.port.empty() && !PortExists(target));
}

bool RestoreProperty(const Step &step)
{
    const bool byId = step.value.contains("by-id");
    if (byId ? !SwitchIdExists(step.target.alias) : IsGone(step.target)) return false;
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

Json SavePolicyOf(const Policy &policy, const Target &target, Saver &saver)
{
    if (IsGone(target)) return nullptr;
    Json saved = {{"properties", SavePolicyKeys(policy, target)}};
    if (std::string_view(policy.name) == "mtu") saved["mtus"] = saver.Mtus(target.alias);
    return saved;
}

// Writes the old value through the library, then the exact bytes where the library wrote others.
bool RestorePolicyOf(const Policy &policy, const Step &step)
{
    const Target &target = step.target;
    if (step.saved.is_null() || IsGone(target)) return false;
    if (ReadStored(policy, target) != step.before) WritePolicy(policy, target, step.before);
    RestoreProperties(target, step.saved["properties"]);
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
Json AdminAfter(const Step &step) { return step.value["up"]; }

bool RestoreAdmin(const Step &step)
{
    if (IsGone(step.target)) return false;
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
    if (IsGone(step.target)) return nullptr;
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

Json InterfaceAfter(const Step &step) { return step.value["plugged"]; }

bool RestoreInterface(const Step &step)
{
    if (!IsGone(step.target)) SetInterface(step.target, ReadInterface(step), step.before);
    return false;
}

// ---- The table ----

Json ValueOf(const Step &step) { return step.value; }

struct Item {
    const char *name;
    Json (*read)(const Step &);
    void (*perform)(const Step &);
    Json (*save)(const Step &, Saver &);
    bool (*restore)(const Step &);
    Json (*after)(const Step &); // the value that a later step about the same object finds
};

constexpr Item ITEMS[] = {
    {"switch", ReadSwitchItem, PerformSwitch, SaveSwitch, RestoreSwitchItem, ValueOf},
    {"port", ReadPortItem, PerformPort, SavePort, RestorePortItem, ValueOf},
    {"uplinks", ReadUplinksItem, PerformUplinks, SaveUplinks, RestoreUplinks, UplinksAfter},
    {"property", ReadProperty, PerformProperty, SaveNothing, RestoreProperty, PropertyAfter},
    {"plugged", ReadInterface, PerformInterface, SaveNothing, RestoreInterface, InterfaceAfter},
    {"uplink-admin", ReadAdmin, PerformAdmin, SaveNothing, RestoreAdmin, AdminAfter},
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

Json SavePolicy(const Step &step, Saver &saver) { return SavePolicyOf(*PolicyOf(step), step.target, saver); }

bool RestorePolicy(const Step &step) { return RestorePolicyOf(*PolicyOf(step), step); }

// All policies.
constexpr Item POLICY_ITEM = {"", ReadPolicyItem, PerformPolicy, SavePolicy, RestorePolicy, PolicyAfter};

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
    std::vector<std::string> made;
    if (step.value.contains("add")) made.push_back(step.value["add"]);
    if (step.value.contains("set")) made = FromJson(step.value["set"]).ids;
    for (uint32_t i = 0; i < step.value.value("count", 0u); i++)
        made.push_back(fmt::format("uplink{}", i));
    return made;
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

Json StepRow(const Step &step)
{
    Json row;
    row["switch"] = step.target.alias;
    row["port"] = step.target.port.empty() ? Json() : Json(step.target.port);
    row["item"] = step.item;
    row["before"] = step.before;
    const bool isValue = &ItemOf(step) == &POLICY_ITEM || step.item == "plugged";
    row["after"] = isValue ? After(step) : step.value;
    return row;
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
    Json json;
    json["item"] = step.item;
    json["switch"] = step.target.alias;
    json["port"] = step.target.port;
    json["value"] = step.value;
    json["before"] = step.before;
    json["saved"] = step.saved;
    return json;
}

Step StepFromJson(const Json &json)
{
    Step step{
        json.at("item"), {json.at("switch"), json.at("port")}, json.at("value"), json.at("before"), true};
    step.saved = json.at("saved");
    return step;
}

}

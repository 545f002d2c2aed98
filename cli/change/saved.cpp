// The complete state before a change, and how an undo restores it.
#include "cli/change/saved.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "cli/base/decode.h"

namespace vsctl {

namespace {

// What the platform maintains: the number of a port, and its statistics.
constexpr const char *VOLATILE_KEYS[] = {"com.talpex.common.port.volatile.status",
                                         "com.talpex.common.port.statistics"};
constexpr const char *OTHER_PORT_KEYS[] = {CONNECT_ID_KEY, EXTERNAL_ID_KEY, "com.talpex.common.port.alias",
                                           "com.talpex.common.port.block",
                                           "com.talpex.vswitch.port.priority"};
constexpr const char *OTHER_GLOBAL_KEYS[] = {VERSION_KEY, OPAQUE_KEY, UPLINK_NAMES_KEY};
constexpr const char *OTHER_HOST_KEYS[] = {UPLINK_IDS_KEY};

// A port may wait for the number or NIC of another port, which waits for a third.
constexpr int MAX_ROUNDS = 16;

// All properties; where the platform cannot list them, those that vsctl knows.
std::vector<NamedProperty> PropertiesOf(const Target &target)
{
    std::vector<NamedProperty> properties;
    const bool ofPort = !target.port.empty();
    if (IsEmbedded()) {
        const auto names = ListProperties(SwitchId(target.alias), target.port);
        for (const vshost_property_name &name : names.value_or(std::vector<vshost_property_name>())) {
            if (!Contains(VOLATILE_KEYS, std::string_view(name.key)))
                properties.push_back({static_cast<PropertyLevel>(name.level), target, name.key});
        }
        return properties;
    }
    for (const Policy *policy : PoliciesOf(ofPort)) {
        if (policy->CanClear()) properties.push_back({policy->level, target, policy->key});
    }
    const auto add = [&](PropertyLevel level, std::span<const char *const> keys) {
        for (const char *key : keys)
            properties.push_back({level, target, key});
    };
    if (ofPort) {
        add(PropertyLevel::PORT, OTHER_PORT_KEYS);
    } else {
        add(PropertyLevel::GLOBAL, OTHER_GLOBAL_KEYS);
        add(PropertyLevel::HOST, OTHER_HOST_KEYS);
    }
    return properties;
}

// Null when the property does not exist.
Json ReadBytes(const NamedProperty &property)
{
    Bytes bytes;
    const VsStatus status = property.Get(bytes);
    if (status == STATUS_NOT_FOUND) return nullptr;
    Check(status, "reading " + property.key + " of", property.target);
    return Json::binary(std::move(bytes));
}

void WriteBytes(const NamedProperty &property, const Json &bytes)
{
    const VsStatus status = bytes.is_null() ? property.Clear() : property.Set(bytes.get_binary());
    Check(status, "restoring " + property.key + " of", property.target);
}

// The entries of a port's MAC table that were set, not learned.
Json StaticMacs(const Target &port)
{
    DriverBuffer<> table;
    CheckDriver(VSZOR_GetPortMACTable(port.Alias(), port.Port(), 0, table.Out()), "reading the MAC table of",
                port);
    Json macs = Json::array();
    for (const auto &entry :
         DriverEntries<ZorMacTableEntry>(static_cast<const ZorListHeader *>(table.Get()))) {
        if (Decode(Record::MAC_ENTRY, &entry, sizeof entry)["type"] == "static")
            macs.push_back(Hex(&entry, sizeof entry));
    }
    return macs;
}

void RestoreMacs(const Target &port, const Json &saved)
{
    for (const Json &bytes : saved) {
        ZorMacTableEntry entry;
        memcpy(&entry, FromHex(bytes.get<std::string>()).data(), sizeof entry);
        CheckDriver(VSZOR_SetPortMACTable(port.Alias(), port.Port(), &entry), "adding a MAC address to",
                    port);
    }
}

NamedProperty PropertyOf(const Target &target, const Json &saved)
{
    return {static_cast<PropertyLevel>(saved["level"].get<int>()), target, saved["key"]};
}

// Clears properties that a switch or port did not have.
void ClearOthers(const Target &target, const Json &saved)
{
    std::set<std::pair<PropertyLevel, std::string>> known;
    for (const Json &property : saved)
        known.insert({static_cast<PropertyLevel>(property["level"].get<int>()), property["key"]});
    for (const NamedProperty &property : PropertiesOf(target)) {
        if (!known.contains({property.level, property.key}) && !ReadBytes(property).is_null())
            WriteBytes(property, nullptr);
    }
}

Json PlaceOf(const vshost_port &port)
{
    return {{"number", port.number},
            {"nic", port.nic},
            {"made", port.nicMade != 0},
            {"mtu", port.nicMtu},
            {"up", port.nicAdminUp != 0}};
}

vshost_port PortAt(const std::string &id, const Json &place)
{
    vshost_port port{};
    id.copy(port.id, sizeof port.id - 1);
    place["nic"].get<std::string>().copy(port.nic, sizeof port.nic - 1);
    port.number = place["number"];
    port.nicMade = place["made"].get<bool>();
    port.nicMtu = place["mtu"];
    port.nicAdminUp = place["up"].get<bool>();
    return port;
}

// A NIC that outlives its port keeps its own MTU and state.
bool IsAt(const vshost_port &port, const Json &place)
{
    if (port.number != place["number"]) return false;
    if (place["nic"] == "") return true;
    if (place["nic"] != port.nic) return false;
    return !place["made"] || (port.nicMtu == place["mtu"] && (port.nicAdminUp != 0) == place["up"]);
}

// Removes a portset that a destroyed or half-made switch has left.
void RemoveBarePortset(const std::string &portset)
{
    if (DeviceError(ZOR_DEVICE) == 0 && PortsetUser(portset).empty())
        SetNode(fmt::format("/net/portsets/{}/destroy", portset), "destroy");
    RequireNoBarePortset(portset);
}

// Destroys what exists under this id, after giving it its names, which it may lack.
void DestroyById(const std::string &id, const std::string &alias, const std::string &portset)
{
    const auto text = [](const std::string &name) {
        return Bytes(name.c_str(), name.c_str() + name.size() + 1);
    };
    const Target byId{id, ""};
    if (NamedProperty{PropertyLevel::GLOBAL, byId, ALIAS_KEY, true}.Set(text(alias)) != STATUS_OK) return;
    Check(NamedProperty{PropertyLevel::HOST, byId, PORTSET_KEY, true}.Set(text(portset)),
          "removing the half-made", {alias, ""});
    LibraryInit();
    DestroySwitch(alias);
}

}

Json SaveProperties(const std::vector<NamedProperty> &properties)
{
    Json saved = Json::array();
    for (const NamedProperty &property : properties)
        saved.push_back({{"level", static_cast<int>(property.level)},
                         {"key", property.key},
                         {"bytes", ReadBytes(property)}});
    return saved;
}

void RestoreProperties(const Target &target, const Json &saved)
{
    for (const Json &row : saved) {
        const NamedProperty property = PropertyOf(target, row);
        if (ReadBytes(property) != row["bytes"]) WriteBytes(property, row["bytes"]);
    }
}

const std::vector<vshost_port> &Saver::PortsOf(const std::string &alias)
{
    const auto [entry, isNew] = ports.try_emplace(alias);
    if (!isNew) return entry->second;
    entry->second = vsctl::PortsOf(alias);
    for (const vshost_port &port : entry->second)
        places[alias][port.id] = PlaceOf(port);
    return entry->second;
}

Json Saver::PortAt(const Target &port, const Json &place)
{
    Json saved = {{"entry", ReadPort(port)}, {"properties", SaveProperties(PropertiesOf(port))}};
    if (!place.is_null()) saved["place"] = place;
    if (HasStaticMacs(port.alias)) saved["macs"] = StaticMacs(port);
    return saved;
}

bool Saver::HasStaticMacs(const std::string &alias)
{
    const auto [entry, isNew] = staticMacs.try_emplace(alias);
    if (isNew && IsEmbedded() && IsRunning(alias)) {
        const auto read = [&](void *info) {
            return VSZOR_GetSwitchMACLearningInfo(PortsetOf(alias).c_str(), info);
        };
        entry->second = ReadRecord(Record::LEARNING_INFO, {alias, ""}, read)["static-entries"] != 0;
    }
    return entry->second;
}

Json Saver::Port(const Target &port)
{
    if (!SwitchExists(port.alias) || !PortExists(port)) return nullptr;
    PortsOf(port.alias);
    const auto place = places[port.alias].find(port.port);
    return PortAt(port, place == places[port.alias].end() ? Json() : place->second);
}

bool RestorePort(const Target &port, const Json &saved)
{
    const bool exists = PortExists(port);
    if (saved.is_null()) {
        if (exists) RemovePort(port);
        return false;
    }
    if (!exists) AddPort(port, saved["entry"]);
    if (!exists && saved.contains("place")) {
        Json place = saved["place"];
        place["nic"] = ""; // restored when the port is listed as an uplink
        RestorePlace(SwitchId(port.alias), PortAt(port.port, place));
    }
    RestorePolicies(saved["entry"], port);
    RestoreProperties(port, saved["properties"]);
    ClearOthers(port, saved["properties"]);
    RestoreMacs(port, saved.value("macs", Json::array()));
    return !exists;
}

Json Saver::Switch(const std::string &alias)
{
    const Target target{alias, ""};
    Json saved = {{"entry", ReadSwitch(alias)}, {"properties", SaveProperties(PropertiesOf(target))}};
    saved["was-running"] = IsRunning(alias);
    saved["was-associated"] = IsAssociated(saved["entry"]["portset"]);
    Json &all = saved["ports"] = Json::array();
    for (const vshost_port &port : PortsOf(alias))
        all.push_back({{"id", port.id}, {"port", Port({alias, port.id})}});
    if (IsEmbedded()) return saved;
    for (const std::string &id : ReadUplinks(alias).ids)
        all.push_back({{"id", id}, {"port", Port({alias, id})}});
    return saved;
}

bool RestoreSwitch(const std::string &alias, const Json &saved)
{
    const Target target{alias, ""};
    const Json &entry = saved["entry"];
    const std::string id = entry["id"], portset = entry["portset"];
    bool exists = SwitchExists(alias);
    if (exists && saved["was-associated"] && !IsAssociated(portset)) {
        DestroySwitch(alias); // no operation associates a switch again
        exists = false;
    }
    if (!exists) {
        DestroyById(id, alias, portset); // an earlier undo may have left half of it
        RemoveBarePortset(portset);
        CreateSwitch(alias, entry);
    }
    // This also sets the MTU of NICs, so it comes before they are bound.
    RestorePolicies(entry, target);
    for (const Json &port : saved["ports"])
        RestorePort({alias, port["id"]}, port["port"]);
    RestoreProperties(target, saved["properties"]);
    ClearOthers(target, saved["properties"]);
    if (!exists && !saved["was-running"])
        SetNode(fmt::format("/net/portsets/{}/destroy", portset), "destroy");
    return !exists;
}

Json SaveFreeNames(const std::string &alias, const Json &value)
{
    const std::string id = value.value("id", ""), portset = value.value("portset", alias);
    bool isFree = PortsetUser(portset).empty();
    try {
        RequireNoBarePortset(portset);
    } catch (const Error &) {
        isFree = false;
    }
    return {{"id", id},
            {"portset", portset},
            {"id-was-free", !id.empty() && !SwitchIdExists(id)},
            {"portset-was-free", isFree}};
}

void RemoveNewSwitch(const std::string &alias, const Json &saved)
{
    const std::string portset = saved["portset"];
    if (saved["id-was-free"]) DestroyById(saved["id"], alias, portset);
    if (saved["portset-was-free"]) RemoveBarePortset(portset);
}

Json Saver::UplinkPlaces(const std::string &alias)
{
    Json uplinks = Json::object();
    for (const vshost_port &port : PortsOf(alias)) {
        if (port.isUplink) uplinks[port.id] = PlaceOf(port);
    }
    return uplinks;
}

Json Saver::Mtus(const std::string &alias)
{
    Json mtus = Json::object();
    for (const vshost_port &port : PortsOf(alias)) {
        if (*port.nic) mtus[port.nic] = port.nicMtu;
    }
    return mtus;
}

void Places::Add(const Target &target, const Json &saved)
{
    if (!saved.is_object()) return;
    const std::string &alias = target.alias;
    if (saved.contains("place")) wanted[alias][target.port] = saved["place"];
    const Json uplinks = saved.value("places", Json::object());
    for (const auto &[id, place] : uplinks.items())
        wanted[alias][id] = place;
    for (const Json &entry : saved.value("ports", Json::array()))
        Add({alias, entry["id"]}, entry["port"]);
    const Json savedMtus = saved.value("mtus", Json::object());
    for (const auto &[nic, mtu] : savedMtus.items()) {
        mtus[nic] = mtu;
        wanted[alias]; // the switch whose ports have these NICs now
    }
}

void Places::RestoreNics() const
{
    for (const auto &[alias, places] : wanted) {
        for (const auto &[id, place] : places) {
            if (place["nic"] != "") RestorePlace(SwitchId(alias), PortAt(id, place));
        }
    }
}

std::vector<std::string> Places::Restore() const
{
    std::vector<std::string> failures;
    std::map<std::string, Json> present; // MTUs by NIC
    bool restored = true;
    for (int round = 0; restored && round < MAX_ROUNDS; round++) {
        restored = false;
        failures.clear();
        for (const auto &[alias, places] : wanted) {
            if (!SwitchExists(alias)) continue; // the failure to create it again is reported elsewhere
            const std::string id = SwitchId(alias);
            for (const vshost_port &port : PortsOf(alias)) {
                present[port.nic] = port.nicMtu;
                const auto place = places.find(port.id);
                if (place == places.end() || IsAt(port, place->second)) continue;
                const int error = RestorePlace(id, PortAt(port.id, place->second));
                restored = restored || error == 0;
                if (error == 0) continue;
                failures.push_back(fmt::format("{} does not get its number and NIC back ({})",
                                               Target{alias, port.id}.Text(), strerror(error)));
            }
        }
    }
    for (const auto &[nic, mtu] : mtus) {
        if (present[nic] != mtu) SetNode(fmt::format("/net/pNics/{}/mtu", nic), mtu.dump());
    }
    return failures;
}

}

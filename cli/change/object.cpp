// Reads, makes and removes switches and ports.
#include "cli/change/object.h"

#include <fmt/format.h>
#include <sys/random.h>

#include "cli/base/decode.h"

namespace vsctl {

namespace {

template<class Number> Json NumberProperty(const NamedProperty &property)
{
    Bytes bytes;
    Number number = 0;
    if (property.Get(bytes) != STATUS_OK || bytes.size() != sizeof number) return nullptr;
    memcpy(&number, bytes.data(), sizeof number);
    return number;
}

Json TextProperty(const NamedProperty &property)
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
        if (IsDerived(*policy)) continue;
        const Json value = ReadStored(*policy, target);
        if (!policy->initial || value != Json::parse(policy->initial))
            SetIfPresent(entry, policy->name, value);
    }
}

template<class Entry> std::vector<std::string> StoredList(const NamedProperty &property)
{
    Bytes bytes;
    std::vector<std::string> names;
    if (property.Get(bytes) != STATUS_OK) return names;
    for (size_t start = sizeof(uint32_t); start + sizeof(Entry) <= bytes.size(); start += sizeof(Entry))
        names.push_back(Name(reinterpret_cast<const char *>(bytes.data() + start), sizeof(Entry)));
    return names;
}

}

void RestorePolicies(const Json &entry, const Target &target)
{
    for (const Policy *policy : PoliciesOf(!target.port.empty())) {
        const Json usual = policy->initial ? Json::parse(policy->initial) : Json();
        const Json wanted = entry.value(policy->name, usual);
        if (!IsDerived(*policy) && ReadStored(*policy, target) != wanted)
            WritePolicy(*policy, target, wanted);
    }
}

void RequirePortsetName(const std::string &name)
{
    constexpr Field RULE{"", Form::TEXT, "the name of a portset", 1, PORTSET_NAME_SIZE - 1};
    RequireName(RULE, name);
    if (name != "." && name != ".." && name[0] != '-' && name.find('/') == std::string::npos) return;
    throw Error(Exit::BAD_VALUE, fmt::format("a portset cannot have the name '{}'", name),
                "choose a name without '/' that does not begin with '-', or give one with --portset");
}

void CreateSwitch(const std::string &alias, const Json &value)
{
    const std::string id = value.value("id", "");
    const std::string portset = value.value("portset", alias);
    if (SwitchExists(alias)) Check(STATUS_EXISTS, "creating", {alias, ""});
    const VsStatus status = VSDVS_CreateVSwitch(
        alias.c_str(), id.empty() ? nullptr : id.c_str(), portset.c_str(), value.value("version", 1u),
        value.value("opaque", false), value.value("max-ports", 0u), value.value("uplink-count", 0u),
        value.value("port-count", 0u));
    LibraryInit(); // reload the cache, which may miss what this process creates
    CheckDriver(status, "creating", {alias, ""});
}

void DestroySwitch(const std::string &alias)
{
    const bool isRunning = IsRunning(alias);
    const VsStatus status = VSDVS_DestroyVSwitch(alias.c_str());
    LibraryInit();
    // The portset is destroyed last, and a switch that does not run has none.
    if (status == STATUS_FAILURE && !isRunning && !SwitchExists(alias)) return;
    Check(status, "destroying", {alias, ""});
}

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

Json ReadPort(const Target &port)
{
    if (!SwitchExists(port.alias) || !PortExists(port)) return nullptr;
    Json entry = Json::object();
    SetIfPresent(entry, "connect-id", NumberProperty<uint32_t>({PropertyLevel::PORT, port, CONNECT_ID_KEY}));
    SetIfPresent(entry, "external-id", TextProperty({PropertyLevel::PORT, port, EXTERNAL_ID_KEY}));
    AddPolicies(entry, port);
    return entry;
}

Json ReadSwitch(const std::string &alias)
{
    if (!SwitchExists(alias)) return nullptr;
    const Target target{alias, ""};
    Json entry = {{"id", SwitchId(alias)}, {"portset", PortsetOf(alias)}};
    SetIfPresent(entry, "version", NumberProperty<uint32_t>({PropertyLevel::GLOBAL, target, VERSION_KEY}));
    entry["opaque"] = TextProperty({PropertyLevel::GLOBAL, target, OPAQUE_KEY}) == "true";
    SetIfPresent(entry, "max-ports", MaxPorts(entry["portset"]));
    entry["uplinks"] = ReadUplinks(alias).ids;
    AddPolicies(entry, target);
    return entry;
}

Uplinks ReadUplinks(const std::string &alias)
{
    StoreBuffer<UplinkNameList> names;
    StoreBuffer<UplinkPortIdList> ids;
    const VsStatus status = VSDVS_GetSwitchUplinkPorts(alias.c_str(), names.Out(), ids.Out());
    if (status == STATUS_NOT_FOUND) {
        // The switch has no lists, or they name a port that it doesn't have.
        return {StoredList<UplinkName>({PropertyLevel::GLOBAL, {alias, ""}, UPLINK_NAMES_KEY}),
                StoredList<UplinkPortId>({PropertyLevel::HOST, {alias, ""}, UPLINK_IDS_KEY})};
    }
    Check(status, "reading the uplinks of", {alias, ""});
    Uplinks uplinks;
    for (const UplinkName &name : Entries<UplinkName>(names.Get(), names->count))
        uplinks.names.push_back(Name(name.text, sizeof name.text));
    for (const UplinkPortId &id : Entries<UplinkPortId>(ids.Get(), ids->count))
        uplinks.ids.push_back(Name(id.text, sizeof id.text));
    return uplinks;
}

// A random id in the form of those that the library derives from aliases.
std::string NewSwitchId()
{
    uint8_t bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        throw Error(Exit::FAILURE, "the kernel has no random bytes for a switch id", "give one with --id");
    return fmt::format("{:02x}-{:02x}", fmt::join(bytes, bytes + 8, " "),
                       fmt::join(bytes + 8, bytes + 16, " "));
}

}

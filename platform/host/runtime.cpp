#include "platform/host/runtime.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "platform/host/plugs.h"

namespace vshost {

namespace {

constexpr std::string_view RUN = "run";
constexpr std::string_view KEY_MTU = "com.talpex.vswitch.mtu";
constexpr size_t UPLINK_ENTRY = 48;

std::string FreeNicKey(std::string_view name)
{
    return Key({RUN, "free", ""}) + static_cast<char>(name.size()) + std::string(name);
}

std::string BoundKey(std::string_view switchId, std::string_view portId)
{
    return Key({RUN, "bound", switchId, portId});
}

std::string ClaimKey(std::string_view switchName, std::string_view portId)
{
    return Key({RUN, "claim", switchName, portId});
}

std::string OnDemandKey(uint32_t number) { return Key({RUN, "demand", ""}) + BigEndian(number); }

// The number in the name of a NIC that was made on demand; STATUS_NOT_FOUND when the name is not of that
// form.
VsStatus OnDemandNumber(std::string_view name, uint32_t &number)
{
    constexpr std::string_view PREFIX = "nic";
    if (!name.starts_with(PREFIX)) return STATUS_NOT_FOUND;
    const char *end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data() + PREFIX.size(), end, number);
    return error == std::errc() && rest == end ? STATUS_OK : STATUS_NOT_FOUND;
}

VsStatus ForgetOnDemand(Transaction &transaction, std::string_view name)
{
    uint32_t number;
    const VsStatus status = OnDemandNumber(name, number);
    return status ? STATUS_IO_ERROR : transaction.Remove(OnDemandKey(number));
}

std::string BigEndian16(uint16_t number) { return BigEndian(number).substr(2); }

// The part of a key after the prefix.
std::string_view Rest(std::string_view key, std::string_view prefix) { return key.substr(prefix.size()); }

VsStatus AbsentIsOk(VsStatus status) { return status == STATUS_NOT_FOUND ? STATUS_OK : status; }

// Reads a NIC's name from a key, where it follows its length; false when it is not whole.
bool DecodeName(std::string_view rest, std::string &name)
{
    if (rest.empty() || rest.size() - 1 != static_cast<unsigned char>(rest[0])) return false;
    name = rest.substr(1);
    return true;
}

VsStatus ForgetMacs(Transaction &transaction, std::string_view prefix)
{
    return RemoveAll(transaction, prefix, [](std::string_view value) {
        return value.size() != sizeof(MacRecord) || value[offsetof(MacRecord, fromScenario)] == 0;
    });
}

// Writes a NIC, and its entry among the free NICs.
VsStatus Store(Transaction &transaction, std::string_view name, const Nic &nic)
{
    const bool isFree = !nic.IsBound() && !nic.IsClaimed();
    const VsStatus status =
        isFree ? transaction.Put(FreeNicKey(name), {}) : transaction.Remove(FreeNicKey(name));
    return status ? status : PutRecord(transaction, runtime::NicKey(name), nic);
}

// The first free NIC.
VsStatus PickFreeNic(Transaction &transaction, NamedNic &named)
{
    bool any = false, whole = true;
    const std::string prefix = Key({RUN, "free", ""});
    VsStatus status = transaction.Scan(prefix, [&](std::string_view key, std::string_view) {
        any = true;
        whole = DecodeName(Rest(key, prefix), named.name);
        return false;
    });
    if (!whole) return STATUS_IO_ERROR;
    if (status || !any) return status ? status : STATUS_NOT_FOUND;
    status = GetRecord(transaction, runtime::NicKey(named.name), named.nic);
    return status == STATUS_NOT_FOUND ? STATUS_IO_ERROR : status;
}

VsStatus MakeNic(Transaction &transaction, NamedNic &made)
{
    const std::string prefix = Key({RUN, "demand", ""});
    uint32_t number = 0;
    bool whole = true;
    VsStatus status = transaction.Scan(
        prefix,
        [&](std::string_view key, std::string_view) {
            whole = Rest(key, prefix).size() == sizeof(number);
            if (whole) number = FromBigEndian(Rest(key, prefix)) + 1;
            return false;
        },
        Order::BACKWARD);
    if (!whole) return STATUS_IO_ERROR;
    while (!status) {
        made.name = "nic" + std::to_string(number);
        status = GetRecord(transaction, runtime::NicKey(made.name), made.nic);
        if (status == STATUS_OK) number++;
    }
    if (status != STATUS_NOT_FOUND) return status;
    made.nic = Nic{};
    made.nic.madeOnDemand = 1;
    return transaction.Put(OnDemandKey(number), made.name);
}

VsStatus Bind(Transaction &transaction, NamedNic named, std::string_view switchId, std::string_view portId)
{
    SetField(named.nic.switchId, switchId);
    SetField(named.nic.portId, portId);
    const VsStatus status = transaction.Put(BoundKey(switchId, portId), named.name);
    return status ? status : Store(transaction, named.name, named.nic);
}

// The NIC that is kept for an uplink port under any name of its switch.
VsStatus PickClaimedNic(Transaction &transaction, std::string_view switchId, std::string_view portId,
                        NamedNic &named)
{
    bool any = false;
    VsStatus status = transaction.Scan(Key({RUN, "claim", ""}), [&](std::string_view, std::string_view) {
        any = true;
        return false;
    });
    if (status || !any) return status ? status : STATUS_NOT_FOUND;
    StoredProperty alias;
    std::string portset;
    status = GetProperty(transaction, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS, alias);
    if (AbsentIsOk(status)) return status;
    status = PortsetOfSwitch(transaction, switchId, portset);
    if (AbsentIsOk(status)) return status;
    for (std::string_view switchName : {Text(alias.value), switchId, std::string_view(portset)}) {
        status = transaction.Get(ClaimKey(switchName, portId), named.name);
        if (status == STATUS_NOT_FOUND) continue;
        return status ? status : GetRecord(transaction, runtime::NicKey(named.name), named.nic);
    }
    return STATUS_NOT_FOUND;
}

VsStatus BindAnyNic(Transaction &transaction, std::string_view switchId, std::string_view portId)
{
    NamedNic named;
    VsStatus status = PickClaimedNic(transaction, switchId, portId, named);
    if (status == STATUS_NOT_FOUND) status = PickFreeNic(transaction, named);
    if (status == STATUS_NOT_FOUND) status = MakeNic(transaction, named);
    return status ? status : Bind(transaction, named, switchId, portId);
}

// Releases a NIC from its port, and removes it if it was made for that port.
VsStatus Unbind(Transaction &transaction, std::string_view name, Nic nic)
{
    VsStatus status = transaction.Remove(BoundKey(FieldText(nic.switchId), FieldText(nic.portId)));
    if (status) return status;
    if (nic.madeOnDemand) {
        status = transaction.Remove(runtime::NicKey(name));
        return status ? status : ForgetOnDemand(transaction, name);
    }
    SetField(nic.switchId, {});
    SetField(nic.portId, {});
    return Store(transaction, name, nic);
}

// Ends the claim of a NIC, if it has one.
VsStatus Unclaim(Transaction &transaction, std::string_view name, Nic &nic)
{
    if (!nic.IsClaimed()) return STATUS_OK;
    if (VsStatus status =
            transaction.Remove(ClaimKey(FieldText(nic.claimedSwitch), FieldText(nic.claimedPort))))
        return status;
    SetField(nic.claimedSwitch, {});
    SetField(nic.claimedPort, {});
    return Store(transaction, name, nic);
}

VsStatus UnclaimHolder(Transaction &transaction, std::string_view switchName, std::string_view portId)
{
    std::string name;
    Nic nic;
    if (VsStatus status = transaction.Get(ClaimKey(switchName, portId), name)) return AbsentIsOk(status);
    if (VsStatus status = GetRecord(transaction, runtime::NicKey(name), nic)) return AbsentIsOk(status);
    return Unclaim(transaction, name, nic);
}

// Releases the NIC that is bound to a port, if there is one.
VsStatus ReleasePort(Transaction &transaction, std::string_view switchId, std::string_view portId)
{
    std::string name;
    if (VsStatus status = transaction.Get(BoundKey(switchId, portId), name)) return AbsentIsOk(status);
    return AbsentIsOk(ReleaseNic(transaction, name));
}

// The stored MTU of a switch, if there is one and it is valid.
VsStatus ReadMtu(Reader &reader, std::string_view switchId, uint32_t &mtu)
{
    StoredProperty property;
    uint32_t stored = 0;
    const VsStatus status = GetProperty(reader, {StoredLevel::GLOBAL, switchId}, KEY_MTU, property);
    if (status) return AbsentIsOk(status);
    if (DecodeRecord(property.value, stored) && stored >= MIN_MTU && stored <= MAX_MTU) mtu = stored;
    return STATUS_OK;
}

// The portset to start for a switch; false when no portset can be started for it.
bool ReadPortset(Reader &reader, std::string_view switchId, std::string &name, Portset &portset)
{
    StoredSwitch stored;
    std::string owner;
    std::vector<std::string> uplinks;
    if (GetSwitch(reader, switchId, stored) || !stored.associated) return false;
    if (PortsetOfSwitch(reader, switchId, name) || SwitchOfPortset(reader, name, owner)) return false;
    if (ReadMtu(reader, switchId, portset.mtu) || ListUplinkPorts(reader, switchId, uplinks)) return false;
    SetField(portset.className, stored.className);
    portset.ports = stored.ports;
    return owner == switchId && IsNodeName(name, MAX_PORTSET_NAME) && portset.ports > 0 &&
           portset.ports <= MAX_PORTSET_PORTS && IsNodeName(stored.className, sizeof(portset.className) - 1);
}

VsStatus StartSwitch(Transaction &transaction, std::string_view switchId)
{
    std::string name;
    Portset portset;
    std::vector<NamedNic> uplinks;
    if (!ReadPortset(transaction, switchId, name, portset)) return STATUS_OK;
    VsStatus status = AddPortset(transaction, name, portset);
    if (status) return status == STATUS_EXISTS ? STATUS_OK : status;
    if ((status = ListUplinks(transaction, switchId, uplinks))) return status;
    for (NamedNic &uplink : uplinks) {
        if (!uplink.nic.AcceptsMtu(portset.mtu)) continue;
        uplink.nic.mtu = portset.mtu;
        if ((status = PutRecord(transaction, runtime::NicKey(uplink.name), uplink.nic))) return status;
    }
    return STATUS_OK;
}

// The NICs bound to a switch, by port.
VsStatus BoundNics(Reader &reader, std::string_view switchId, std::map<std::string, std::string> &nics)
{
    const std::string prefix = BoundKey(switchId, "");
    return reader.Scan(prefix, [&](std::string_view key, std::string_view name) {
        nics.emplace(Rest(key, prefix), name);
        return true;
    });
}

}

namespace runtime {

std::string PortsetKey(std::string_view name) { return Key({RUN, "portset", name}); }

std::string NicKey(std::string_view name)
{
    return Key({RUN, "nic", ""}) + static_cast<char>(name.size()) + std::string(name);
}

std::string MacPrefix(std::string_view portset, std::string_view portId)
{
    return portId.empty() ? Key({RUN, "mac", portset, ""}) : Key({RUN, "mac", portset, portId, ""});
}

std::string MacKey(std::string_view portset, std::string_view portId, uint16_t vlanId, const uint8_t *address)
{
    return MacPrefix(portset, portId) + BigEndian16(vlanId) +
           std::string(reinterpret_cast<const char *>(address), 6);
}

std::string LagKey(std::string_view portset, std::string_view name)
{
    return Key({RUN, "lag", portset, name});
}

std::string GroupPrefix(std::string_view portset, uint32_t addressKind)
{
    return Key({RUN, "group", portset, std::to_string(addressKind), ""});
}

std::string GroupKey(std::string_view portset, uint32_t addressKind, uint32_t vlanId,
                     std::string_view address)
{
    return GroupPrefix(portset, addressKind) + BigEndian(vlanId) + std::string(address);
}

std::string OptionPrefix() { return Key({RUN, "option", ""}); }

std::string OptionKey(uint16_t id) { return OptionPrefix() + BigEndian16(id); }

std::string PortStatsKey(std::string_view portset, std::string_view portId)
{
    return Key({RUN, "learned", portset, portId});
}

std::string MirrorStatsKey(std::string_view portset, std::string_view sessionId)
{
    return Key({RUN, "mirror", portset, sessionId});
}

std::string RarpKey(std::string_view portset) { return Key({RUN, "rarp", portset}); }

std::string TeamingKey(std::string_view portset) { return Key({RUN, "teaming", portset}); }

std::string PromiscuousKey(std::string_view portset) { return Key({RUN, "promiscuous", portset}); }

std::string LearningPropsKey() { return Key({RUN, "learning"}); }

std::string RtmKey(uint32_t command) { return Key({RUN, "rtm", ""}) + BigEndian(command); }

}

bool Nic::AcceptsMtu(uint32_t wanted) const
{
    return wanted >= MIN_MTU && wanted <= maxMtu &&
           std::find(std::begin(refusedMtus), std::end(refusedMtus), wanted) == std::end(refusedMtus);
}

VsStatus ScanRows(Reader &reader, std::string_view prefix,
                  const std::function<bool(std::string_view rest, std::string_view row)> &visit)
{
    bool whole = true;
    const VsStatus status = reader.Scan(prefix, [&](std::string_view key, std::string_view row) {
        whole = visit(Rest(key, prefix), row);
        return whole;
    });
    return whole ? status : STATUS_IO_ERROR;
}

VsStatus ReadStoredAddresses(Reader &reader, std::string_view portset, std::string_view portId,
                             std::vector<VSwitchMacEntry> &entries, uint32_t number)
{
    struct Place {
        uint16_t vlanId;
        uint8_t address[6];
    };
    return ScanRows(reader, runtime::MacPrefix(portset, portId),
                    [&](std::string_view rest, std::string_view row) {
                        Place place;
                        MacRecord record;
                        if (!DecodeRecord(rest, place) || !DecodeRecord(row, record)) return false;
                        VSwitchMacEntry &entry = entries.emplace_back();
                        memcpy(entry.address, place.address, sizeof(entry.address));
                        entry.type = record.type;
                        entry.flags = record.flags;
                        entry.vlanId = __builtin_bswap16(place.vlanId);
                        entry.age = record.age;
                        entry.portId = number;
                        return true;
                    });
}

VsStatus PortsetOfSwitch(Reader &reader, std::string_view switchId, std::string &portset)
{
    StoredProperty property;
    VsStatus status = GetProperty(reader, {StoredLevel::HOST, switchId}, KEY_PORTSET, property);
    if (status == STATUS_NOT_FOUND)
        status = GetProperty(reader, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS, property);
    if (status) return status;
    portset = Text(property.value);
    return STATUS_OK;
}

VsStatus SwitchOfPortset(Reader &reader, std::string_view portset, std::string &switchId)
{
    VsStatus status = FindSwitchByPortset(reader, portset, switchId);
    if (status != STATUS_NOT_FOUND) return status;
    std::string named, aliased;
    if ((status = FindSwitchByAlias(reader, portset, aliased))) return status;
    if ((status = PortsetOfSwitch(reader, aliased, named))) return status;
    if (named != portset) return STATUS_NOT_FOUND; // this switch has the alias, and another portset
    switchId = aliased;
    return STATUS_OK;
}

VsStatus FindSwitch(Reader &reader, std::string_view name, std::string &switchId)
{
    StoredSwitch found;
    VsStatus status = FindSwitchByAlias(reader, name, switchId);
    if (status != STATUS_NOT_FOUND) return status;
    switchId = name;
    status = GetSwitch(reader, name, found);
    return status == STATUS_NOT_FOUND ? SwitchOfPortset(reader, name, switchId) : status;
}

VsStatus AddPortset(Transaction &transaction, std::string_view name, const Portset &portset)
{
    Portset existing;
    VsStatus status = GetRecord(transaction, runtime::PortsetKey(name), existing);
    if (status != STATUS_NOT_FOUND) return status ? status : STATUS_EXISTS;
    if ((status = PutRecord(transaction, runtime::PortsetKey(name), portset))) return status;
    std::string switchId;
    status = SwitchOfPortset(transaction, name, switchId);
    if (status) return AbsentIsOk(status);
    return UplinksChanged(transaction, switchId);
}

VsStatus RemovePortset(Transaction &transaction, std::string_view name)
{
    Portset portset;
    if (VsStatus status = GetRecord(transaction, runtime::PortsetKey(name), portset)) return status;
    if (VsStatus status = transaction.Remove(runtime::PortsetKey(name))) return status;
    return ForgetMacs(transaction, runtime::MacPrefix(name, {}));
}

VsStatus ListPortsets(Reader &reader, std::vector<std::string> &names)
{
    const std::string prefix = runtime::PortsetKey("");
    return reader.Scan(prefix, [&](std::string_view key, std::string_view) {
        names.emplace_back(Rest(key, prefix));
        return true;
    });
}

VsStatus ListNics(Reader &reader, std::vector<NamedNic> &nics)
{
    return ScanRows(reader, Key({RUN, "nic", ""}), [&](std::string_view rest, std::string_view row) {
        NamedNic &entry = nics.emplace_back();
        return DecodeName(rest, entry.name) && DecodeRecord(row, entry.nic);
    });
}

VsStatus PutNic(Transaction &transaction, std::string_view name, Nic nic)
{
    if (nic.madeOnDemand) {
        nic.madeOnDemand = 0;
        if (VsStatus status = ForgetOnDemand(transaction, name)) return status;
    }
    return Store(transaction, name, nic);
}

VsStatus ListUplinkPorts(Reader &reader, std::string_view switchId, std::vector<std::string> &portIds)
{
    StoredProperty property;
    const VsStatus status = GetProperty(reader, {StoredLevel::HOST, switchId}, KEY_HOST_UPLINKS, property);
    if (status) return AbsentIsOk(status);
    const uint32_t count = WordAt(property.value, 0);
    for (size_t i = 0, at = sizeof(count); i < count && at + UPLINK_ENTRY <= property.value.size();
         i++, at += UPLINK_ENTRY) {
        // A field without NUL names no port, nor does an empty one.
        const std::string_view portId = Text(std::string_view(property.value).substr(at, UPLINK_ENTRY));
        if (!portId.empty() && portId.size() < UPLINK_ENTRY) portIds.emplace_back(portId);
    }
    return STATUS_OK;
}

VsStatus ListUplinks(Reader &reader, std::string_view switchId, std::vector<NamedNic> &nics)
{
    std::vector<std::string> portIds;
    std::map<std::string, std::string> bound;
    if (VsStatus status = ListUplinkPorts(reader, switchId, portIds)) return status;
    if (VsStatus status = BoundNics(reader, switchId, bound)) return status;
    for (const std::string &portId : portIds) {
        const auto found = bound.find(portId);
        if (found == bound.end()) continue;
        NamedNic &entry = nics.emplace_back();
        entry.name = found->second;
        bound.erase(found);
        const VsStatus status = GetRecord(reader, runtime::NicKey(entry.name), entry.nic);
        if (status) return status == STATUS_NOT_FOUND ? STATUS_IO_ERROR : status; // a bound NIC has a record
    }
    return STATUS_OK;
}

VsStatus BindNic(Transaction &transaction, std::string_view name, std::string_view switchId,
                 std::string_view portId)
{
    std::vector<std::string> portIds;
    Nic nic;
    if (VsStatus status = GetRecord(transaction, runtime::NicKey(name), nic)) return status;
    if (VsStatus status = ListUplinkPorts(transaction, switchId, portIds)) return status;
    if (std::find(portIds.begin(), portIds.end(), portId) == portIds.end()) return STATUS_NOT_FOUND;

    const std::string oldSwitch(FieldText(nic.switchId)), oldPort(FieldText(nic.portId));
    if (oldSwitch == switchId && oldPort == portId) return STATUS_OK;
    if (VsStatus status = ReleasePort(transaction, switchId, portId)) return status;
    if (oldPort.empty()) return Bind(transaction, {std::string(name), nic}, switchId, portId);
    if (VsStatus status = transaction.Remove(BoundKey(oldSwitch, oldPort))) return status;
    if (VsStatus status = Bind(transaction, {std::string(name), nic}, switchId, portId)) return status;
    return UplinksChanged(transaction, oldSwitch);
}

VsStatus RestoreNic(Transaction &transaction, const NamedNic &had, std::string_view switchId,
                    std::string_view portId)
{
    Nic nic;
    uint32_t number;
    VsStatus status = GetRecord(transaction, runtime::NicKey(had.name), nic);
    const bool isGone = status == STATUS_NOT_FOUND;
    if (isGone && had.nic.madeOnDemand) {
        if ((status = OnDemandNumber(had.name, number))) return status;
        status = transaction.Put(OnDemandKey(number), had.name);
        nic.madeOnDemand = 1;
    }
    if (status) return status;
    if (nic.IsBound() && FieldText(nic.switchId) != switchId) return STATUS_EXISTS;
    if (nic.madeOnDemand && had.nic.madeOnDemand) {
        nic.mtu = had.nic.mtu;
        nic.adminUp = had.nic.adminUp;
        if ((status = Store(transaction, had.name, nic))) return status;
    }
    return BindNic(transaction, had.name, switchId, portId);
}

VsStatus ClaimNic(Transaction &transaction, std::string_view name, std::string_view switchName,
                  std::string_view portId)
{
    Nic nic;
    std::string switchId;
    if (VsStatus status = UnclaimHolder(transaction, switchName, portId)) return status;
    if (VsStatus status = GetRecord(transaction, runtime::NicKey(name), nic)) return status;
    if (VsStatus status = Unclaim(transaction, name, nic)) return status;
    SetField(nic.claimedSwitch, switchName);
    SetField(nic.claimedPort, portId);
    if (VsStatus status = transaction.Put(ClaimKey(switchName, portId), name)) return status;
    if (VsStatus status = PutNic(transaction, name, nic)) return status;
    if (VsStatus status = FindSwitch(transaction, switchName, switchId)) return AbsentIsOk(status);
    return AbsentIsOk(BindNic(transaction, name, switchId, portId));
}

VsStatus RemoveNic(Transaction &transaction, std::string_view name)
{
    Nic nic;
    if (VsStatus status = GetRecord(transaction, runtime::NicKey(name), nic)) return status;
    const std::string switchId(FieldText(nic.switchId));
    if (VsStatus status = Unclaim(transaction, name, nic)) return status;
    if (VsStatus status = ReleaseNic(transaction, name)) return status;
    if (VsStatus status = transaction.Remove(FreeNicKey(name))) return status;
    if (VsStatus status = transaction.Remove(runtime::NicKey(name))) return status;
    return switchId.empty() ? STATUS_OK : UplinksChanged(transaction, switchId);
}

VsStatus ReleaseNic(Transaction &transaction, std::string_view name)
{
    Nic nic;
    const VsStatus status = GetRecord(transaction, runtime::NicKey(name), nic);
    return status || !nic.IsBound() ? status : Unbind(transaction, name, nic);
}

VsStatus UplinksChanged(Transaction &transaction, std::string_view switchId)
{
    std::vector<std::string> portIds;
    std::map<std::string, std::string> bound;
    if (VsStatus status = ListUplinkPorts(transaction, switchId, portIds)) return status;
    if (VsStatus status = BoundNics(transaction, switchId, bound)) return status;
    for (const auto &[portId, nic] : bound) {
        if (std::find(portIds.begin(), portIds.end(), portId) != portIds.end()) continue;
        if (VsStatus status = ReleaseNic(transaction, nic)) return status;
    }
    for (const std::string &portId : portIds) {
        if (!bound.emplace(portId, std::string()).second) continue;
        if (VsStatus status = BindAnyNic(transaction, switchId, portId)) return status;
    }
    return STATUS_OK;
}

VsStatus PortRemoved(Transaction &transaction, std::string_view switchId, std::string_view portId)
{
    std::string portset;
    const VsStatus status = PortsetOfSwitch(transaction, switchId, portset);
    if (status) return AbsentIsOk(status);
    return ForgetMacs(transaction, runtime::MacPrefix(portset, portId));
}

bool IsNodeName(std::string_view name, size_t longest)
{
    return !name.empty() && name.size() <= longest && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos;
}

VsStatus StartSwitches(Transaction &transaction)
{
    std::vector<std::string> switchIds;
    const auto collect = [&](std::string_view switchId, std::string_view) {
        switchIds.emplace_back(switchId);
        return true;
    };
    if (VsStatus status = ForEachSwitch(transaction, collect)) return status;
    for (const std::string &switchId : switchIds)
        if (VsStatus status = StartSwitch(transaction, switchId)) return status;
    return STATUS_OK;
}

VsStatus ResetRuntime(Transaction &transaction)
{
    if (VsStatus status = RemoveAll(transaction, Key({RUN, ""}))) return status;
    if (VsStatus status = RemoveTransientPlugs(transaction)) return status;
    return StartSwitches(transaction);
}

}

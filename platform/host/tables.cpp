// The stored tables: how switches, ports and properties lie in the engine's keys and values.
//     switch\0id                  ports, version, associated (u32 each), class
//     alias\0alias                switch id
//     walk\0length portset\0id    class; in the order of ForEachSwitch
//     global\0id, host\0id        bundle of all properties of the level
//     port\0id\0port              kernel number (u32), bundle of all properties of the port
//     number\0number              switch id\0port id
//     numbers\0id                 how many ports the switch has (u32): beside the highest number, which a
//                                 new port writes too
//     listed\0id\0policy\0port    nothing: the policy is on for the port
//     number\0-1\0-1 - number      nothing: a number between those in use, the lowest one last
#include "platform/host/tables.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/host/bytes.h"
#include "platform/host/runtime.h"

namespace vshost {
namespace {

constexpr size_t WORD = sizeof(uint32_t);
constexpr size_t SWITCH_HEADER = 3 * WORD;
constexpr size_t STATUS_RECORD = 20;
constexpr size_t STATUS_NUMBER = 16; // where the kernel number stands in the status record
constexpr uint32_t STATUS_FLAGS = 0x10;
constexpr uint32_t WITHOUT_PORTSET = UINT32_MAX;

std::string SwitchKey(std::string_view switchId) { return Key({"switch", switchId}); }
std::string AliasKey(std::string_view alias) { return Key({"alias", alias}); }
std::string PortKey(std::string_view switchId, std::string_view portId)
{
    return Key({"port", switchId, portId});
}
std::string NumberKey(uint32_t number) { return Key({"number", BigEndian(number)}); }
std::string FreeKey(uint32_t number) { return FreeNumbers() + BigEndian(~number); }
std::string CountKey(std::string_view switchId) { return Key({"numbers", switchId}); }
std::string ListedKey(std::string_view switchId, const PortPolicy &policy, std::string_view portId)
{
    return Key({"listed", switchId, policy.name, portId});
}

std::string BundleKey(const PropertyOwner &owner)
{
    if (owner.level == StoredLevel::PORT) return PortKey(owner.switchId, owner.portId);
    return Key({owner.level == StoredLevel::GLOBAL ? "global" : "host", owner.switchId});
}

std::string_view LastField(std::string_view key) { return key.substr(key.rfind('\0') + 1); }

std::string EncodeSwitch(const StoredSwitch &source)
{
    std::string row;
    for (uint32_t word : {source.ports, source.version, uint32_t{source.associated}})
        row += BytesOf(word);
    return row + source.className;
}

// The longest portset name sorts first, a switch without a portset last.
std::string WalkPrefix(std::string_view portset)
{
    return Key(
        {"walk", BigEndian(WITHOUT_PORTSET - 1 - static_cast<uint32_t>(portset.size())) += portset, ""});
}

std::string WalkKey(const StoredProperty *portset, std::string_view switchId)
{
    if (portset) return WalkPrefix(Text(portset->value)).append(switchId);
    return Key({"walk", BigEndian(WITHOUT_PORTSET), switchId});
}

// Where the bundle begins in a row. The row of a port begins with the port's number.
size_t BundleOffset(StoredLevel level) { return level == StoredLevel::PORT ? WORD : 0; }

// Reads and checks the row of an owner's properties. A level of a switch without properties has no row.
VsStatus GetRow(Reader &reader, const PropertyOwner &owner, std::string &row)
{
    if (VsStatus status = reader.Get(BundleKey(owner), row)) return status;
    const size_t offset = BundleOffset(owner.level);
    if (row.size() < offset || !CheckBundle(std::string_view(row).substr(offset))) return STATUS_IO_ERROR;
    return STATUS_OK;
}

VsStatus GetRowToChange(Transaction &transaction, const PropertyOwner &owner, std::string &row)
{
    const VsStatus status = GetRow(transaction, owner, row);
    if (status != STATUS_NOT_FOUND || owner.level == StoredLevel::PORT) return status;
    row = EmptyBundle();
    std::string switchRow;
    return transaction.Get(SwitchKey(owner.switchId), switchRow);
}

// Applies `change` to the bundle within a row. If it returns false, the row is left unusable.
template<typename Change> bool ChangeBundle(std::string &row, StoredLevel level, Change change)
{
    const size_t offset = BundleOffset(level);
    const std::string number = row.substr(0, offset);
    row.erase(0, offset);
    if (!change(row)) return false;
    row.insert(0, number);
    return true;
}

// A property before and after a change; null where it is absent.
struct PropertyChange {
    const PropertyOwner &owner;
    std::string_view key;
    const StoredProperty *before;
    const StoredProperty *after;
};

VsStatus MoveAlias(Transaction &transaction, const PropertyChange &change)
{
    std::string holder;
    if (change.after) {
        const std::string key = AliasKey(Text(change.after->value));
        const VsStatus status = transaction.Get(key, holder);
        if (status == STATUS_OK) return holder == change.owner.switchId ? STATUS_OK : STATUS_EXISTS;
        if (status != STATUS_NOT_FOUND) return status;
        if (VsStatus put = transaction.Put(key, change.owner.switchId)) return put;
    }
    return change.before ? transaction.Remove(AliasKey(Text(change.before->value))) : STATUS_OK;
}

VsStatus MoveInWalk(Transaction &transaction, const PropertyChange &change)
{
    StoredSwitch found;
    const std::string_view switchId = change.owner.switchId;
    if (VsStatus status = GetSwitch(transaction, switchId, found)) return status;
    if (VsStatus status = transaction.Remove(WalkKey(change.before, switchId))) return status;
    return transaction.Put(WalkKey(change.after, switchId), found.className);
}

VsStatus PutCount(Transaction &transaction, std::string_view switchId, uint32_t ports)
{
    return transaction.Put(CountKey(switchId), BytesOf(ports));
}

VsStatus ListByPolicy(Transaction &transaction, const PropertyChange &change)
{
    for (const PortPolicy &policy : PORT_POLICIES) {
        if (policy.key != change.key) continue;
        const bool was = change.before && policy.isOn(change.before->value);
        const bool is = change.after && policy.isOn(change.after->value);
        const std::string entry = ListedKey(change.owner.switchId, policy, change.owner.portId);
        if (was != is) return is ? transaction.Put(entry, {}) : transaction.Remove(entry);
    }
    return STATUS_OK;
}

// Adds the keys under which the port with this sound bundle is listed.
void AddListedKeys(std::string_view switchId, std::string_view portId, std::string_view bundle,
                   std::vector<std::string> &keys)
{
    BundleEntry entry;
    for (const PortPolicy &policy : PORT_POLICIES)
        if (FindEntry(bundle, policy.key, entry) && policy.isOn(entry.value))
            keys.push_back(ListedKey(switchId, policy, portId));
}

// A damaged bundle doesn't tell which policies the port was listed by, so all of them are removed.
VsStatus RemoveListedKeys(Transaction &transaction, std::string_view switchId, std::string_view portId,
                          std::string_view bundle)
{
    std::vector<std::string> keys;
    if (CheckBundle(bundle))
        AddListedKeys(switchId, portId, bundle, keys);
    else
        for (const PortPolicy &policy : PORT_POLICIES)
            keys.push_back(ListedKey(switchId, policy, portId));
    for (const std::string &key : keys)
        if (VsStatus status = transaction.Remove(key)) return status;
    return STATUS_OK;
}

VsStatus PutAll(Transaction &transaction, const std::vector<std::string> &keys)
{
    for (const std::string &key : keys)
        if (VsStatus status = transaction.Put(key, {})) return status;
    return STATUS_OK;
}

// Keeps what is derived from a property in step with it.
VsStatus PropertyChanged(Transaction &transaction, const PropertyChange &change)
{
    const PropertyOwner &owner = change.owner;
    if (owner.level == StoredLevel::GLOBAL && change.key == KEY_ALIAS) return MoveAlias(transaction, change);
    if (owner.level == StoredLevel::HOST && change.key == KEY_PORTSET) return MoveInWalk(transaction, change);
    if (owner.level == StoredLevel::HOST && change.key == KEY_HOST_UPLINKS)
        return UplinksChanged(transaction, owner.switchId);
    if (owner.level == StoredLevel::PORT) return ListByPolicy(transaction, change);
    return STATUS_OK;
}

// Stores the row of a changed property, and what is derived from the property.
VsStatus PutRow(Transaction &transaction, std::string_view row, const PropertyChange &change)
{
    if (change.owner.level != StoredLevel::PORT) transaction.InvalidateCaches();
    if (VsStatus status = transaction.Put(BundleKey(change.owner), row)) return status;
    return PropertyChanged(transaction, change);
}

bool FindInRow(std::string_view row, StoredLevel level, std::string_view key, StoredProperty &found)
{
    BundleEntry entry;
    if (!FindEntry(row.substr(BundleOffset(level)), key, entry)) return false;
    found.flags = entry.flags;
    found.value = entry.value;
    return true;
}

// The lowest number that is free. If no number that was ever used is free, it is the one after the highest in
// use. The last key under the prefix tells which: the lowest free number, or the highest in use.
VsStatus AllocateNumber(Transaction &transaction, uint32_t &number)
{
    bool wasFree = false, whole = true;
    number = 0;
    const std::string used = Key({"number", ""}), unused = FreeNumbers();
    const auto take = [&](std::string_view key, std::string_view) {
        wasFree = key.starts_with(unused);
        whole = key.size() == (wasFree ? unused : used).size() + WORD;
        if (whole) number = FromBigEndian(key.substr(key.size() - WORD));
        return false;
    };
    if (VsStatus status = transaction.Scan(used, take, Order::BACKWARD)) return status;
    if (!whole) return STATUS_IO_ERROR;
    if (!wasFree) return ++number > MAX_PORTS ? STATUS_TOO_LARGE : STATUS_OK;
    number = ~number;
    return transaction.Remove(FreeKey(number));
}

VsStatus ReleaseNumber(Transaction &transaction, std::string_view portRow)
{
    if (portRow.size() < WORD) return STATUS_IO_ERROR;
    const uint32_t number = WordAt(portRow, 0);
    if (VsStatus status = transaction.Remove(NumberKey(number))) return status;
    return transaction.Put(FreeKey(number), {});
}

std::string PortRow(uint32_t number, std::string_view bundle)
{
    std::string row, withStatus(bundle);
    BundleEntry entry;
    if (!FindEntry(bundle, KEY_PORT_STATUS, entry)) {
        std::string record(STATUS_RECORD, '\0');
        memcpy(record.data() + STATUS_NUMBER, &number, WORD);
        PutEntry(withStatus, {KEY_PORT_STATUS, STATUS_FLAGS, record});
    }
    row += BytesOf(number);
    return row + withStatus;
}

// Uses a free number, and frees another number in its place.
VsStatus SwapFreeNumber(Transaction &transaction, uint32_t taken, uint32_t freed)
{
    std::string entry;
    const VsStatus status = transaction.Get(FreeKey(taken), entry);
    if (status) return status == STATUS_NOT_FOUND ? STATUS_BAD_PARAM : status;
    if (VsStatus removed = transaction.Remove(FreeKey(taken))) return removed;
    if (VsStatus removed = transaction.Remove(NumberKey(freed))) return removed;
    return transaction.Put(FreeKey(freed), {});
}

// Stores a port's number in all places, its status record included.
VsStatus PutPortNumber(Transaction &transaction, const PortName &port, uint32_t number)
{
    std::string row;
    BundleEntry entry;
    const PropertyOwner owner{StoredLevel::PORT, port.switchId, port.portId};
    if (VsStatus status = GetRow(transaction, owner, row)) return status;
    std::string bundle = row.substr(WORD);
    if (FindEntry(bundle, KEY_PORT_STATUS, entry) && entry.value.size() >= STATUS_NUMBER + WORD) {
        std::string record(entry.value);
        memcpy(record.data() + STATUS_NUMBER, &number, WORD);
        PutEntry(bundle, {KEY_PORT_STATUS, entry.flags, record});
    }
    row.clear();
    row += BytesOf(number);
    if (VsStatus status = transaction.Put(NumberKey(number), Key({port.switchId, port.portId})))
        return status;
    return transaction.Put(BundleKey(owner), row + bundle);
}

// A property that may be absent: STATUS_OK then too.
VsStatus FindProperty(Reader &reader, const PropertyOwner &owner, std::string_view key,
                      std::optional<StoredProperty> &found)
{
    StoredProperty property;
    const VsStatus status = GetProperty(reader, owner, key, property);
    if (status == STATUS_OK) found = std::move(property);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

VsStatus RemoveIndexes(Transaction &transaction, std::string_view switchId)
{
    std::optional<StoredProperty> alias, portset;
    if (VsStatus status = FindProperty(transaction, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS, alias))
        return status;
    if (alias) {
        if (VsStatus status = transaction.Remove(AliasKey(Text(alias->value)))) return status;
    }
    if (VsStatus status = FindProperty(transaction, {StoredLevel::HOST, switchId}, KEY_PORTSET, portset))
        return status;
    return transaction.Remove(WalkKey(portset ? &*portset : nullptr, switchId));
}

VsStatus RemovePorts(Transaction &transaction, std::string_view switchId)
{
    std::vector<std::string> keys;
    std::vector<std::string> numbers;
    const auto collect = [&](std::string_view key, std::string_view row) {
        keys.emplace_back(key);
        numbers.emplace_back(row.substr(0, WORD));
        return true;
    };
    if (VsStatus status = transaction.Scan(PortKey(switchId, ""), collect)) return status;
    for (size_t i = 0; i < keys.size(); i++) {
        if (VsStatus status = ReleaseNumber(transaction, numbers[i])) return status;
        if (VsStatus status = transaction.Remove(keys[i])) return status;
    }
    return STATUS_OK;
}

}

std::string FreeNumbers() { return Key({"number", BigEndian(UINT32_MAX), ""}); }

std::string Key(std::initializer_list<std::string_view> fields)
{
    std::string key;
    key.reserve(160);
    for (std::string_view field : fields) {
        if (!key.empty()) key += '\0';
        key += field;
    }
    return key;
}

std::string BigEndian(uint32_t number) { return std::string(BytesOf(__builtin_bswap32(number))); }

uint32_t FromBigEndian(std::string_view bytes) { return __builtin_bswap32(WordAt(bytes, 0)); }

std::string_view Text(std::string_view value) { return value.substr(0, value.find('\0')); }

VsStatus RemoveAll(Transaction &transaction, std::string_view prefix, bool (*matches)(std::string_view))
{
    std::vector<std::string> keys;
    const auto collect = [&](std::string_view key, std::string_view value) {
        if (!matches || matches(value)) keys.emplace_back(key);
        return true;
    };
    if (VsStatus status = transaction.Scan(prefix, collect)) return status;
    for (const std::string &key : keys)
        if (VsStatus status = transaction.Remove(key)) return status;
    return STATUS_OK;
}

VsStatus GetSwitch(Reader &reader, std::string_view switchId, StoredSwitch &found)
{
    std::string row;
    if (VsStatus status = reader.Get(SwitchKey(switchId), row)) return status;
    if (row.size() < SWITCH_HEADER) return STATUS_IO_ERROR;
    found = {row.substr(SWITCH_HEADER), WordAt(row, 0), WordAt(row, WORD), WordAt(row, 2 * WORD) != 0};
    return STATUS_OK;
}

VsStatus AddSwitch(Transaction &transaction, std::string_view switchId, const StoredSwitch &added)
{
    if (switchId.empty() || switchId.size() > MAX_SWITCH_ID) return STATUS_BAD_PARAM;
    StoredSwitch existing;
    const VsStatus status = GetSwitch(transaction, switchId, existing);
    if (status != STATUS_NOT_FOUND) return status == STATUS_OK ? STATUS_EXISTS : status;
    transaction.InvalidateCaches();
    if (VsStatus put = transaction.Put(SwitchKey(switchId), EncodeSwitch(added))) return put;
    if (VsStatus put = PutCount(transaction, switchId, 0)) return put;
    return transaction.Put(WalkKey(nullptr, switchId), added.className);
}

VsStatus RemoveSwitch(Transaction &transaction, std::string_view switchId)
{
    StoredSwitch existing;
    if (VsStatus status = GetSwitch(transaction, switchId, existing)) return status;
    transaction.InvalidateCaches();
    if (VsStatus status = RemovePorts(transaction, switchId)) return status;
    if (VsStatus status = RemoveIndexes(transaction, switchId)) return status;
    if (VsStatus status = RemoveAll(transaction, Key({"listed", switchId, ""}))) return status;
    for (std::string_view table : {"switch", "global", "host", "numbers"}) {
        if (VsStatus status = transaction.Remove(Key({table, switchId}))) return status;
    }
    return UplinksChanged(transaction, switchId);
}

VsStatus AssociateSwitch(Transaction &transaction, std::string_view switchId, bool associated)
{
    StoredSwitch existing;
    if (VsStatus status = GetSwitch(transaction, switchId, existing)) return status;
    existing.associated = associated;
    transaction.InvalidateCaches();
    return transaction.Put(SwitchKey(switchId), EncodeSwitch(existing));
}

VsStatus FindSwitchByAlias(Reader &reader, std::string_view alias, std::string &switchId)
{
    return reader.Get(AliasKey(alias), switchId);
}

VsStatus FindSwitchByPortset(Reader &reader, std::string_view portset, std::string &switchId)
{
    bool found = false;
    const auto take = [&](std::string_view key, std::string_view) {
        switchId = LastField(key);
        found = true;
        return false;
    };
    if (VsStatus status = reader.Scan(WalkPrefix(portset), take)) return status;
    return found ? STATUS_OK : STATUS_NOT_FOUND;
}

VsStatus ForEachSwitch(Reader &reader, const std::function<bool(std::string_view, std::string_view)> &visit)
{
    return reader.Scan(Key({"walk", ""}), [&](std::string_view key, std::string_view className) {
        return visit(LastField(key), className);
    });
}

VsStatus GetPortNumber(Reader &reader, std::string_view switchId, std::string_view portId, uint32_t &number)
{
    std::string row;
    if (VsStatus status = reader.Get(PortKey(switchId, portId), row)) return status;
    if (row.size() < WORD) return STATUS_IO_ERROR;
    number = WordAt(row, 0);
    return STATUS_OK;
}

VsStatus GetPortByNumber(Reader &reader, uint32_t number, PortName &port)
{
    std::string row;
    if (VsStatus status = reader.Get(NumberKey(number), row)) return status;
    const size_t separator = row.find('\0');
    if (separator == std::string::npos) return STATUS_IO_ERROR;
    port = {row.substr(0, separator), row.substr(separator + 1)};
    return STATUS_OK;
}

VsStatus ForEachPortRow(Reader &reader, std::string_view switchId,
                        const std::function<bool(std::string_view, const StoredPort &)> &visit)
{
    bool damaged = false;
    const auto decode = [&](std::string_view key, std::string_view row) {
        damaged = row.size() < WORD;
        return !damaged && visit(LastField(key), {WordAt(row, 0), row.substr(WORD)});
    };
    const VsStatus status = reader.Scan(PortKey(switchId, ""), decode);
    return damaged ? STATUS_IO_ERROR : status;
}

VsStatus ForEachPort(Reader &reader, std::string_view switchId,
                     const std::function<bool(std::string_view, uint32_t)> &visit)
{
    return ForEachPortRow(reader, switchId, [&](std::string_view portId, const StoredPort &port) {
        return visit(portId, port.number);
    });
}

VsStatus CountPorts(Reader &reader, std::string_view switchId, uint32_t &ports)
{
    std::string row;
    if (VsStatus status = reader.Get(CountKey(switchId), row)) return status;
    if (row.size() != WORD) return STATUS_IO_ERROR;
    ports = WordAt(row, 0);
    return STATUS_OK;
}

VsStatus ListPortsWith(Reader &reader, const PortPolicy &policy, std::string_view switchId,
                       std::vector<std::string> &portIds)
{
    return reader.Scan(ListedKey(switchId, policy, ""), [&](std::string_view key, std::string_view) {
        portIds.emplace_back(LastField(key));
        return true;
    });
}

VsStatus AnyPortWith(Reader &reader, const PortPolicy &policy, std::string_view switchId, bool &any)
{
    any = false;
    return reader.Scan(ListedKey(switchId, policy, ""), [&](std::string_view, std::string_view) {
        any = true;
        return false;
    });
}

VsStatus AddPort(Transaction &transaction, std::string_view switchId, std::string_view portId,
                 std::string_view bundle)
{
    if (portId.empty() || !CheckBundle(bundle)) return STATUS_BAD_PARAM;
    uint32_t number, ports;
    std::vector<std::string> listed;
    AddListedKeys(switchId, portId, bundle, listed);
    if (VsStatus status = CountPorts(transaction, switchId, ports)) return status;
    if (VsStatus status = AllocateNumber(transaction, number)) return status;
    if (VsStatus status = transaction.Put(NumberKey(number), Key({switchId, portId}))) return status;
    if (VsStatus status = PutCount(transaction, switchId, ports + 1)) return status;
    if (VsStatus status = PutAll(transaction, listed)) return status;
    return transaction.Add(PortKey(switchId, portId), PortRow(number, bundle));
}

VsStatus RemovePort(Transaction &transaction, std::string_view switchId, std::string_view portId)
{
    std::string row;
    uint32_t ports;
    if (VsStatus status = transaction.Get(PortKey(switchId, portId), row)) return status;
    if (VsStatus status = ReleaseNumber(transaction, row)) return status;
    if (VsStatus status = CountPorts(transaction, switchId, ports)) return status;
    if (ports == 0) return STATUS_IO_ERROR;
    if (VsStatus status = PutCount(transaction, switchId, ports - 1)) return status;
    if (VsStatus status = RemoveListedKeys(transaction, switchId, portId, std::string_view(row).substr(WORD)))
        return status;
    if (VsStatus status = transaction.Remove(PortKey(switchId, portId))) return status;
    if (VsStatus status = PortRemoved(transaction, switchId, portId)) return status;
    return UplinksChanged(transaction, switchId);
}

VsStatus RestorePortNumber(Transaction &transaction, const PortName &port, uint32_t number)
{
    uint32_t current;
    PortName holder;
    if (number == 0 || number > MAX_PORTS) return STATUS_BAD_PARAM;
    if (VsStatus status = GetPortNumber(transaction, port.switchId, port.portId, current)) return status;
    if (number == current) return STATUS_OK;
    const VsStatus status = GetPortByNumber(transaction, number, holder);
    if (status && status != STATUS_NOT_FOUND) return status;
    if (!status && holder.switchId != port.switchId) return STATUS_EXISTS;
    if (VsStatus moved = status ? SwapFreeNumber(transaction, number, current)
                                : PutPortNumber(transaction, holder, current))
        return moved;
    return PutPortNumber(transaction, port, number);
}

VsStatus GetProperty(Reader &reader, const PropertyOwner &owner, std::string_view key, StoredProperty &found)
{
    std::string row;
    if (VsStatus status = GetRow(reader, owner, row)) return status;
    return FindInRow(row, owner.level, key, found) ? STATUS_OK : STATUS_NOT_FOUND;
}

VsStatus ReadValue(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value)
{
    StoredProperty property;
    const VsStatus status = GetProperty(reader, owner, key, property);
    value = std::move(property.value);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

VsStatus ReadValues(Reader &reader, const PropertyOwner &owner, std::initializer_list<NamedValue> values)
{
    for (const NamedValue &named : values)
        if (VsStatus status = ReadValue(reader, owner, named.key, *named.value)) return status;
    return STATUS_OK;
}

VsStatus ListProperties(Reader &reader, const PropertyOwner &owner, std::vector<PropertyName> &names)
{
    std::string row;
    const VsStatus status = GetRow(reader, owner, row);
    if (status) return status == STATUS_NOT_FOUND ? STATUS_OK : status;
    for (const BundleEntry &entry : ListEntries(std::string_view(row).substr(BundleOffset(owner.level))))
        names.push_back({std::string(entry.key), entry.flags, entry.value.size()});
    return STATUS_OK;
}

VsStatus SetProperty(Transaction &transaction, const PropertyOwner &owner, const BundleEntry &property)
{
    std::string row;
    if (VsStatus status = GetRowToChange(transaction, owner, row)) return status;
    StoredProperty before;
    const bool existed = FindInRow(row, owner.level, property.key, before);
    const auto put = [&](std::string &bundle) { return PutEntry(bundle, property); };
    if (!ChangeBundle(row, owner.level, put)) return STATUS_TOO_LARGE;
    const StoredProperty after{property.flags, std::string(property.value)};
    return PutRow(transaction, row, {owner, property.key, existed ? &before : nullptr, &after});
}

VsStatus ClearProperty(Transaction &transaction, const PropertyOwner &owner, std::string_view key)
{
    std::string row;
    if (VsStatus status = GetRow(transaction, owner, row)) return status;
    StoredProperty before;
    if (!FindInRow(row, owner.level, key, before)) return STATUS_NOT_FOUND;
    const auto remove = [&](std::string &bundle) { return RemoveEntry(bundle, key); };
    ChangeBundle(row, owner.level, remove);
    return PutRow(transaction, row, {owner, key, &before, nullptr});
}

}

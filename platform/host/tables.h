// The host's stored tables, typed: switches, ports with their kernel numbers, and properties.
// Functions that read take a Reader (the engine or a transaction), functions that write a Transaction.
// An unknown switch, port or property is STATUS_NOT_FOUND; a damaged row is STATUS_IO_ERROR.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/bundle.h"
#include "platform/host/port_policies.h"
#include "platform/host/transaction.h"

namespace vshost {

inline constexpr size_t MAX_SWITCH_ID = 63;
inline constexpr uint32_t MAX_PORTS = 1048576; // of a host, all switches together

inline constexpr std::string_view KEY_ALIAS = "com.talpex.common.alias";
inline constexpr std::string_view KEY_PORTSET = "com.talpex.common.host.portset";
inline constexpr std::string_view KEY_HOST_UPLINKS = "com.talpex.common.host.uplinkPorts";
inline constexpr std::string_view KEY_PORT_ALIAS = "com.talpex.common.port.alias";
inline constexpr std::string_view KEY_PORT_STATUS = "com.talpex.common.port.volatile.status";
inline constexpr std::string_view KEY_PORT_STATISTICS = "com.talpex.common.port.statistics";

enum class StoredLevel : uint32_t { GLOBAL, HOST, PORT };

// What properties belong to: a switch, this host's view of it, or one of its ports.
struct PropertyOwner {
    StoredLevel level;
    std::string_view switchId;
    std::string_view portId = {};
};

struct StoredProperty {
    uint32_t flags = 0;
    std::string value;
};

struct StoredSwitch {
    std::string className;
    uint32_t ports = 0;
    uint32_t version = 0;
    bool associated = false;
};

struct PortName {
    std::string switchId;
    std::string portId;
};

// Joins the fields of a key by NUL bytes. The prefix of a scan has an empty last field.
std::string Key(std::initializer_list<std::string_view> fields);
// The prefix of the keys of free port numbers.
std::string FreeNumbers();
// A number as four bytes that sort in its order, and back.
std::string BigEndian(uint32_t number);
uint32_t FromBigEndian(std::string_view bytes);
// The text of a property: its bytes before the first NUL.
std::string_view Text(std::string_view value);

// Removes the entries under a prefix, or only those whose values match.
VsStatus RemoveAll(Transaction &transaction, std::string_view prefix,
                   bool (*matches)(std::string_view value) = nullptr);

VsStatus GetSwitch(Reader &reader, std::string_view switchId, StoredSwitch &found);
VsStatus AddSwitch(Transaction &transaction, std::string_view switchId, const StoredSwitch &added);
VsStatus RemoveSwitch(Transaction &transaction, std::string_view switchId);
VsStatus AssociateSwitch(Transaction &transaction, std::string_view switchId, bool associated);
VsStatus FindSwitchByAlias(Reader &reader, std::string_view alias, std::string &switchId);
// The switch whose portset has exactly this name.
VsStatus FindSwitchByPortset(Reader &reader, std::string_view portset, std::string &switchId);
// All switches, the longest portset name first, switches without a portset last. False ends the walk.
VsStatus
ForEachSwitch(Reader &reader,
              const std::function<bool(std::string_view switchId, std::string_view className)> &visit);

VsStatus GetPortNumber(Reader &reader, std::string_view switchId, std::string_view portId, uint32_t &number);
VsStatus GetPortByNumber(Reader &reader, uint32_t number, PortName &port);
VsStatus ForEachPort(Reader &reader, std::string_view switchId,
                     const std::function<bool(std::string_view portId, uint32_t number)> &visit);
// A port's number and the bundle of its properties, which is not checked.
struct StoredPort {
    uint32_t number;
    std::string_view properties;
};
VsStatus ForEachPortRow(Reader &reader, std::string_view switchId,
                        const std::function<bool(std::string_view portId, const StoredPort &port)> &visit);
VsStatus CountPorts(Reader &reader, std::string_view switchId, uint32_t &ports);
// The ports that have a policy on, in the order of their ids.
VsStatus ListPortsWith(Reader &reader, const PortPolicy &policy, std::string_view switchId,
                       std::vector<std::string> &portIds);
VsStatus AnyPortWith(Reader &reader, const PortPolicy &policy, std::string_view switchId, bool &any);
// Adds a port with all properties of a sealed bundle; a damaged bundle is STATUS_BAD_PARAM.
VsStatus AddPort(Transaction &transaction, std::string_view switchId, std::string_view portId,
                 std::string_view bundle);
VsStatus RemovePort(Transaction &transaction, std::string_view switchId, std::string_view portId);

// Gives a port a number that this host has given out before, to undo the port's removal. If a port of the
// same switch has the number, the two swap numbers; if a port of another switch has it: STATUS_EXISTS.
VsStatus RestorePortNumber(Transaction &transaction, const PortName &port, uint32_t number);

VsStatus GetProperty(Reader &reader, const PropertyOwner &owner, std::string_view key, StoredProperty &found);
// The value of a property; empty when it is absent.
VsStatus ReadValue(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value);
struct NamedValue {
    std::string_view key;
    std::string *value;
};
VsStatus ReadValues(Reader &reader, const PropertyOwner &owner, std::initializer_list<NamedValue> values);
// A property without its value.
struct PropertyName {
    std::string key;
    uint32_t flags;
    size_t length;
};
// Adds the properties of an owner; none when it has no row.
VsStatus ListProperties(Reader &reader, const PropertyOwner &owner, std::vector<PropertyName> &names);
VsStatus SetProperty(Transaction &transaction, const PropertyOwner &owner, const BundleEntry &property);
VsStatus ClearProperty(Transaction &transaction, const PropertyOwner &owner, std::string_view key);

}

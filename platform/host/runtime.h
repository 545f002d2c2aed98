// The host's runtime tables: the portsets that run and the NICs that are plugged in, with their state.
// Records of fixed size, kept beside the stored tables until the host is reset.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/host/bytes.h"
#include "platform/host/tables.h"
#include "platform/include/vswitch_driver.h"

namespace vshost {

inline constexpr size_t MAX_PORTSET_NAME = 127;
inline constexpr uint32_t MAX_PORTSET_PORTS = 0x7FFFFFFF;
// An entry of an uplink listing, the name followed by "/", has room for 31 characters.
inline constexpr size_t MAX_NIC_NAME = 30;
inline constexpr uint32_t MIN_MTU = 1280;
inline constexpr uint32_t MAX_MTU = 9000;
inline constexpr uint32_t DEFAULT_MTU = 1500;
inline constexpr size_t MAX_REFUSED_MTUS = 8;
inline constexpr VSwitchLearningProps DEFAULT_LEARNING_PROPS = {1, 600, 65536};

// A running switch.
struct Portset {
    char className[32] = {};
    uint32_t ports = 0;
    uint32_t mtu = DEFAULT_MTU;
};

// A physical NIC. A NIC that the host made for an uplink port is removed when the port releases it, unless it
// was configured since.
struct Nic {
    uint32_t speed = 10000; // Mb/s
    uint8_t fullDuplex = 1;
    uint8_t link = 1; // carrier
    uint8_t adminUp = 1;
    uint8_t madeOnDemand = 0;
    int32_t numaNode = 0;       // of the device
    int32_t driverNumaNode = 0; // as the driver last read it
    uint32_t mtu = DEFAULT_MTU;
    uint32_t maxMtu = MAX_MTU;
    uint32_t refusedMtus[MAX_REFUSED_MTUS] = {};
    char switchId[64] = {}; // the uplink port that the NIC is bound to; empty when the NIC is free
    char portId[48] = {};
    char claimedSwitch[128] = {}; // the switch that the NIC is kept for: alias, id or portset name
    char claimedPort[48] = {};

    bool IsBound() const { return portId[0] != 0; }
    bool IsClaimed() const { return claimedPort[0] != 0; }
    bool LinkUp() const { return link && adminUp; }
    bool AcceptsMtu(uint32_t mtu) const;
};

struct NamedNic {
    std::string name;
    Nic nic;
};

// An entry of a port's MAC table. Entries of the scenario stay when the portset is removed.
struct MacRecord {
    uint32_t age = 0;
    uint8_t type = VSWITCH_MAC_STATIC;
    uint8_t flags = 0;
    uint8_t fromScenario = 0;
    uint8_t reserved = 0;
};

// The entries of a port's MAC table that are in the rows; all show `number` as their port's.
VsStatus ReadStoredAddresses(Reader &reader, std::string_view portset, std::string_view portId,
                             std::vector<VSwitchMacEntry> &entries, uint32_t number = 0);

// Keys of the tables. The state of a portset is kept under its name, whether or not it runs.
namespace runtime {
std::string PortsetKey(std::string_view name);
std::string NicKey(std::string_view name); // sorts nic2 before nic10
std::string MacPrefix(std::string_view portset, std::string_view portId);
std::string MacKey(std::string_view portset, std::string_view portId, uint16_t vlanId,
                   const uint8_t *address);
std::string LagKey(std::string_view portset, std::string_view name);
std::string GroupPrefix(std::string_view portset, uint32_t addressKind);
std::string GroupKey(std::string_view portset, uint32_t addressKind, uint32_t vlanId,
                     std::string_view address);
std::string OptionPrefix();
std::string OptionKey(uint16_t id);
std::string PortStatsKey(std::string_view portset, std::string_view portId);
std::string MirrorStatsKey(std::string_view portset, std::string_view sessionId);
std::string RarpKey(std::string_view portset);
std::string TeamingKey(std::string_view portset);
std::string PromiscuousKey(std::string_view portset); // port ids, each followed by a NUL
std::string LearningPropsKey();
std::string RtmKey(uint32_t command);
}

// Reads a record from the bytes of a row; false when they are not exactly one record.
template<class Record> bool DecodeRecord(std::string_view row, Record &record)
{
    if (row.size() != sizeof(record)) return false;
    memcpy(static_cast<void *>(&record), row.data(), sizeof(record));
    return true;
}

// Visits the rows under a prefix, each with the rest of its key. If `visit` returns false, the row is
// damaged: the scan ends with STATUS_IO_ERROR.
VsStatus ScanRows(Reader &reader, std::string_view prefix,
                  const std::function<bool(std::string_view rest, std::string_view row)> &visit);

// A record of a table: STATUS_NOT_FOUND when it is absent, STATUS_IO_ERROR when it has another size.
template<class Record> VsStatus GetRecord(Reader &reader, std::string_view key, Record &record)
{
    std::string value;
    if (VsStatus status = reader.Get(key, value)) return status;
    return DecodeRecord(value, record) ? STATUS_OK : STATUS_IO_ERROR;
}

template<class Record>
VsStatus PutRecord(Transaction &transaction, std::string_view key, const Record &record)
{
    static_assert(std::has_unique_object_representations_v<Record>, "padding would be stored");
    return transaction.Put(key, BytesOf(record));
}

// The text of a field that is NUL-terminated unless it is full.
template<size_t size> std::string_view FieldText(const char (&field)[size])
{
    return {field, strnlen(field, size)};
}

// `text` must be shorter than the field.
template<size_t size> void SetField(char (&field)[size], std::string_view text)
{
    memset(field, 0, size);
    text.copy(field, size - 1);
}

// The name of a switch's portset: the host property, otherwise the alias, otherwise STATUS_NOT_FOUND.
VsStatus PortsetOfSwitch(Reader &reader, std::string_view switchId, std::string &portset);
VsStatus SwitchOfPortset(Reader &reader, std::string_view portset, std::string &switchId);

VsStatus AddPortset(Transaction &transaction, std::string_view name, const Portset &portset);
VsStatus RemovePortset(Transaction &transaction, std::string_view name);
VsStatus ListPortsets(Reader &reader, std::vector<std::string> &names);

VsStatus ListNics(Reader &reader, std::vector<NamedNic> &nics);
// Configures a NIC, which from then on counts as plugged in, not as made on demand.
VsStatus PutNic(Transaction &transaction, std::string_view name, Nic nic);
// The uplink ports that this host's view of the switch lists.
VsStatus ListUplinkPorts(Reader &reader, std::string_view switchId, std::vector<std::string> &portIds);
// The NICs bound to a switch, in the order of its uplink ports.
VsStatus ListUplinks(Reader &reader, std::string_view switchId, std::vector<NamedNic> &nics);
// Binds a NIC to an uplink port, which releases the NIC that it had; STATUS_NOT_FOUND when the port is not an
// uplink port of the switch.
VsStatus BindNic(Transaction &transaction, std::string_view name, std::string_view switchId,
                 std::string_view portId);
// Binds the NIC that an uplink port had, to undo the removal of the port: STATUS_NOT_FOUND when the NIC is
// gone and was not made on demand, STATUS_EXISTS when a port of another switch has it.
VsStatus RestoreNic(Transaction &transaction, const NamedNic &had, std::string_view switchId,
                    std::string_view portId);
// Keeps a NIC for one uplink port. It is bound at once if the port exists, otherwise as soon as it does.
VsStatus ClaimNic(Transaction &transaction, std::string_view name, std::string_view switchName,
                  std::string_view portId);
// Removes a NIC from the host; its uplink port gets another NIC.
VsStatus RemoveNic(Transaction &transaction, std::string_view name);
VsStatus ReleaseNic(Transaction &transaction, std::string_view name);

// Must be called in the transaction that changes the uplink ports of a switch, or removes a port or the
// switch: gives each uplink port a NIC, and releases the NICs of ports that are uplink ports no longer.
VsStatus UplinksChanged(Transaction &transaction, std::string_view switchId);
// Must be called in the transaction that removes a port: removes its MAC addresses.
VsStatus PortRemoved(Transaction &transaction, std::string_view switchId, std::string_view portId);

// A switch by its alias, its id or the name of its portset.
VsStatus FindSwitch(Reader &reader, std::string_view name, std::string &switchId);

// Whether a node of the shell's tree can have this name.
bool IsNodeName(std::string_view name, size_t longest);

// Starts the portset of each switch that is associated with this host and doesn't run, with the switch's
// class, ports and MTU; its uplinks get the MTU too. A switch stays down when its rows are damaged, when a
// portset cannot have its name, class or number of ports, and when another switch has the same portset.
VsStatus StartSwitches(Transaction &transaction);

// Removes all runtime state and starts the switches, as a reboot does.
VsStatus ResetRuntime(Transaction &transaction);

}

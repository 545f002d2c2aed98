#include "platform/live/touched.h"

#include <algorithm>
#include <iterator>

#include "platform/host/runtime.h"

namespace live {

using namespace vshost;

namespace {

// Tables that the data path doesn't go by, or that change only together with a row that it goes by.
constexpr std::string_view OTHER_TABLES[] = {"switch", "alias", "walk", "number", "numbers", "listed"};
constexpr std::string_view OTHER_RUNTIME_TABLES[] = {
    "free", "claim", "demand", "lag", "group", "learned", "rarp", "mirror", "teaming", "promiscuous", "rtm"};

// Takes the first field off a key.
std::string TakeField(std::string_view &key)
{
    const size_t length = std::min(key.find('\0'), key.size());
    const std::string field(key.substr(0, length));
    key.remove_prefix(std::min(length + 1, key.size()));
    return field;
}

template<size_t count> bool IsOneOf(const std::string_view (&names)[count], std::string_view name)
{
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

void AddRuntimeRow(Reader &store, std::string_view key, Touched &touched)
{
    const std::string table = TakeField(key);
    if (IsOneOf(OTHER_RUNTIME_TABLES, table)) return;
    if (table != "mac") {
        touched.all = true;
        return;
    }
    std::string switchId;
    const std::string portset = TakeField(key), portId = TakeField(key);
    touched.addresses = true;
    if (SwitchOfPortset(store, portset, switchId) == STATUS_OK)
        touched.ports[switchId].insert(portId);
    else
        touched.all = true;
}

void AddRow(Reader &store, std::string_view key, bool isRemoved, Touched &touched)
{
    const std::string table = TakeField(key);
    if (IsOneOf(OTHER_TABLES, table)) return;
    if (table == "run") return AddRuntimeRow(store, key, touched);
    const std::string switchId = TakeField(key);
    if (table == "port" && !isRemoved)
        touched.ports[switchId].insert(TakeField(key));
    else if (table == "port" || table == "global" || table == "host")
        touched.switches.insert(switchId);
    else
        touched.all = true;
}

}

void Touched::Add(const Touched &other)
{
    all |= other.all;
    addresses |= other.addresses;
    switches.insert(other.switches.begin(), other.switches.end());
    for (const auto &[switchId, portIds] : other.ports)
        ports[switchId].insert(portIds.begin(), portIds.end());
}

Touched FindTouched(Reader &store, const RowChanges &rows)
{
    Touched touched;
    for (const auto &[key, value] : rows)
        if (!touched.all) AddRow(store, key, !value, touched);
    return touched;
}

}

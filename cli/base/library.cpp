// The library for C++: buffers that release themselves, names, and bytes as text.
#include "cli/base/library.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <malloc.h>
#include <set>
#include <vswitch_driver.h>

#include "cli/base/forward.h"
#include "cli/base/limit.h"
#include "frontend/files.h"

namespace vsctl {

namespace {

constexpr const char *LEVEL_NAMES[] = {"global", "host", "port"};

// Throws unless the switch was found, with the nearest name where the driver can list the switches.
void CheckFound(VsStatus status, const std::string &alias)
{
    if (status == STATUS_OK) return;
    const bool isListed = status == STATUS_NOT_FOUND && DeviceError(ZOR_DEVICE) == 0;
    Check(status, "finding", {alias, ""}, isListed ? Suggest(alias, SwitchNames()) : "");
}

constexpr uint32_t MAX_RANGE = 65536;

struct NumberedName {
    std::string stem;
    uint32_t number;
};

// Nothing for a name that cannot begin or end a range.
std::optional<NumberedName> SplitNumber(std::string_view name)
{
    const size_t digits = name.find_last_not_of("0123456789") + 1;
    NumberedName parts{std::string(name.substr(0, digits)), 0};
    const auto [end, error] = std::from_chars(name.data() + digits, name.data() + name.size(), parts.number);
    if (error != std::errc() || (name[digits] == '0' && name.size() > digits + 1)) return {};
    return parts;
}

NumberedName RequireNumber(std::string_view name)
{
    if (auto parts = SplitNumber(name)) return *parts;
    throw Error(Exit::BAD_VALUE, fmt::format("'{}' cannot begin or end a range of ports", name),
                "write a range like port0..port7");
}

void AddRange(std::string_view first, std::string_view last, std::vector<std::string> &names)
{
    const NumberedName from = RequireNumber(first);
    const NumberedName to = RequireNumber(last);
    if (from.stem != to.stem || from.number > to.number || to.number - from.number >= MAX_RANGE) {
        throw Error(Exit::BAD_VALUE, fmt::format("'{}..{}' is not a range of ports", first, last),
                    "write a range like port0..port7");
    }
    for (uint64_t number = from.number; number <= to.number; number++)
        names.push_back(fmt::format("{}{}", from.stem, number));
}

bool Follows(const std::string &name, const std::string &last)
{
    const auto number = SplitNumber(name), before = SplitNumber(last);
    return number && before && number->stem == before->stem && number->number == before->number + 1;
}

VsStatus GetProperty(const NamedProperty &property, PropValueBuffer &buffer)
{
    const char *name = property.target.Alias(), *key = property.key.c_str();
    const uint8_t useAlias = !property.byId;
    if (property.level == PropertyLevel::PORT)
        return VSDVS_GetPortProp(name, property.target.Port(), key, &buffer, name, useAlias);
    auto *const get = property.level == PropertyLevel::HOST ? VSDVS_GetHostProp : VSDVS_GetGlobProp;
    return get(name, key, &buffer, name, useAlias);
}

}

const char *LevelName(PropertyLevel level) { return LEVEL_NAMES[static_cast<size_t>(level)]; }

PropertyLevel LevelOf(std::string_view name)
{
    return static_cast<PropertyLevel>(std::find(std::begin(LEVEL_NAMES), std::end(LEVEL_NAMES), name) -
                                      std::begin(LEVEL_NAMES));
}

std::string Hex(const void *bytes, size_t length)
{
    const auto *first = static_cast<const uint8_t *>(bytes);
    return fmt::format("{:02x}", fmt::join(first, first + length, ""));
}

Bytes FromHex(std::string_view text)
{
    std::string digits;
    for (char c : text) {
        if (c != ' ' && c != ':' && c != '\n') digits += c;
    }
    Bytes bytes(digits.size() / 2);
    bool valid = digits.size() % 2 == 0;
    for (size_t i = 0; valid && i < bytes.size(); i++) {
        const char *end = digits.data() + 2 * i + 2;
        valid = std::from_chars(end - 2, end, bytes[i], 16).ptr == end;
    }
    if (!valid)
        throw Error(Exit::BAD_VALUE, "bytes must be pairs of hexadecimal digits", "write them like 0a1b2c");
    return bytes;
}

std::string Name(const char *field, size_t size) { return {field, strnlen(field, size)}; }

std::vector<std::string> Words(std::string_view text, std::string_view separator)
{
    std::vector<std::string> words;
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find(separator, start), text.size());
        words.emplace_back(text.substr(start, end - start));
        start = end + separator.size();
    }
    return words;
}

std::string ReadFile(const std::string &path) { return frontend::ReadFile(path, RestartTimeLimit); }

void RequireEntries(const void *list, size_t headerSize, size_t count, size_t entrySize)
{
    if (headerSize + count * entrySize <= malloc_usable_size(const_cast<void *>(list))) return;
    throw Error(Exit::FAILURE, fmt::format("the driver's list counts {} entries but holds fewer", count),
                "the list may have grown meanwhile: try again");
}

void CheckDriver(VsStatus status, std::string_view action, const Target &target, const std::string &listed)
{
    RestartTimeLimit();
    if (status == STATUS_OK) return;
    const int error = DeviceError(ZOR_DEVICE);
    if (error == 0) {
        if (!target.alias.empty()) RequireRunning(action, target);
        Check(status, action, target, listed);
    }
    const Exit exit = error == EACCES || error == EPERM ? Exit::PERMISSION : Exit::UNREACHABLE;
    throw WithStatus({exit,
                      fmt::format("{} {} failed: the switch driver {} cannot be opened ({})", action,
                                  target.Text(), ZOR_DEVICE, strerror(error)),
                      AdviceFor(exit)},
                     status);
}

bool IsRunning(const std::string &alias)
{
    uint8_t info[VS_INFO_SIZE];
    char portset[PORTSET_NAME_SIZE];
    if (DVSAliasToPortsetName(alias.c_str(), portset) != STATUS_OK) return true; // the switch does not exist
    return VSZOR_GetVSInfo(portset, info) != STATUS_NOT_FOUND || DeviceError(ZOR_DEVICE) != 0;
}

void RequireRunning(std::string_view action, const Target &target)
{
    if (IsRunning(target.alias)) return;
    throw Error(
        Exit::FAILURE, fmt::format("{} {} failed: the switch is not running", action, target.Text()),
        "restart the host to run it; 'vsctl switch show' and 'vsctl export' show its stored configuration");
}

std::vector<std::string> Portsets()
{
    DriverBuffer<> list;
    CheckDriver(VSZOR_GetSwitches(1, list.Out()), "listing the switches of", {});
    std::vector<std::string> names;
    using Entry = char[PORTSET_NAME_SIZE];
    for (const Entry &name : DriverEntries<Entry>(static_cast<const ZorListHeader *>(list.Get())))
        names.push_back(Name(name, sizeof name));
    return names;
}

std::string AliasOf(const std::string &portset)
{
    char alias[SWITCH_ALIAS_SIZE] = "";
    char portsetBack[PORTSET_NAME_SIZE] = "";
    if (VSDVS_GetAliasFromPortset(portset.c_str(), alias) != STATUS_OK || !*alias) return "";
    if (DVSAliasToPortsetName(alias, portsetBack) != STATUS_OK || portset != portsetBack) return "";
    return alias;
}

std::vector<std::string> SwitchNames()
{
    std::vector<std::string> names;
    for (const std::string &portset : Portsets()) {
        if (std::string alias = AliasOf(portset); !alias.empty()) names.push_back(alias);
    }
    const std::set<std::string> running(names.begin(), names.end());
    for (const std::string &id : StoredSwitchIds()) {
        if (std::string alias = AliasOfId(id); !alias.empty() && !running.contains(alias))
            names.push_back(alias);
    }
    return names;
}

std::string AliasOfId(const std::string &id)
{
    Bytes alias;
    if (NamedProperty{PropertyLevel::GLOBAL, {id, ""}, "com.talpex.common.alias", true}.Get(alias) !=
        STATUS_OK)
        return "";
    return Name(reinterpret_cast<const char *>(alias.data()), alias.size());
}

std::vector<std::string> StoredSwitchIds()
{
    using Visit = int (*)(void *handle, void *context);
    static auto *const forEach = PlatformFunction<void(Visit, void *)>("DVSState_SwitchForEach");
    static auto *const idOf = PlatformFunction<const char *(void *)>("DVS_SwitchId");
    std::vector<std::string> ids;
    if (!forEach || !idOf) return ids;
    const Visit addId = [](void *handle, void *context) {
        static_cast<std::vector<std::string> *>(context)->push_back(Name(idOf(handle), SWITCH_ID_SIZE));
        return 0;
    };
    forEach(addId, &ids);
    return ids;
}

bool SwitchExists(const std::string &alias)
{
    char id[SWITCH_ID_SIZE];
    const VsStatus status = DVSAliasToSwitchId(alias.c_str(), id);
    RestartTimeLimit();
    if (status != STATUS_NOT_FOUND) Check(status, "finding", {alias, ""});
    return status == STATUS_OK;
}

std::string SwitchId(const std::string &alias)
{
    char id[SWITCH_ID_SIZE];
    CheckFound(DVSAliasToSwitchId(alias.c_str(), id), alias);
    return id;
}

bool SwitchIdExists(const std::string &id)
{
    if (IsEmbedded()) return ListPorts(id).has_value();
    const Target byId{id, ""};
    for (const NamedProperty &property :
         {NamedProperty{PropertyLevel::GLOBAL, byId, "com.talpex.common.alias", true},
          NamedProperty{PropertyLevel::GLOBAL, byId, "com.talpex.common.version", true},
          NamedProperty{PropertyLevel::HOST, byId, "com.talpex.common.host.portset", true}}) {
        int32_t length = 0;
        const VsStatus status = property.Length(length);
        if (status == STATUS_OK) return true;
        if (status != STATUS_NOT_FOUND) Check(status, "finding", byId);
    }
    return false;
}

void RequireSwitchId(const std::string &id)
{
    if (!SwitchIdExists(id))
        throw Error(Exit::NOT_FOUND, fmt::format("no switch has the id '{}'", id),
                    "'vsctl switch list' shows the ids of the switches");
}

std::string PortsetUser(const std::string &portset)
{
    if (const std::string alias = AliasOf(portset); !alias.empty()) return "switch " + alias;
    char named[PORTSET_NAME_SIZE];
    if (DVSAliasToPortsetName(portset.c_str(), named) == STATUS_OK && portset == named)
        return "switch " + portset;
    VSwitchInfo info{};
    if (!IsEmbedded() || VSZOR_GetVSInfo(portset.c_str(), &info) != STATUS_OK || !*info.switchId) return "";
    return fmt::format("the switch with the id '{}'", Name(info.switchId, sizeof info.switchId));
}

void RequireNoBarePortset(const std::string &portset)
{
    if (DeviceError(ZOR_DEVICE)) return; // nothing runs where there is no driver
    if (!Contains(Portsets(), portset) || !PortsetUser(portset).empty()) return;
    throw Error(Exit::FAILURE,
                fmt::format("portset {} runs without a switch, and the library cannot remove it", portset),
                fmt::format("remove it with /bin/tybel -e set /net/portsets/{}/destroy destroy", portset));
}

std::string PortsetOf(const std::string &alias)
{
    char portset[PORTSET_NAME_SIZE];
    CheckFound(DVSAliasToPortsetName(alias.c_str(), portset), alias);
    return portset;
}

void RequireOwnPlatform(const char *action)
{
    if (IsEmbedded()) return;
    throw Error(Exit::FAILURE, fmt::format("this platform cannot {}", action));
}

bool PortExists(const Target &port)
{
    const bool isKnown = DVPortExist(SwitchId(port.alias).c_str(), port.Port());
    RestartTimeLimit();
    if (isKnown) return true;
    // The cache may miss ports that this process has added since it was loaded.
    int32_t length = 0;
    return NamedProperty{PropertyLevel::PORT, port, "com.talpex.common.port.alias"}.Length(length) ==
           STATUS_OK;
}

std::vector<vshost_port> PortsOf(const std::string &alias)
{
    if (!IsEmbedded()) return {};
    return ListPorts(SwitchId(alias)).value_or(std::vector<vshost_port>());
}

std::string PortAdvice(const Target &port)
{
    if (!IsEmbedded()) return "check the name of the port: this platform does not list ports";
    std::vector<std::string> names;
    for (const vshost_port &listed : PortsOf(port.alias))
        names.emplace_back(listed.id);
    const std::string suggestion = Suggest(port.port, names);
    return suggestion.empty() ? fmt::format("'vsctl port list {}' lists its ports", port.alias) : suggestion;
}

std::string PropertyAdvice(const Target &target, bool byId)
{
    if (!IsEmbedded()) return "check the key and level: this platform does not list properties";
    return fmt::format("'vsctl property list {}{}{}' lists its properties", target.alias,
                       target.port.empty() ? "" : " --port " + target.port, byId ? " --by-id" : "");
}

std::vector<std::string> PortNames(const std::string &list)
{
    std::vector<std::string> names;
    for (const std::string &word : Words(list, ",")) {
        const size_t dots = word.find("..");
        if (word.empty())
            throw Error(Exit::BAD_VALUE, "the name of a port is empty", "write names like port0,port1");
        if (dots == std::string::npos)
            names.push_back(word);
        else
            AddRange(word.substr(0, dots), word.substr(dots + 2), names);
    }
    return names;
}

bool ComesBefore(const std::string &port, const std::string &other)
{
    return strverscmp(port.c_str(), other.c_str()) < 0;
}

std::vector<std::string> PortRanges(std::vector<std::string> names)
{
    std::sort(names.begin(), names.end(), ComesBefore);
    std::vector<std::string> ranges;
    for (size_t first = 0; first < names.size();) {
        size_t last = first;
        while (last + 1 < names.size() && last - first + 1 < MAX_RANGE &&
               Follows(names[last + 1], names[last]))
            last++;
        ranges.push_back(last == first ? names[first] : names[first] + ".." + names[last]);
        first = last + 1;
    }
    return ranges;
}

VsStatus NamedProperty::Length(int32_t &length) const
{
    PropValueBuffer buffer{0, nullptr};
    const VsStatus status = GetProperty(*this, buffer);
    RestartTimeLimit();
    length = buffer.length;
    return status;
}

VsStatus NamedProperty::Get(Bytes &value) const
{
    int32_t length = 0;
    VsStatus status = STATUS_NO_MEMORY; // another process made the value longer meanwhile: ask again
    while (status == STATUS_NO_MEMORY) {
        if ((status = Length(length)) != STATUS_OK) return status;
        value.resize(static_cast<size_t>(length));
        if (length == 0) return STATUS_OK;
        PropValueBuffer buffer{length, value.data()};
        status = GetProperty(*this, buffer);
    }
    return status;
}

VsStatus NamedProperty::Set(const Bytes &value) const
{
    const char *name = target.Alias();
    const auto length = static_cast<uint32_t>(value.size());
    const uint8_t useAlias = !byId;
    if (level == PropertyLevel::PORT)
        return VSDVS_SetPortProp(name, target.Port(), key.c_str(), value.data(), length, name, useAlias);
    auto *const set = level == PropertyLevel::HOST ? VSDVS_SetHostProp : VSDVS_SetGlobProp;
    return set(name, key.c_str(), value.data(), length, name, useAlias);
}

VsStatus NamedProperty::Clear() const
{
    const char *name = target.Alias();
    const uint8_t useAlias = !byId;
    if (level == PropertyLevel::PORT)
        return VSDVS_ClearPortProp(name, target.Port(), key.c_str(), name, useAlias);
    auto *const clear = level == PropertyLevel::HOST ? VSDVS_ClearHostProp : VSDVS_ClearGlobProp;
    return clear(name, key.c_str(), name, useAlias);
}

}

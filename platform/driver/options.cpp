// Statistics of teaming, logical-switch teaming and runtime options of the driver.
#include <cerrno>

#include "platform/driver/request.h"
#include "platform/host/teaming.h"

namespace vshost {

namespace {

constexpr std::string_view KEY_LS_TABLE = "com.talpex.vswitch.logicalswitch.teaming";
constexpr size_t LS_ENTRY = 2748;
constexpr size_t LS_NAME = 136;

int ReadAllOptions(Reader &reader, std::vector<VSwitchOption> &options)
{
    const auto take = [&](std::string_view rest, std::string_view row) {
        VSwitchOption &option = options.emplace_back();
        uint16_t id = 0;
        uint32_t value = 0;
        const bool whole = DecodeRecord(rest, id) && DecodeRecord(row, value);
        option.id = __builtin_bswap16(id);
        option.value = value;
        return whole;
    };
    return ErrnoOf(ScanRows(reader, runtime::OptionPrefix(), take));
}

// The options that the request names; every one of them must be set.
int ReadNamedOptions(DriverRequest &request, std::vector<VSwitchOption> &options)
{
    for (size_t at = 0; at < request.raw.size(); at += sizeof(uint16_t)) {
        VSwitchOption option = {};
        memcpy(&option.id, request.raw.data() + at, sizeof(option.id));
        uint32_t value = 0;
        if (int error = ErrnoOf(GetRecord(request.reader, runtime::OptionKey(option.id), value), ENOENT))
            return error;
        option.value = value;
        options.push_back(option);
    }
    return 0;
}

// The entries of a well-formed record of options.
bool ParseOptions(std::string_view raw, std::vector<VSwitchOption> &options)
{
    VSwitchOptions header;
    if (raw.size() < sizeof(header)) return false;
    memcpy(&header, raw.data(), sizeof(header));
    raw.remove_prefix(sizeof(header));
    if (header.count > VSWITCH_OPTIONS_MAX || raw.size() != header.count * sizeof(VSwitchOption))
        return false;
    options.resize(header.count);
    if (!options.empty()) memcpy(options.data(), raw.data(), raw.size());
    for (const VSwitchOption &option : options)
        if (option.id == 0 || option.reserved != 0) return false;
    return header.length == sizeof(header) + raw.size();
}

}

int GetRarpStats(DriverRequest &request)
{
    VSwitchRarpStats stats = {};
    const VsStatus status = request.live.ReadRarp(request.reader, request.portset, request.switchId, stats);
    return status ? ErrnoOf(status) : request.Answer(stats);
}

int GetServiceTeamingStats(DriverRequest &request)
{
    VSwitchTeamingStats stats = {};
    std::vector<RunningPort> uplinks;
    if (int error = ListUplinkPortsOf(request, uplinks)) return error;
    if (int error = ErrnoOf(request.live.ReadTeaming(request.reader, request.portset, uplinks, stats)))
        return error;
    return request.Answer(stats);
}

int GetPortLsPolicy(DriverRequest &request)
{
    std::string name;
    char answer[LS_NAME] = {};
    const PropertyOwner port{StoredLevel::PORT, request.switchId, request.portId};
    if (int error = ErrnoOf(ReadFollowedName(request.reader, port, name))) return error;
    SetField(answer, name);
    return request.Answer(answer);
}

int GetLsPolicies(DriverRequest &request)
{
    std::string table;
    if (int error =
            ReadProperty(request.reader, {StoredLevel::GLOBAL, request.switchId}, KEY_LS_TABLE, table))
        return error;
    uint32_t count = WordAt(table, 0);
    request.StartList(uint32_t{0}, LS_ENTRY);
    for (size_t at = sizeof(count); count > 0 && at + LS_ENTRY <= table.size(); at += LS_ENTRY, count--)
        request.Add(std::string_view(table).substr(at, LS_ENTRY));
    return 0;
}

int GetOptions(DriverRequest &request)
{
    std::vector<VSwitchOption> options;
    if (request.raw.size() % sizeof(uint16_t) || request.raw.size() > VSWITCH_OPTIONS_MAX * sizeof(uint16_t))
        return EINVAL;
    const bool all = request.raw.empty();
    if (int error = all ? ReadAllOptions(request.reader, options) : ReadNamedOptions(request, options))
        return error;
    const auto length =
        static_cast<uint32_t>(sizeof(VSwitchOptions) + options.size() * sizeof(VSwitchOption));
    request.StartList(VSwitchOptions{length, 0}, sizeof(VSwitchOption), offsetof(VSwitchOptions, count));
    for (const VSwitchOption &option : options)
        request.AddRecord(option);
    return 0;
}

int SetOptions(DriverRequest &request)
{
    std::vector<VSwitchOption> options, stored;
    if (!ParseOptions(request.raw, options)) return EINVAL;
    for (const VSwitchOption &option : options) {
        const uint32_t value = option.value;
        if (VsStatus status = PutRecord(*request.transaction, runtime::OptionKey(option.id), value))
            return ErrnoOf(status, EIO);
    }
    if (int error = ReadAllOptions(request.reader, stored)) return error;
    return stored.size() > VSWITCH_OPTIONS_MAX ? ENOSPC : 0;
}

}

// vsctl stats, option and rtm: counters of the running switch and options of the driver.
#include <algorithm>
#include <fmt/format.h>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

constexpr Field COMMAND{"", Form::NUMBER, "Number of the command", 0, UINT32_MAX};
constexpr Field OPTION{"", Form::NUMBER, "Numbers of options (default: all)", 0, UINT16_MAX};
constexpr Field VALUE{"", Form::NUMBER, "", 0, UINT32_MAX};

// The options with these ids; all options when there are none.
Json Options(const std::vector<uint16_t> &ids)
{
    return ReadTable(
        Record::OPTIONS, {},
        [&](void **options) {
            return VSZOR_GetRuntimeOptions(ids.data(), static_cast<uint16_t>(ids.size()), options);
        },
        "'vsctl option get' lists the options that are set");
}

Result GetOptions(const Verb &, const Arguments &arguments)
{
    std::vector<uint16_t> ids;
    for (const std::string &word : arguments.List("OPTION"))
        ids.push_back(ParseWord(OPTION, word));
    return Rows(Options(ids));
}

Bytes GivenOptions(const Arguments &arguments)
{
    if (arguments.List("OPTION").empty()) return GivenBytes(arguments, 0, "OPTION=VALUE, --hex or --file");
    RequirePublishedLayout("OPTION=VALUE");
    Json options = Json::array();
    for (const std::string &word : arguments.List("OPTION")) {
        const size_t sign = word.find('=');
        if (sign == std::string::npos)
            throw Error(Exit::BAD_VALUE, fmt::format("'{}' is not an option like NUMBER=VALUE", word));
        options.push_back({{"option", ParseWord(OPTION, word.substr(0, sign), "the option")},
                           {"value", ParseWord(VALUE, word.substr(sign + 1))}});
    }
    return EncodeOptions(options);
}

// Whether setting the options has an effect; true where their layout is not published.
bool Differ(const Json &wanted)
{
    if (!IsEmbedded()) return true;
    const Json present = Options({});
    return !std::all_of(wanted.begin(), wanted.end(),
                        [&present](const Json &option) { return Contains(present, option); });
}

Result SetOptions(const Verb &, const Arguments &arguments)
{
    const Bytes record = GivenOptions(arguments);
    uint32_t length = 0;
    if (record.size() >= sizeof length) memcpy(&length, record.data(), sizeof length);
    if (length < sizeof length || length > record.size()) {
        throw Error(Exit::BAD_VALUE,
                    "a record of options begins with its own length in bytes, as a 32-bit number");
    }
    const Json rows = Decode(Record::OPTIONS, record.data(), record.size());
    if (rows.empty()) throw Error(Exit::BAD_VALUE, "the record has no option", "give one as NUMBER=VALUE");
    const bool changes = !arguments.IsDryRun() || Differ(rows);
    if (!arguments.IsDryRun())
        CheckDriver(VSZOR_SetRuntimeOptions(record.data()), "setting the options of", {});
    return Changed(arguments, rows, changes);
}

// The record begins with the number of entries, from which the library computes its length.
Result Rtm(const Verb &, const Arguments &arguments)
{
    const Bytes record = GivenBytes(arguments, 0);
    const uint32_t command = arguments.Number("COMMAND", 0);
    uint32_t count = 0;
    if (record.size() >= sizeof count) memcpy(&count, record.data(), sizeof count);
    constexpr uint64_t HEADER = 9;
    constexpr uint64_t ENTRY = 128;
    if (record.size() != HEADER + ENTRY * count) {
        throw Error(Exit::BAD_VALUE, fmt::format("a record whose count is {} has {} bytes, not {}", count,
                                                 HEADER + ENTRY * count, record.size()));
    }
    if (DeviceError(ZOR_RTM_DEVICE))
        throw Error(Exit::UNREACHABLE, fmt::format("the RTM device {} cannot be opened", ZOR_RTM_DEVICE),
                    AdviceFor(Exit::UNREACHABLE));
    if (!arguments.IsDryRun())
        Check(VSZOR_RTMOp(record.data(), command), fmt::format("sending RTM command {} to", command), {});
    return Changed(arguments, {{"command", command}, {"entries", count}, {"sent", !arguments.IsDryRun()}});
}

}

std::vector<Verb> RuntimeVerbs()
{
    return {
        Reads("stats rarp", ShowRecord<VSZOR_GetRARPStats, Record::RARP_STATS>, {SWITCH},
              {"Show the RARP statistics of a switch", "lab", "VSZOR_GetRARPStats", "switch",
               Record::RARP_STATS}),
        Reads("stats teaming", ShowRecord<VSZOR_GetServicePortTeamingStats, Record::TEAMING_STATS>, {SWITCH},
              {"Show the teaming statistics of a switch's service port", "lab",
               "VSZOR_GetServicePortTeamingStats", "switch", Record::TEAMING_STATS}),
        Reads("option get", GetOptions, {{"OPTION", Shape::ANY, OPTION.help, Names::NONE, OPTION}},
              {"Show runtime options of the driver", "\n1 2", "VSZOR_GetRuntimeOptions",
               "option:number, value:number", Record::OPTIONS}),
        ChangesNow("option set", SetOptions,
                   {Excluding({"OPTION", Shape::ANY, "Options as NUMBER=VALUE"}, {"--hex", "--file"}), HEX,
                    FROM_FILE},
                   {"Set runtime options of the driver", "1=100 2=0", "VSZOR_SetRuntimeOptions",
                    "option:number, value:number", Record::OPTIONS}),
        ChangesNow("rtm send", Rtm,
                   {{"COMMAND", Shape::REQUIRED, COMMAND.help, Names::NONE, COMMAND}, HEX, FROM_FILE},
                   {"Send a record to the RTM device", "7 --hex 000000000000000000", "VSZOR_RTMOp",
                    "command:number, entries:number, sent:boolean"}),
    };
}

}

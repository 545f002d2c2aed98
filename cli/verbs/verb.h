// The table of verbs: what each takes, does and prints.
#pragma once

#include <map>

#include "cli/base/decode.h"
#include "cli/change/result.h"

namespace vsctl {

enum class Shape { REQUIRED, OPTIONAL, MANY, ANY, FLAG, OPTION }; // MANY: one or more; ANY: none or more

// What shell completion offers for an argument.
enum class Names { NONE, SWITCH, PORT, UPLINK, RUNNING_UPLINK, FILE, NOUN, VERB };

struct Argument {
    std::string name; // "SWITCH", or "--id" for options
    Shape shape;
    std::string help;
    Names names = Names::NONE;
    std::optional<Field> rule = {};         // of its values; without one, the verb checks them
    std::vector<std::string> excludes = {}; // arguments that must not be given as well
    std::vector<std::string> needs = {};    // arguments that must be given as well
};
// An option that takes a number up to `max`, or one of the choices.
Argument NumberOption(const char *name, const char *help, int64_t max);
Argument ChoiceOption(const char *name, const char *help, const char *choices);
Argument Excluding(Argument argument, std::vector<std::string> excluded);
Argument Needing(Argument argument, const char *needed);
// An option for each field.
std::vector<Argument> FieldOptions(std::span<const Field> fields);
// The arguments, and --hex and --file, which exclude those of them that are not required.
std::vector<Argument> OrBytes(std::vector<Argument> arguments);
// Null where there is none.
const Argument *FindArgument(const std::vector<Argument> &arguments, const std::string &name);
std::vector<std::string> NamesOf(const std::vector<Argument> &arguments);

// The words that a command line gives for the arguments of a verb.
class Arguments {
public:
    void Clear()
    {
        for (auto &[name, list] : words)
            list.clear();
    }
    std::vector<std::string> &Slot(const std::string &name) { return words[name]; }

    bool Has(const std::string &name) const;
    const std::string &Text(const std::string &name) const;
    std::string Text(const std::string &name, const std::string &absent) const;
    const std::vector<std::string> &List(const std::string &name) const;
    // The value of an argument whose rule is a number.
    uint32_t Number(const std::string &name, uint32_t absent) const;
    double Seconds(const std::string &name, double absent) const; // of a time like 500ms, 30s or 2m
    // SWITCH, and PORT or --port if the verb takes it.
    struct Target Target() const;
    // The ports that PORT names; without it all ports, or with --all-ports all but the uplinks.
    std::vector<struct Target> Ports(bool changes) const;
    bool IsDryRun() const { return Has("--dry-run"); }

private:
    std::vector<std::string> PortIds(bool changes) const;
    std::map<std::string, std::vector<std::string>> words;
};

struct Verb;

enum class Effect {
    READS,
    STEPS, // returns steps, which can be shown, undone and put in a batch
    DIRECT // changes the running host at once, and cannot be undone
};

struct Manual {
    std::string help;
    std::string examples;   // what follows the title, one a line
    std::string operations; // of the library that the verb uses, separated by spaces
    // The fields of a row of output, in the notation of schema.cpp; empty for a verb that prints a text or
    // steps.
    std::string rows = "";
    std::optional<Record> record = {}; // the driver's record that each row ends with
};

using RunFunction = Result (*)(const Verb &, const Arguments &);

struct Verb {
    std::string noun;
    std::string name; // empty where the noun is the whole command
    Effect effect;
    RunFunction run;
    std::vector<Argument> arguments;
    Manual manual;
    const Policy *policy = nullptr;

    std::string Title() const { return name.empty() ? noun : noun + " " + name; }
    std::vector<std::string> Examples() const; // whole commands
    // Whether people see its rows, not a text.
    bool PrintsTable() const
    {
        return effect == Effect::STEPS || manual.record || name == "list" ||
               (!manual.rows.empty() && manual.rows[0] != '@');
    }
};

// A row of the table. The title is the noun and, after a space, the name.
template<Effect EFFECT>
Verb VerbThat(const std::string &title, RunFunction run, std::vector<Argument> arguments, Manual manual)
{
    const auto words = Words(title + " ", " ");
    return {words[0], words[1], EFFECT, run, std::move(arguments), std::move(manual)};
}
inline constexpr auto &Reads = VerbThat<Effect::READS>;
inline constexpr auto &Changes = VerbThat<Effect::STEPS>;
inline constexpr auto &ChangesNow = VerbThat<Effect::DIRECT>;

// What the verb returns for these arguments.
Result RunVerb(const Verb &verb, const Arguments &arguments);
inline const Argument IF_ABSENT{"--if-absent", Shape::FLAG, "Do nothing where it is there already"};
inline const Argument IF_PRESENT{"--if-present", Shape::FLAG, "Do nothing where it is not there"};

Json OrNull(const std::string &text); // null for an empty text
// Results of one kind. An object is one row.
Result Rows(Json rows);
// The switch and, where there is one, the port, then the fields.
Json RowOf(const Target &target, const Json &fields);
Result Steps(std::vector<Step> steps);
// Of a verb that changes the running host at once. A dry run that would change nothing shows no rows.
Result Changed(const Arguments &arguments, Json rows, bool changes = true);
Result Text(std::string text);

// All verbs, by noun. The verbs of policies are made from the table of policies.
const std::vector<Verb> &Verbs();
std::vector<std::string> Nouns();
std::vector<std::string> VerbNames(const std::string &noun); // none where the noun is the whole command
// The row that `help --json` prints for a verb.
Json VerbRow(const Verb &verb);
// The verb that the words begin with, which loses those words. Throws with the nearest name.
const Verb &TakeVerb(std::vector<std::string> &words);

// The verbs of each source file.
std::vector<Verb> ShowVerbs();
std::vector<Verb> TopologyVerbs();
std::vector<Verb> TopVerbs();
std::vector<Verb> MetricsVerbs();
std::vector<Verb> StatisticsVerbs();
std::vector<Verb> SwitchVerbs();
std::vector<Verb> PortVerbs();
std::vector<Verb> PolicyVerbs();
std::vector<Verb> UplinkVerbs();
std::vector<Verb> MacVerbs();
std::vector<Verb> MulticastVerbs();
std::vector<Verb> ListVerbs();
std::vector<Verb> RuntimeVerbs();
std::vector<Verb> PropertyVerbs();
std::vector<Verb> ChangeVerbs();
std::vector<Verb> GeneralVerbs();

inline const Argument SWITCH{"SWITCH", Shape::REQUIRED, "Alias of the switch", Names::SWITCH};
inline const Argument ONE_PORT{"PORT", Shape::REQUIRED, "Port id", Names::PORT};
inline const Argument NEW_PORTS{"PORT", Shape::REQUIRED, "Port ids, like port0,port4..port7"};
inline const Argument PORTS{"PORT", Shape::OPTIONAL, "Port ids, like port0,port4..port7 (default: all)",
                            Names::PORT};
inline const Argument PORTS_TO_CHANGE{"PORT", Shape::OPTIONAL, "Port ids, like port0,port4..port7",
                                      Names::PORT};
inline const Argument ALL_PORTS{"--all-ports", Shape::FLAG, "All ports of the switch except its uplinks"};
inline const Argument EXISTING{"--existing", Shape::FLAG, "Leave out ports that are not there"};
inline const Argument ANY_PORT{"PORT", Shape::OPTIONAL, "Port id; without one, the uplinks", Names::PORT};
inline const Argument BY_ID{"--by-id", Shape::FLAG, "SWITCH is a switch id, not an alias"};
inline const Argument HEX{"--hex", Shape::OPTION, "Bytes, as hexadecimal digits"};
inline const Argument FROM_FILE = Excluding(
    {"--file", Shape::OPTION, "File that holds the bytes (- for standard input)", Names::FILE}, {"--hex"});

// Shows a record of a switch that the driver runs. GET takes the portset's name.
template<auto GET, Record RECORD> Result ShowRecord(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    const std::string portset = PortsetOf(target.alias);
    return Rows(RowOf(
        target, ReadRecord(RECORD, target, [&](void *record) { return GET(portset.c_str(), record); })));
}

// The fields that options give; null when there is none.
Json GivenFields(std::span<const Field> fields, const Arguments &arguments);
// The value of a policy as --live or --by-id asks for it.
Json ReadAsAsked(const Policy &policy, const Target &target, const Arguments &arguments);

// Throws where the driver does not publish the layout of the record that the arguments describe.
void RequirePublishedLayout(const char *arguments);
bool GivesBytes(const Arguments &arguments); // with --hex or --file
// The bytes that --hex or --file gives. Throws when neither is given, or when they are not `size` bytes
// (0: any number). `ways` are the options that the error names.
Bytes GivenBytes(const Arguments &arguments, size_t size, const char *ways = "--hex or --file");
Json GivenHex(const Arguments &arguments, size_t size); // these, as hexadecimal digits

}

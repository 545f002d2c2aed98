// Verbs: a row each, with its arguments, examples, the operations it uses and what does it.
#pragma once

#include <map>

#include "cli/change/result.h"

namespace vsctl {

enum class Shape { REQUIRED, OPTIONAL, MANY, ANY, FLAG, OPTION }; // MANY: one or more; ANY: none or more

// What completes an argument.
enum class Names { NONE, SWITCH, PORT, UPLINK, RUNNING_UPLINK, FILE, NOUN, VERB };

struct Argument {
    std::string name; // "SWITCH", or "--id" for options
    Shape shape;
    std::string help;
    Names names = Names::NONE;
};

// The words given for a verb's arguments.
class Arguments {
public:
    void Clear() { words.clear(); }
    std::vector<std::string> &Slot(const std::string &name) { return words[name]; }

    bool Has(const std::string &name) const;
    const std::string &Text(const std::string &name) const;
    std::string Text(const std::string &name, const std::string &absent) const;
    const std::vector<std::string> &List(const std::string &name) const;
    uint32_t Number(const std::string &name, uint32_t absent, uint32_t max = UINT32_MAX) const;
    // Of SWITCH, and PORT if the verb has it.
    struct Target Target() const;
    // One for each port of PORT.
    std::vector<struct Target> Ports() const;
    bool IsDryRun() const { return Has("--dry-run"); }

private:
    std::map<std::string, std::vector<std::string>> words;
};

enum class Effect {
    READS,
    STEPS, // returns steps, which can be shown, undone and put in a batch
    DIRECT // changes what is running at once, and can't be undone
};

struct Verb {
    std::string noun;
    std::string name; // empty where the noun is all
    std::string help;
    std::vector<Argument> arguments;
    std::string example; // what follows noun and verb; several are separated by '\n'
    std::string operations;
    Result (*run)(const Verb &, const Arguments &);
    Effect effect = Effect::READS;
    const Policy *policy = nullptr;

    std::string Title() const { return name.empty() ? noun : noun + " " + name; }
};

// Rows of the table: verbs that read, that return steps, and that change what is running at once.
Verb Reads(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
           std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &));
Verb Changes(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
             std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &));
Verb ChangesNow(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
                std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &));

// Results of one kind. An object is one row.
Result Rows(Json rows);
Result Steps(std::vector<Step> steps);
// Of a verb that changes what is running at once. A dry run shows no rows where nothing would change.
Result Changed(const Arguments &arguments, Json rows, bool changes = true);
Result Text(std::string text);

// All verbs, by noun. Those of the policies are made from their rows.
const std::vector<Verb> &Verbs();
std::vector<std::string> Nouns();
// What help --json tells of a verb.
Json VerbRow(const Verb &verb);
// The verb that the words begin with; `used` receives how many of them name it. Throws with the nearest.
const Verb &FindVerb(const std::vector<std::string> &words, size_t &used);

// Rows of each file of commands.
std::vector<Verb> SwitchVerbs();
std::vector<Verb> PortVerbs();
std::vector<Verb> PolicyVerbs();
std::vector<Verb> UplinkVerbs();
std::vector<Verb> MacVerbs();
std::vector<Verb> MulticastVerbs();
std::vector<Verb> MirrorVerbs();
std::vector<Verb> RuntimeVerbs();
std::vector<Verb> PropertyVerbs();
std::vector<Verb> ChangeVerbs();
std::vector<Verb> GeneralVerbs();

inline const Argument SWITCH{"SWITCH", Shape::REQUIRED, "alias of the switch", Names::SWITCH};
inline const Argument ONE_PORT{"PORT", Shape::REQUIRED, "port id", Names::PORT};
inline const Argument PORTS{"PORT", Shape::REQUIRED, "port ids, like port0,port4..port7", Names::PORT};
inline const Argument ANY_PORT{"PORT", Shape::OPTIONAL, "port id; the host's uplinks without one",
                               Names::PORT};
inline const Argument BY_ID{"--by-id", Shape::FLAG, "SWITCH is a switch id, not an alias"};
inline const Argument SELECTOR{"--selector", Shape::OPTION,
                               "number that selects entries; the driver defines it"};
inline const Argument HEX{"--hex", Shape::OPTION, "bytes, as hexadecimal digits"};
inline const Argument FROM_FILE{"--file", Shape::OPTION, "file that holds the bytes (- for standard input)",
                                Names::FILE};

// Throws when --hex or --file is given beside `fields`, which say the same.
void RefuseBytes(const Arguments &arguments, const char *fields);
// The bytes given by --hex or --file; throws when there are neither, or not `size` of them (0: any).
Bytes GivenBytes(const Arguments &arguments, size_t size);

}

#include "platform/driver/scenario_node.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace vshost {

namespace {

template<class Range> std::string List(const Range &names)
{
    std::string list;
    for (const auto &name : names)
        list += (list.empty() ? "" : ", ") + std::string(name);
    return list;
}

}

void VisitScenario(std::string_view text, const ScenarioNode::Visit &visit)
{
    nlohmann::json root;
    try {
        root = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception &error) {
        throw ScenarioError{std::string("the scenario is no JSON: ") + error.what()};
    }
    visit(ScenarioNode(root));
}

void ScenarioNode::Fail(const std::string &what) const
{
    throw ScenarioError{(path.empty() ? "the scenario" : path) + ": " + what};
}

void ScenarioNode::Members(const std::vector<Member> &members) const
{
    if (!value.is_object()) Fail("must be an object");
    for (const auto &[key, member] : value.items()) {
        const ScenarioNode node(member, path + "/" + key);
        const auto found = std::find_if(members.begin(), members.end(),
                                        [&key = key](const Member &known) { return key == known.name; });
        if (found == members.end()) {
            std::vector<std::string> names;
            for (const Member &known : members)
                names.emplace_back(known.name);
            node.Fail("no such key; use one of " + List(names));
        }
        found->visit(node);
    }
}

void ScenarioNode::Optional(const char *name, const Visit &visit) const
{
    const auto found = value.find(name);
    if (found != value.end()) visit(ScenarioNode(*found, path + "/" + name));
}

void ScenarioNode::Names(size_t longest,
                         const std::function<void(const std::string &, const ScenarioNode &)> &visit) const
{
    if (!value.is_object()) Fail("must be an object");
    for (const auto &[key, member] : value.items()) {
        const ScenarioNode node(member, path + "/" + key);
        if (key.empty() || key.size() > longest || key.find('\0') != key.npos)
            node.Fail("this name must have 1 to " + std::to_string(longest) + " characters");
        visit(key, node);
    }
}

void ScenarioNode::Elements(size_t most, const Visit &visit) const
{
    if (!value.is_array()) Fail("must be an array");
    if (value.size() > most) Fail("must have at most " + std::to_string(most) + " elements");
    for (size_t i = 0; i < value.size(); ++i)
        visit(ScenarioNode(value[i], path + "/" + std::to_string(i)));
}

uint64_t ScenarioNode::Number(uint64_t least, uint64_t most) const
{
    const bool inside =
        value.is_number_unsigned() && value.get<uint64_t>() >= least && value.get<uint64_t>() <= most;
    if (!inside) Fail("must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return value.get<uint64_t>();
}

std::string ScenarioNode::Name(size_t longest) const
{
    const std::string text = value.is_string() ? value.get<std::string>() : std::string();
    if (text.empty() || text.size() > longest || text.find('\0') != text.npos)
        Fail("must be a text of 1 to " + std::to_string(longest) + " characters");
    return text;
}

bool ScenarioNode::IsText() const { return value.is_string(); }

bool ScenarioNode::Boolean() const
{
    if (!value.is_boolean()) Fail("must be true or false");
    return value.get<bool>();
}

uint8_t ScenarioNode::Word(std::initializer_list<const char *> words) const
{
    uint8_t index = 0;
    for (const char *word : words) {
        if (value == word) return index;
        ++index;
    }
    Fail("must be one of " + List(words));
}

}

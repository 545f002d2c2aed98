// One value of a scenario together with its place in it, so that whatever is wrong with it can be said.
#ifndef PLATFORM_DRIVER_SCENARIO_NODE_H
#define PLATFORM_DRIVER_SCENARIO_NODE_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace vshost {

// What is wrong with a scenario, for people.
struct ScenarioError {
    std::string message;
};

class ScenarioNode {
public:
    using Visit = std::function<void(const ScenarioNode &)>;
    struct Member {
        const char *name;
        Visit visit;
    };

    explicit ScenarioNode(const nlohmann::json &value, std::string path = {})
        : value(value), path(std::move(path))
    {}

    [[noreturn]] void Fail(const std::string &what) const;

    // An object with these members, all optional, and no others.
    void Members(const std::vector<Member> &members) const;
    // The member of this name, if this object has it.
    void Optional(const char *name, const Visit &visit) const;
    // An object whose keys are names of 1 to `longest` characters.
    void Names(size_t longest,
               const std::function<void(const std::string &, const ScenarioNode &)> &visit) const;
    void Elements(size_t most, const Visit &visit) const;

    uint64_t Number(uint64_t least, uint64_t most) const;
    template<class Integer> Integer NumberOf() const
    {
        return static_cast<Integer>(Number(0, std::numeric_limits<Integer>::max()));
    }
    std::string Name(size_t longest) const;
    bool Boolean() const;
    // Index of the word among `words`.
    uint8_t Word(std::initializer_list<const char *> words) const;
    bool IsText() const;

private:
    const nlohmann::json &value;
    std::string path;
};

// Parses a text and visits its root; throws ScenarioError when it is no JSON.
void VisitScenario(std::string_view text, const ScenarioNode::Visit &visit);

}

#endif

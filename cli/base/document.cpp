// A file in TOML or JSON. Errors name the part by its JSON pointer; in TOML, by line and column too.
#include "cli/base/document.h"

#include <fmt/format.h>
#include <functional>
#include <set>
#include <sstream>
#include <toml++/toml.h>

namespace vsctl {

namespace {

constexpr size_t MAX_DEPTH = 32; // far more than these files need

// Checks a JSON text while it is parsed. Refuses a key that appears twice, of which the parser would keep the
// last, and nesting that is too deep for the parser's stack.
class JsonCheck {
public:
    bool operator()(int depth, Json::parse_event_t event, const Json &parsed)
    {
        const auto level = static_cast<size_t>(depth);
        if (level > MAX_DEPTH) throw Error(Exit::BAD_VALUE, "not JSON: nested too deeply");
        if (event == Json::parse_event_t::object_start) {
            keys.resize(level + 1);
            keys[level].clear();
        }
        if (event == Json::parse_event_t::key) Add(level, parsed.get<std::string>());
        return true;
    }
    std::string twice; // the pointer of the first key that appears twice

private:
    void Add(size_t level, const std::string &key)
    {
        path.resize(level);
        path.back() = "/" + PointerStep(key);
        const bool isNew = keys[level - 1].insert(key).second;
        if (!isNew && twice.empty()) twice = fmt::format("{}", fmt::join(path, ""));
    }
    std::vector<std::set<std::string>> keys; // of the open objects, by level
    std::vector<std::string> path;           // of the last key
};

}

Document::Document(const std::string &path) : path(path == "-" ? "standard input" : path)
{
    const std::string text = ReadFile(path);
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && text[first] == '{')
        ReadJson(text);
    else
        ReadToml(text);
}

void Document::ReadJson(const std::string &text)
{
    JsonCheck check;
    try {
        root = Json::parse(text, std::ref(check));
    } catch (const Json::parse_error &error) {
        const std::string what = error.what();
        throw Error(Exit::BAD_VALUE, fmt::format("{}: not JSON: {}", path, what.substr(what.find(']') + 2)));
    } catch (const Error &error) {
        throw Error(error.exit, fmt::format("{}: {}", path, error.problem));
    }
    if (!check.twice.empty()) throw At(check.twice, "appears twice");
}

namespace {

struct Location {
    std::string pointer;
    toml::source_position begin;
};

Json FromToml(const toml::node &node, const std::string &pointer, std::vector<Location> &locations);

Json TableFromToml(const toml::table &table, const std::string &pointer, std::vector<Location> &locations)
{
    Json object = Json::object();
    for (const auto &[key, value] : table) {
        const std::string name(key.str());
        const std::string member = pointer + "/" + PointerStep(name);
        locations.push_back({member, key.source().begin});
        object[name] = FromToml(value, member, locations);
    }
    return object;
}

Json ArrayFromToml(const toml::array &array, const std::string &pointer, std::vector<Location> &locations)
{
    Json list = Json::array();
    for (const toml::node &value : array) {
        const std::string member = fmt::format("{}/{}", pointer, list.size());
        locations.push_back({member, value.source().begin});
        list.push_back(FromToml(value, member, locations));
    }
    return list;
}

// These files hold no fractions, dates or times: they become values that every rule refuses.
Json FromToml(const toml::node &node, const std::string &pointer, std::vector<Location> &locations)
{
    if (const auto *table = node.as_table()) return TableFromToml(*table, pointer, locations);
    if (const auto *array = node.as_array()) return ArrayFromToml(*array, pointer, locations);
    if (const auto text = node.value_exact<std::string>()) return *text;
    if (const auto number = node.value_exact<int64_t>()) return *number;
    if (const auto flag = node.value_exact<bool>()) return *flag;
    if (const auto number = node.value_exact<double>()) return *number;
    return nullptr;
}

}

void Document::ReadToml(const std::string &text)
{
    try {
        std::vector<Location> locations;
        root = TableFromToml(toml::parse(text), "", locations);
        for (const Location &location : locations)
            positions[location.pointer] = {location.begin.line, location.begin.column};
    } catch (const toml::parse_error &error) {
        const auto begin = error.source().begin;
        throw At(Position{begin.line, begin.column}, fmt::format("not TOML: {}", error.description()),
                 Exit::BAD_VALUE);
    }
}

Error Document::At(Position position, const std::string &problem, Exit exit) const
{
    return Error(exit, fmt::format("{}:{}:{}: {}", path, position.line, position.column, problem));
}

Error Document::At(const std::string &pointer, const std::string &problem, Exit exit) const
{
    const auto found = positions.find(pointer);
    const std::string where = pointer.empty() ? "" : pointer.substr(1) + " ";
    if (found != positions.end()) return At(found->second, where + problem, exit);
    return Error(exit, fmt::format("{}: {}{}", path, where, problem));
}

std::string PointerStep(const std::string &key)
{
    std::string step;
    for (char c : key) {
        if (c == '~' || c == '/')
            step += c == '~' ? "~0" : "~1";
        else
            step += c;
    }
    return step;
}

namespace {

// Tables with a heading of their own: [switches.lab.ports.port0]. Those inside stand on one line.
constexpr int HEADINGS = 4;

toml::table ToToml(const Json &object, int depth, bool isPorts);

void Insert(toml::array &array, const Json &value);

template<class Add> void AddToToml(const Json &value, int depth, bool isPorts, Add add)
{
    if (value.is_object()) {
        add(ToToml(value, depth + 1, isPorts));
    } else if (value.is_array()) {
        toml::array array;
        for (const Json &member : value)
            Insert(array, member);
        add(std::move(array));
    } else if (value.is_boolean()) {
        add(value.get<bool>());
    } else if (value.is_number_integer()) {
        add(value.get<int64_t>());
    } else if (value.is_string()) {
        add(value.get<std::string>());
    }
}

void Insert(toml::array &array, const Json &value)
{
    AddToToml(value, HEADINGS, false,
              [&array](auto &&member) { array.push_back(std::forward<decltype(member)>(member)); });
}

toml::table ToToml(const Json &object, int depth, bool isPorts)
{
    toml::table table;
    table.is_inline(depth > HEADINGS || (depth == HEADINGS - 1 && !isPorts));
    for (const auto &[key, value] : object.items()) {
        const bool hasHeadings = isPorts || (depth == HEADINGS - 2 && key == "ports");
        AddToToml(value, depth, hasHeadings, [&table, &key = key](auto &&member) {
            table.insert_or_assign(key, std::forward<decltype(member)>(member));
        });
    }
    return table;
}

}

std::string TomlText(const Json &json)
{
    std::ostringstream text;
    constexpr auto flags = toml::toml_formatter::default_flags & ~toml::format_flags::indent_sub_tables &
                           ~toml::format_flags::allow_literal_strings;
    const toml::table table = ToToml(json, 0, false);
    text << toml::toml_formatter(table, flags) << '\n';
    return text.str();
}

}

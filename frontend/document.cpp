// A file in TOML or JSON. Errors name the part by its JSON pointer; in TOML, by line and column too.
#include "frontend/document.h"

#include <fmt/format.h>
#include <set>
#include <sstream>
#include <toml++/toml.h>

namespace frontend {

namespace {

constexpr size_t MAX_DEPTH = 32; // far more than these files need

// Builds a value from a JSON text, whatever the number of keys in one object. Refuses nesting that is too
// deep for the parser's stack, and notes a key that appears twice.
class JsonReader : public nlohmann::json_sax<Json> {
public:
    explicit JsonReader(Json &root) : root(root) {}
    bool null() override { return Put(nullptr); }
    bool boolean(bool value) override { return Put(value); }
    bool number_integer(int64_t value) override { return Put(value); }
    bool number_unsigned(uint64_t value) override { return Put(value); }
    bool number_float(double value, const std::string &) override { return Put(value); }
    bool string(std::string &value) override { return Put(std::move(value)); }
    bool binary(Json::binary_t &value) override { return Put(std::move(value)); }
    bool start_object(size_t) override { return Open(Json::object()); }
    bool start_array(size_t) override { return Open(Json::array()); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }
    bool key(std::string &name) override
    {
        open.back().key = name;
        if (!open.back().keys.insert(name).second && twice.empty()) {
            for (const Level &level : open)
                twice += level.value->is_object() ? "/" + PointerStep(level.key) : "";
        }
        return true;
    }
    bool parse_error(size_t, const std::string &, const nlohmann::detail::exception &error) override
    {
        const std::string what = error.what();
        throw Error(Exit::BAD_VALUE, "not JSON: " + what.substr(what.find(']') + 2));
    }
    std::string twice; // the pointer of the first key that appears twice

private:
    struct Level {
        Json *value;
        std::string key; // the last one
        std::set<std::string> keys;
    };
    Json &Add(Json &&value)
    {
        if (open.empty()) return root = std::move(value);
        Json &parent = *open.back().value;
        if (parent.is_array()) return parent.emplace_back(std::move(value));
        auto &members = parent.get_ref<Json::object_t &>();
        members.emplace_back(open.back().key, std::move(value));
        return members.back().second;
    }
    bool Put(Json &&value)
    {
        Add(std::move(value));
        return true;
    }
    bool Open(Json &&value)
    {
        if (open.size() > MAX_DEPTH) throw Error(Exit::BAD_VALUE, "not JSON: nested too deeply");
        open.push_back({&Add(std::move(value)), "", {}});
        return true;
    }
    bool Close()
    {
        open.pop_back();
        return true;
    }
    Json &root;
    std::vector<Level> open; // objects and lists
};

struct Location {
    std::string pointer;
    toml::source_position begin;
};

Json FromToml(const toml::node &node, const std::string &pointer, std::vector<Location> &locations);

Json TableFromToml(const toml::table &table, const std::string &pointer, std::vector<Location> &locations)
{
    Json::object_t object;
    for (const auto &[key, value] : table) {
        const std::string name(key.str());
        const std::string member = pointer + "/" + PointerStep(name);
        locations.push_back({member, key.source().begin});
        object.emplace_back(name, FromToml(value, member, locations)); // the key is new
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

std::string UnknownKey(const std::string &key, const std::vector<std::string> &names)
{
    const std::string suggestion = Suggest(key, names);
    if (!suggestion.empty()) return "is not a known key; " + suggestion;
    return fmt::format("is not a known key; the keys are {}", fmt::join(names, ", "));
}

Document::Document(std::string name, const std::string &text) : name(std::move(name))
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && text[first] == '{')
        ReadJson(text);
    else
        ReadToml(text);
}

void Document::ReadJson(const std::string &text)
{
    JsonReader reader(root);
    try {
        Json::sax_parse(text, &reader);
    } catch (const Error &error) {
        throw Error(error.exit, fmt::format("{}: {}", name, error.problem));
    }
    if (!reader.twice.empty()) throw At(reader.twice, "appears twice");
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
    return Error(exit, fmt::format("{}:{}:{}: {}", name, position.line, position.column, problem));
}

Error Document::At(const std::string &pointer, const std::string &problem, Exit exit) const
{
    const auto found = positions.find(pointer);
    const std::string where = pointer.empty() ? "" : pointer.substr(1) + " ";
    if (found != positions.end()) return At(found->second, where + problem, exit);
    return Error(exit, fmt::format("{}: {}{}", name, where, problem));
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

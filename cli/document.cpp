// A file in TOML or JSON, whose every part knows the line and column that it stands at.
#include "document.h"

#include <algorithm>
#include <fmt/format.h>
#include <sstream>
#include <toml++/toml.h>

namespace vsctl {

namespace {

constexpr size_t MAX_DEPTH = 32; // what these files can hold is far less deep

// Notes where the members of a JSON text end, and that no key comes twice.
class PositionReader : public nlohmann::json_sax<Json> {
public:
    PositionReader(const char *text, const char *const &reached) : text(text), reached(reached) {}

    bool null() override { return Value(); }
    bool boolean(bool) override { return Value(); }
    bool number_integer(number_integer_t) override { return Value(); }
    bool number_unsigned(number_unsigned_t) override { return Value(); }
    bool number_float(number_float_t, const string_t &) override { return Value(); }
    bool string(string_t &) override { return Value(); }
    bool binary(binary_t &) override { return Value(); }
    bool start_object(std::size_t) override { return Open(false); }
    bool start_array(std::size_t) override { return Open(true); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }
    bool key(string_t &key) override
    {
        levels.back().step = PointerStep(key);
        const auto [end, isNew] = ends.insert_or_assign(Pointer(), Offset());
        if (!isNew) twice = end->first;
        return isNew;
    }
    bool parse_error(std::size_t position, const std::string &,
                     const nlohmann::detail::exception &error) override
    {
        const std::string what = error.what();
        fault = what.substr(what.rfind(": ") == std::string::npos ? 0 : what.rfind(": ") + 2);
        faultOffset = position ? position - 1 : 0;
        return false;
    }

    std::map<std::string, size_t> ends; // of the key, or of the value in a list
    std::string twice;
    std::string fault;
    size_t faultOffset = 0;

private:
    struct Level {
        bool isArray;
        size_t next = 0;
        std::string step{};
    };

    size_t Offset() const { return static_cast<size_t>(reached - text); }
    std::string Pointer() const
    {
        std::string pointer;
        for (const Level &level : levels)
            pointer += "/" + level.step;
        return pointer;
    }
    bool Value()
    {
        if (levels.empty() || !levels.back().isArray) return true;
        levels.back().step = std::to_string(levels.back().next++);
        ends.emplace(Pointer(), Offset());
        return true;
    }
    bool Open(bool isArray)
    {
        Value();
        levels.push_back({isArray});
        if (levels.size() <= MAX_DEPTH) return true;
        fault = "nested too deeply";
        faultOffset = Offset() - 1;
        return false;
    }
    bool Close()
    {
        levels.pop_back();
        return true;
    }

    const char *text;
    const char *const &reached;
    std::vector<Level> levels;
};

// Tells how far the parser has read.
struct CountingIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    reference operator*() const { return *at; }
    CountingIterator &operator++()
    {
        *reached = ++at;
        return *this;
    }
    bool operator==(const CountingIterator &other) const { return at == other.at; }

    const char *at;
    const char **reached;
};

// Where the text or number that ends here begins.
size_t StartOfToken(const std::string &text, size_t end)
{
    size_t start = std::min(end, text.size());
    if (start && text[start - 1] == '"') {
        for (start--; start && (text[start - 1] != '"' || (start > 1 && text[start - 2] == '\\'));)
            start--;
        return start ? start - 1 : 0;
    }
    while (start && (isalnum(static_cast<unsigned char>(text[start - 1])) || strchr("+-.", text[start - 1])))
        start--;
    return start;
}

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
    std::vector<size_t> lines = {0};
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1))
        lines.push_back(end + 1);
    const auto position = [&lines](size_t offset) {
        const auto next = std::upper_bound(lines.begin(), lines.end(), offset);
        return Position{static_cast<size_t>(next - lines.begin()), offset - *(next - 1) + 1};
    };
    const char *reached = text.data();
    PositionReader reader(text.data(), reached);
    const bool valid = Json::sax_parse(CountingIterator{text.data(), &reached},
                                       CountingIterator{text.data() + text.size(), &reached}, &reader);
    for (const auto &[pointer, end] : reader.ends)
        positions[pointer] = position(StartOfToken(text, end));
    if (!reader.twice.empty()) throw At(reader.twice, "this key is there twice");
    if (!valid) throw At(position(reader.faultOffset), "not JSON: " + reader.fault, Exit::BAD_VALUE);
    root = Json::parse(text);
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

// Numbers with a point, dates and times have no place in these files: they become texts that no rule takes.
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
    return At(found == positions.end() ? Position{1, 1} : found->second, where + problem, exit);
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

toml::table ToToml(const Json &object);

void Insert(toml::array &array, const Json &value);

template<class Add> void AddToToml(const Json &value, Add add)
{
    if (value.is_object()) {
        add(ToToml(value));
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
    AddToToml(value, [&array](auto &&member) { array.push_back(std::forward<decltype(member)>(member)); });
}

toml::table ToToml(const Json &object)
{
    toml::table table;
    for (const auto &[key, value] : object.items()) {
        AddToToml(value, [&table, &key = key](auto &&member) {
            table.insert_or_assign(key, std::forward<decltype(member)>(member));
        });
    }
    return table;
}

}

std::string TomlText(const Json &json)
{
    std::ostringstream text;
    text << toml::toml_formatter(ToToml(json)) << '\n';
    return text.str();
}

}

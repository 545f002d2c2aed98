// The configuration file.
#include "fleet/protocol/config.h"

#include <filesystem>
#include <fmt/format.h>
#include <toml++/toml.h>
#include <unistd.h>

namespace vsfleet {

namespace {

[[noreturn]] void Refuse(const std::string &path, const toml::source_position &place,
                         const std::string &problem)
{
    throw std::runtime_error(fmt::format("{}:{}:{}: {}", path, place.line, place.column, problem));
}

// Takes the members out of the table one by one; what is left is not known.
class Reader {
public:
    Reader(const std::string &path, toml::table &table) : path(path), table(table) {}

    void Text(const char *name, std::string &value)
    {
        if (const toml::node *node = Find(name)) {
            value = node->value_exact<std::string>().value_or("");
            if (value.empty()) Refuse(path, node->source().begin, fmt::format("{} is a text", name));
            table.erase(name);
        }
    }

    void Seconds(const char *name, std::chrono::seconds &value)
    {
        if (const toml::node *node = Find(name)) {
            const int64_t number = node->value_exact<int64_t>().value_or(0);
            if (number < 1 || number > 86400)
                Refuse(path, node->source().begin,
                       fmt::format("{} is a number of seconds, 1 to 86400", name));
            value = std::chrono::seconds(number);
            table.erase(name);
        }
    }

    void Texts(const char *name, std::vector<std::string> &values)
    {
        const toml::node *node = Find(name);
        if (!node) return;
        const toml::array *list = node->as_array();
        for (size_t i = 0; list && i < list->size(); i++)
            values.push_back(list->get(i)->value_exact<std::string>().value_or(""));
        if (values.empty() || std::find(values.begin(), values.end(), "") != values.end())
            Refuse(path, node->source().begin, fmt::format("{} is a list of texts", name));
        table.erase(name);
    }

    void End() const
    {
        for (const auto &[key, value] : table)
            Refuse(path, key.source().begin, fmt::format("'{}' is not known here", key.str()));
    }

private:
    const toml::node *Find(const char *name) const { return table.get(name); }

    const std::string &path;
    toml::table &table;
};

std::string MachineName()
{
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    return name;
}

}

Config ReadConfig(const std::string &path)
{
    if (access(path.c_str(), R_OK))
        throw std::runtime_error(
            fmt::format("can't read {}; --config or VSFLEET_CONFIG names another file", path));
    Config config;
    try {
        toml::table table = toml::parse_file(path);
        Reader reader(path, table);
        reader.Texts("endpoints", config.endpoints.addresses);
        reader.Text("authority", config.endpoints.authority);
        reader.Text("certificate", config.endpoints.certificate);
        reader.Text("key", config.endpoints.key);
        reader.Text("host", config.host);
        reader.Text("state", config.state);
        reader.Text("vsctl", config.vsctl);
        reader.Seconds("lease", config.lease);
        reader.Seconds("drift-interval", config.driftInterval);
        reader.End();
    } catch (const toml::parse_error &error) {
        Refuse(path, error.source().begin, fmt::format("not TOML: {}", error.description()));
    }
    if (config.endpoints.addresses.empty())
        throw std::runtime_error(fmt::format("{}: endpoints is missing", path));
    for (std::string *file :
         {&config.endpoints.authority, &config.endpoints.certificate, &config.endpoints.key})
        *file = std::filesystem::path(path).parent_path() / *file;
    if (config.host.empty()) config.host = MachineName();
    return config;
}

}

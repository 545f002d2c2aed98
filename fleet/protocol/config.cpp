// The configuration file.
#include "fleet/protocol/config.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

#include "frontend/document.h"
#include "frontend/files.h"

namespace vsfleet {

using namespace frontend;

namespace {

// Reads the members of the file one by one.
class Reader {
public:
    explicit Reader(const Document &document) : document(document) {}

    void Text(const char *name, std::string &value)
    {
        const Json *member = Find(name);
        if (member && !IsText(*member)) throw document.At(PointerTo(name), "is not a text");
        if (member) value = *member;
    }

    void Seconds(const char *name, std::chrono::seconds &value)
    {
        const Json *member = Find(name);
        if (!member) return;
        if (!member->is_number_integer() || *member < 1 || *member > 86400)
            throw document.At(PointerTo(name), "is not a number of seconds, 1 to 86400");
        value = std::chrono::seconds(member->get<int64_t>());
    }

    void Texts(const char *name, std::vector<std::string> &values)
    {
        const Json *member = Find(name);
        if (!member) return;
        if (!member->is_array() || member->empty() || !std::all_of(member->begin(), member->end(), IsText))
            throw document.At(PointerTo(name), "is not a list of texts");
        values = *member;
    }

    // Throws when the file has another member.
    void End() const
    {
        for (const auto &[key, value] : document.Root().items()) {
            if (std::find(known.begin(), known.end(), key) == known.end())
                throw document.At("/" + PointerStep(key), UnknownKey(key, known));
        }
    }

private:
    using Json = frontend::Json;
    static bool IsText(const Json &value) { return value.is_string() && value != ""; }
    static std::string PointerTo(const char *name) { return std::string("/") + name; }
    const Json *Find(const char *name)
    {
        known.emplace_back(name);
        const auto found = document.Root().find(name);
        return found == document.Root().end() ? nullptr : &*found;
    }

    const Document &document;
    std::vector<std::string> known;
};

std::string TextOf(const std::string &path)
{
    try {
        return ReadFile(path);
    } catch (const Error &error) {
        throw Error(error.exit, error.problem, "--config or VSFLEET_CONFIG names another file");
    }
}

}

std::string MachineName()
{
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    return name;
}

Config ReadConfig(const std::string &path)
{
    Config config;
    const Document document(path, TextOf(path));
    Reader reader(document);
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
    if (config.endpoints.addresses.empty()) throw document.At("", "endpoints is missing");
    for (std::string *file :
         {&config.endpoints.authority, &config.endpoints.certificate, &config.endpoints.key})
        *file = std::filesystem::path(path).parent_path() / *file;
    if (config.host.empty()) config.host = MachineName();
    return config;
}

}

// vsctl property: any property of a switch or port, by its key.
#include <algorithm>
#include <fmt/format.h>

#include "cli/base/platform.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

constexpr Field LEVEL{"level", Form::CHOICE, "", 0, 0, "global|host|port"};

NamedProperty PropertyOf(const Arguments &arguments)
{
    const std::string level = arguments.Text("--level", arguments.Has("--port") ? "port" : "global");
    NamedProperty property{
        static_cast<PropertyLevel>(ChoiceIndex(LEVEL, ParseWord(LEVEL, level).get<std::string>())),
        {arguments.Text("SWITCH"), arguments.Text("--port")},
        arguments.Text("KEY"),
        arguments.Has("--by-id")};
    if ((property.level == PropertyLevel::PORT) != arguments.Has("--port"))
        throw Error(Exit::USAGE, "--port goes with --level port, and --level port needs it");
    return property;
}

const char *LevelName(const NamedProperty &property)
{
    return LEVEL_NAMES[static_cast<size_t>(property.level)];
}

bool IsText(const Bytes &bytes)
{
    return !bytes.empty() && bytes.back() == 0 &&
           std::all_of(bytes.begin(), bytes.end() - 1,
                       [](uint8_t byte) { return byte >= ' ' && byte < 0x7f; });
}

Result Get(const Verb &, const Arguments &arguments)
{
    const NamedProperty property = PropertyOf(arguments);
    if (!property.byId) SwitchId(property.target.alias);
    Bytes bytes;
    if (!property.byId && property.level == PropertyLevel::PORT && !PortExists(property.target))
        Check(STATUS_NOT_FOUND, "finding", property.target);
    Check(property.Get(bytes), "reading " + property.key + " of", property.target,
          PropertyAdvice(property.target, property.byId));
    Json row = {{"switch", property.target.alias}};
    if (property.level == PropertyLevel::PORT) row["port"] = property.target.port;
    row["level"] = LevelName(property);
    row["key"] = property.key;
    row["length"] = bytes.size();
    row["bytes"] = Hex(bytes.data(), bytes.size());
    if (IsText(bytes)) row["text"] = Name(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    return Rows(row);
}

Result List(const Verb &, const Arguments &arguments)
{
    const Target target{arguments.Text("SWITCH"), arguments.Text("--port")};
    const bool byId = arguments.Has("--by-id");
    const std::string id = byId ? target.alias : SwitchId(target.alias);
    if (!IsEmbedded())
        throw Error(Exit::FAILURE, "this platform does not list properties",
                    "'vsctl property get' reads one by its key");
    const auto properties = ListProperties(id, target.port);
    if (!properties) Check(STATUS_NOT_FOUND, "finding", target);
    Result result;
    for (const vshost_property_name &property : *properties) {
        Json row = {{"switch", target.alias}};
        if (!target.port.empty()) row["port"] = target.port;
        row.update(
            {{"level", LEVEL_NAMES[property.level]}, {"key", property.key}, {"length", property.length}});
        result.rows.push_back(row);
    }
    return result;
}

Result ChangeTo(const Arguments &arguments, const Json &bytes)
{
    const NamedProperty property = PropertyOf(arguments);
    Json value = {{"level", LevelName(property)}, {"key", property.key}, {"bytes", bytes}};
    if (property.byId) value["by-id"] = true;
    return Steps({{"property", property.target, value}});
}

Result Set(const Verb &, const Arguments &arguments)
{
    Bytes bytes;
    if (arguments.Has("--text")) {
        if (arguments.Has("--hex") || arguments.Has("--file"))
            throw Error(Exit::USAGE, "--text, --hex and --file exclude each other");
        const std::string &text = arguments.Text("--text");
        bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
    } else {
        bytes = GivenBytes(arguments, 0);
    }
    return ChangeTo(arguments, Hex(bytes.data(), bytes.size()));
}

Result Clear(const Verb &, const Arguments &arguments) { return ChangeTo(arguments, nullptr); }

}

std::vector<Verb> PropertyVerbs()
{
    const std::vector<Argument> which = {
        SWITCH,
        {"KEY", Shape::REQUIRED, "key of the property"},
        {"--level", Shape::OPTION, "global, host or port (global)"},
        {"--port", Shape::OPTION, "the port whose property it is", Names::PORT},
        BY_ID};
    std::vector<Argument> given = which;
    given.push_back({"--text", Shape::OPTION, "a text, stored with its NUL"});
    given.push_back(HEX);
    given.push_back(FROM_FILE);
    return {
        Reads("property", "list", "lists the properties of a switch or port",
              {SWITCH, {"--port", Shape::OPTION, "the port whose properties they are", Names::PORT}, BY_ID},
              "lab\nlab --port port0", "", List),
        Reads("property", "get", "shows a property by its key", which,
              "lab com.talpex.common.alias\nlab com.talpex.common.port.alias --port port0",
              "VSDVS_GetGlobProp VSDVS_GetHostProp VSDVS_GetPortProp", Get),
        Changes("property", "set", "sets a property by its key", given, "lab com.example.owner --text ops",
                "VSDVS_SetGlobProp VSDVS_SetHostProp VSDVS_SetPortProp", Set),
        Changes("property", "clear", "removes a property by its key", which, "lab com.example.owner",
                "VSDVS_ClearGlobProp VSDVS_ClearHostProp VSDVS_ClearPortProp", Clear),
    };
}

}

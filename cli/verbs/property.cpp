// vsctl property: any property of a switch or port, by its key.
#include <algorithm>
#include <fmt/format.h>

#include "cli/base/platform.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

NamedProperty PropertyOf(const Arguments &arguments)
{
    const bool hasPort = arguments.Has("--port");
    const std::string level = arguments.Text("--level", hasPort ? "port" : "global");
    if ((level == "port") != hasPort)
        throw Error(Exit::USAGE, hasPort ? "--level " + level + " and --port exclude each other"
                                         : "--level port requires --port");
    return {LevelOf(level), arguments.Target(), arguments.Text("KEY"), arguments.Has("--by-id")};
}

// The id of the switch. Throws when it does not exist.
std::string IdOf(const Arguments &arguments)
{
    const std::string &name = arguments.Text("SWITCH");
    if (!arguments.Has("--by-id")) return SwitchId(name);
    RequireSwitchId(name);
    return name;
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
    IdOf(arguments);
    Bytes bytes;
    if (!property.byId && property.level == PropertyLevel::PORT && !PortExists(property.target))
        Check(STATUS_NOT_FOUND, "finding", property.target);
    Check(property.Get(bytes), "reading " + property.key + " of", property.target,
          PropertyAdvice(property.target, property.byId));
    Json row = RowOf(property.target, {{"level", LevelName(property.level)},
                                       {"key", property.key},
                                       {"length", bytes.size()},
                                       {"bytes", Hex(bytes.data(), bytes.size())}});
    if (IsText(bytes)) row["text"] = Name(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    return Rows(row);
}

Result List(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    const std::string id = IdOf(arguments);
    RequireOwnPlatform("list properties: name one for 'vsctl property get'");
    const auto properties = ListProperties(id, target.port);
    if (!properties) Check(STATUS_NOT_FOUND, "finding", target);
    Result result;
    for (const vshost_property_name &property : *properties) {
        result.rows.push_back(RowOf(target, {{"level", LevelName(static_cast<PropertyLevel>(property.level))},
                                             {"key", property.key},
                                             {"length", property.length}}));
    }
    return result;
}

Result ChangeTo(const Arguments &arguments, const Json &bytes)
{
    const NamedProperty property = PropertyOf(arguments);
    Json value = {{"level", LevelName(property.level)}, {"key", property.key}, {"bytes", bytes}};
    if (property.byId) value["by-id"] = true;
    return Steps({{"property", property.target, value}});
}

Result Set(const Verb &, const Arguments &arguments)
{
    Bytes bytes;
    if (arguments.Has("--text")) {
        const std::string &text = arguments.Text("--text");
        bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
    } else {
        bytes = GivenBytes(arguments, 0, "--text, --hex or --file");
    }
    return ChangeTo(arguments, Hex(bytes.data(), bytes.size()));
}

Result Clear(const Verb &, const Arguments &arguments) { return ChangeTo(arguments, nullptr); }

}

std::vector<Verb> PropertyVerbs()
{
    const Argument port{"--port", Shape::OPTION, "Port that has the property", Names::PORT};
    const std::vector<Argument> which = {
        SWITCH,
        {"KEY", Shape::REQUIRED, "Key of the property"},
        ChoiceOption("--level", "global (the default), host, or port with --port", "global|host|port"),
        port,
        BY_ID};
    std::vector<Argument> given = which;
    given.insert(given.end(), {Excluding({"--text", Shape::OPTION, "Text, stored with a NUL at its end"},
                                         {"--hex", "--file"}),
                               HEX, FROM_FILE});
    const std::string where = "switch, [port], level=global|host|port, key, length:number";
    return {
        Reads("property list", List, {SWITCH, port, BY_ID},
              {"List the properties of a switch or port", "lab\nlab --port port0", "", where}),
        Reads("property get", Get, which,
              {"Show a property by its key",
               "lab com.talpex.common.alias\nlab com.talpex.common.port.alias --port port0",
               "VSDVS_GetGlobProp VSDVS_GetHostProp VSDVS_GetPortProp", where + ", bytes:hex, [text]"}),
        Changes("property set", Set, given,
                {"Set a property by its key", "lab com.example.owner --text ops",
                 "VSDVS_SetGlobProp VSDVS_SetHostProp VSDVS_SetPortProp"}),
        Changes("property clear", Clear, which,
                {"Remove a property by its key", "lab com.example.owner",
                 "VSDVS_ClearGlobProp VSDVS_ClearHostProp VSDVS_ClearPortProp"}),
    };
}

}

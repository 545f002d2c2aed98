// vsctl topology: the host as a picture, which Graphviz lays out.
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

#include "cli/verbs/host_view.h"
#include "cli/verbs/verb.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

constexpr size_t MAX_GROUPS = 12; // of ports of one switch; the rest is one box
constexpr size_t MAX_PLUGGED = 8; // named interfaces in a box
constexpr size_t BOX_COLUMNS = 40;
constexpr size_t MAX_NAME_LINES = 3;

constexpr const char *HEAD = R"(graph host {
    rankdir=LR; ranksep=1; fontname="sans-serif"; pad=0.2;
    node [shape=box, style="rounded,filled", fillcolor=white, fontname="sans-serif", fontsize=11];
    edge [fontname="sans-serif", fontsize=10];
)";

std::string Quoted(const std::string &text)
{
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

// A box with these lines; `style` holds further attributes.
std::string Box(const std::string &name, const std::vector<std::string> &lines, const std::string &style = "")
{
    std::vector<std::string> wrapped;
    for (const std::string &line : lines) {
        for (const std::string &part : Wrapped(line, BOX_COLUMNS))
            wrapped.push_back(part);
    }
    return fmt::format("        {} [label={}{}];\n", name,
                       Quoted(fmt::format("{}", fmt::join(wrapped, "\n"))), style);
}

// A link that is down is dashed and says so, for those who do not see the colour.
std::string Link(const std::string &from, const std::string &to, const Json &link)
{
    if (link.is_null()) return fmt::format("        {} -- {};\n", from, to);
    return link.get<bool>()
               ? fmt::format("        {} -- {} [label=up, color=darkgreen, penwidth=2];\n", from, to)
               : fmt::format("        {} -- {} [label=DOWN, color=red3, style=dashed, penwidth=2];\n", from,
                             to);
}

std::vector<std::string> PortLines(const Json &group)
{
    std::vector<std::string> lines = Wrapped(CellText(group["ports"]), BOX_COLUMNS);
    if (lines.size() > MAX_NAME_LINES) {
        lines.resize(MAX_NAME_LINES);
        lines.back() += "…";
    }
    if (group["count"] > 1) lines.push_back(fmt::format("{} ports", group["count"].get<size_t>()));
    for (const std::string &policy : PolicyTexts(group["policies"], true))
        lines.push_back(policy);
    const Json &plugged = group["plugged"];
    for (const auto &[port, interface] : plugged.items()) {
        if (lines.size() > MAX_PLUGGED) {
            lines.push_back(fmt::format("{} plugged in all", plugged.size()));
            break;
        }
        lines.push_back(fmt::format("{} in {}", CellText(interface), CellText(port)));
    }
    return lines;
}

std::string PortBoxes(const Json &ports, const std::string &node)
{
    std::string text;
    size_t rest = 0;
    for (size_t i = 0; i < ports.size(); i++) {
        const std::string box = fmt::format("{}p{}", node, i);
        if (i < MAX_GROUPS)
            text += Box(box, PortLines(ports[i])) + fmt::format("        {} -- {};\n", box, node);
        else
            rest += ports[i]["count"].get<size_t>();
    }
    if (rest == 0) return text;
    return text + Box(node + "more", {fmt::format("{} more ports", rest)}) +
           fmt::format("        {0}more -- {0};\n", node);
}

std::vector<std::string> UplinkLines(const Json &uplink)
{
    const std::string name = CellText(uplink["uplink"]);
    if (!uplink.contains("nic")) return {name};
    return {name, CellText(uplink["nic"]), NicText(uplink)};
}

std::string SwitchCluster(const Json &row, size_t number)
{
    const std::string node = fmt::format("s{}", number);
    const bool isRunning = row["state"] == "running";
    std::string text = fmt::format("    subgraph cluster{} {{\n        color=gray;\n", number);
    std::vector<std::string> lines = {CellText(row["switch"]), row["state"]};
    if (!row["mtu"].is_null()) lines.push_back("MTU " + CellText(row["mtu"]));
    for (const std::string &policy : PolicyTexts(row["policies"], false))
        lines.push_back(policy);
    text += Box(node, lines, isRunning ? ", fillcolor=lightblue" : ", style=\"rounded,filled,dashed\"");
    text += PortBoxes(row.value("ports", Json::array()), node);
    size_t count = row["uplinks"].size(); // the last one first: Graphviz stacks them from the bottom
    while (count-- > 0) {
        const Json &uplink = row["uplinks"][count];
        const std::string box = fmt::format("{}u{}", node, count);
        text += Box(box, UplinkLines(uplink), ", fillcolor=lightyellow");
        text += Link(node, box, uplink.value("link", Json()));
    }
    for (const Json &session : row["mirrors"]) {
        const std::string box = fmt::format("{}m{}", node, ++count);
        std::vector<std::string> lines = {"mirror " + SessionName(session)};
        for (const char *way : {"from", "received-by", "to"}) {
            const Json ports = session.value(way, Json::array());
            if (!ports.empty()) lines.push_back(fmt::format("{} {}", way, CellText(ports)));
        }
        text += Box(box, lines, ", shape=note, style=filled");
        text += fmt::format("        {} -- {} [style=dotted];\n", box, node);
    }
    return text + "    }\n";
}

std::string FreeNics(const Json &nics)
{
    if (nics.empty()) return "";
    std::string text = "    subgraph clusterfree {\n        label=\"free NICs\"; color=gray;\n";
    for (size_t i = 0; i < nics.size(); i++) {
        const std::string link = nics[i]["link"] ? "up" : "DOWN";
        text += Box(fmt::format("n{}", i), {CellText(nics[i]["nic"]) + " " + link, NicText(nics[i])},
                    nics[i]["link"] ? ", color=darkgreen" : ", color=red3, style=\"rounded,dashed\"");
    }
    return text + "    }\n";
}

std::string DotSource(const Json &host)
{
    std::string text = HEAD + FreeNics(host.value("free-nics", Json::array()));
    for (size_t i = host["switches"].size(); i-- > 0;)
        text += SwitchCluster(host["switches"][i], i);
    return text + "}\n";
}

// Runs Graphviz on the source.
std::string Drawn(const std::string &source)
{
    const TemporaryFile file(source, ".dot");
    FILE *const graphviz = popen(("dot -Tsvg " + file.path + " 2>/dev/null").c_str(), "re");
    const std::string picture = graphviz ? ReadFile(fmt::format("/dev/fd/{}", fileno(graphviz))) : "";
    if (graphviz && pclose(graphviz) == 0 && !picture.empty()) return picture;
    throw Error(Exit::FAILURE, "Graphviz's command dot cannot be started, or failed",
                "install Graphviz (package graphviz), or print the source with --dot");
}

Result Topology(const Verb &, const Arguments &arguments)
{
    const Json host = arguments.Has("SWITCH") ? DescribeOnly(arguments.Text("SWITCH")) : DescribeHost();
    const std::string source = DotSource(host);
    return Text(arguments.Has("--dot") ? source : Drawn(source));
}

}

std::vector<Verb> TopologyVerbs()
{
    return {Reads(
        "topology", Topology,
        {{"SWITCH", Shape::OPTIONAL, "Alias of a switch (default: the whole host)", Names::SWITCH},
         {"--dot", Shape::FLAG, "Print the source for Graphviz"}},
        {"Draw the host, or one switch, as an SVG picture", "> host.svg\nlab --dot", "VSZOR_GetSwitches"})};
}

}

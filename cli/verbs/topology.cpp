// vsctl topology: the host as a picture, which Graphviz lays out.
#include <cstdio>
#include <fmt/format.h>

#include "cli/verbs/host_view.h"
#include "frontend/files.h"
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

// A box with these lines; `style` holds further attributes.
std::string Box(const std::string &name, const std::vector<std::string> &lines, const std::string &style = "")
{
    std::string label;
    for (const std::string &line : lines)
        label += fmt::format("{}{}", label.empty() ? "" : "\n", fmt::join(Wrapped(line, BOX_COLUMNS), "\n"));
    return fmt::format("        {} [label={:?}{}];\n", name, label, style);
}

std::string Line(const std::string &from, const std::string &to, const char *style = "")
{
    return fmt::format("        {} -- {}{};\n", from, to, style);
}

// A link that is down is dashed and says so, for those who do not see the colour.
const char *LinkStyle(const Json &link)
{
    return link.is_null() ? ""
           : link         ? " [label=up, color=darkgreen, penwidth=2]"
                          : " [label=DOWN, color=red3, style=dashed, penwidth=2]";
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
    size_t named = 0;
    for (const auto &[port, interface] : group["plugged"].items())
        if (named++ < MAX_PLUGGED)
            lines.push_back(fmt::format("{} in {}", CellText(interface), CellText(port)));
    if (named > MAX_PLUGGED) lines.push_back(fmt::format("{} plugged in all", named));
    return lines;
}

std::string PortBoxes(const Json &ports, const std::string &node)
{
    std::string text;
    size_t rest = 0;
    for (size_t i = 0; i < ports.size(); i++) {
        const std::string box = fmt::format("{}p{}", node, i);
        if (i < MAX_GROUPS)
            text += Box(box, PortLines(ports[i])) + Line(box, node);
        else
            rest += ports[i]["count"].get<size_t>();
    }
    if (rest) text += Box(node + "more", {Counted(rest, "more port")}) + Line(node + "more", node);
    return text;
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
    std::vector<std::string> lines = PolicyTexts(row["policies"], false);
    if (!row["mtu"].is_null()) lines.insert(lines.begin(), "MTU " + CellText(row["mtu"]));
    lines.insert(lines.begin(), {CellText(row["switch"]), row["state"]});
    text += Box(node, lines, isRunning ? ", fillcolor=lightblue" : ", style=\"rounded,filled,dashed\"");
    text += PortBoxes(row.value("ports", Json::array()), node);
    size_t count = row["uplinks"].size(); // the last one first: Graphviz stacks them from the bottom
    while (count-- > 0) {
        const Json &uplink = row["uplinks"][count];
        const std::string box = fmt::format("{}u{}", node, count);
        text += Box(box, UplinkLines(uplink), ", fillcolor=lightyellow");
        text += Line(node, box, LinkStyle(uplink.value("link", Json())));
    }
    for (const Json &session : row["mirrors"]) {
        const std::string box = fmt::format("{}m{}", node, ++count);
        std::vector<std::string> lines = {"mirror " + CellText(session["session"])};
        for (const char *way : {"from", "received-by", "to"}) {
            const Json ports = session.value(way, Json::array());
            if (!ports.empty()) lines.push_back(fmt::format("{} {}", way, CellText(ports)));
        }
        text += Box(box, lines, ", shape=note, style=filled") + Line(box, node, " [style=dotted]");
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
    const std::string source = DotSource(Describe(arguments));
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

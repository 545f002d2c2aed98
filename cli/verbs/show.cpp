// vsctl show: the host, or one switch, as a tree.
#include <algorithm>
#include <clocale>
#include <fmt/color.h>
#include <functional>
#include <langinfo.h>
#include <unistd.h>

#include "cli/base/records.h"
#include "cli/verbs/host_view.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

// A line of the tree: the name, a word that says whether it works, details.
struct Node {
    std::string name;
    std::string state = "";
    std::string details = "";
    std::vector<Node> children = {};
};

// What stands before a child, and before what belongs to it.
struct Lines {
    const char *branch, *last, *pass, *none;
};
constexpr Lines UNICODE_LINES{"├─ ", "└─ ", "│  ", "   "};
constexpr Lines ASCII_LINES{"|- ", "`- ", "|  ", "   "};

const Lines &TreeLines()
{
    static const bool isUtf8 = setlocale(LC_CTYPE, "") && strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    return isUtf8 ? UNICODE_LINES : ASCII_LINES;
}

std::string Painted(const std::string &state)
{
    if (state.empty() || !HasColor(STDOUT_FILENO)) return state;
    const bool works = state.starts_with("up") || state.starts_with("running");
    return fmt::format(fmt::fg(works ? fmt::terminal_color::green : fmt::terminal_color::red), "{}", state);
}

// The columns of one level.
struct Widths {
    size_t name = 0;
    size_t state = 0;
};

constexpr size_t WIDEST_NAME = 32; // a longer name has a line of its own
constexpr size_t LEAST_ROOM = 20;

Widths WidthsOf(const std::vector<Node> &nodes)
{
    Widths widths;
    for (const Node &node : nodes) {
        if (TextWidth(node.name) <= WIDEST_NAME) widths.name = std::max(widths.name, TextWidth(node.name));
        widths.state = std::max(widths.state, node.state.size());
    }
    return widths;
}

std::string Padding(size_t used, size_t width) { return std::string(width > used ? width - used : 0, ' '); }

// The columns of the terminal beside a margin.
size_t Room(size_t margin) { return std::max(TerminalWidth(), margin + LEAST_ROOM) - margin; }

// `first` stands before the node, `next` before its children and further lines.
std::string NodeText(const Node &node, const Widths &widths, const std::string &first,
                     const std::string &next)
{
    const std::string below = next + (node.children.empty() ? TreeLines().none : TreeLines().pass);
    const size_t column = TextWidth(first) + widths.name + (widths.state ? 2 + widths.state : 0) + 2;
    std::string text;
    for (const std::string &line : Wrapped(node.name, Room(TextWidth(first))))
        text += (text.empty() ? first : "\n" + below) + (first.empty() ? TitleText(line) : line);
    if (!node.state.empty() || !node.details.empty()) {
        const bool fits = TextWidth(node.name) <= widths.name;
        text += fits ? Padding(TextWidth(node.name), widths.name)
                     : "\n" + below + Padding(TextWidth(below), TextWidth(first) + widths.name);
        if (widths.state || !node.state.empty())
            text += "  " + Painted(node.state) + Padding(node.state.size(), widths.state);
    }
    std::string separator = "  ";
    for (const std::string &line : Wrapped(node.details, Room(column))) {
        text += separator + line;
        separator = "\n" + below + Padding(TextWidth(below), column);
    }
    text += "\n";
    const Widths inner = WidthsOf(node.children);
    for (size_t i = 0; i < node.children.size(); i++) {
        const bool isLast = i + 1 == node.children.size();
        text += NodeText(node.children[i], inner, next + (isLast ? TreeLines().last : TreeLines().branch),
                         next + (isLast ? TreeLines().none : TreeLines().pass));
    }
    return text;
}

std::string State(const Json &nic) { return !nic.contains("link") ? "" : nic["link"] ? "up" : "down"; }

Node UplinkNode(const Json &uplink)
{
    return {CellText(uplink["uplink"]), State(uplink),
            uplink.contains("nic") ? fmt::format("{}, {}", CellText(uplink["nic"]), NicText(uplink))
                                   : "no NIC"};
}

std::string PolicyText(const Json &policies, bool ofPort)
{
    return fmt::format("{}", fmt::join(PolicyTexts(policies, ofPort), "; "));
}

Node PortsNode(const Json &group)
{
    const size_t count = group["count"];
    std::string details = PolicyText(group["policies"], true);
    if (details.empty()) details = "default policies";
    if (count > 1) details = fmt::format("{} ports: {}", count, details);
    std::vector<std::string> plugged;
    for (const auto &[port, interface] : group["plugged"].items())
        plugged.push_back(CellText(interface) + (count > 1 ? " in " + CellText(port) : ""));
    if (!plugged.empty()) details += fmt::format("; plugged: {}", fmt::join(plugged, ", "));
    return {CellText(group["ports"]), "", details};
}

// Adds a node with a child for each row, where there are rows.
void AddGroup(const char *name, const Json &rows, const std::function<Node(const Json &)> &make,
              std::vector<Node> &nodes)
{
    if (rows.empty()) return;
    Node &group = nodes.emplace_back(Node{name});
    for (const Json &row : rows)
        group.children.push_back(make(row));
}

// An entry of a list by its name, with what is not usual.
Node EntryNode(const Layout &layout, const Json &entry)
{
    const std::string name = CellText(EntryName(layout, entry));
    if (entry.is_string()) return {name};
    Json fields = WithoutDefaults(AllFields(layout), entry);
    for (const char *key : {layout.key, "port"})
        fields.erase(key);
    return {name, "", CellText(fields)};
}

std::string SizeText(const Json &row)
{
    const std::string most = row["max-ports"].is_null() ? "" : " of " + CellText(row["max-ports"]);
    std::string text = row["mtu"].is_null() ? "" : "MTU " + CellText(row["mtu"]);
    if (!row["used-ports"].is_null())
        text += (text.empty() ? "" : ", ") + Counted(row["used-ports"], "port") + most;
    const std::string policies = PolicyText(row["policies"], false);
    return text + (text.empty() || policies.empty() ? "" : "; ") + policies;
}

Node SwitchNode(Json row)
{
    std::vector<Node> lists; // policies that are lists, by entries
    const auto addList = [&lists](const char *name, const Json &entries, const Layout &layout) {
        AddGroup(
            name, entries, [&layout](const Json &entry) { return EntryNode(layout, entry); }, lists);
    };
    for (const Policy *policy : PoliciesOf(false)) {
        if (!policy->IsList()) continue;
        addList(policy->name, row["policies"].value(policy->name, Json()), *policy->fields[0].layout);
        row["policies"].erase(policy->name);
    }
    addList("mirror sessions", row["mirrors"], MIRROR_SESSION);
    Node node{CellText(row["switch"]), row["state"], SizeText(row)};
    AddGroup("uplinks", row["uplinks"], UplinkNode, node.children);
    if (row.contains("ports"))
        AddGroup("ports", row["ports"], PortsNode, node.children);
    else
        node.children.push_back({"ports", "", "this platform does not list them"});
    node.children.insert(node.children.end(), lists.begin(), lists.end());
    return node;
}

Node NicNode(const Json &nic) { return {CellText(nic["nic"]), State(nic), NicText(nic)}; }

Result Show(const Verb &, const Arguments &arguments)
{
    const Json host = Describe(arguments);
    std::vector<Node> nodes;
    for (const Json &row : host["switches"])
        nodes.push_back(SwitchNode(row));
    AddGroup("free NICs", host.value("free-nics", Json()), NicNode, nodes);
    Result result = Rows(host);
    for (const Node &node : nodes)
        result.text += (result.text.empty() ? "" : "\n") + NodeText(node, {TextWidth(node.name), 0}, "", "");
    if (nodes.empty()) result.text = "no switches and no NICs\n";
    return result;
}

}

std::vector<Verb> ShowVerbs()
{
    return {Reads("show", Show,
                  {{"SWITCH", Shape::OPTIONAL, "Alias of a switch (default: the whole host)", Names::SWITCH}},
                  {"Show the host, or one switch, as a tree", "\nlab\n--json",
                   "VSZOR_GetSwitches VSDVS_GetSwitchUplinkPorts VSZOR_GetVSInfo VSDVS_GetMTU", "@host"})};
}

}

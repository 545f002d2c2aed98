#include "platform/shell/shell.h"

#include <vshost.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/runtime.h"

namespace vshost {

namespace {

using Path = std::vector<std::string>;

constexpr unsigned FAILED = 1;

// The content of a node that is a folder.
struct Folder {
    std::vector<std::string> folders;
    std::vector<std::pair<std::string, std::string>>
        leaves; // with their values; empty for a leaf that can only be set
};

// One command: its words and its output.
struct ShellCommand {
    std::string verb;
    std::string node;
    Path path;
    std::vector<std::string> values;
    std::string out;
    std::string err;

    unsigned Fail(const std::string &reason)
    {
        err = "tybel: " + verb + " " + node + ": " + reason + "\n";
        return FAILED;
    }

    // The exit code for a status of the tables.
    unsigned Finish(VsStatus status)
    {
        if (status == STATUS_OK) return 0;
        if (status == STATUS_NOT_FOUND) return Fail("no such node; list its parent with ls");
        return Fail("the host's database can't be used; `vshost show` says why");
    }
};

Path SplitPath(std::string_view node)
{
    Path path;
    while (!node.empty()) {
        const std::string_view part = node.substr(0, node.find('/'));
        if (!part.empty()) path.emplace_back(part);
        node.remove_prefix(std::min(part.size() + 1, node.size()));
    }
    return path;
}

// A decimal number, with or without the line end that some callers append.
bool ParseNumber(std::string_view text, uint32_t &number)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

bool IsPortsetNode(const Path &path, size_t depth)
{
    return path.size() == depth && path[0] == "net" && path[1] == "portsets";
}

bool IsNicNode(const Path &path, size_t depth)
{
    return path.size() == depth && path[0] == "net" && path[1] == "pNics";
}

VsStatus DescribePortset(Reader &reader, const std::string &name, Folder &folder)
{
    Portset portset;
    if (VsStatus status = GetRecord(reader, runtime::PortsetKey(name), portset)) return status;
    std::string switchId;
    const VsStatus status = SwitchOfPortset(reader, name, switchId);
    if (status && status != STATUS_NOT_FOUND) return status;
    folder.folders = {"uplinks"};
    folder.leaves = {{"class", std::string(FieldText(portset.className))},
                     {"destroy", ""},
                     {"mtu", std::to_string(portset.mtu)},
                     {"numPorts", std::to_string(portset.ports)},
                     {"switch", status ? "none" : switchId}};
    return STATUS_OK;
}

VsStatus DescribeUplinks(Reader &reader, const std::string &name, Folder &folder)
{
    Portset portset;
    std::string switchId;
    std::vector<NamedNic> uplinks;
    if (VsStatus status = GetRecord(reader, runtime::PortsetKey(name), portset)) return status;
    const VsStatus found = SwitchOfPortset(reader, name, switchId);
    if (found) return found == STATUS_NOT_FOUND ? STATUS_OK : found;
    if (VsStatus status = ListUplinks(reader, switchId, uplinks)) return status;
    for (const NamedNic &uplink : uplinks)
        folder.folders.push_back(uplink.name);
    return STATUS_OK;
}

VsStatus DescribeNic(Reader &reader, const std::string &name, Folder &folder)
{
    Nic nic;
    if (VsStatus status = GetRecord(reader, runtime::NicKey(name), nic)) return status;
    const std::string port(FieldText(nic.portId));
    folder.leaves = {{"admin", nic.adminUp ? "up" : "down"},
                     {"duplex", nic.fullDuplex ? "full" : "half"},
                     {"link", nic.LinkUp() ? "up" : "down"},
                     {"maxMtu", std::to_string(nic.maxMtu)},
                     {"mtu", std::to_string(nic.mtu)},
                     {"numaNode", std::to_string(nic.driverNumaNode)},
                     {"port", port.empty() ? "none" : port},
                     {"speed", std::to_string(nic.speed)},
                     {"switch", port.empty() ? "none" : std::string(FieldText(nic.switchId))}};
    return STATUS_OK;
}

VsStatus DescribeNics(Reader &reader, Folder &folder)
{
    std::vector<NamedNic> nics;
    const VsStatus status = ListNics(reader, nics);
    for (const NamedNic &nic : nics)
        folder.folders.push_back(nic.name);
    return status;
}

// STATUS_NOT_FOUND when the path is not a folder.
VsStatus Describe(Reader &reader, const Path &path, Folder &folder)
{
    if (path.empty()) {
        folder.folders = {"net"};
        return STATUS_OK;
    }
    if (path == Path{"net"}) {
        folder.folders = {"pNics", "portsets"};
        folder.leaves = {{"create", ""}};
        return STATUS_OK;
    }
    if (IsPortsetNode(path, 2)) return ListPortsets(reader, folder.folders);
    if (IsPortsetNode(path, 3)) return DescribePortset(reader, path[2], folder);
    if (IsPortsetNode(path, 4) && path[3] == "uplinks") return DescribeUplinks(reader, path[2], folder);
    if (IsNicNode(path, 2)) return DescribeNics(reader, folder);
    if (IsNicNode(path, 3)) return DescribeNic(reader, path[2], folder);
    return STATUS_NOT_FOUND;
}

unsigned List(Reader &reader, ShellCommand &command)
{
    Folder folder;
    if (!command.values.empty()) return command.Fail("ls takes no value");
    const VsStatus status = Describe(reader, command.path, folder);
    for (const std::string &name : folder.folders)
        command.out += name + "/\n";
    for (const auto &[name, value] : folder.leaves)
        command.out += name + "\n";
    return command.Finish(status);
}

unsigned GetLeaf(Reader &reader, ShellCommand &command)
{
    Folder parent;
    if (command.path.empty()) return command.Finish(STATUS_NOT_FOUND);
    const Path path(command.path.begin(), command.path.end() - 1);
    if (VsStatus status = Describe(reader, path, parent)) return command.Finish(status);
    for (const auto &[name, value] : parent.leaves)
        if (name == command.path.back()) {
            if (value.empty()) return command.Fail("this node can only be set");
            command.out = value + "\n";
            return 0;
        }
    return command.Finish(STATUS_NOT_FOUND);
}

// The value of a leaf, or the values of all leaves of a folder, each after its name.
unsigned Get(Reader &reader, ShellCommand &command)
{
    Folder folder;
    if (!command.values.empty()) return command.Fail("get takes no value");
    const VsStatus status = Describe(reader, command.path, folder);
    if (status == STATUS_NOT_FOUND) return GetLeaf(reader, command);
    for (const auto &[name, value] : folder.leaves)
        if (!value.empty()) command.out += name + ":" + value + "\n";
    return command.Finish(status);
}

unsigned CreatePortset(Engine &engine, ShellCommand &command)
{
    Portset portset;
    if (command.values.size() != 3) return command.Fail("takes a name, a number of ports and a class");
    const std::string &name = command.values[0], &className = command.values[2];
    if (!IsNodeName(name, MAX_PORTSET_NAME))
        return command.Fail("\"" + name + "\" can't be the name of a portset");
    if (!ParseNumber(command.values[1], portset.ports) || portset.ports == 0 ||
        portset.ports > MAX_PORTSET_PORTS)
        return command.Fail("the number of ports must be 1 to " + std::to_string(MAX_PORTSET_PORTS));
    if (!IsNodeName(className, sizeof(portset.className) - 1))
        return command.Fail("\"" + className + "\" can't be a class");
    SetField(portset.className, className);
    const VsStatus status =
        engine.Write([&](Transaction &transaction) { return AddPortset(transaction, name, portset); });
    return status == STATUS_EXISTS ? command.Fail("portset " + name + " exists already")
                                   : command.Finish(status);
}

unsigned DestroyPortset(Engine &engine, ShellCommand &command)
{
    if (command.values != std::vector<std::string>{"destroy"})
        return command.Fail("takes the value \"destroy\"");
    return command.Finish(
        engine.Write([&](Transaction &transaction) { return RemovePortset(transaction, command.path[2]); }));
}

unsigned SetPortsetMtu(Engine &engine, ShellCommand &command)
{
    uint32_t mtu = 0;
    const bool number = command.values.size() == 1 && ParseNumber(command.values[0], mtu);
    if (!number || mtu < MIN_MTU || mtu > MAX_MTU)
        return command.Fail("the MTU must be " + std::to_string(MIN_MTU) + " to " + std::to_string(MAX_MTU));
    const std::string key = runtime::PortsetKey(command.path[2]);
    return command.Finish(engine.Write([&](Transaction &transaction) {
        Portset portset;
        if (VsStatus status = GetRecord(transaction, key, portset)) return status;
        portset.mtu = mtu;
        return PutRecord(transaction, key, portset);
    }));
}

unsigned SetNicMtu(Engine &engine, ShellCommand &command)
{
    uint32_t mtu = 0;
    const bool number = command.values.size() == 1 && ParseNumber(command.values[0], mtu);
    const std::string key = runtime::NicKey(command.path[2]);
    const VsStatus status = engine.Write([&](Transaction &transaction) -> VsStatus {
        Nic nic;
        if (VsStatus missing = GetRecord(transaction, key, nic)) return missing;
        if (!number || !nic.AcceptsMtu(mtu)) return STATUS_BAD_PARAM;
        nic.mtu = mtu;
        return PutRecord(transaction, key, nic);
    });
    return status == STATUS_BAD_PARAM ? command.Fail("the NIC doesn't accept this MTU; see its maxMtu node")
                                      : command.Finish(status);
}

unsigned Set(Engine &engine, ShellCommand &command)
{
    const Path &path = command.path;
    if (path == Path{"net", "create"}) return CreatePortset(engine, command);
    if (IsPortsetNode(path, 4) && path[3] == "destroy") return DestroyPortset(engine, command);
    if (IsPortsetNode(path, 4) && path[3] == "mtu") return SetPortsetMtu(engine, command);
    if (IsNicNode(path, 4) && path[3] == "mtu") return SetNicMtu(engine, command);
    return command.Fail("no such node that can be set");
}

unsigned Run(Engine &engine, Faults &faults, const std::vector<std::string> &arguments, ShellCommand &command)
{
    if (arguments.size() < 3 || arguments[0] != "-e") {
        command.err = "usage: tybel -e get|set|ls NODE [VALUE...]\n";
        return FAILED;
    }
    command.verb = arguments[1];
    command.node = arguments[2];
    command.path = SplitPath(command.node);
    command.values.assign(arguments.begin() + 3, arguments.end());
    if (faults.NextShellOutput(command.verb, command.out)) return 0;
    if (command.node.empty() || command.node[0] != '/') return command.Fail("a node begins with \"/\"");
    if (command.verb == "ls") return List(engine, command);
    if (command.verb == "get") return Get(engine, command);
    if (command.verb == "set") return Set(engine, command);
    return command.Fail("no such verb; use get, set or ls");
}

unsigned RunGuarded(HostUse &host, const std::vector<std::string> &arguments, ShellCommand &command)
try {
    return Run(host->GetEngine(), *host.GetFaults(), arguments, command);
} catch (...) {
    return command.Finish(StatusOfException());
}

}

std::string JoinWords(const std::vector<std::string> &words)
{
    std::string joined;
    for (const std::string &word : words)
        joined += (joined.empty() ? "" : " ") + word;
    return joined;
}

std::string ShellOperation(const std::vector<std::string> &arguments)
{
    if (arguments.size() < 2) return {};
    if (arguments[1] != "set" || arguments.size() < 3) return arguments[1];
    const Path path = SplitPath(arguments[2]);
    if (path == Path{"net", "create"}) return "create";
    return IsPortsetNode(path, 4) && path[3] == "destroy" ? "destroy" : "set";
}

unsigned RunShell(const std::vector<std::string> &arguments, std::string &out, std::string &err)
{
    HostUse host;
    if (!host) {
        err = "tybel: this process is not on a host; start it with `vshost run -- COMMAND`\n";
        return FAILED;
    }
    const std::string operation = ShellOperation(arguments), text = JoinWords(arguments);
    const CallDetails details{.text = {text.c_str()}, .textCount = 1};
    InterceptedCall call(host.GetFaults(), VSHOST_SHELL, operation.c_str(), details);
    if (call.Fails()) return call.Outcome();
    ShellCommand command;
    const unsigned code = call.Return(RunGuarded(host, arguments, command));
    out = std::move(command.out);
    err = std::move(command.err);
    return code;
}

}

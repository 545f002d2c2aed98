// setup, enroll, release, label, adopt, drive: who belongs to the fleet.
#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sys/stat.h>
#include <thread>

#include "fleet/command/commands.h"
#include "fleet/command/console.h"
#include "fleet/protocol/certificates.h"
#include "fleet/protocol/keys.h"
#include "fleet/rollout/driver.h"

namespace vsfleet {

namespace {

constexpr const char *DIRECTORY = "/etc/vswitchctl/authority";
constexpr const char *MEMBER_DIRECTORY = "/etc/vswitchctl/etcd";
constexpr const char *HOST_DIRECTORY = "/etc/vswitchctl";
constexpr std::chrono::seconds PATIENCE{30};
constexpr int CLIENT_PORT = 2379, PEER_PORT = 2380;

// Users and roles of etcd. A host has a role of its own, with the name of its user.
constexpr const char *ROOT_USER = "root", *DRIVER = "driver", *OPERATOR = "operator", *READER = "reader";

std::string UserOf(const std::string &host) { return "host-" + host; }

void WriteText(const std::string &path, const std::string &text, mode_t mode = 0644)
{
    const std::filesystem::path file(path);
    std::error_code problem; // of which writing says more
    std::filesystem::create_directories(file.parent_path(), problem);
    Files(file.parent_path()).Write(file.filename(), text, mode);
}

void WriteCertificate(const std::string &stem, const Certificate &certificate)
{
    WriteText(stem + ".key", certificate.key, 0600);
    WriteText(stem + ".pem", certificate.certificate);
}

Certificate ReadAuthority(const std::string &directory)
{
    return {ReadFile(directory + "/ca.pem"), ReadFile(directory + "/ca.key")};
}

// A configuration file that lies beside the certificate of that name.
std::string ConfigText(const std::vector<std::string> &endpoints, const std::string &name,
                       const std::string &more = "")
{
    std::string list;
    for (const std::string &endpoint : endpoints)
        list += fmt::format("{}\"{}\"", list.empty() ? "" : ", ", endpoint);
    return fmt::format("endpoints = [{0}]\nauthority = \"ca.pem\"\ncertificate = \"{1}.pem\"\n"
                       "key = \"{1}.key\"\n{2}",
                       list, name, more);
}

// ---- setup ----

struct Member {
    std::string name, address;
};

std::vector<Member> ParseMembers(const std::vector<std::string> &words)
{
    std::vector<Member> members;
    for (const std::string &word : words) {
        const size_t sign = word.find('=');
        if (sign == std::string::npos || sign + 1 == word.size())
            throw Error(Exit::USAGE, fmt::format("'{}' is not a member", word), "write NAME=ADDRESS");
        members.push_back({word.substr(0, sign), word.substr(sign + 1)});
        CheckName(members.back().name, "a member's name");
    }
    return members;
}

// What Debian's etcd reads as /etc/default/etcd.
std::string MemberSettings(const Member &member, const std::vector<Member> &all)
{
    std::string cluster;
    for (const Member &one : all)
        cluster +=
            fmt::format("{}{}=https://{}:{}", cluster.empty() ? "" : ",", one.name, one.address, PEER_PORT);
    std::string text = fmt::format(
        "ETCD_NAME={0}\nETCD_DATA_DIR=/var/lib/etcd/{0}\nETCD_LISTEN_CLIENT_URLS=https://{1}:{2}\n"
        "ETCD_ADVERTISE_CLIENT_URLS=https://{1}:{2}\nETCD_LISTEN_PEER_URLS=https://{1}:{3}\n"
        "ETCD_INITIAL_ADVERTISE_PEER_URLS=https://{1}:{3}\nETCD_INITIAL_CLUSTER={4}\n"
        "ETCD_AUTO_COMPACTION_RETENTION=24h\nETCD_QUOTA_BACKEND_BYTES=4294967296\n",
        member.name, member.address, CLIENT_PORT, PEER_PORT, cluster);
    for (const char *side : {"", "PEER_"})
        text += fmt::format("ETCD_{0}CERT_FILE={1}/server.pem\nETCD_{0}KEY_FILE={1}/server.key\n"
                            "ETCD_{0}TRUSTED_CA_FILE={1}/ca.pem\nETCD_{0}CLIENT_CERT_AUTH=true\n",
                            side, MEMBER_DIRECTORY);
    return text;
}

Exit WriteAuthority(const std::string &directory, const std::vector<Member> &members, bool json)
{
    if (!std::filesystem::exists(directory + "/ca.key"))
        WriteCertificate(directory + "/ca", MakeAuthority("vswitchctl fleet"));
    const Certificate authority = ReadAuthority(directory);
    std::vector<std::string> endpoints;
    Rows rows = Rows::array();
    for (const Member &member : members) {
        endpoints.push_back(fmt::format("{}:{}", member.address, CLIENT_PORT));
        const std::string own = directory + "/members/" + member.name;
        WriteCertificate(
            own + "/server",
            MakeCertificate(authority, member.name, {member.address, member.name, "127.0.0.1", "localhost"}));
        WriteText(own + "/ca.pem", authority.certificate);
        WriteText(own + "/etcd", MemberSettings(member, members));
        rows.push_back({{"made", own},
                        {"next", fmt::format("copy it to {} of {}, and its file etcd to /etc/default/",
                                             MEMBER_DIRECTORY, member.address)}});
    }
    WriteCertificate(directory + "/root", MakeCertificate(authority, ROOT_USER));
    WriteText(directory + "/fleet.toml", ConfigText(endpoints, ROOT_USER));
    for (const char *user : {DRIVER, OPERATOR, READER}) {
        const std::string own = fmt::format("{}/users/{}", directory, user);
        WriteCertificate(own + "/" + user, MakeCertificate(authority, user));
        const std::string home = fmt::format("{}/{}", HOST_DIRECTORY, user);
        WriteText(own + "/ca.pem", authority.certificate);
        WriteText(own + "/fleet.toml", ConfigText(endpoints, user));
        rows.push_back(
            {{"made", own}, {"next", fmt::format("copy it to {} where the {} works", home, user)}});
    }
    PrintRows("setup", rows, json);
    return Exit::DONE;
}

// Members that were just started elect a leader first.
void AwaitMembers(Client &client)
{
    for (const Clock::time_point end = Clock::now() + PATIENCE;;) {
        try {
            client.Get(keys::ROOT);
            return;
        } catch (const EtcdError &error) {
            if (error.kind != EtcdError::Kind::UNREACHABLE || Clock::now() > end) throw;
        }
        std::this_thread::sleep_for(Milliseconds(200));
    }
}

// What the roles may do; nobody may do anything else once users are asked for.
void WriteRoles(Client &client)
{
    client.AddRole(ROOT_USER);
    client.AddUser(ROOT_USER, ROOT_USER);
    for (const char *role : {DRIVER, OPERATOR, READER})
        client.AddRole(role);
    client.Permit(DRIVER, keys::ROOT, true);
    client.Permit(OPERATOR, keys::ROOT, false);
    for (const std::string &key : {keys::DESIRED, keys::ROLLOUTS, keys::AUDIT, keys::ADOPTED})
        client.Permit(OPERATOR, key, true);
    client.Permit(READER, keys::ROOT, false);
    for (const char *user : {DRIVER, OPERATOR, READER})
        client.AddUser(user, user);
    client.EnableAuth();
}

// Labels and claims are the only keys of a host that operators write; the agent has the others.
void WriteHostRole(Client &client, const std::string &host)
{
    const std::string role = UserOf(host);
    client.AddRole(role);
    for (const std::string &key : {keys::DESIRED, keys::ADOPTED, keys::Target(host), keys::Labels(host)})
        client.Permit(role, key, false);
    for (const std::string &key : {keys::Claim(host), keys::Status(host), keys::Machine(host)})
        client.Permit(role, key, true);
    client.Permit(role, keys::Host(host) + "plan/", true);
    client.AddUser(role, role);
    for (const std::string &key : {keys::Labels(host), keys::Claim(host), keys::Machine(host)})
        client.Permit(OPERATOR, key, true);
}

// ---- Hosts ----

Exit Enroll(Console &console, const std::string &host, const std::string &directory, const Labels &labels)
{
    CheckName(host, "a host's name");
    const Certificate authority = ReadAuthority(directory);
    WriteHostRole(console.client, host);
    const std::string own = directory + "/hosts/" + host;
    WriteCertificate(own + "/host", MakeCertificate(authority, UserOf(host)));
    WriteText(own + "/ca.pem", authority.certificate);
    WriteText(own + "/fleet.toml",
              ConfigText(console.config.endpoints.addresses, "host", fmt::format("host = \"{}\"\n", host)));
    // A renewal leaves the labels alone.
    Transaction transaction;
    transaction.IfModified(keys::Labels(host), 0).Put(keys::Labels(host), ToText(labels));
    Audit audit = console.NewAudit("enroll");
    audit.detail = host;
    const bool isNew = console.Commit(transaction, audit);
    console.PrintRows({{{"host", host},
                        {"made", own},
                        {"was", isNew ? "new" : "enrolled"},
                        {"days", CERTIFICATE_DAYS},
                        {"next", fmt::format("copy it to {} of the host", HOST_DIRECTORY)}}});
    return Exit::DONE;
}

// Throws unless the host is known.
const HostView &RequireHost(const Fleet &fleet, const std::string &host)
{
    const auto found = fleet.hosts.find(host);
    if (found == fleet.hosts.end())
        throw Error(Exit::NOT_FOUND, fmt::format("there is no host '{}'", host),
                    "`vsfleet hosts` lists them");
    return found->second;
}

Exit Release(Console &console, const std::string &host, bool forget)
{
    CheckName(host, "a host's name");
    console.ReadFleet();
    RequireHost(console.fleet, host);
    Transaction transaction;
    if (forget)
        transaction.DeletePrefix(keys::Host(host));
    else
        transaction.Delete(keys::Claim(host)).Delete(keys::Machine(host));
    Audit audit = console.NewAudit(forget ? "forget" : "release");
    audit.detail = host;
    console.Commit(transaction, audit);
    if (forget) {
        console.client.RemoveUser(UserOf(host));
        console.client.RemoveRole(UserOf(host));
    }
    console.PrintRows({{{"host", host}, {"is", forget ? "forgotten" : "released"}}});
    return Exit::DONE;
}

Exit Label(Console &console, const std::string &host, const std::vector<std::string> &words)
{
    CheckName(host, "a host's name");
    console.ReadFleet();
    const HostView &view = RequireHost(console.fleet, host);
    Labels labels = view.labels.record;
    std::string detail = host;
    for (const std::string &word : words) {
        const size_t sign = word.find('=');
        if (sign == 0 || sign == std::string::npos || word.find(',') != std::string::npos)
            throw Error(Exit::USAGE, fmt::format("'{}' is not a label", word),
                        "write NAME=VALUE, or NAME= to remove it");
        labels.erase(word.substr(0, sign));
        if (sign + 1 < word.size()) labels[word.substr(0, sign)] = word.substr(sign + 1);
        detail += " " + word;
    }
    if (labels != view.labels.record) {
        Transaction transaction;
        transaction.IfModified(keys::Labels(host), view.labels.modified)
            .Put(keys::Labels(host), ToText(labels));
        Audit audit = console.NewAudit("label");
        audit.detail = detail;
        if (!console.Commit(transaction, audit)) return Label(console, host, words);
    }
    console.PrintRows({{{"host", host}, {"labels", Join(labels)}}});
    return Exit::DONE;
}

// ---- adopt, drive ----

Exit Adopt(Console &console)
{
    const Audit audit = console.NewAudit("adopt");
    Transaction transaction;
    transaction.Put(keys::ADOPTED, ToText(Adoption{RandomId(), audit.author, audit.time}));
    console.Commit(transaction, audit);
    console.PrintRows({{{"cluster", fmt::format("{:x}", console.client.Known().cluster)},
                        {"revision", console.client.Known().revision},
                        {"next", "agents and drivers follow it now"}}});
    return Exit::DONE;
}

std::atomic<bool> isStopped = false;

Exit Drive(Console &console)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { isStopped = true; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    Driver(console.config).Run(isStopped);
    return Exit::DONE;
}

}

Action AddSetup(CLI::App &app)
{
    struct Given {
        std::string directory = DIRECTORY;
        std::vector<std::string> members;
        bool roles = false;
    };
    const auto given = std::make_shared<Given>();
    const auto json = AddJson(app);
    app.add_option("--directory", given->directory, "Where the certificate authority is")
        ->capture_default_str();
    CLI::Option *members = app.add_option(
        "--member", given->members, "A member of etcd, NAME=ADDRESS; once for each: makes certificates");
    app.add_flag("--roles", given->roles, "Write the users and roles into etcd")->excludes(members);
    return [=](const std::string &) {
        // Its own configuration: the directory holds the certificate of etcd's root.
        if (given->roles)
            return Guarded("setup", json, [](Console &console) {
                AwaitMembers(console.client);
                WriteRoles(console.client);
                console.PrintRows({{{"roles", "written"}, {"next", "`vsfleet enroll HOST` for each host"}}});
                return Exit::DONE;
            })(given->directory + "/fleet.toml");
        try {
            if (given->members.empty())
                throw Error(Exit::USAGE, "there is nothing to set up",
                            "give --member NAME=ADDRESS or --roles");
            return static_cast<int>(WriteAuthority(std::filesystem::absolute(given->directory),
                                                   ParseMembers(given->members), *json));
        } catch (const Error &error) {
            PrintError(error, *json);
            return static_cast<int>(error.exit);
        }
    };
}

Action AddEnroll(CLI::App &app)
{
    struct Given {
        std::string host, directory = DIRECTORY;
        std::vector<std::string> labels;
    };
    const auto given = std::make_shared<Given>();
    const auto json = AddJson(app);
    app.add_option("HOST", given->host, "The host's name in the fleet")->required();
    app.add_option("LABELS", given->labels, "Labels of a new host, NAME=VALUE");
    app.add_option("--directory", given->directory, "Where the certificate authority is")
        ->capture_default_str();
    return [=](const std::string &) {
        return Guarded("enroll", json, [=](Console &console) {
            Labels labels;
            for (const std::string &word : given->labels) {
                const size_t sign = word.find('=');
                if (sign == 0 || sign == std::string::npos)
                    throw Error(Exit::USAGE, fmt::format("'{}' is not a label", word), "write NAME=VALUE");
                labels[word.substr(0, sign)] = word.substr(sign + 1);
            }
            return Enroll(console, given->host, std::filesystem::absolute(given->directory), labels);
        })(given->directory + "/fleet.toml");
    };
}

Action AddRelease(CLI::App &app)
{
    const auto host = std::make_shared<std::string>();
    const auto forget = std::make_shared<bool>();
    app.add_option("HOST", *host, "The host")->required();
    app.add_flag("--forget", *forget, "Remove it from the fleet, with its user; needs root's certificate");
    return Guarded("release", AddJson(app),
                   [=](Console &console) { return Release(console, *host, *forget); });
}

Action AddLabel(CLI::App &app)
{
    const auto host = std::make_shared<std::string>();
    const auto words = std::make_shared<std::vector<std::string>>();
    app.add_option("HOST", *host, "The host")->required();
    app.add_option("LABELS", *words, "NAME=VALUE sets a label, NAME= removes it; none shows them");
    return Guarded("label", AddJson(app), [=](Console &console) { return Label(console, *host, *words); });
}

Action AddAdopt(CLI::App &app) { return Guarded("adopt", AddJson(app), Adopt); }

Action AddDrive(CLI::App &app) { return Guarded("drive", AddJson(app), Drive); }

}

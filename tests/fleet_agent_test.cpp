// The agent on throw-away hosts: real agents, real vsctl, a real etcd with TLS.
#include "tests/fleet_etcd.h"

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "fleet/etcd/watch.h"
#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"

namespace {

using namespace vsfleet;
namespace fs = std::filesystem;

const fs::path BUILD = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
// A test that waits this long has failed. What it waits for takes a few seconds on an idle machine.
constexpr std::chrono::seconds PATIENCE{60};

std::string ReadText(const fs::path &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

template<class Condition> void Await(const std::string &what, Condition condition)
{
    const Clock::time_point end = Clock::now() + PATIENCE;
    while (!condition()) {
        if (Clock::now() > end) throw std::runtime_error("waited in vain for " + what);
        std::this_thread::sleep_for(Milliseconds(20));
    }
}

struct Output {
    int exit = -1;
    std::string text;
};

pid_t Spawn(const std::vector<std::string> &words, const fs::path &log)
{
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // no agent outlives a test that crashes
        const int descriptor = open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(descriptor, STDOUT_FILENO);
        dup2(descriptor, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return child;
}

// A host with its agent.
class Host {
public:
    Host(const std::string &name, const Endpoints &endpoints) : name(name)
    {
        std::string made = "/dev/shm/agent-XXXXXX";
        if (!mkdtemp(made.data())) abort();
        directory = made;
        std::string addresses;
        for (const std::string &address : endpoints.addresses)
            addresses += fmt::format("{}\"{}\"", addresses.empty() ? "" : ", ", address);
        Write("fleet.toml",
              fmt::format(
                  "endpoints = [{}]\nauthority = \"{}\"\ncertificate = \"{}\"\nkey = \"{}\"\nhost = \"{}\"\n"
                  "state = \"{}/state\"\nvsctl = \"{}/vsctl\"\nlease = 2\ndrift-interval = 1\n",
                  addresses, endpoints.authority, endpoints.certificate, endpoints.key, name,
                  directory.string(), directory.string()));
        Interpose("");
    }
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host()
    {
        Kill();
        KillOthers();
        if (testing::Test::HasFailure()) fprintf(stderr, "--- %s ---\n%s", name.c_str(), Log().c_str());
        fs::remove_all(directory);
    }

    void Start(const std::vector<std::string> &before = {})
    {
        std::vector<std::string> words = before;
        for (const std::string &word :
             {(BUILD / "platform/vshost").string(), std::string("run"), std::string("--state"), Path("host"),
              std::string("--durability"), std::string("process"), std::string("--"),
              (BUILD / "vsfleet").string(), std::string("agent"), std::string("--config"),
              Path("fleet.toml")})
            words.push_back(word);
        process = Spawn(words, directory / "log");
    }
    void Signal(int number) const { kill(process, number); }
    void Kill()
    {
        if (process > 0) Signal(SIGKILL);
        AwaitEnd();
    }
    int AwaitEnd()
    {
        int status = 0;
        if (process > 0) waitpid(std::exchange(process, -1), &status, 0);
        return status;
    }
    // All that runs on the host, such as what guards an unconfirmed change.
    void KillOthers() const
    {
        const std::string mark = "VSHOST_DIR=" + Path("host");
        for (const auto &entry : fs::directory_iterator("/proc")) {
            const std::string pid = entry.path().filename();
            if (!isdigit(pid[0]) || ReadText(entry.path() / "environ").find(mark) == std::string::npos)
                continue;
            kill(atoi(pid.c_str()), SIGKILL);
        }
    }

    // What the agent runs as vsctl: the script, which may call `vsctl`, or vsctl itself.
    void Interpose(const std::string &script)
    {
        Write("vsctl.new",
              fmt::format("#!/bin/sh\nvsctl() {{ {0}/vsctl \"$@\"; }}\ncd {1}\n{2}\nexec {0}/vsctl \"$@\"\n",
                          BUILD.string(), directory.string(), script));
        chmod(Path("vsctl.new").c_str(), 0700);
        fs::rename(Path("vsctl.new"), Path("vsctl"));
    }
    Output Vsctl(const std::string &words) const
    {
        const std::string command =
            fmt::format("{0}/platform/vshost run --state {1}/host --durability process -- "
                        "{0}/vsctl {2} 2>&1",
                        BUILD.string(), directory.string(), words);
        Output output;
        FILE *pipe = popen(command.c_str(), "r");
        char bytes[4096];
        while (const size_t length = fread(bytes, 1, sizeof(bytes), pipe))
            output.text.append(bytes, length);
        output.exit = WEXITSTATUS(pclose(pipe));
        return output;
    }
    // Whether the host is as the document says, and has no other switch.
    bool Is(const Json &document) const
    {
        Write("wanted.json", document.dump());
        const Json switches = Json::parse(Vsctl("switch list --json").text)["result"];
        return switches.size() == document["switches"].size() &&
               Vsctl("plan " + Path("wanted.json")).exit == 0;
    }
    bool HasUnfinishedChange() const { return fs::exists(directory / "host/vsctl/journal.cbor"); }

    void Write(const std::string &file, const std::string &text) const
    {
        std::ofstream(directory / file) << text;
    }
    std::string Path(const std::string &file) const { return directory / file; }
    bool Has(const std::string &file) const { return fs::exists(directory / file); }
    std::string Log() const { return ReadText(directory / "log"); }

    const std::string name;

private:
    fs::path directory;
    pid_t process = -1;
};

// Switch lab with ports 0 to `ports` - 1 in a VLAN.
Json Lab(int vlan, int ports = 4, const std::string &alias = "lab")
{
    return {
        {"switches",
         {{alias, {{"ports", {{fmt::format("port0..port{}", ports - 1), {{"vlan", {{"id", vlan}}}}}}}}}}}};
}

class Agent : public testing::Test {
protected:
    Agent() : client(etcd.Endpoints()) {}

    DocumentRevision Store(const std::string &name, const Json &document)
    {
        const StoredDocument stored = vsfleet::Store(document.dump());
        const DocumentRevision revision{name, ++revisions, stored.sum};
        client.Commit(Transaction().Put(keys::Revision(name, revision.revision), ToText(stored)));
        return revision;
    }
    // Returns the number of the target.
    int64_t Ask(const Host &host, Target target)
    {
        if (target.phase == Phase::HOLD && target.reason.empty()) target.phase = Phase::APPLY;
        return client.Commit(Transaction().Put(keys::Target(host.name), ToText(target))).revision;
    }
    int64_t Ask(const Host &host, const Json &document, bool allowRemovals = false)
    {
        Target target;
        target.documents = {Store("doc", document)};
        target.allowRemovals = allowRemovals;
        return Ask(host, target);
    }
    Status StatusOf(const Host &host)
    {
        const auto entry = client.Get(keys::Status(host.name));
        return entry ? FromText<Status>(entry->value) : Status();
    }
    Status AwaitState(const Host &host, HostState state, int64_t target)
    {
        Status status;
        Await(fmt::format("{} of target {}", Json(state).dump(), target), [&] {
            status = StatusOf(host);
            return status.target == target && status.state == state;
        });
        return status;
    }
    // The host is confirmed to be as the document says.
    void Confirmed(const Host &host, const Json &document, int64_t target)
    {
        AwaitState(host, HostState::CONFIRMED, target);
        EXPECT_TRUE(host.Is(document));
        EXPECT_FALSE(host.HasUnfinishedChange());
    }
    // The host has refused or undone a change, and is as this document says.
    Status Failed(const Host &host, const Json &document, int64_t target, const std::string &reason)
    {
        const Status status = AwaitState(host, HostState::FAILED, target);
        EXPECT_TRUE(status.error.find(reason) != std::string::npos) << status.error;
        EXPECT_TRUE(host.Is(document));
        EXPECT_FALSE(host.HasUnfinishedChange());
        return status;
    }

    EtcdCluster etcd;
    Client client;
    int64_t revisions = 0;
};

TEST_F(Agent, FollowsItsTarget)
{
    Host host("host1", etcd.Endpoints());
    host.Start();
    Confirmed(host, Lab(7), Ask(host, Lab(7)));
    EXPECT_EQ(StatusOf(host).documents.at(0).revision, 1);
    // Fewer ports: a removal, which has to be allowed.
    Failed(host, Lab(7), Ask(host, Lab(8, 2)), "--allow-removals");
    EXPECT_EQ(StatusOf(host).documents.at(0).revision, 1);
    Confirmed(host, Lab(8, 2), Ask(host, Lab(8, 2), true));
    EXPECT_EQ(host.Vsctl("port vlan lab port3").exit, 3);
}

}

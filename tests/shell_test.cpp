// The embedded host's shell, as a child process and in process, and the launcher.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

#include "core/store.h"
#include "tests/files.h"
#include "tests/fixture.h"

namespace {

struct Ended {
    bool operator==(const Ended &) const = default;
    int status;
    std::string out;
};

std::ostream &operator<<(std::ostream &stream, const Ended &ended)
{
    return stream << std::hex << ended.status << " \"" << ended.out << '"';
}

// The command's output, its errors included unless it discards them, and how it ended.
Ended Execute(const std::string &command, bool inProcess)
{
    vshost_shell_in_process(inProcess);
    FILE *stream = popen(command.c_str(), "r");
    if (!stream) return {-errno, ""};
    std::string out;
    for (int next; (next = getc(stream)) != EOF;)
        out += static_cast<char>(next);
    return {pclose(stream), out};
}

// The same in a child process and in this process, with the same result.
Ended ExecuteBoth(const std::string &command)
{
    const Ended child = Execute(command, false), own = Execute(command, true);
    EXPECT_EQ(own, child) << command;
    return child;
}

constexpr int FAILED = 1 << 8;

class Shell : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        ASSERT_EQ(vshost_scenario(R"({"nics": {"nic0": {"max-mtu": 4000, "refused-mtus": [1500]}}})"), 0);
    }
};

TEST_F(Shell, ReadsTheTree)
{
    const struct {
        const char *arguments;
        int status;
        const char *out;
    } cases[] = {
        {"ls /", 0, "net/\n"},
        {"ls /net", 0, "pNics/\nportsets/\ncreate\n"},
        {"ls /net/portsets", 0, "lab-portset/\n"},
        {"ls //net/portsets/", 0, "lab-portset/\n"},
        {"ls /net/portsets/lab-portset", 0, "uplinks/\nclass\ndestroy\nmtu\nnumPorts\nswitch\n"},
        {"ls /net/portsets/lab-portset/uplinks", 0, "nic0/\nnic1/\n"},
        {"ls /net/pNics", 0, "nic0/\nnic1/\n"},
        {"get /net/portsets/lab-portset", 0, "class:vswitch\nmtu:1500\nnumPorts:128\nswitch:lab-id\n"},
        {"get /net/portsets/lab-portset/mtu", 0, "1500\n"},
        {"get '/net/pNics/nic0/'mtu", 0, "1500\n"},
        {"get \"/net/pNics/nic1/port\"", 0, "uplink1\n"},
        {"get /net/portsets/lab-portset/destroy", FAILED, ""},
        {"get /net/create", FAILED, ""},
        {"get /net/portsets/other/mtu", FAILED, ""},
        {"get /net/pNics/nic2", FAILED, ""},
        {"get /net/pNics/nic0/mtu 5", FAILED, ""},
        {"ls /net/portsets/lab-portset/mtu", FAILED, ""},
        {"ls /nets", FAILED, ""},
        {"ls net", FAILED, ""},
        {"look /net", FAILED, ""},
        {"ls", FAILED, ""},
    };
    for (const auto &row : cases)
        EXPECT_EQ(ExecuteBoth(std::string("/bin/tybel -e ") + row.arguments + " 2>/dev/null"),
                  (Ended{row.status, row.out}))
            << row.arguments;
}

TEST_F(Shell, SetsNodesOrSaysWhyNot)
{
    const struct {
        const char *arguments;
        const char *complaint; // null: it succeeds
    } cases[] = {
        {"/net/create lab-portset 8 vswitch", "portset lab-portset exists already"},
        {"/net/create other 0 vswitch", "the number of ports must be 1 to"},
        {"/net/create other -1 vswitch", "the number of ports must be 1 to"},
        {"/net/create other 8x vswitch", "the number of ports must be 1 to"},
        {"/net/create other 4294967297 vswitch", "the number of ports must be 1 to"},
        {"/net/create a/b 8 vswitch", "can't be the name of a portset"},
        {"/net/create .. 8 vswitch", "can't be the name of a portset"},
        {"/net/create '' 8 vswitch", "can't be the name of a portset"},
        {"/net/create other 8", "takes a name, a number of ports and a class"},
        {"/net/portsets/other/destroy destroy", "no such node"},
        {"/net/portsets/lab-portset/destroy", "takes the value \"destroy\""},
        {"/net/portsets/lab-portset/mtu 1279", "the MTU must be 1280 to 9000"},
        {"/net/portsets/lab-portset/mtu 9001", "the MTU must be 1280 to 9000"},
        {"/net/portsets/lab-portset/mtu", "the MTU must be 1280 to 9000"},
        {"/net/portsets/lab-portset/class x", "no such node that can be set"},
        {"/net/pNics/nic0/mtu 4001", "doesn't accept this MTU"},
        {"/net/pNics/nic0/mtu 1500", "doesn't accept this MTU"},
        {"/net/pNics/nic7/mtu 1500", "no such node"},
    };
    const uint64_t before = vshost_fingerprint();
    for (const auto &row : cases) {
        const Ended ended = Execute(std::string("/bin/tybel -e set ") + row.arguments + " 2>&1", false);
        EXPECT_EQ(ended.status, FAILED) << row.arguments;
        EXPECT_NE(ended.out.find(row.complaint), std::string::npos) << ended.out;
        EXPECT_EQ(ExecuteBoth(std::string("tybel -e set ") + row.arguments + " 2> /dev/null").status, FAILED);
        EXPECT_EQ(vshost_fingerprint(), before) << row.arguments;
    }
    EXPECT_EQ(ExecuteBoth("tybel -e set /net/pNics/nic0//mtu 4000").status, 0);
    EXPECT_EQ(ExecuteBoth("tybel -e get /net/pNics/nic0/mtu").out, "4000\n");
    EXPECT_EQ(ExecuteBoth("tybel -e set /net/portsets/lab-portset/mtu 9000").status, 0);
    EXPECT_EQ(ExecuteBoth("tybel -e get /net/portsets/lab-portset/mtu").out, "9000\n");
}

TEST_F(Shell, NamesComeThroughQuotingWhole)
{
    const struct {
        const char *quoted;
        const char *name;
    } cases[] = {
        {"'two words'", "two words"},        {"'don'\\''t'", "don't"},
        {"\"a\\\"b\\\\c\"", "a\"b\\c"},      {"'$(id);`id`|&<>*?[x]~#'", "$(id);`id`|&<>*?[x]~#"},
        {"'line\nend'", "line\nend"},        {"\\$HOME", "$HOME"},
        {"a@b+c=d,e%f:g", "a@b+c=d,e%f:g"},  {"\"\\x\"'y'z", "\\xyz"},
        {"'\xC3\xA4\xFF'", "\xC3\xA4\xFF"},  {"$((1+1))", "2"},
        {"`echo by-command`", "by-command"},
    };
    for (const auto &row : cases)
        for (bool inProcess : {false, true}) {
            const std::string create =
                std::string("/bin/tybel -e set /net/create ") + row.quoted + " \"8\n\" vswitch 2>/dev/null";
            EXPECT_EQ(Execute(create, inProcess).status, 0) << row.quoted;
            const std::string list = std::string(row.name) + "/\n";
            EXPECT_NE(Execute("tybel -e ls /net/portsets", inProcess).out.find(list), std::string::npos)
                << row.quoted;
            const std::string destroy = std::string("tybel -e set /net/portsets/") + row.quoted;
            EXPECT_EQ(Execute(destroy + "/destroy destroy", inProcess).status, 0) << row.quoted;
        }
}

TEST_F(Shell, FaultsAreTheSameInProcessAndOut)
{
    const std::string get = "tybel -e get /net/portsets/lab-portset/mtu";
    const struct {
        uint32_t outcome;
        Ended expected;
    } cases[] = {
        {3, {3 << 8, ""}},
        {255, {255 << 8, ""}},
        {VSHOST_SHELL_KILLED, {(128 + SIGKILL) << 8, ""}},
        {VSHOST_SHELL_NOT_STARTED, {-EAGAIN, ""}},
    };
    for (const auto &row : cases)
        for (bool inProcess : {false, true}) {
            vshost_clear();
            vshost_fail(VSHOST_SHELL, "get", 2, 1, row.outcome);
            vshost_record(1);
            EXPECT_EQ(Execute(get, inProcess).out, "1500\n");
            EXPECT_EQ(Execute("tybel -e ls /net", inProcess).status, 0) << "another verb does not count";
            EXPECT_EQ(Execute(get, inProcess), row.expected);
            EXPECT_EQ(Execute(get, inProcess).out, "1500\n");
            EXPECT_EQ(vshost_failed(), 1u);
            const std::vector<Call> calls = Calls(VSHOST_SHELL);
            ASSERT_EQ(calls.size(), 4u);
            EXPECT_STREQ(calls[2].text, get.c_str() + strlen("tybel "));
            EXPECT_EQ(calls[2].outcome, row.outcome);
        }
    vshost_clear();
    vshost_fail(VSHOST_SHELL, "create", 1, 1, VSHOST_SHELL_NOT_STARTED);
    vshost_shell_in_process(0);
    EXPECT_EQ(system("/bin/tybel -e set /net/create x 8 vswitch"), -1);
    EXPECT_EQ(system("/bin/tybel -e set /net/create x 8 vswitch"), 0);
}

TEST_F(Shell, OutputsCanBeGiven)
{
    std::string bytes(100000, 'x');
    bytes[500] = '\0';
    vshost_shell_output("get", bytes.data(), static_cast<uint32_t>(bytes.size()));
    vshost_shell_output("ls", "", 0);
    EXPECT_EQ(ExecuteBoth("/bin/tybel -e get /nowhere"), (Ended{0, bytes}));
    EXPECT_EQ(ExecuteBoth("tybel -e ls /nowhere"), (Ended{0, ""}));
}

TEST_F(Shell, IsFoundInEveryWayOfStartingPrograms)
{
    const char *arguments[] = {"tybel", "-e", "get", "/net/portsets/lab-portset/mtu", nullptr};
    char *const *argv = const_cast<char **>(arguments);
    using Start = int (*)(char *const *);
    const Start starts[] = {
        [](char *const *argv) { return execv("/bin/tybel", argv); },
        [](char *const *argv) { return execvp("tybel", argv); },
        [](char *const *argv) { return execvp("/bin/tybel", argv); },
        [](char *const *argv) { return execve("/bin/tybel", argv, environ); },
    };
    for (const Start start : starts) {
        int ends[2], status;
        char out[16] = {};
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(ends[1], STDOUT_FILENO);
            start(argv);
            _exit(127);
        }
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(read(ends[0], out, sizeof(out) - 1), 5) << &start - starts;
        EXPECT_STREQ(out, "1500\n");
        close(ends[0]);
        close(ends[1]);
    }
}

// ---- The launcher ----

const std::string VSHOST =
    std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "platform/vshost";

class Launcher : public testing::Test {
protected:
    // Runs vshost with these arguments, through a shell.
    Ended Vshost(const std::string &arguments) const
    {
        return Execute(VSHOST + " " + arguments + " 2>&1", false);
    }
    Ended OnHost(const std::string &command) const
    {
        return Vshost("run --durability process --state " + state + " -- " + command);
    }

    const Folder made;
    const std::string folder = made.path, state = folder + "/host";
};

TEST_F(Launcher, PassesOnHowTheCommandEnds)
{
    const struct {
        const char *command;
        int status;
    } cases[] = {
        {"true", 0},
        {"sh -c 'exit 7'", 7 << 8},
        {"sh -c 'kill -TERM $$'", (128 + SIGTERM) << 8},
        {"/nonexistent/program", 127 << 8},
        {"/dev/null", 126 << 8},
    };
    for (const auto &row : cases)
        for (const std::string &host : {std::string(), "--state " + state})
            EXPECT_EQ(Vshost("run --durability process " + host + " -- " + row.command).status, row.status)
                << row.command << ' ' << host;
    // A shell handles SIGCHLD itself and can't start a program that ignores it.
    const std::string ignoring = "python3 -c 'import os, signal, sys; "
                                 "signal.signal(signal.SIGCHLD, signal.SIG_IGN); "
                                 "os.execv(sys.argv[1], sys.argv[1:])' ";
    EXPECT_EQ(Execute(ignoring + VSHOST + " run -- false", false).status, 1 << 8);
    EXPECT_EQ(Vshost("run").status, 2 << 8);
    EXPECT_EQ(Vshost("dance").status, 2 << 8);
}

TEST_F(Launcher, NamesItsVersion)
{
    const std::filesystem::path build = std::filesystem::path(VSHOST).parent_path().parent_path();
    const std::string library = std::filesystem::read_symlink(build / "libvswitchctl.so.1");
    EXPECT_EQ(Vshost("--version"),
              (Ended{0, "vshost " + library.substr(strlen("libvswitchctl.so.")) + "\n"}));
}

TEST_F(Launcher, SetsTheEnvironmentAndCleansUp)
{
    setenv("LD_LIBRARY_PATH", "/kept", 1);
    const Ended ended = Vshost("run -- sh -c 'echo $VSHOST_DIR $VSHOST_DURABILITY $LD_LIBRARY_PATH; "
                               "tybel -e ls /net/pNics'");
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find(":/kept"), std::string::npos) << ended.out;
    const std::string directory = ended.out.substr(0, ended.out.find(' '));
    EXPECT_FALSE(std::filesystem::exists(directory)) << "the throw-away host is removed";
}

TEST_F(Launcher, StopsItsCommandWhenItIsStopped)
{
    const std::string file = folder + "/directory";
    const Ended ended = Execute(VSHOST + " run -- sh -c 'echo $VSHOST_DIR >" + file +
                                    "; exec sleep 60' & while ! grep -q . " + file +
                                    " 2>/dev/null; do kill -0 $! || exit 1; sleep 0.1; done; "
                                    "kill $!; wait $!; echo $?",
                                false);
    EXPECT_EQ(ended.out, "143\n");
    const std::string directory = ReadFile(file);
    EXPECT_FALSE(std::filesystem::exists(directory.substr(0, directory.find('\n'))));
}

TEST_F(Launcher, KeepsAHostAndShowsIt)
{
    EXPECT_EQ(OnHost("sh -c '/bin/tybel -e set /net/create lab 8 vswitch'").status, 0);
    EXPECT_EQ(OnHost("tybel -e ls /net/portsets").out, "lab/\n");
    EXPECT_EQ(Vshost("nic nic5 --link down --speed 25000 --state " + state).status, 0);
    const std::string shown = Vshost("show --state " + state).out;
    EXPECT_NE(shown.find("portset lab\n  class vswitch, 8 ports, MTU 1500\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("nic nic5\n  link down, admin up, 25000 Mb/s"), std::string::npos) << shown;
    EXPECT_EQ(Vshost("show --json --state " + state +
                     " | python3 -c 'import json, sys; "
                     "print(json.load(sys.stdin)[\"portsets\"][0][\"ports\"])'")
                  .out,
              "8\n");
    EXPECT_EQ(Vshost("reset --state " + state).status, 0);
    EXPECT_EQ(OnHost("tybel -e ls /net/portsets").out, "");

    WriteFile(folder + "/scenario", R"({"nics": {"nic3": {}}})");
    EXPECT_EQ(Vshost("run --scenario " + folder + "/scenario -- tybel -e ls /net/pNics").out, "nic3/\n");
    WriteFile(folder + "/scenario", R"({"nics": {"nic3": {"seed": 1}}})");
    const Ended refused = Vshost("run --scenario " + folder + "/scenario -- echo started");
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_EQ(refused.out.find("vshost: " + folder +
                               "/scenario: /nics/nic3/seed: unknown key; did you mean speed?"),
              0u)
        << refused.out;
}

TEST_F(Launcher, BindsNics)
{
    ASSERT_EQ(vshost_start(state.c_str(), 0), 0) << vshost_error();
    LibraryInit();
    EXPECT_EQ(VSDVS_CreateVSwitch("lab", nullptr, nullptr, 1, 0, 8, 2, 0), STATUS_OK);
    const struct {
        const char *arguments;
        const char *complaint;
    } cases[] = {
        {"fast lab uplink1", "no NIC fast; add it with `vshost nic fast`"},
        {"nic0 other uplink1", "no switch other; list them with `vshost show`"},
        {"nic0 lab port0", "port0 is not an uplink port of switch lab"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(Vshost(std::string("bind ") + row.arguments),
                  (Ended{FAILED, std::string("vshost: ") + row.complaint + "\n"}));
    const auto uplinks = [this] { return OnHost("tybel -e ls /net/portsets/lab/uplinks").out; };
    EXPECT_EQ(Vshost("nic fast --speed 100000").status, 0);
    EXPECT_EQ(Vshost("bind fast lab uplink1").status, 0);
    EXPECT_EQ(uplinks(), "nic0/\nfast/\n");
    EXPECT_EQ(Vshost("bind nic0 lab uplink1").status, 0);
    EXPECT_EQ(uplinks(), "fast/\nnic0/\n") << "the freed port takes the free NIC";
    EXPECT_EQ(Vshost("remove-nic nic0").status, 0);
    EXPECT_EQ(uplinks(), "fast/\nnic0/\n") << "a NIC is made for the port that lost its own";
    vshost_stop();
}

TEST_F(Launcher, NamesWhatIsWrongAndLeavesItAlone)
{
    EXPECT_EQ(OnHost("tybel -e set /net/create lab 8 vswitch").status, 0);
    const std::string database = state + "/host.db", sound = ReadFile(database);
    const struct {
        const char *name;
        std::string bytes;
    } cases[] = {{"foreign", std::string(8192, 'x')}, {"cut", sound.substr(0, 60)}, {"empty", ""}};
    std::filesystem::remove(database + "-wal");
    std::filesystem::remove(database + "-shm");
    for (const auto &row : cases) {
        WriteFile(database, row.bytes);
        for (const std::string &arguments : {"show --state " + state, "reset --state " + state,
                                             "run --state " + state + " -- echo started"}) {
            const Ended ended = Vshost(arguments);
            EXPECT_EQ(ended.status, FAILED) << row.name;
            EXPECT_EQ(ended.out.find("vshost: " + database), 0u) << ended.out;
            EXPECT_EQ(ReadFile(database), row.bytes) << row.name;
        }
    }
    EXPECT_EQ(Vshost("show --state " + folder).out.find("vshost: " + folder + " is not a host"), 0u);
    EXPECT_TRUE(std::filesystem::exists(state) && !std::filesystem::exists(folder + "/control"));
    EXPECT_EQ(Vshost("show"),
              (Ended{FAILED, "vshost: this process is not on a host; name a host with --state DIR\n"}));
}

namespace fs = std::filesystem;

// A shell line that starts these launchers at once, and fails when one of them fails.
std::string AtOnce(const std::vector<std::string> &commands)
{
    std::string line = "pids=;";
    for (const std::string &command : commands)
        line += ' ' + command + " & pids=\"$pids $!\";";
    return line + " for pid in $pids; do wait $pid || exit 9; done";
}

TEST_F(Launcher, SeveralStartAHostAtOnce)
{
    for (int round = 0; round < 15; round++) {
        fs::remove_all(state);
        std::vector<std::string> commands;
        for (const char *name : {"a", "b", "c", "d"})
            commands.push_back(VSHOST + " run --state " + state + " -- tybel -e set /net/create " + name +
                               " 8 vswitch");
        ASSERT_EQ(Execute(AtOnce(commands), false), (Ended{0, ""}));
        ASSERT_EQ(OnHost("tybel -e ls /net/portsets").out, "a/\nb/\nc/\nd/\n");
    }
}

TEST_F(Launcher, OthersMayResetOrChangeAHostInUse)
{
    WriteFile(folder + "/scenario", R"({"nics": {"fast": {"speed": 100000}}, "options": {"7": 9}})");
    const std::string run = VSHOST + " run --durability process --state " + state;
    const auto creating = [&](const char *prefix) {
        return run + " -- sh -c 'for i in 0 1 2 3 4 5 6 7 8 9; do tybel -e set /net/create " + prefix +
               "$i 8 vswitch || exit 1; done'";
    };
    const auto loop = [](const std::string &command) {
        return "(for i in 0 1 2 3 4 5 6 7 8 9; do " + command + " || exit 1; done)";
    };
    const std::string scenario = run + " --scenario " + folder + "/scenario -- true";
    ASSERT_EQ(Execute(AtOnce({creating("a"), creating("b"), loop(scenario)}), false), (Ended{0, ""}));
    EXPECT_EQ(Execute(run + " -- tybel -e ls /net/portsets | wc -l", false).out, "20\n") << "nothing is lost";
    EXPECT_EQ(OnHost("tybel -e ls /net/pNics").out, "fast/\n");

    ASSERT_EQ(vshost_start(state.c_str(), 0), 0) << vshost_error();
    EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_OK);
    const std::string reset = VSHOST + " reset --state " + state;
    ASSERT_EQ(Execute(AtOnce({creating("c"), creating("d"), loop(reset)}), false), (Ended{0, ""}));
    EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_EXISTS) << "the store is kept";
    EXPECT_EQ(Vshost("reset --state " + state).status, 0);
    EXPECT_EQ(OnHost("tybel -e ls /net/portsets").out, "");
    EXPECT_EQ(OnHost("tybel -e ls /net/pNics").out, "");
    EXPECT_EQ(DVSZOR_SwitchRemove("id"), STATUS_OK);
    vshost_stop();
}

}

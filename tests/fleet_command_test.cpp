// What operators see: help, terminals, certificates, the history's bound.
#include "tests/fleet_rollout.h"

#include <pty.h>

#include <fmt/chrono.h>

#include "fleet/protocol/certificates.h"

namespace {

const std::string FAKE_CLOCK = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";

std::string Output(const std::string &command) { return RunCommand(command).text; }

size_t Columns(const std::string &line)
{
    return static_cast<size_t>(
        std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

TEST(Help, FitsATerminal)
{
    std::istringstream overview(Output(VSFLEET " help"));
    std::vector<std::string> commands = {"help"};
    bool isList = false;
    for (std::string line; std::getline(overview, line);) {
        if (isList && line.starts_with("  "))
            commands.push_back("help " + line.substr(2, line.find(' ', 2) - 2));
        isList = isList || line == "Subcommands:";
    }
    EXPECT_GE(commands.size(), 19u);
    for (const std::string &command : commands) {
        std::istringstream text(Output(VSFLEET " " + command));
        int lines = 0;
        for (std::string line; std::getline(text, line); lines++)
            EXPECT_LE(Columns(line), 80u) << command << ": " << line;
        EXPECT_GE(lines, 4) << command;
    }
}

TEST(Help, IsThatOfVsctlFleet)
{
    EXPECT_EQ(Output(VSCTL " fleet push --help"), Output(VSFLEET " push --help"));
    const struct {
        const char *words, *candidates;
    } rows[] = {{"fle", "fleet\n"},
                {"fleet pu", "push\n"},
                {"fleet push --ca", "--canary\n"},
                {"fleet push web web", ":files\n"},
                {"fleet hosts --config /etc", ":files\n"},
                {"fleet hosts web", ""},
                {"fleet nothing --ca", ""}};
    for (const auto &row : rows)
        EXPECT_EQ(Output(fmt::format("{} complete -- {}", VSCTL, row.words)), row.candidates) << row.words;

    // Where the package is not installed.
    std::string directory = "/dev/shm/vsctl-XXXXXX";
    ASSERT_TRUE(mkdtemp(directory.data()));
    std::filesystem::copy(VSCTL, directory + "/vsctl");
    const std::string text = Output(fmt::format("(PATH=/nowhere {}/vsctl fleet status; echo $?)", directory));
    EXPECT_NE(text.find("install the package vsfleet\n3\n"), std::string::npos) << text;
    std::filesystem::remove_all(directory);
}

// A terminal of 80 columns with a command in it. It knows what the command uses: going up, clearing to the
// end, and bold text.
class Terminal {
public:
    explicit Terminal(const std::string &command)
    {
        const winsize size = {24, COLUMNS, 0, 0};
        process = forkpty(&terminal, nullptr, nullptr, &size);
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("TERM", "xterm", 1);
            execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
            _exit(127);
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal()
    {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        close(terminal);
    }

    // Until the screen shows the one text and not the other, or the command has ended.
    void ReadUntil(const std::string &text, const std::string &goes = "\n\n\n\n")
    {
        char bytes[4096];
        while (Text().find(text) == std::string::npos || Text().find(goes) != std::string::npos) {
            const ssize_t length = read(terminal, bytes, sizeof(bytes));
            if (length <= 0) return;
            for (ssize_t i = 0; i < length; i++)
                Take(bytes[i]);
        }
    }

    std::string Text() const
    {
        std::string text;
        for (const std::string &line : lines)
            text += line + "\n";
        return text;
    }
    size_t Count(const std::string &beginning) const
    {
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string &line) {
            return line.starts_with(beginning);
        }));
    }
    bool IsBold() const { return isBold; }

private:
    static constexpr unsigned short COLUMNS = 80;

    void Take(char c)
    {
        if (!escape.empty() || c == '\x1b') {
            escape += c;
            if (isalpha(static_cast<unsigned char>(c))) Obey(std::exchange(escape, ""));
        } else if (c == '\n') {
            row++;
        } else if (c != '\r') {
            lines.resize(std::max(lines.size(), row + 1));
            if (Columns(lines[row]) == COLUMNS && (c & 0xC0) != 0x80)
                lines.resize(std::max(lines.size(), ++row + 1));
            lines[row] += c;
        }
    }
    void Obey(const std::string &order)
    {
        const size_t number = static_cast<size_t>(atoi(order.c_str() + 2));
        if (order.back() == 'A') row -= std::min(row, number);
        if (order.back() == 'J') lines.resize(std::min(lines.size(), row));
        if (order.back() == 'm') isBold = number == 1;
    }

    int terminal = -1;
    pid_t process = -1;
    std::vector<std::string> lines;
    std::string escape;
    size_t row = 0;
    bool isBold = false;
};

TEST_F(RolloutTest, ATerminalShowsProgress)
{
    Begin(3);
    const std::string program = std::string(VSFLEET) + " --config " + config;
    Terminal watch(program + " watch net");
    watch.ReadUntil("host2");

    // A host that fails with more to say than fits.
    agents[1]->Behave(Habit::FAILS);
    agents[1]->Explain(std::string(70, 'x') + " é " + std::string(70, 'y'));
    {
        Terminal push(program + " push net " + Path("port1.toml") + " --batch 1 --soak 1s --max-failures 1");
        push.ReadUntil("1 of 3 hosts");
        EXPECT_EQ(push.Count("net 2  running"), 1u) << push.Text();
        EXPECT_NE(push.Text().find("██████████░"), std::string::npos) << push.Text();
        push.ReadUntil("host2  confirmed");
        EXPECT_EQ(push.Count("net 2"), 0u) << push.Text(); // the table stands in its place
        EXPECT_EQ(push.Count("HOST"), 1u) << push.Text();
        EXPECT_EQ(push.Count("host0"), 1u) << push.Text();
        EXPECT_FALSE(push.IsBold());
    }
    watch.ReadUntil("host2  2 ", "running");
    EXPECT_EQ(watch.Count("HOST"), 1u) << watch.Text();
    for (const char *host : {"host0", "host1", "host2"})
        EXPECT_EQ(watch.Count(host), 1u) << watch.Text();
    EXPECT_FALSE(watch.IsBold());
}

TEST_F(RolloutTest, CertificatesThatEndSoonAreNamed)
{
    Client client(etcd.Endpoints());
    const auto end = [](int days) {
        return fmt::format("{:%Y-%m-%d}", fmt::gmtime(time(nullptr) + days * 86400));
    };
    const auto report = [&](const std::string &host, int days) {
        Status status;
        status.certificate = end(days);
        client.Commit(Transaction().Put(keys::Status(host), ToText(status)));
    };
    report("host1", 29);
    report("host2", 31);
    const Said hosts = Run("hosts --json");
    EXPECT_EQ(hosts.Result()[0]["certificate"], end(29));
    std::string text = Run("status").text;
    EXPECT_NE(text.find("the certificate of host1 ends on " + end(29) + "; `vsfleet enroll host1`"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("host2"), std::string::npos) << text;
    EXPECT_EQ(text.find("this command"), std::string::npos) << text;
    // Eleven months later.
    ASSERT_TRUE(std::filesystem::exists(FAKE_CLOCK)) << "install the package faketime";
    text = Output(
        fmt::format("LD_PRELOAD={} FAKETIME=+340d {} --config {} status", FAKE_CLOCK, VSFLEET, config));
    EXPECT_NE(text.find("the certificate of this command ends on " + end(365)), std::string::npos) << text;
}

TEST_F(RolloutTest, TheHistoryHasABound)
{
    Client client(etcd.Endpoints());
    const auto key = [](int number) { return keys::AUDIT + fmt::format("2020-01-01-{:05}", number); };
    for (int first = 0; first < 10100; first += 100) {
        Transaction transaction;
        for (int i = first; i < first + 100; i++)
            transaction.Put(key(i), "{}");
        client.Commit(transaction);
    }
    StartDriver();
    Await([](const Fleet &fleet) { return fleet.leader; });
    while (client.Get(key(99)))
        std::this_thread::sleep_for(Milliseconds(20));
    EXPECT_TRUE(client.Get(key(100)));
    EXPECT_EQ(client.GetPrefix(keys::AUDIT).entries.size(), 10000u);
}

}

// Damaged rows of the embedded host's database: each call that reads or changes them returns a status, and
// the host continues to work. The test writes the rows past the platform, as a faulty disk would.
#include "core/store.h"
#include "tests/driver_calls.h"
#include "tests/files.h"

namespace {

using namespace std::string_literals;

constexpr char MAC[] = "\x02\0\0\0\0\x02";
constexpr char SCENARIO[] = R"({
    "nics": {"eth0": {"bind": {"switch": "lab", "port": "uplink0"}}, "spare": {}},
    "portsets": {"lab-portset": {
        "ports": {"port0": {"macs": [{"address": "02:00:00:00:00:02", "vlan": 5}], "learning": {"learned": 9}}},
        "lags": {"lag0": {"members": ["eth0"]}},
        "groups": [{"group": "239.1.1.1", "vlan": 5, "sources": ["10.0.0.1", "10.0.0.2"]}],
        "mirror-sessions": {"s": {"mirrored-packets": 1}},
        "promiscuous-ports": ["port0", "port1"], "rarp": {"sent": 3}, "teaming": {"failovers": 2}}},
    "mac-learning": {"aging": 5}, "options": {"7": 1}})";

struct Row {
    std::string key, value;
};

// The answer of a call: an errno value or a status, and its bytes.
struct Answer {
    bool operator==(const Answer &) const = default;
    std::string call;
    uint32_t outcome;
    std::string bytes;
};

VSwitchInput MacInput()
{
    VSwitchInput input = PortInput(PORT);
    memcpy(input.args.mac.address, MAC, sizeof(input.args.mac.address));
    input.args.mac.vlanId = 5;
    return input;
}

VSwitchInput AdminInput()
{
    VSwitchInput input = UplinkInput("eth0");
    input.args.uplink.adminUp = 1;
    return input;
}

Answer Ask(uint32_t number, const std::string &input)
{
    std::string bytes(40000, '\0');
    const int error = ::Ask(number, input.data(), static_cast<uint32_t>(input.size()), bytes.data(),
                            static_cast<uint32_t>(bytes.size()));
    return {std::to_string(number), static_cast<uint32_t>(error), bytes};
}

Answer Tybel(const std::string &command)
{
    FILE *stream = popen(("/bin/tybel -e " + command + " 2>/dev/null").c_str(), "r");
    std::string bytes(4096, '\0');
    bytes.resize(fread(bytes.data(), 1, bytes.size(), stream));
    return {command, static_cast<uint32_t>(pclose(stream)), bytes};
}

std::vector<Answer> ReadEverything()
{
    std::vector<Answer> answers;
    VSwitchInput group = GroupInput(0, VSWITCH_ADDRESS_IPV4), session = Input(), number = {};
    strcpy(session.args.sessionId, "s");
    number.port.portId = 3;
    for (uint32_t command = VSWITCH_GET_RARP_STATS; command <= VSWITCH_GET_SWITCHES; command++)
        for (const VSwitchInput &input : {Input(), MacInput(), AdminInput(), group, session, number})
            answers.push_back(Ask(command, Bytes(input)));
    answers.push_back(Ask(VSWITCH_GET_OPTIONS, ""));
    answers.push_back(Ask(VSWITCH_GET_OPTIONS, Bytes(uint16_t{7})));
    for (uint32_t kind : {0u, VSWITCH_LIST_PORTSETS})
        answers.push_back(Ask(VSWITCH_GET_SWITCHES, Bytes(kind)));
    for (const char *node : {"/", "/net", "/net/portsets", "/net/portsets/lab-portset",
                             "/net/portsets/lab-portset/uplinks", "/net/pNics", "/net/pNics/eth0"})
        for (const char *verb : {"ls ", "get "})
            answers.push_back(Tybel(verb + std::string(node)));
    char text[PORTSET_NAME_SIZE] = {};
    answers.push_back({"portset", DVSAliasToPortsetName(LAB, text), text});
    answers.push_back({"alias", DVSPortsetNameToAlias(LAB_PORTSET, text), text});
    uint32_t security = 0;
    answers.push_back({"security", VSDVS_GetPortSecurity(LAB, PORT, &security), Bytes(security)});
    size_t ports = 0, properties = 0;
    answers.push_back(
        {"ports", static_cast<uint32_t>(vshost_list_ports(LAB_ID, nullptr, 0, &ports)), Bytes(ports)});
    const int listed = vshost_list_properties(LAB_ID, nullptr, nullptr, 0, &properties);
    answers.push_back({"properties", static_cast<uint32_t>(listed), Bytes(properties)});
    return answers;
}

// Changes every kind of row; the results do not matter here.
void ChangeEverything()
{
    Ask(VSWITCH_SET_PORT_MAC, Bytes(MacInput()));
    Ask(VSWITCH_CLEAR_PORT_MAC, Bytes(MacInput()));
    Ask(VSWITCH_SET_UPLINK_ADMIN, Bytes(AdminInput()));
    Ask(VSWITCH_REFRESH_NUMA, Bytes(Input()));
    Ask(VSWITCH_SET_LEARNING_PROPS, Bytes(Input()));
    Ask(VSWITCH_SET_OPTIONS, Bytes(VSwitchOptions{8, 0}));
    Tybel("set /net/create more 8 vswitch");
    Tybel("set /net/portsets/lab-portset/mtu 4000");
    Tybel("set /net/pNics/eth0/mtu 4000");
    VSDVS_AddSwitchUplinkPort(LAB, "more");
    VSDVS_AddDVPort(LAB, "added", 0);
    struct vshost_port port = {};
    strcpy(port.id, "added");
    port.number = 3;
    vshost_restore_port(LAB_ID, &port);
    VSDVS_RemoveSwitchUplinkPort(LAB, "uplink1");
    VSDVS_RemoveDVPort(LAB, PORT);
    VSDVS_CreateVSwitch("second", "second-id", nullptr, 1, 0, 0, 1, 1);
    vshost_scenario(SCENARIO);
    vshost_fingerprint();
    VSDVS_DestroyVSwitch(LAB);
    vshost_reset();
}

class Damage : public testing::Test {
protected:
    void SetUp() override
    {
        vshost_shell_in_process(1);
        ASSERT_EQ(vshost_start(directory.c_str(), 0), 0) << vshost_error();
        ASSERT_EQ(CreateLab(), STATUS_OK);
        ASSERT_EQ(vshost_scenario(SCENARIO), 0) << vshost_error();
        const MirrorList<1> list("s");
        ASSERT_EQ(VSDVS_AppendDVMirrorSessions(LAB, PORT, &list.header), STATUS_OK);
        sound = ReadEverything();
        vshost_stop();
        rows = ReadRows();
    }
    void TearDown() override
    {
        vshost_stop();
        vshost_shell_in_process(0);
    }

    sqlite3 *Open() const
    {
        sqlite3 *database = nullptr;
        EXPECT_EQ(sqlite3_open((directory + "/host.db").c_str(), &database), SQLITE_OK);
        return database;
    }
    std::vector<Row> ReadRows() const
    {
        std::vector<Row> read;
        sqlite3 *database = Open();
        sqlite3_stmt *statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(database, "SELECT key, value FROM kv", -1, &statement, nullptr),
                  SQLITE_OK);
        const auto column = [&](int i) {
            const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement, i));
            return std::string(bytes ? bytes : "", static_cast<size_t>(sqlite3_column_bytes(statement, i)));
        };
        while (sqlite3_step(statement) == SQLITE_ROW)
            read.push_back({column(0), column(1)});
        sqlite3_finalize(statement);
        sqlite3_close(database);
        return read;
    }
    // Writes all rows as they were, except for one. No process may be on the host.
    void WriteRows(size_t damaged, const Row &instead) const
    {
        sqlite3 *database = Open();
        sqlite3_stmt *statement = nullptr;
        sqlite3_exec(database, "BEGIN; DELETE FROM kv", nullptr, nullptr, nullptr);
        EXPECT_EQ(
            sqlite3_prepare_v2(database, "INSERT OR REPLACE INTO kv VALUES(?, ?)", -1, &statement, nullptr),
            SQLITE_OK);
        for (size_t i = 0; i < rows.size(); i++) {
            const Row &row = i == damaged ? instead : rows[i];
            sqlite3_bind_blob64(statement, 1, row.key.data(), row.key.size(), SQLITE_STATIC);
            sqlite3_bind_blob64(statement, 2, row.value.data(), row.value.size(), SQLITE_STATIC);
            EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
        EXPECT_EQ(sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
    }
    void Restart(size_t damaged, const Row &instead) const
    {
        vshost_stop();
        WriteRows(damaged, instead);
        ASSERT_EQ(vshost_start(directory.c_str(), 0), 0) << vshost_error();
    }
    size_t Find(const std::string &prefix) const
    {
        for (size_t i = 0; i < rows.size(); i++)
            if (rows[i].key.starts_with(prefix)) return i;
        ADD_FAILURE() << "no row " << prefix;
        return 0;
    }

    const Folder folder{"/dev/shm"};
    const std::string directory = folder.path;
    std::vector<Row> rows;
    std::vector<Answer> sound;
};

std::string Readable(std::string key)
{
    for (char &byte : key)
        if (byte < ' ') byte = '.';
    return key;
}

// Rows of one record, or of a record and the entries that it counts: their length tells whether they are
// whole.
bool HasLength(const std::string &key)
{
    for (const char *table : {"portset", "nic", "mac", "lag", "group", "option", "learned", "mirror", "rarp",
                              "teaming", "learning"})
        if (key.starts_with("run\0"s + table + '\0') || key == "run\0"s + table) return true;
    return key.starts_with("port\0"s) || key.starts_with("numbers\0"s);
}

// A row that is too short or too long is not read: calls that need it fail, all others answer as before.
TEST_F(Damage, EveryRowMayBeCutOrPadded)
{
    const std::pair<const char *, std::function<void(std::string &)>> damages[] = {
        {"empty", [](std::string &bytes) { bytes.clear(); }},
        {"one byte", [](std::string &bytes) { bytes.resize(std::min<size_t>(bytes.size(), 1)); }},
        {"half", [](std::string &bytes) { bytes.resize(bytes.size() / 2); }},
        {"cut", [](std::string &bytes) { bytes.resize(bytes.empty() ? 0 : bytes.size() - 1); }},
        {"padded", [](std::string &bytes) { bytes += '\x7F'; }},
    };
    ASSERT_GT(rows.size(), 30u);
    for (size_t i = 0; i < rows.size(); i++)
        for (const auto &[what, damage] : damages) {
            SCOPED_TRACE(Readable(rows[i].key) + ": " + what);
            Row row = rows[i];
            damage(row.value);
            if (row.value == rows[i].value) continue;
            Restart(i, row);
            const std::vector<Answer> answers = ReadEverything();
            for (size_t call = 0; HasLength(row.key) && call < sound.size(); call++)
                EXPECT_TRUE(answers[call].outcome != 0 || answers[call] == sound[call]) << answers[call].call;
            ChangeEverything();
        }
    Restart(0, rows[0]);
    EXPECT_EQ(ReadEverything(), sound) << "only the rows were damaged";
}

TEST_F(Damage, EveryByteOfAValueOrKeyMayBeWrong)
{
    for (size_t i = 0; i < rows.size(); i++)
        for (int damage = 0; damage < 4; damage++) {
            SCOPED_TRACE(Readable(rows[i].key) + ' ' + std::to_string(damage));
            Row row = rows[i];
            if (damage == 0) row.value.assign(row.value.size(), '\xFF');
            if (damage == 1) row.value.assign(row.value.size(), '\0');
            if (damage == 2) row.key.pop_back();
            if (damage == 3) row.key.resize(row.key.rfind('\0') + 1);
            if (row.key.empty()) continue;
            Restart(i, row);
            ReadEverything();
            ChangeEverything();
        }
    Restart(0, rows[0]);
    EXPECT_EQ(ReadEverything(), sound);
    EXPECT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK);
}

TEST_F(Damage, CountsAndEndsThatAreWrongAreRefused)
{
    const auto at = [](size_t offset, const std::string &bytes) {
        return [=](Row &row) { row.value.replace(offset, bytes.size(), bytes); };
    };
    const std::string group = Bytes(GroupInput(0, VSWITCH_ADDRESS_IPV4)), portset = Bytes(Input());
    const struct {
        const char *what;
        std::string prefix;
        std::function<void(Row &)> damage;
        uint32_t command;
        std::string input;
    } cases[] = {
        {"a group's sources", "run\0group\0"s, at(offsetof(VSwitchMcastStats, count), "\xFF\xFF\xFF\xFF"),
         VSWITCH_GET_MCAST_STATS, group},
        {"one source less", "run\0group\0"s, at(offsetof(VSwitchMcastStats, count), "\1"s),
         VSWITCH_GET_MCAST_STATS, group},
        {"a group's key", "run\0group\0"s, [](Row &row) { row.key.resize(row.key.size() - 6); },
         VSWITCH_GET_MCAST_GROUPS, group},
        {"a LAG's members", "run\0lag\0"s, at(offsetof(VSwitchLag, memberCount), "\x11"s),
         VSWITCH_GET_UPLINKS, portset},
        {"the last promiscuous port", "run\0promiscuous\0"s, [](Row &row) { row.value.pop_back(); },
         VSWITCH_GET_PROMISCUOUS_PORTS, portset},
        {"an option's key", "run\0option\0"s, [](Row &row) { row.key.pop_back(); }, VSWITCH_GET_OPTIONS, ""},
        {"a MAC's key", "run\0mac\0"s, [](Row &row) { row.key.pop_back(); }, VSWITCH_GET_PORT_MACS,
         Bytes(MacInput())},
        {"a bound NIC that is none", "run\0bound\0"s, [](Row &row) { row.value = "none"; },
         VSWITCH_GET_UPLINKS, portset},
    };
    for (const auto &row : cases) {
        const size_t index = Find(row.prefix);
        Row damaged = rows[index];
        row.damage(damaged);
        Restart(index, damaged);
        EXPECT_EQ(Ask(row.command, row.input).outcome, static_cast<uint32_t>(EIO)) << row.what;
        EXPECT_EQ(VSDVS_AddDVPort(LAB, "added", 0), STATUS_OK) << row.what;
    }
}

}

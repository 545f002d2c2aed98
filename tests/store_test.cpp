// The embedded host's store: what it keeps across processes, threads, forks and damage.
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "core/store.h"
#include "tests/files.h"
#include "tests/fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr char ID[] = "id";
constexpr char KEY[] = "k";
constexpr char ALIAS[] = "com.talpex.common.alias";
constexpr char PORTSET[] = "com.talpex.common.host.portset";
constexpr uint32_t FLAGS = 0x10;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

void LoadCache()
{
    void *token = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
    ASSERT_EQ(DVSZOR_StateGet(&token, &length), STATUS_OK);
    ASSERT_EQ(DVSState_ConfigDeserialize(token, length), STATUS_OK);
    free(token);
}

VsStatus SetGlobal(const char *id, const char *key, std::string_view text)
{
    return DVSZOR_GlobalPropSet(id, key, text.data(), static_cast<uint32_t>(text.size()), FLAGS);
}

VsStatus SetPort(const char *portId, std::string_view value)
{
    return DVSZOR_PortDataSet(ID, portId, KEY, value.data(), static_cast<uint32_t>(value.size()), FLAGS);
}

std::string GetPort(const char *portId)
{
    void *value = nullptr;
    uint32_t length = 0;
    if (DVSZOR_PortDataGet(ID, portId, KEY, &value, &length) != STATUS_OK) return "absent";
    std::string copy(static_cast<char *>(value), length);
    DVSZOR_DataFree(value);
    return copy;
}

std::string PortBundle()
{
    DataBundle *bundle = nullptr;
    void *buffer = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(DVSData_Alloc(&bundle, malloc, free), STATUS_OK);
    DVSData_Update(bundle, KEY, "first", 5, FLAGS);
    EXPECT_EQ(DVSData_Serialize(bundle, &buffer, &length, 5), STATUS_OK);
    DVSData_Free(bundle);
    std::string bytes(static_cast<char *>(buffer), length);
    free(buffer);
    return bytes;
}

VsStatus AddPort(const char *id, const std::string &portId, const std::string &bundle = PortBundle())
{
    return DVSZOR_PortAdd(id, portId.c_str(), bundle.data(), static_cast<uint32_t>(bundle.size()));
}

uint32_t NumberOf(const char *portId)
{
    const auto status = Read(StoreLevel::PORT, "com.talpex.common.port.volatile.status", portId, ID);
    uint32_t number = 0;
    if (status && status->bytes.size() >= 20) memcpy(&number, status->bytes.data() + 16, sizeof(number));
    return number;
}

// A key of the database, as an SQL literal.
std::string Literal(std::string_view key)
{
    std::string text = "x'";
    for (const char byte : key) {
        constexpr char DIGITS[] = "0123456789abcdef";
        text += DIGITS[static_cast<unsigned char>(byte) >> 4];
        text += DIGITS[byte & 15];
    }
    return text + "'";
}

// A host in a directory of its own, with one switch of eight ports.
class StoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(Start(), 0) << vshost_error();
        LoadCache();
        ASSERT_EQ(DVSZOR_SwitchAdd(ID, "vswitch", 8, 1), STATUS_OK);
        for (int i = 0; i < 8; i++)
            ASSERT_EQ(AddPort(ID, "p" + std::to_string(i)), STATUS_OK);
    }
    void TearDown() override
    {
        EXPECT_EQ(vshost_values_lent(), 0);
        vshost_stop();
    }
    int Start() { return vshost_start(directory.c_str(), 1); }
    std::string Database() const { return directory + "/host.db"; }
    void Sql(const std::string &text) const { ::Sql(Database(), text); }
    void Overwrite(off_t offset, const std::string &bytes)
    {
        std::fstream file(Database(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(offset);
        file << bytes;
    }
    std::string Content(const char *suffix = "") const { return ReadFile(Database() + suffix); }

    const Folder folder;
    const std::string directory = folder.path;
};

TEST_F(StoreTest, RefusesFilesThatAreNotItsOwn)
{
    const std::function<void()> makers[] = {
        [&] { fs::resize_file(Database(), 0); },     [&] { fs::resize_file(Database(), 50); },
        [&] { Overwrite(0, "no database at all"); }, [&] { Overwrite(4096, std::string(4096, 'x')); },
        [&] { Sql("PRAGMA user_version=99"); },      [&] { Sql("PRAGMA user_version=0"); },
        [&] { Sql("PRAGMA application_id=7"); },
    };
    vshost_stop();
    const std::string sound = Content();
    for (const auto &make : makers) {
        WriteFile(Database(), sound);
        make();
        const std::string before = Content();
        EXPECT_EQ(Start(), EIO);
        EXPECT_NE(std::string(vshost_error()).find(Database() + " "), std::string::npos) << vshost_error();
        EXPECT_EQ(vshost_directory(), nullptr);
        const auto attach = [&] {
            setenv("VSHOST_DIR", directory.c_str(), 1);
            return execlp("vshost", "vshost", "show", nullptr) == 0;
        };
        EXPECT_NE(Wait(Fork(attach)), 0);
        EXPECT_EQ(Content(), before);
    }
}

// The version in the log counts when another program keeps it from the file's header.
TEST_F(StoreTest, RefusesAnotherFormatByName)
{
    int told[2], end[2];
    ASSERT_EQ(pipe(told) | pipe(end), 0);
    vshost_stop();
    const pid_t other = Fork([&] {
        char byte = 0;
        return Start() == 0 && write(told[1], "x", 1) == 1 && read(end[0], &byte, 1) == 1;
    });
    char byte;
    ASSERT_EQ(read(told[0], &byte, 1), 1);
    const struct {
        const char *version, *complaint;
    } cases[] = {{"0", "no format version"}, {"2", "newer program"}};
    for (const auto &row : cases) {
        Sql(std::string("PRAGMA user_version=") + row.version);
        const std::string content = Content(), log = Content("-wal");
        EXPECT_EQ(Start(), EIO) << row.version;
        EXPECT_NE(std::string(vshost_error()).find(row.complaint), std::string::npos) << vshost_error();
        EXPECT_TRUE(Content() == content && Content("-wal") == log) << row.version;
    }
    ASSERT_EQ(write(end[1], "x", 1), 1);
    EXPECT_EQ(Wait(other), 0);
    for (int descriptor : {told[0], told[1], end[0], end[1]})
        close(descriptor);
}

TEST_F(StoreTest, StopsAtDamage)
{
    for (int i = 8; i < 200; i++)
        ASSERT_EQ(AddPort(ID, "p" + std::to_string(i)), STATUS_OK);
    vshost_stop();
    for (off_t page = 4; page < 8; page++)
        Overwrite(page * 4096, std::string(4096, 'x'));
    const std::string before = Content();
    ASSERT_EQ(Start(), 0) << vshost_error();
    VsStatus status = STATUS_OK;
    for (int i = 0; i < 200 && status == STATUS_OK; i++) {
        void *value = nullptr;
        uint32_t length = 0;
        status = DVSZOR_PortDataGet(ID, ("p" + std::to_string(i)).c_str(), KEY, &value, &length);
        if (status == STATUS_OK) DVSZOR_DataFree(value);
    }
    EXPECT_EQ(status, STATUS_IO_ERROR);
    EXPECT_EQ(SetPort("p0", "lost"), STATUS_IO_ERROR);
    EXPECT_EQ(DVSZOR_SwitchAdd("other", "vswitch", 8, 1), STATUS_IO_ERROR);
    vshost_stop();
    EXPECT_EQ(Content(), before);
}

TEST_F(StoreTest, RefusesADamagedRowAlone)
{
    using namespace std::string_view_literals;
    Sql("UPDATE kv SET value = substr(value, 1, length(value) - 1) WHERE key = " + Literal("port\0id\0p1"sv));
    void *value = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(DVSZOR_PortDataGet(ID, "p1", KEY, &value, &length), STATUS_IO_ERROR);
    EXPECT_EQ(SetPort("p1", "x"), STATUS_IO_ERROR);
    EXPECT_EQ(GetPort("p2"), "first");
}

TEST_F(StoreTest, RefusesDamagedBundlesAndTokens)
{
    void *buffer = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(DVSZOR_StateGet(&buffer, &length), STATUS_OK);
    const std::string token(static_cast<char *>(buffer), length), bundle = PortBundle();
    free(buffer);
    const uint64_t before = vshost_fingerprint();
    const auto refused = [&](const std::string &good,
                             const std::function<VsStatus(const std::string &)> &use) {
        for (size_t i = 0; i < good.size(); i++) {
            std::string bad = good;
            bad[i] = static_cast<char>(bad[i] ^ 0x40);
            EXPECT_EQ(use(bad), STATUS_BAD_PARAM) << i;
            EXPECT_EQ(use(good.substr(0, i)), STATUS_BAD_PARAM) << i;
        }
        EXPECT_EQ(use(good + '\0'), STATUS_BAD_PARAM);
    };
    refused(bundle, [](const std::string &bad) { return AddPort(ID, "new", bad); });
    EXPECT_EQ(vshost_fingerprint(), before);
    ASSERT_EQ(SetGlobal(ID, ALIAS, Text("lab")), STATUS_OK);
    DVSState_ConfigReset();
    refused(token, [](const std::string &bad) {
        return DVSState_ConfigDeserialize(bad.data(), static_cast<uint32_t>(bad.size()));
    });
    EXPECT_EQ(DVSState_SwitchFindByAlias("lab"), nullptr);
}

TEST_F(StoreTest, StatusesOfNamesThatDoNotFit)
{
    const std::string longest(63, 'i'), tooLong(64, 'i');
    ASSERT_EQ(SetGlobal(ID, ALIAS, Text("lab")), STATUS_OK);
    const uint64_t before = vshost_fingerprint();
    const std::pair<VsStatus, VsStatus> cases[] = {
        {DVSZOR_SwitchAdd(ID, "vswitch", 8, 1), STATUS_EXISTS},
        {DVSZOR_SwitchAdd(tooLong.c_str(), "vswitch", 8, 1), STATUS_BAD_PARAM},
        {DVSZOR_SwitchAdd("", "vswitch", 8, 1), STATUS_BAD_PARAM},
        {DVSZOR_SwitchAdd(nullptr, "vswitch", 8, 1), STATUS_BAD_PARAM},
        {DVSZOR_SwitchAssociate("none"), STATUS_NOT_FOUND},
        {DVSZOR_SwitchRemove("none"), STATUS_NOT_FOUND},
        {AddPort("none", "p0"), STATUS_NOT_FOUND},
        {AddPort(ID, "p0"), STATUS_EXISTS},
        {AddPort(ID, ""), STATUS_BAD_PARAM},
        {DVSZOR_PortRemove(ID, "none"), STATUS_NOT_FOUND},
        {DVSZOR_PortDataSet(ID, "none", KEY, "", 0, 0), STATUS_NOT_FOUND},
        {DVSZOR_PortDataSet(ID, "p0", KEY, nullptr, 1, 0), STATUS_BAD_PARAM},
        {DVSZOR_PortDataSet(ID, "p0", KEY, "", UINT32_MAX >> 1, 0), STATUS_TOO_LARGE},
        {DVSZOR_PortDataClear(ID, "p0", "none"), STATUS_NOT_FOUND},
        {SetGlobal("none", KEY, "x"), STATUS_NOT_FOUND},
        {DVSZOR_HostPropClear(ID, KEY), STATUS_NOT_FOUND},
    };
    for (size_t i = 0; i < std::size(cases); i++)
        EXPECT_EQ(cases[i].first, cases[i].second) << i;
    EXPECT_EQ(vshost_fingerprint(), before);
    EXPECT_EQ(DVSZOR_SwitchAdd(longest.c_str(), "other", 8, 1), STATUS_OK);
    EXPECT_EQ(SetGlobal(longest.c_str(), ALIAS, Text("lab")), STATUS_EXISTS);
    EXPECT_EQ(SetGlobal(longest.c_str(), ALIAS, Text("other")), STATUS_OK);
    EXPECT_STREQ(DVS_ClassName(DVSState_SwitchFindByAlias("other")), "other");
    EXPECT_EQ(DVSZOR_GlobalPropClear(longest.c_str(), ALIAS), STATUS_OK);
    EXPECT_EQ(SetGlobal(ID, ALIAS, Text("other")), STATUS_OK);
    EXPECT_EQ(DVSState_SwitchFindByAlias("lab"), nullptr);
}

TEST_F(StoreTest, GivesOutTheLowestFreeNumberUpToTheLimit)
{
    ASSERT_EQ(DVSZOR_PortRemove(ID, "p5"), STATUS_OK);
    ASSERT_EQ(DVSZOR_PortRemove(ID, "p2"), STATUS_OK);
    for (const char *name : {"a", "b", "c"})
        ASSERT_EQ(AddPort(ID, name), STATUS_OK);
    EXPECT_EQ(NumberOf("a"), 3u);
    EXPECT_EQ(NumberOf("b"), 6u);
    EXPECT_EQ(NumberOf("c"), 9u);
    // The highest number is in use, and none is free.
    using namespace std::string_view_literals;
    Sql("INSERT INTO kv VALUES(" + Literal("number\0\0\x10\0\0"sv) + "," + Literal("far\0away"sv) + ")");
    const uint64_t before = vshost_fingerprint();
    EXPECT_EQ(AddPort(ID, "d"), STATUS_TOO_LARGE);
    EXPECT_EQ(vshost_fingerprint(), before);
    ASSERT_EQ(DVSZOR_PortRemove(ID, "a"), STATUS_OK);
    EXPECT_EQ(AddPort(ID, "d"), STATUS_OK);
    EXPECT_EQ(NumberOf("d"), 3u);
}

// The places that must show a difference between two hosts.
TEST_F(StoreTest, FingerprintsTellNamesValuesAndFlagsApart)
{
    const std::function<VsStatus()> changes[] = {
        [] { return DVSZOR_SwitchAdd("a", "vswitch", 8, 1); },
        [] { return DVSZOR_SwitchAdd("b", "vswitch", 8, 1); },
        [] { return AddPort("a", "x"); },
        [] { return AddPort("b", "x"); },
        [] { return SetGlobal("a", KEY, "1"); },
        [] { return SetGlobal("b", KEY, "1"); },
        [] { return SetGlobal("a", KEY, "2"); },
        [] { return SetGlobal("a", "k2", "2"); },
        [] { return DVSZOR_GlobalPropSet("a", KEY, "2", 1, 0); },
        [] { return DVSZOR_SwitchAssociate("a"); },
        [] { return DVSZOR_SwitchRemove("a"); },
        [] { return DVSZOR_SwitchRemove("b"); },
    };
    const uint64_t before = vshost_fingerprint();
    std::set<uint64_t> seen = {before};
    for (size_t i = 0; i < std::size(changes); i++) {
        EXPECT_EQ(changes[i](), STATUS_OK) << i;
        EXPECT_EQ(seen.insert(vshost_fingerprint()).second, i + 1 < std::size(changes)) << i;
    }
    EXPECT_EQ(vshost_fingerprint(), before);
    // The same rows, except for one name.
    ASSERT_EQ(DVSZOR_SwitchAdd("a", "vswitch", 8, 1), STATUS_OK);
    const uint64_t named = vshost_fingerprint();
    ASSERT_EQ(DVSZOR_SwitchRemove("a"), STATUS_OK);
    ASSERT_EQ(DVSZOR_SwitchAdd("b", "vswitch", 8, 1), STATUS_OK);
    EXPECT_NE(vshost_fingerprint(), named);
}

TEST_F(StoreTest, HandlesStayUntilAReset)
{
    ASSERT_EQ(SetGlobal(ID, ALIAS, Text("lab")), STATUS_OK);
    SwitchHandle *handle = DVSState_SwitchFindByAlias("lab");
    PropHandle *property = nullptr;
    void *old = nullptr, *current = nullptr;
    ASSERT_EQ(DVSState_GlobalPropLookup(ID, ALIAS, &property), STATUS_OK);
    DVSData_Data(property, &old);
    for (int i = 0; i < 16; i++) {
        const std::string alias = "lab" + std::to_string(i);
        ASSERT_EQ(SetGlobal(ID, ALIAS, Text(alias)), STATUS_OK);
        PropHandle *again = nullptr;
        ASSERT_EQ(DVSState_GlobalPropLookup(ID, ALIAS, &again), STATUS_OK);
        ASSERT_EQ(again, property);
        DVSData_Data(again, &current);
        ASSERT_STREQ(static_cast<char *>(current), alias.c_str());
        ASSERT_EQ(DVSState_SwitchFindByAlias(alias.c_str()), handle);
    }
    EXPECT_STREQ(static_cast<char *>(old), "lab");
    ASSERT_NE(DVSState_PortFind(ID, "p0"), nullptr);
    ASSERT_EQ(DVSZOR_SwitchRemove(ID), STATUS_OK);
    EXPECT_EQ(DVSState_PortFind(ID, "p0"), nullptr);
    EXPECT_EQ(DVSState_GlobalPropLookup(ID, ALIAS, &property), STATUS_NOT_FOUND);
    EXPECT_EQ(DVSState_SwitchFindByAlias("lab15"), nullptr);
    EXPECT_STREQ(DVS_SwitchId(handle), ID);
    EXPECT_STREQ(static_cast<char *>(current), "lab15");
    ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
    EXPECT_EQ(DVSState_SwitchFindByAlias("lab15"), nullptr);
}

// SQLite takes the locks of a forking process for the child's own. The last other process would then delete
// the child's log.
TEST_F(StoreTest, AForkedChildIsAProcessOfItsOwn)
{
    int go[2], done[2];
    ASSERT_EQ(pipe(go) | pipe(done), 0);
    ASSERT_EQ(SetPort("p0", "parent"), STATUS_OK);
    const pid_t child = Fork([&] {
        char byte = 0;
        if (SetPort("p1", "child") != STATUS_OK || write(done[1], &byte, 1) != 1) return false;
        return read(go[0], &byte, 1) == 1 && SetPort("p2", "child") == STATUS_OK &&
               GetPort("p0") == "parent" && GetPort("p3") == "another";
    });
    char byte = 0;
    ASSERT_EQ(read(done[0], &byte, 1), 1);
    vshost_stop(); // the parent leaves the host
    EXPECT_EQ(Wait(Fork([&] { return Start() == 0 && SetPort("p3", "another") == STATUS_OK; })), 0);
    ASSERT_EQ(Start(), 0);
    vshost_stop();
    EXPECT_TRUE(fs::exists(Database() + "-wal")) << "the log of the child was deleted";
    ASSERT_EQ(write(go[1], &byte, 1), 1);
    EXPECT_EQ(Wait(child), 0);
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(GetPort("p1") + GetPort("p2") + GetPort("p3"), "childchildanother");
    for (int end : {go[0], go[1], done[0], done[1]})
        close(end);
}

TEST_F(StoreTest, ForksWhileThreadsWrite)
{
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([&, i] {
            const std::string port = "p" + std::to_string(i);
            while (!stop)
                EXPECT_EQ(SetPort(port.c_str(), "busy"), STATUS_OK);
        });
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(Wait(Fork([] { return SetPort("p7", "child") == STATUS_OK && GetPort("p7") == "child"; })),
                  0);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
}

// A lock that another thread holds during a fork is never released in the child, so a fork must wait for
// every lock of a call. An alarm ends a child that hangs.
TEST_F(StoreTest, ForksWhileThreadsLookUp)
{
    constexpr unsigned HANGS = 20; // seconds
    if (SANITIZED) GTEST_SKIP() << "the sanitizer's own allocator takes a lock that fork doesn't wait for";
    ASSERT_EQ(SetGlobal(ID, ALIAS, Text("lab")), STATUS_OK);
    ASSERT_EQ(DVSZOR_HostPropSet(ID, PORTSET, "ps", 3, FLAGS), STATUS_OK);
    ASSERT_EQ(system("tybel -e set /net/create ps 8 vswitch"), 0);
    vshost_shell_in_process(1);
    const auto looksUp = [] {
        char portset[PORTSET_NAME_SIZE];
        int32_t mtu = 0;
        return DVSAliasToPortsetName("lab", portset) == STATUS_OK && std::string(portset) == "ps" &&
               VSDVS_GetMTU("lab", &mtu) == STATUS_OK;
    };
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([&] {
            while (!stop)
                EXPECT_TRUE(looksUp());
        });
    int hung = 0;
    for (int i = 0; i < 500 && !hung; i++)
        hung = Wait(Fork([&] { return alarm(HANGS) == 0 && looksUp(); }));
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    vshost_shell_in_process(0);
    EXPECT_EQ(hung, 0);
}

TEST_F(StoreTest, EightProcessesAtOnce)
{
    std::vector<pid_t> children;
    for (int i = 0; i < 8; i++)
        children.push_back(Fork([i] {
            const std::string port = "q" + std::to_string(i), alias = "alias" + std::to_string(i);
            for (int round = 0; round < 30; round++) {
                if (AddPort(ID, port) != STATUS_OK || DVSZOR_PortRemove(ID, port.c_str()) != STATUS_OK)
                    return false;
                if (SetGlobal(ID, alias.c_str(), std::to_string(round)) != STATUS_OK) return false;
                PropHandle *property = nullptr;
                if (DVSState_GlobalPropLookup(ID, alias.c_str(), &property) != STATUS_OK) return false;
            }
            return AddPort(ID, port) == STATUS_OK;
        }));
    for (const pid_t child : children)
        EXPECT_EQ(Wait(child), 0);
    uint64_t numbers = 0;
    for (int i = 0; i < 8; i++)
        numbers |= uint64_t{1} << NumberOf(("q" + std::to_string(i)).c_str());
    EXPECT_EQ(numbers, uint64_t{0xFF} << 9);
}

TEST_F(StoreTest, AFullDiskUndoesTheCallAlone)
{
    const auto fill = [&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1 << 20, RLIM_INFINITY}, none{RLIM_INFINITY, RLIM_INFINITY};
        const std::string value(3000, 'v');
        VsStatus status = STATUS_OK;
        setrlimit(RLIMIT_FSIZE, &limit);
        int written = 0;
        while (status == STATUS_OK && written < 10000)
            status = SetGlobal(ID, std::to_string(written++).c_str(), value);
        if (status != STATUS_NO_SPACE || GetPort("p0") != "first") return false;
        setrlimit(RLIMIT_FSIZE, &none);
        const std::string last = std::to_string(written - 2), failed = std::to_string(written - 1);
        return Read(StoreLevel::GLOBAL, last.c_str(), "", ID).has_value() &&
               !Read(StoreLevel::GLOBAL, failed.c_str(), "", ID) &&
               SetGlobal(ID, failed.c_str(), value) == STATUS_OK;
    };
    EXPECT_EQ(Wait(Fork(fill)), 0);
}

TEST_F(StoreTest, AReadOnlyDirectorySaysSo)
{
    vshost_stop();
    for (const auto &entry : fs::recursive_directory_iterator(directory))
        fs::permissions(entry, fs::perms::owner_write | fs::perms::group_write, fs::perm_options::remove);
    fs::permissions(directory, fs::perms(0555));
    const auto attach = [&] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return false;
        setenv("VSHOST_DIR", directory.c_str(), 1);
        return vshost_start(directory.c_str(), 1) == EROFS &&
               std::string(vshost_error()).find(directory) != std::string::npos;
    };
    EXPECT_EQ(Wait(Fork(attach)), 0);
    fs::permissions(directory, fs::perms(0755));
    ASSERT_EQ(Wait(Fork([&] { return chmod((directory + "/dev").c_str(), 0755) == 0; })), 0);
}

// The control file ends with the machine's memory: a host without it has just started.
TEST_F(StoreTest, AHostThatStartsRunsItsSwitches)
{
    const auto runs = [] { return system("tybel -e get /net/portsets/ps/numPorts >/dev/null 2>&1") == 0; };
    ASSERT_EQ(DVSZOR_HostPropSet(ID, PORTSET, "ps", 3, FLAGS), STATUS_OK);
    ASSERT_EQ(DVSZOR_SwitchAssociate(ID), STATUS_OK);
    vshost_stop();
    ASSERT_EQ(Start(), 0);
    EXPECT_FALSE(runs()) << "it is not started while the host is up";
    vshost_stop();
    ASSERT_TRUE(fs::remove(directory + "/control"));
    std::vector<pid_t> together;
    for (int i = 0; i < 4; i++)
        together.push_back(Fork([&] { return Start() == 0 && runs(); }));
    for (const pid_t child : together)
        EXPECT_EQ(Wait(child), 0);
    ASSERT_EQ(Start(), 0);
    EXPECT_TRUE(runs());
}

// The directory in which a program was started, not its present one; its children's too.
TEST_F(StoreTest, ARelativeDirectoryIsThatOfTheStart)
{
    ASSERT_EQ(SetGlobal(ID, ALIAS, Text("lab")), STATUS_OK);
    ASSERT_EQ(system("tybel -e set /net/create kept 8 vswitch"), 0);
    vshost_stop();
    const fs::path path = directory;
    const std::string start =
        "cd " + path.parent_path().string() + " && export VSHOST_DIR=" + path.filename().string() + " && ";
    EXPECT_EQ(system((start + "exec sh -c 'cd / && tybel -e get /net/portsets/kept/mtu >/dev/null'").c_str()),
              0);
    if (SANITIZED) return; // Python itself is not built with the sanitizer
    // A program without the preload, which ends before its first write.
    Dl_info library = {};
    ASSERT_NE(dladdr(reinterpret_cast<void *>(&DVSAliasToSwitchId), &library), 0);
    const std::string program =
        "import ctypes, os; library = ctypes.CDLL(\"" + std::string(library.dli_fname) +
        "\"); os.chdir(\"/\"); exit(library.VSDVS_AddDVPort(b\"lab\", b\"added\", 0) != 0)";
    EXPECT_EQ(system((start + "unset LD_PRELOAD; exec python3 -c '" + program + "'").c_str()), 0);
    ASSERT_EQ(Start(), 0);
}

TEST_F(StoreTest, AStartInADirectoryThatIsGoneSaysSo)
{
    const auto startsAnyway = [&] {
        const std::string gone = directory + "/gone";
        if (mkdir(gone.c_str(), 0700) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0)
            return false;
        return vshost_start("host", 0) == ENOENT &&
               std::string(vshost_error()).find("host: the current directory") == 0 && !vshost_directory() &&
               Start() == 0 && GetPort("p0") == "first";
    };
    EXPECT_EQ(Wait(Fork(startsAnyway)), 0);
}

TEST(NoHost, ReadsFindNothingAndWritesFail)
{
    vshost_stop();
    LoadCache();
    void *value = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(DVSZOR_GlobalPropGet(ID, KEY, &value, &length), STATUS_NOT_FOUND);
    EXPECT_EQ(DVSState_SwitchFindByAlias("lab"), nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(DVSZOR_SwitchAdd(ID, "vswitch", 8, 1), STATUS_IO_ERROR);
    EXPECT_EQ(DVSZOR_SwitchAdd(ID, "vswitch", 8, 1), STATUS_IO_ERROR);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("vshost run"), std::string::npos);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

int allowed = 0, live = 0;
void *Allocate(size_t size)
{
    if (allowed-- <= 0) return nullptr;
    live++;
    return malloc(size);
}
void Release(void *memory)
{
    live--;
    free(memory);
}

TEST(Bundle, EveryAllocationMayFail)
{
    VsStatus status = STATUS_NO_MEMORY;
    for (int limit = 0; status != STATUS_OK; limit++) {
        ASSERT_LT(limit, 10);
        allowed = limit;
        DataBundle *bundle = nullptr;
        void *buffer = nullptr;
        uint32_t length = 0;
        status = DVSData_Alloc(&bundle, Allocate, Release);
        if (status == STATUS_OK) {
            for (int i = 0; i < 40; i++)
                DVSData_Update(bundle, std::to_string(i).c_str(), "0123456789ABCDEF", 16, 0);
            status = DVSData_Serialize(bundle, &buffer, &length, 5);
            DVSData_Free(bundle);
        }
        EXPECT_EQ(status == STATUS_OK, buffer != nullptr);
        if (buffer) Release(buffer);
        EXPECT_TRUE(status == STATUS_OK || status == STATUS_NO_MEMORY);
        EXPECT_EQ(live, 0);
    }
}

}

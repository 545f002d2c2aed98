// The embedded store through the library, beside raw SQLite and an OVSDB server with the same work.
//
//   VSWITCHCTL_BENCH_DIR   a directory on the disk to measure; the hosts and databases are made in it
//   OVSDB_SOCKET           where an OVSDB server listens whose database lies on the same disk
//
// A benchmark is named row/side: the report divides one side of a row by the other.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <sqlite3.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/ovsdb.h"
#include "core/store.h"
#include "vshost.h"
#include "vswitchctl.h"

namespace {

using benchmark::State;

constexpr unsigned PORTS = 1000; // of the switch that single calls go to
constexpr char LAB[] = "lab";
constexpr int DISK = 1;
constexpr int PROCESS = 0;

std::string directory;
std::vector<std::string> ports; // "port0", …

void Require(bool fine, const char *what)
{
    if (fine) return;
    fprintf(stderr, "%s\n", what);
    exit(1);
}

void Ok(VsStatus status, const char *what)
{
    if (status == STATUS_OK) return;
    fprintf(stderr, "status 0x%08X: ", status);
    Require(false, what);
}

template<typename Function>
benchmark::internal::Benchmark *Row(const char *name, int64_t calls, Function body)
{
    return benchmark::RegisterBenchmark(name, body)->Iterations(calls)->UseRealTime();
}

// ---- The host -------------------------------------------------------------------------------------------

void Use(const std::string &host, int durable)
{
    static std::string used;
    const std::string wanted = host + std::to_string(durable);
    if (used == wanted) return;
    Require(vshost_start((directory + "/" + host).c_str(), durable) == 0, vshost_error());
    vshost_shell_in_process(1);
    LibraryInit();
    used = wanted;
}

void CreateSwitch(const char *alias, unsigned count)
{
    Ok(VSDVS_CreateVSwitch(alias, nullptr, nullptr, 1, 0, 0, 0, count), alias);
}

void SetVLAN(const std::string &port, uint16_t vlanId)
{
    Ok(VSDVS_SetPortVLANPolicy(LAB, port.c_str(), vlanId, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0), "VLAN");
}

void GetVLAN(const std::string &port)
{
    PortVLANRecord *record = nullptr;
    uint32_t priority = 0;
    Ok(VSDVS_GetPortVLANPolicy(LAB, port.c_str(), &record, &priority), "VLAN");
    benchmark::DoNotOptimize(record);
    VSDVS_FreeMemory(record);
}

const std::string &NextPort()
{
    static thread_local unsigned turn = 0;
    return ports[turn++ % PORTS];
}

// ---- Raw SQLite -----------------------------------------------------------------------------------------

// A table like the store's, with the rows of the switch that single calls go to.
class RawTable {
public:
    explicit RawTable(int durable)
    {
        const std::string path = directory + "/raw.db";
        const bool fresh = !std::filesystem::exists(path);
        Require(sqlite3_open(path.c_str(), &database) == SQLITE_OK, path.c_str());
        Run("PRAGMA journal_mode=WAL");
        Run(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
        Run("PRAGMA wal_autocheckpoint=4000");
        Run("CREATE TABLE IF NOT EXISTS kv(key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID");
        if (fresh)
            Run("ATTACH '" + directory +
                "/host/host.db' AS host; INSERT INTO kv SELECT * FROM host.kv;"
                "DETACH host");
        begin = Prepare("BEGIN IMMEDIATE");
        put = Prepare("INSERT OR REPLACE INTO kv VALUES(?, ?)");
        get = Prepare("SELECT value FROM kv WHERE key = ?");
        commit = Prepare("COMMIT");
        sqlite3_stmt *all =
            Prepare("SELECT key, value FROM kv WHERE key BETWEEN x'706F727400' AND x'706F727401'");
        while (sqlite3_step(all) == SQLITE_ROW)
            rows.push_back({Column(all, 0), Column(all, 1)});
        sqlite3_finalize(all);
        Require(rows.size() == PORTS, "the raw table does not have the rows of the host");
    }
    RawTable(const RawTable &) = delete;
    RawTable &operator=(const RawTable &) = delete;
    ~RawTable()
    {
        for (sqlite3_stmt *statement : {begin, put, get, commit})
            sqlite3_finalize(statement);
        sqlite3_close(database);
    }

    void Put()
    {
        Row &row = Next();
        row.value[0] ^= 1; // as the VLAN id changes from call to call
        Step(begin);
        sqlite3_bind_blob(put, 1, row.key.data(), static_cast<int>(row.key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(put, 2, row.value.data(), static_cast<int>(row.value.size()), SQLITE_STATIC);
        Step(put);
        Step(commit);
    }

    void Get()
    {
        const Row &row = Next();
        sqlite3_bind_blob(get, 1, row.key.data(), static_cast<int>(row.key.size()), SQLITE_STATIC);
        Require(sqlite3_step(get) == SQLITE_ROW, "raw SELECT");
        benchmark::DoNotOptimize(sqlite3_column_blob(get, 0));
        sqlite3_reset(get);
    }

private:
    struct Row {
        std::string key, value;
    };

    Row &Next() { return rows[turn++ % rows.size()]; }

    static std::string Column(sqlite3_stmt *statement, int index)
    {
        return {static_cast<const char *>(sqlite3_column_blob(statement, index)),
                static_cast<size_t>(sqlite3_column_bytes(statement, index))};
    }

    void Run(const std::string &sql)
    {
        Require(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sql.c_str());
    }

    sqlite3_stmt *Prepare(const char *sql)
    {
        sqlite3_stmt *statement = nullptr;
        Require(sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }

    void Step(sqlite3_stmt *statement)
    {
        Require(sqlite3_step(statement) == SQLITE_DONE, sqlite3_errmsg(database));
        sqlite3_reset(statement);
    }

    sqlite3 *database = nullptr;
    sqlite3_stmt *begin, *put, *get, *commit;
    std::vector<Row> rows;
    size_t turn = 0;
};

// ---- OVSDB ----------------------------------------------------------------------------------------------

OvsdbSwitch ovsdbLab;

std::unique_ptr<Ovsdb> Connect() { return std::make_unique<Ovsdb>(getenv("OVSDB_SOCKET")); }

std::string Commit(int durable) { return durable ? R"(,{"op":"commit","durable":true})" : ""; }

std::string SetTag(unsigned turn)
{
    return R"({"op":"update","table":"Port","where":[["_uuid","==",["uuid",")" +
           ovsdbLab.ports[turn % PORTS] + R"("]]],"row":{"tag":)" + std::to_string(1 + turn % 4000) + "}}";
}

std::string GetTag(unsigned turn)
{
    return R"({"op":"select","table":"Port","where":[["_uuid","==",["uuid",")" +
           ovsdbLab.ports[turn % PORTS] + R"("]]],"columns":["tag"]})";
}

// ---- One call -------------------------------------------------------------------------------------------

void LibraryWrite(State &state, int durable)
{
    if (state.thread_index() == 0) Use("host", durable);
    unsigned turn = static_cast<unsigned>(state.thread_index()) * 100;
    for (auto _ : state) {
        SetVLAN(ports[turn % PORTS], static_cast<uint16_t>(1 + turn % 4000));
        turn++;
    }
    state.SetItemsProcessed(state.iterations());
}

void RawWrite(State &state, int durable)
{
    RawTable table(durable);
    for (auto _ : state)
        table.Put();
}

void OvsdbWrite(State &state, int durable)
{
    const auto server = Connect();
    static unsigned turn = 0;
    for (auto _ : state)
        server->Transact(SetTag(turn++) + Commit(durable));
}

void LibraryRead(State &state)
{
    Use("host", PROCESS);
    for (auto _ : state)
        GetVLAN(NextPort());
}

// One property, where a VLAN policy is two.
void LibraryReadOne(State &state)
{
    Use("host", PROCESS);
    for (auto _ : state) {
        uint32_t number = 0;
        Ok(VSDVS_DvPortIDToPortID(LAB, NextPort().c_str(), &number), "port number");
        benchmark::DoNotOptimize(number);
    }
}

void RawRead(State &state)
{
    RawTable table(PROCESS);
    for (auto _ : state)
        table.Get();
}

void OvsdbRead(State &state)
{
    const auto server = Connect();
    unsigned turn = 0;
    for (auto _ : state)
        server->Transact(GetTag(turn++));
}

// ---- Look-ups -------------------------------------------------------------------------------------------

// A host with this many switches, made when it is asked for.
void UseHostWithSwitches(int64_t count)
{
    const std::string host = "switches" + std::to_string(count);
    const bool fresh = !std::filesystem::exists(directory + "/" + host);
    Use(host, PROCESS);
    for (int64_t i = 0; fresh && i < count; i++) {
        const std::string id = "id" + std::to_string(i);
        const std::string alias = "switch" + std::to_string(i);
        Ok(DVSZOR_SwitchAdd(id.c_str(), "vswitch", 128, 1), "add");
        Ok(DVSZOR_GlobalPropSet(id.c_str(), "com.talpex.common.alias", alias.c_str(),
                                static_cast<uint32_t>(alias.size() + 1), 0x10),
           "alias");
    }
}

void LookUpAlias(State &state)
{
    UseHostWithSwitches(state.range(0));
    std::vector<std::string> aliases;
    for (int64_t i = 0; i < 10; i++)
        aliases.push_back("switch" + std::to_string(i * (state.range(0) / 10)));
    size_t turn = 0;
    for (auto _ : state) {
        char id[SWITCH_ID_SIZE];
        Ok(DVSAliasToSwitchId(aliases[turn++ % aliases.size()].c_str(), id), "alias");
    }
}

// ---- Several at once ------------------------------------------------------------------------------------

void InChild(unsigned child, unsigned writes)
{
    for (unsigned i = 0; i < writes; i++)
        SetVLAN(ports[(child * 100 + i) % PORTS], static_cast<uint16_t>(1 + i));
    _exit(0);
}

void Processes(State &state)
{
    constexpr unsigned WRITES = 240; // of all children together
    const auto children = static_cast<unsigned>(state.range(0));
    Use("host", DISK);
    SetVLAN(ports[0], 1);
    for (auto _ : state) {
        for (unsigned i = 0; i < children; i++)
            if (fork() == 0) InChild(i, WRITES / children);
        for (unsigned i = 0; i < children; i++) {
            int result = 0;
            wait(&result);
            Require(result == 0, "a call of one of several processes failed");
        }
    }
    state.SetItemsProcessed(state.iterations() * WRITES);
}

// ---- Whole jobs -----------------------------------------------------------------------------------------

void LibraryCreate(State &state, int durable)
{
    Use("host", durable);
    for (auto _ : state) {
        CreateSwitch("job", static_cast<unsigned>(state.range(0)));
        state.PauseTiming();
        Ok(VSDVS_DestroyVSwitch("job"), "destroy");
        state.ResumeTiming();
    }
}

// Without a sync a port, and all on disk when it ends: the one durable write syncs all that stand before it.
void LibraryCreateThenSync(State &state)
{
    for (auto _ : state) {
        Use("host", PROCESS);
        CreateSwitch("job", static_cast<unsigned>(state.range(0)));
        Use("host", DISK);
        SetVLAN(ports[0], 1);
        state.PauseTiming();
        Ok(VSDVS_DestroyVSwitch("job"), "destroy");
        state.ResumeTiming();
    }
}

void OvsdbCreate(State &state)
{
    const auto server = Connect();
    for (auto _ : state) {
        const OvsdbSwitch created = CreateOvsdbSwitch(*server, "job", static_cast<unsigned>(state.range(0)));
        state.PauseTiming();
        DestroyOvsdbSwitch(*server, created);
        state.ResumeTiming();
    }
}

// That server's own command, at its best: all ports in one start.
void CommandCreate(State &state)
{
    const std::string command = std::string("ovs-vsctl --db=unix:") + getenv("OVSDB_SOCKET") + " --no-wait";
    std::string create = command + " -- add-br job";
    for (int64_t i = 0; i < state.range(0); i++)
        create += " -- add-port job job-port" + std::to_string(i);
    const std::string script = directory + "/create.sh";
    std::ofstream(script) << create << '\n';
    for (auto _ : state) {
        Require(system(("sh " + script).c_str()) == 0, "ovs-vsctl add-port");
        state.PauseTiming();
        Require(system((command + " del-br job").c_str()) == 0, "ovs-vsctl del-br");
        state.ResumeTiming();
    }
}

void LibraryChangeAll(State &state, int durable)
{
    Use("host", durable);
    uint16_t vlanId = 0;
    for (auto _ : state) {
        vlanId = static_cast<uint16_t>(vlanId % 4000 + 1);
        for (const std::string &port : ports)
            SetVLAN(port, vlanId);
    }
}

void OvsdbChangeAll(State &state)
{
    const auto server = Connect();
    static unsigned turn = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < PORTS; i++)
            server->Transact(SetTag(turn++));
        turn += 7;
    }
}

void OvsdbChangeAllAtOnce(State &state)
{
    const auto server = Connect();
    static unsigned turn = 0;
    for (auto _ : state) {
        std::string operations;
        for (unsigned i = 0; i < PORTS; i++)
            operations += (i ? "," : "") + SetTag(turn++);
        server->Transact(operations);
        turn += 7;
    }
}

void LibraryReadAll(State &state)
{
    Use("host", PROCESS);
    for (auto _ : state) {
        for (const std::string &port : ports)
            GetVLAN(port);
    }
}

void OvsdbReadAll(State &state)
{
    const auto server = Connect();
    for (auto _ : state) {
        for (unsigned i = 0; i < PORTS; i++)
            server->Transact(GetTag(i));
    }
}

void OvsdbReadAllAtOnce(State &state)
{
    const auto server = Connect();
    for (auto _ : state)
        server->Transact(R"({"op":"select","table":"Port","where":[],"columns":["name","tag"]})");
}

// ---- Starting and loading -------------------------------------------------------------------------------

// A host with this many ports, 100 to a switch.
void UseHostWithPorts(int64_t count)
{
    const std::string host = "ports" + std::to_string(count);
    const bool fresh = !std::filesystem::exists(directory + "/" + host);
    Use(host, PROCESS);
    for (int64_t made = 0; fresh && made < count; made += 100)
        CreateSwitch(("switch" + std::to_string(made / 100)).c_str(),
                     static_cast<unsigned>(std::min<int64_t>(count - made, 100)));
}

using Command = std::vector<std::string>;

// Runs a program to its end and drops what it prints.
void Run(const Command &command)
{
    std::vector<char *> arguments;
    for (const std::string &argument : command)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int result = 0;
    Require(posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0,
            arguments[0]);
    Require(waitpid(child, &result, 0) == child && result == 0, arguments[0]);
    posix_spawn_file_actions_destroy(&actions);
}

void Start(State &state, const Command &command, int64_t count)
{
    UseHostWithPorts(count);
    for (auto _ : state)
        Run(command);
}

// ---- The command ----------------------------------------------------------------------------------------

void LibraryCommand(State &state, const Command &odd, const Command &even)
{
    Use("host", PROCESS);
    unsigned turn = 0;
    for (auto _ : state)
        Run(turn++ % 2 ? odd : even);
}

Command OvsdbCommand(Command arguments)
{
    arguments.insert(arguments.begin(),
                     {"ovs-vsctl", std::string("--db=unix:") + getenv("OVSDB_SOCKET"), "--no-wait"});
    return arguments;
}

void RunOvsdbCommand(State &state, const Command &arguments)
{
    const Command command = OvsdbCommand(arguments);
    for (auto _ : state)
        Run(command);
}

std::string BatchFile(const char *name, const char *vlanId)
{
    const std::string path = directory + "/" + name;
    std::ofstream file(path);
    for (const std::string &port : ports)
        file << "port vlan " << LAB << ' ' << port << ' ' << vlanId << '\n';
    return path;
}

Command OvsdbBatch()
{
    Command all;
    for (const std::string &port : ports)
        for (const std::string &part : {std::string("--"), std::string("set"), std::string("Port"),
                                        LAB + ("-" + port), std::string("tag=7")})
            all.push_back(part);
    return all;
}

void RegisterCommands()
{
    const Command read = {VSCTL, "port", "vlan", LAB, "port5"};
    const auto set = [](const char *vlanId) { return Command{VSCTL, "port", "vlan", LAB, "port5", vlanId}; };
    const auto batch = [](const char *name, const char *vlanId) {
        return Command{VSCTL, "batch", BatchFile(name, vlanId)};
    };
    const Command odd = batch("odd", "7"), even = batch("even", "8");
    Row("command/read", 20, [read](State &s) { LibraryCommand(s, read, read); });
    Row("command/write", 20, [set](State &s) { LibraryCommand(s, set("7"), set("8")); });
    Row("command/batch", 2, [odd, even](State &s) { LibraryCommand(s, odd, even); });
    Row("command/ovs_read", 20, [](State &s) { RunOvsdbCommand(s, {"get", "Port", "lab-port5", "tag"}); });
    Row("command/ovs_write", 20, [](State &s) { RunOvsdbCommand(s, {"set", "Port", "lab-port5", "tag=7"}); });
    Row("command/ovs_batch", 2, [](State &s) { RunOvsdbCommand(s, OvsdbBatch()); });
}

int64_t ResidentBytes()
{
    int64_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// What it costs to have looked at every port: time, this process's memory, and the file.
void LookAtAll(State &state)
{
    const int64_t count = state.range(0);
    UseHostWithPorts(count);
    const int64_t before = ResidentBytes();
    for (auto _ : state) {
        for (int64_t i = 0; i < count; i++) {
            const std::string alias = "switch" + std::to_string(i / 100);
            const std::string port = "port" + std::to_string(i % 100);
            uint32_t number = 0;
            Ok(VSDVS_DvPortIDToPortID(alias.c_str(), port.c_str(), &number), "port number");
        }
    }
    const auto file = std::filesystem::file_size(directory + "/ports" + std::to_string(count) + "/host.db");
    state.counters["memory_per_port"] =
        static_cast<double>(ResidentBytes() - before) / static_cast<double>(count);
    state.counters["file_per_port"] = static_cast<double>(file) / static_cast<double>(count);
}

// ---- The table of rows ----------------------------------------------------------------------------------

void RegisterCalls(int64_t scale)
{
    Row("write_disk/library", 10 * scale, [](State &s) { LibraryWrite(s, DISK); });
    Row("write_disk/sqlite", 10 * scale, [](State &s) { RawWrite(s, DISK); });
    Row("write_disk/ovsdb", 10 * scale, [](State &s) { OvsdbWrite(s, DISK); });
    Row("write_disk/library8", 10 * scale, [](State &s) { LibraryWrite(s, DISK); })->Threads(8);
    Row("write_process/library", 200 * scale, [](State &s) { LibraryWrite(s, PROCESS); });
    Row("write_process/sqlite", 200 * scale, [](State &s) { RawWrite(s, PROCESS); });
    Row("write_process/ovsdb", 20 * scale, [](State &s) { OvsdbWrite(s, PROCESS); });
    Row("read/library", 1000 * scale, LibraryRead);
    Row("read/library_one", 1000 * scale, LibraryReadOne);
    Row("read/sqlite", 1000 * scale, RawRead);
    Row("read/ovsdb", 20 * scale, OvsdbRead);
    Row("processes/library", 1, Processes)->Arg(1)->Arg(8);
}

void RegisterJobs(bool whole)
{
    auto *alias = Row("alias/library", 100000, LookUpAlias)->Arg(10)->Arg(1000);
    if (whole) alias->Arg(100000);
    for (int64_t size : {64, 1024, 10000}) {
        if (!whole && size > 1024) continue;
        Row("create/library", 1, [](State &s) { LibraryCreate(s, PROCESS); })->Arg(size);
        Row("create/ovsdb", 1, OvsdbCreate)->Arg(size);
        Row("create/library_synced", 1, LibraryCreateThenSync)->Arg(size);
        if (size <= 1024) Row("create/library_disk", 1, [](State &s) { LibraryCreate(s, DISK); })->Arg(size);
        if (size <= 1024) Row("create/ovs_vsctl", 1, CommandCreate)->Arg(size);
    }
    Row("change_all/library", 1, [](State &s) { LibraryChangeAll(s, PROCESS); });
    Row("change_all/library_disk", 1, [](State &s) { LibraryChangeAll(s, DISK); });
    Row("change_all/ovsdb", 1, OvsdbChangeAll);
    Row("change_all/ovsdb_at_once", 1, OvsdbChangeAllAtOnce);
    const int64_t many = whole ? 100000 : 10000;
    const Command program = {ONE_READ, "switch0", "port9"};
    const Command command = {VSCTL, "port", "number", "switch0", "port9"};
    Row("start/empty", 20, [](State &s) { Start(s, {EMPTY_PROGRAM}, 10); });
    Row("start/ports_10", 20, [program](State &s) { Start(s, program, 10); });
    Row("start/ports_many", 20, [program, many](State &s) { Start(s, program, many); });
    Row("command/ports_10", 20, [command](State &s) { Start(s, command, 10); });
    Row("command/ports_many", 20, [command, many](State &s) { Start(s, command, many); });
    Row("look_at_all/library", 1, LookAtAll)->Arg(many);
    Row("read_all/library", 1, LibraryReadAll);
    Row("read_all/ovsdb", 1, OvsdbReadAll);
    Row("read_all/ovsdb_at_once", 1, OvsdbReadAllAtOnce);
}

void MakeData()
{
    for (unsigned i = 0; i < PORTS; i++)
        ports.push_back("port" + std::to_string(i));
    Use("host", PROCESS);
    CreateSwitch(LAB, PORTS);
    const auto server = Connect();
    server->Transact(R"({"op":"insert","table":"Open_vSwitch","row":{}})");
    ovsdbLab = CreateOvsdbSwitch(*server, LAB, PORTS);
}

}

int main(int count, char **arguments)
{
    benchmark::Initialize(&count, arguments);
    const char *where = getenv("VSWITCHCTL_BENCH_DIR");
    Require(where && getenv("OVSDB_SOCKET"), "set VSWITCHCTL_BENCH_DIR and OVSDB_SOCKET, or use run.sh");
    directory = where;
    const bool whole = count < 2; // "quick" leaves the large sizes out
    MakeData();
    RegisterCalls(whole ? 30 : 5);
    RegisterJobs(whole);
    RegisterCommands();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    vshost_stop();
    return 0;
}

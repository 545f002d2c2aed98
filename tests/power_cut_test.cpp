// A power cut leaves on the disk all that was synced, and any part of the later writes. The test records what
// a host does to its directory. For a cut between any two steps, it rebuilds the directory as a disk could
// hold it and opens it: every confirmed write is stored, and a write in flight is whole or absent.
// VSWITCHCTL_RANDOM_FATES sets the number of random disks for each cut.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "core/store.h"
#include "tests/files.h"
#include "tests/fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t SECTOR = 512;

// Random disks for each cut.
unsigned RandomFates()
{
    const char *text = getenv("VSWITCHCTL_RANDOM_FATES");
    return text ? static_cast<unsigned>(atoi(text)) : 4;
}

using Listing = std::map<std::string, ino_t>;

struct Event {
    enum Kind { WRITE, TRUNCATE, SYNC, LIST } kind;
    ino_t file;
    off_t offset = 0; // or the new size
    std::string bytes = {};
    Listing listing = {}; // of the directory `file`, from now on
};

// A committed state, and the number of events before it.
struct State {
    size_t events;
    uint64_t fingerprint;
};

// A number whose write to a port returned STATUS_OK, and the number of events before that.
struct Confirmation {
    size_t events;
    size_t port;
    uint32_t number;
};

struct Trace {
    ino_t root = 0;
    size_t first = 0; // recorded event; the events before it build the state at the start
    std::vector<Event> events;
    std::vector<State> states;
    std::vector<Confirmation> confirmed;
};

ino_t InodeOf(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// Records the changes below a directory, in order.
class Recorder {
public:
    void Start(const std::string &directory)
    {
        std::lock_guard lock(mutex);
        root = directory;
        trace = Trace();
        trace.root = InodeOf(root);
        directories = {{trace.root, {}}};
        streams.clear();
        files.clear();
        Look(root);
        for (const auto &entry : fs::recursive_directory_iterator(root)) {
            const ino_t inode = InodeOf(entry.path());
            if (!entry.is_directory())
                trace.events.push_back({Event::WRITE, inode, 0, ReadFile(entry.path())});
            trace.events.push_back({Event::SYNC, inode});
        }
        trace.events.push_back({Event::SYNC, trace.root});
        trace.first = trace.events.size();
        on = true;
    }
    Trace Stop()
    {
        std::lock_guard lock(mutex);
        Look(root);
        on = noting = false;
        streams.clear();
        return std::move(trace);
    }
    // Notes the present state, and from now on the state after each commit.
    void NoteStates()
    {
        Note();
        noting = true;
    }
    uint64_t Last() const { return trace.states.back().fingerprint; }
    size_t CountStates() const
    {
        std::set<uint64_t> different;
        for (const State &state : trace.states)
            different.insert(state.fingerprint);
        return different.size();
    }
    void Confirm(size_t port, uint32_t number)
    {
        std::lock_guard lock(mutex);
        trace.confirmed.push_back({trace.events.size(), port, number});
    }

    template<typename Call> auto Around(int fd, Event event, Call call)
    {
        if (!on) return call();
        std::lock_guard lock(mutex);
        Look(root);
        struct stat status = {};
        event.file = fstat(fd, &status) == 0 ? status.st_ino : 0;
        if (files.contains(event.file) || directories.contains(event.file)) trace.events.push_back(event);
        return call();
    }
    template<typename Call> auto AroundNames(Call call)
    {
        if (!on) return call();
        std::lock_guard lock(mutex);
        Look(root);
        const auto result = call();
        Look(root);
        return result;
    }
    // The writers' lock is released after a commit, before any caller gets its status.
    void Unlocked(int fd)
    {
        struct stat status = {};
        if (noting && fstat(fd, &status) == 0 && status.st_ino == lockFile) Note();
    }

private:
    void Note()
    {
        const uint64_t fingerprint = vshost_fingerprint();
        std::lock_guard lock(mutex);
        trace.states.push_back({trace.events.size(), fingerprint});
    }
    // Adds the listings that have changed.
    void Look(const std::string &path)
    {
        struct stat status = {};
        const ino_t inode = InodeOf(path);
        Listing now;
        for (const std::string &name : NamesIn(path, inode)) {
            const std::string entry = path + "/" + name;
            if (stat(entry.c_str(), &status) != 0) continue;
            now[name] = status.st_ino;
            if (S_ISDIR(status.st_mode))
                Look(entry);
            else
                files.insert(now[name]);
            if (name == "write.lock") lockFile = now[name];
        }
        const auto [known, isNew] = directories.emplace(inode, Listing());
        if (known->second == now && !isNew) return;
        known->second = now;
        trace.events.push_back({Event::LIST, inode, 0, {}, now});
    }

    // Streams stay open until Stop(). A thread that closed one while others open files would give them its
    // descriptor, and the thread sanitizer, which does not see the host's own opening, reports a race.
    std::vector<std::string> NamesIn(const std::string &path, ino_t inode)
    {
        auto &stream = streams[inode];
        if (!stream) stream.reset(opendir(path.c_str()));
        if (!stream) return {};
        rewinddir(stream.get());
        std::vector<std::string> names;
        while (const dirent *entry = readdir(stream.get()))
            if (entry->d_name != std::string(".") && entry->d_name != std::string(".."))
                names.emplace_back(entry->d_name);
        return names;
    }

    struct CloseStream {
        void operator()(DIR *stream) const { closedir(stream); }
    };

    std::mutex mutex;
    std::atomic<bool> on = false, noting = false;
    std::map<ino_t, std::unique_ptr<DIR, CloseStream>> streams; // of directories
    std::string root;
    Trace trace;
    std::map<ino_t, Listing> directories; // as seen last
    std::set<ino_t> files;
    ino_t lockFile = 0;
};

Recorder &TheRecorder()
{
    static auto *const recorder = new Recorder;
    return *recorder;
}

template<typename Function> Function *Next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}

// ---- The calls that reach the disk: the host's and SQLite's come here first. A sync need not happen. ----

extern "C" {
ssize_t pwrite64(int fd, const void *bytes, size_t length, off64_t offset)
{
    static const auto next = Next<decltype(pwrite64)>("pwrite64");
    Event event{Event::WRITE, 0, offset, std::string(static_cast<const char *>(bytes), length)};
    return TheRecorder().Around(fd, std::move(event), [&] { return next(fd, bytes, length, offset); });
}
int ftruncate64(int fd, off64_t size) noexcept
{
    static const auto next = Next<int(int, off64_t)>("ftruncate64");
    return TheRecorder().Around(fd, {Event::TRUNCATE, 0, size}, [&] { return next(fd, size); });
}
int fdatasync(int fd)
{
    return TheRecorder().Around(fd, {Event::SYNC, 0}, [] { return 0; });
}
int fsync(int fd)
{
    return TheRecorder().Around(fd, {Event::SYNC, 0}, [] { return 0; });
}
int rename(const char *from, const char *to) noexcept
{
    static const auto next = Next<int(const char *, const char *)>("rename");
    return TheRecorder().AroundNames([&] { return next(from, to); });
}
int unlink(const char *path) noexcept
{
    static const auto next = Next<int(const char *)>("unlink");
    return TheRecorder().AroundNames([&] { return next(path); });
}
int flock(int fd, int operation) noexcept
{
    static const auto next = Next<int(int, int)>("flock");
    if (operation == LOCK_UN) TheRecorder().Unlocked(fd);
    return next(fd, operation);
}
}

namespace {

// ---- The disk ----

// The fate of everything that was not synced.
struct Fate {
    enum Rest { NONE, ALL, RANDOM };
    Rest writes, names;
    const Event *lost = nullptr; // only this write is left out
    const Event *torn = nullptr; // only half the sectors of this write are on the disk
    bool firstHalf = false;
    unsigned seed = 0;
};

using Image = std::map<std::string, std::string>; // files by path

class Disk {
public:
    explicit Disk(ino_t root) : root(root) { listings[root] = {{}}; }

    void Take(const Event &event)
    {
        if (event.kind == Event::LIST) {
            auto &versions = listings[event.file];
            if (versions.empty()) versions.emplace_back();
            versions.push_back(event.listing);
        } else if (event.kind != Event::SYNC) {
            pending[event.file].push_back(&event);
        } else if (const auto names = listings.find(event.file); names != listings.end()) {
            names->second = {names->second.back()};
        } else {
            synced[event.file] = Content(event.file, {Fate::ALL, Fate::ALL});
            pending[event.file].clear();
        }
    }

    std::vector<const Event *> Pending() const
    {
        std::vector<const Event *> all;
        for (const auto &[file, events] : pending)
            all.insert(all.end(), events.begin(), events.end());
        return all;
    }

    Image After(const Fate &fate)
    {
        random.seed(fate.seed);
        Image image;
        Fill(image, "", root, fate);
        return image;
    }

private:
    void Fill(Image &image, const std::string &path, ino_t directory, const Fate &fate)
    {
        const auto &versions = listings[directory];
        size_t version = fate.names == Fate::NONE ? 0 : versions.size() - 1;
        if (fate.names == Fate::RANDOM) version = random() % versions.size();
        for (const auto &[name, inode] : versions[version])
            if (listings.contains(inode))
                Fill(image, path + "/" + name, inode, fate);
            else
                image[path + "/" + name] = Content(inode, fate);
    }

    std::string Content(ino_t file, const Fate &fate)
    {
        std::string content = synced[file];
        for (const Event *event : pending[file]) {
            const bool chance = fate.writes == Fate::RANDOM && random() % 2;
            if (event == fate.lost || !(fate.writes == Fate::ALL || chance)) continue;
            if (event->kind == Event::TRUNCATE)
                content.resize(static_cast<size_t>(event->offset));
            else
                Write(content, *event, fate);
        }
        return content;
    }

    void Write(std::string &content, const Event &event, const Fate &fate)
    {
        const auto start = static_cast<size_t>(event.offset), end = start + event.bytes.size();
        const size_t middle = (start + end) / 2 / SECTOR * SECTOR;
        for (size_t at = start, next; at < end; at = next) {
            next = std::min(end, (at / SECTOR + 1) * SECTOR);
            if (fate.torn == &event && (at < middle) != fate.firstHalf) continue;
            if (fate.writes == Fate::RANDOM && random() % 8 == 0) continue;
            if (content.size() < next) content.resize(next);
            content.replace(at, next - at, event.bytes, at - start, next - at);
        }
    }

    const ino_t root;
    std::map<ino_t, std::string> synced;
    std::map<ino_t, std::vector<const Event *>> pending;
    std::map<ino_t, std::vector<Listing>> listings; // the first one is synced
    std::mt19937 random;
};

std::vector<Fate> Fates(const Disk &disk, size_t cut)
{
    std::vector<Fate> fates = {
        {Fate::NONE, Fate::NONE}, {Fate::NONE, Fate::ALL}, {Fate::ALL, Fate::NONE}, {Fate::ALL, Fate::ALL}};
    for (const Event *event : disk.Pending()) {
        fates.push_back({Fate::ALL, Fate::ALL, event});
        for (const bool firstHalf : {false, true})
            fates.push_back({Fate::ALL, Fate::ALL, nullptr, event, firstHalf});
    }
    for (unsigned i = 0, count = RandomFates(); i < count; i++)
        fates.push_back(
            {Fate::RANDOM, Fate::RANDOM, nullptr, nullptr, false, static_cast<unsigned>(cut) * count + i});
    return fates;
}

// ---- The host ----

// These files hold memory that processes share; the disk holds them in any order.
bool IsMemory(const std::string &path) { return path.ends_with("-shm") || path.ends_with("/control"); }

// The control file itself says that it is from an earlier start of the machine: see MemoryEndsWithTheMachine.
std::string Garbage(const std::string &path) { return path.ends_with("-shm") ? std::string(32768, 'x') : ""; }

constexpr size_t PORTS = 4;

std::string PortName(size_t port) { return "port" + std::to_string(port); }

// The state of a disk after a cut.
struct Found {
    uint64_t state;
    std::array<uint32_t, PORTS> numbers;
};

class PowerCut : public testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directory(folder + "/live");
        vshost_shell_in_process(1);
    }
    void TearDown() override
    {
        vshost_stop();
        vshost_shell_in_process(0);
    }

    std::string Host() const { return folder + "/live/hosts/host"; }
    int Start() { return vshost_start(Host().c_str(), durable); }

    void Record()
    {
        TheRecorder().Start(folder + "/live");
        ASSERT_EQ(Start(), 0) << vshost_error();
        TheRecorder().NoteStates();
    }
    // A call that changes something has committed when it returns.
    void Step(VsStatus status)
    {
        ASSERT_EQ(status, STATUS_OK);
        ASSERT_EQ(TheRecorder().Last(), vshost_fingerprint());
    }
    void Put(const Image &image)
    {
        fs::remove_all(folder + "/cut");
        fs::create_directories(folder + "/cut/hosts/host");
        for (const auto &[path, content] : image) {
            fs::create_directories(fs::path(folder + "/cut" + path).parent_path());
            WriteFile(folder + "/cut" + path, IsMemory(path) ? Garbage(path) : content);
        }
    }

    // Opens the disk as a host, which must be sound and take writes.
    Found Open(const Image &image)
    {
        const std::string host = folder + "/cut/hosts/host";
        Put(image);
        EXPECT_EQ(vshost_start(host.c_str(), durable), 0) << vshost_error();
        Found found = {vshost_fingerprint(), {}};
        for (size_t port = 0; port < PORTS; port++)
            vshost_property(VSHOST_PORT, "lab-id", PortName(port).c_str(), "number", &found.numbers[port],
                            sizeof(uint32_t), nullptr, nullptr);
        EXPECT_EQ(DVSZOR_SwitchAdd("new", "vswitch", 8, 1), STATUS_OK);
        EXPECT_EQ(DVSZOR_SwitchRemove("new"), STATUS_OK);
        EXPECT_EQ(vshost_fingerprint(), found.state);
        vshost_stop();
        EXPECT_EQ(Sql(host + "/host.db", "PRAGMA integrity_check"), "ok");
        return found;
    }

    // Index of the states that may be found after a cut here.
    std::pair<size_t, size_t> Allowed(const Trace &trace, size_t cut) const
    {
        size_t confirmed = 0;
        while (confirmed + 1 < trace.states.size() && trace.states[confirmed + 1].events <= cut)
            confirmed++;
        return {durable ? confirmed : 0, std::min(confirmed + 1, trace.states.size() - 1)};
    }

    void CheckFate(const Trace &trace, size_t cut, const Image &image)
    {
        auto known = opened.find(image);
        if (known == opened.end()) known = opened.emplace(image, Open(image)).first;
        const Found &found = known->second;
        const auto [first, last] = Allowed(trace, cut);
        const bool allowed =
            std::any_of(&trace.states[first], &trace.states[last] + 1,
                        [&](const State &state) { return state.fingerprint == found.state; });
        EXPECT_TRUE(allowed) << "cut after " << cut << " of " << trace.events.size()
                             << " steps: no state from " << first << " to " << last;
        for (const Confirmation &confirmed : trace.confirmed)
            if (durable && confirmed.events <= cut) {
                EXPECT_GE(found.numbers[confirmed.port], confirmed.number) << "cut after " << cut << " steps";
            }
    }

    void CutEverywhere()
    {
        const Trace trace = TheRecorder().Stop();
        ExpectWhole(trace);
        Disk disk(trace.root);
        size_t fates = 0;
        for (size_t cut = 0; cut <= trace.events.size() && !HasFailure(); cut++) {
            if (cut > 0) disk.Take(trace.events[cut - 1]);
            if (cut < trace.first) continue;
            for (const Fate &fate : Fates(disk, cut)) {
                CheckFate(trace, cut, disk.After(fate));
                fates++;
            }
        }
        printf("%zu steps, %zu states, %zu fates, %zu different disks\n", trace.events.size(),
               trace.states.size(), fates, opened.size());
    }

    // The recorder missed nothing: its disk with all writes equals the real directory.
    void ExpectWhole(const Trace &trace)
    {
        Disk disk(trace.root);
        for (const Event &event : trace.events)
            disk.Take(event);
        const Image image = disk.After({Fate::ALL, Fate::ALL});
        for (const auto &[path, content] : image) {
            EXPECT_TRUE(IsMemory(path) || content == ReadFile(folder + "/live" + path)) << path;
        }
        EXPECT_TRUE(image.contains("/hosts/host/host.db"));
    }

    void Run();

    const Folder made{"/dev/shm"};
    const std::string folder = made.path;
    int durable = 1;
    std::map<Image, Found> opened;
};

// From the first start on: a switch made in its several steps, changes of all kinds, two checkpoints (in
// use, with the log written anew from its start, and at the end of the last user), and a second start.
void PowerCut::Run()
{
    Record();
    LibraryInit();
    Step(VSDVS_CreateVSwitch("lab", "lab-id", "lab-portset", 1, 0, 0, 2, 2));
    Step(VSDVS_SetPortVLANPolicy("lab", "port0", 5, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0));
    EXPECT_EQ(Sql(Host() + "/host.db", "PRAGMA wal_checkpoint(RESTART)"), "0");
    Step(VSDVS_AddDVPort("lab", "new", 7));
    Step(VSDVS_RemoveDVPort("lab", "port1"));
    vshost_stop();
    ASSERT_EQ(Start(), 0);
    Step(VSDVS_SetPortVLANPolicy("lab", "port0", 6, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0));
    Step(VSDVS_DestroyVSwitch("lab"));
    CutEverywhere();
}

bool IsAsleep(pid_t thread)
{
    const std::string stat = ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat");
    return thread != 0 && stat.find(") S ") != std::string::npos;
}

using ThreadIds = std::array<std::atomic<pid_t>, PORTS>;

// All threads sleep at once only when each of them waits for the same lock: a mutex has a holder that runs.
void WaitUntilAllSleep(const ThreadIds &threads)
{
    for (int looks = 0; looks < 3; looks++) {
        if (!std::all_of(threads.begin(), threads.end(), IsAsleep)) looks = -1;
        usleep(1000);
    }
}

// Calls of several threads that wait for the same lock share a commit.
TEST_F(PowerCut, KeepsWhatThreadsWereConfirmedTogether)
{
    Record();
    LibraryInit();
    Step(VSDVS_CreateVSwitch("lab", "lab-id", "lab-portset", 1, 0, 0, 0, PORTS));
    const size_t before = TheRecorder().CountStates();
    ThreadIds ids = {};
    const auto write = [&ids](size_t port, uint32_t number) {
        ids[port] = gettid();
        const std::string name = PortName(port);
        EXPECT_EQ(DVSZOR_PortDataSet("lab-id", name.c_str(), "number", &number, sizeof(number), 0x10),
                  STATUS_OK);
        TheRecorder().Confirm(port, number);
        EXPECT_EQ(DVSZOR_PortDataSet("lab-id", "none", "number", &number, sizeof(number), 0x10),
                  STATUS_NOT_FOUND);
    };
    for (uint32_t number = 1; number <= 6; number++) {
        const int lock = open((Host() + "/write.lock").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_EQ(flock(lock, LOCK_EX), 0);
        for (std::atomic<pid_t> &id : ids)
            id = 0;
        std::vector<std::thread> threads;
        for (size_t port = 0; port < PORTS; port++)
            threads.emplace_back(write, port, number);
        WaitUntilAllSleep(ids);
        close(lock);
        for (std::thread &thread : threads)
            thread.join();
    }
    EXPECT_LT(TheRecorder().CountStates() - before, 6 * PORTS) << "commits were shared";
    CutEverywhere();
}

TEST_F(PowerCut, KeepsWhatWasConfirmed) { Run(); }

// Without the promise, the disk still holds a state that the host once had.
TEST_F(PowerCut, FallsBackToAnEarlierStateWhereThatIsAllowed)
{
    durable = 0;
    Run();
}

// Faults and the other memory of a host end with the machine, whatever parts of them a disk kept.
TEST_F(PowerCut, MemoryEndsWithTheMachine)
{
    const std::string control = Host() + "/control";
    ASSERT_EQ(Start(), 0) << vshost_error();
    vshost_record(1);
    for (int i = 0; i < 64; i++)
        vshost_fail(VSHOST_STORE, nullptr, 1, 0, STATUS_BUSY);
    EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_BUSY);
    vshost_stop();
    std::string boot, same = ReadFile(control).substr(0, 16384);
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    ASSERT_NE(same.find(boot), std::string::npos);
    std::string earlier = same;
    earlier[same.find(boot)] ^= 1;
    const std::string page(4096, '\0'), rest = earlier.substr(4096);
    for (const std::string &kept : {earlier, earlier.substr(0, 4096) + page + page + page, page + rest,
                                    earlier.substr(0, 8), earlier.substr(0, 5000), std::string(), page}) {
        WriteFile(control, kept);
        ASSERT_EQ(Start(), 0) << vshost_error();
        EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_OK) << kept.size();
        EXPECT_EQ(DVSZOR_SwitchRemove("id"), STATUS_OK);
        EXPECT_EQ(vshost_call_count() + vshost_failed(), 0u);
    }
    vshost_stop();
    WriteFile(control, same);
    ASSERT_EQ(Start(), 0) << vshost_error();
    EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_BUSY) << "the machine still runs";
    vshost_stop();
    WriteFile(control, "another version" + std::string(16384, 'x'));
    EXPECT_EQ(Start(), EIO);
    EXPECT_NE(std::string(vshost_error()).find(control + ": is damaged or of another version"),
              std::string::npos);
}

}

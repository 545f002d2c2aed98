// Throw-away hosts whose owners were killed, and their removal.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/store.h"
#include "tests/fixture.h"

namespace {

namespace fs = std::filesystem;

const std::string VSHOST = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "platform/vshost";

// Actions of other processes at the worst moment: each runs once, at the next such call.
std::function<void()> afterDirectory, beforeLock;

void RunOnce(std::function<void()> &hook)
{
    if (const auto once = std::exchange(hook, nullptr)) once();
}

// Another program makes a throw-away host, and so removes hosts without an owner.
void StartAnother() { EXPECT_EQ(system((VSHOST + " run -- true").c_str()), 0); }

}

extern "C" {
char *mkdtemp(char *name) noexcept
{
    static const auto next = reinterpret_cast<char *(*)(char *)>(dlsym(RTLD_NEXT, "mkdtemp"));
    char *made = next(name);
    RunOnce(afterDirectory);
    return made;
}
int flock(int fd, int operation) noexcept
{
    static const auto next = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
    RunOnce(beforeLock);
    return next(fd, operation);
}
}

namespace {

bool IsLeft(const std::string &directory) { return fs::exists(directory) || fs::exists(directory + ".gone"); }

// Runs `body` in a child process, and waits for the line that it writes first.
pid_t Start(std::string &line, const std::function<void()> &body)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        body();
        _exit(1);
    }
    close(ends[1]);
    FILE *told = fdopen(ends[0], "r");
    char text[256] = {};
    EXPECT_NE(fgets(text, sizeof(text), told), nullptr);
    fclose(told);
    line.assign(text, strcspn(text, "\n"));
    return child;
}

// A host whose owner waits or is killed.
pid_t StartOwner(std::string &directory, bool killed)
{
    return Start(directory, [killed] {
        if (vshost_start(nullptr, 0) == 0) dprintf(STDOUT_FILENO, "%s\n", vshost_directory());
        if (killed) raise(SIGKILL);
        pause();
    });
}

// Waits for the end of a process that may be another one's child.
void WaitForEnd(pid_t process)
{
    pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0};
    if (ended.fd < 0) return; // it is gone
    while (poll(&ended, 1, -1) < 0)
        continue;
    close(ended.fd);
}

void Kill(pid_t child)
{
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST(ThrowAway, AHostGoesWhenItsLastUserWasKilled)
{
    std::string attached, inherited, idle;
    const pid_t first = StartOwner(attached, false), second = StartOwner(idle, false);
    ASSERT_EQ(vshost_start(attached.c_str(), 0), 0) << vshost_error();
    Kill(first);
    Kill(Start(inherited, [] {
        execl(VSHOST.c_str(), "vshost", "run", "--", "sh", "-c", "echo $VSHOST_DIR $$; exec sleep 60",
              nullptr);
    }));
    const pid_t command = atoi(inherited.c_str() + inherited.find(' '));
    inherited.erase(inherited.find(' '));

    StartAnother();
    EXPECT_TRUE(IsLeft(attached)) << "another process uses it";
    EXPECT_TRUE(IsLeft(inherited)) << "the command runs and may attach to it";
    EXPECT_TRUE(IsLeft(idle)) << "its owner runs";
    EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_OK);
    vshost_stop();
    Kill(second);
    kill(command, SIGKILL);
    WaitForEnd(command);
    StartAnother();
    for (const std::string &directory : {attached, inherited, idle})
        EXPECT_FALSE(IsLeft(directory)) << directory;
}

TEST(ThrowAway, ManyAreMadeAndRemovedAtOnce)
{
    std::vector<std::string> directories(100);
    std::vector<pid_t> owners;
    for (std::string &directory : directories)
        owners.push_back(Start(directory, [] {
            for (int round = 0; round < 4; round++) {
                if (vshost_start(nullptr, 0) != 0 || DVSZOR_SwitchAdd("id", "vswitch", 8, 1) != STATUS_OK)
                    return;
                if (round == 2) dprintf(STDOUT_FILENO, "%s\n", vshost_directory());
            }
            raise(SIGKILL);
        }));
    for (const pid_t owner : owners) {
        int status = 0;
        waitpid(owner, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a start or a write failed";
    }
    StartAnother();
    for (const std::string &directory : directories)
        EXPECT_FALSE(IsLeft(directory));
}

TEST(ThrowAway, ItsFilesAreNoStandardStreams)
{
    std::string found;
    const pid_t child = Start(found, [] {
        const int told = dup(STDOUT_FILENO);
        for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            close(stream);
        if (vshost_start(nullptr, 0) != 0 || DVSZOR_SwitchAdd("id", "vswitch", 8, 1) != STATUS_OK) return;
        for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            std::error_code closed;
            const fs::path file = fs::read_symlink("/proc/self/fd/" + std::to_string(stream), closed);
            dprintf(told, file.native().starts_with(vshost_directory()) ? "%s " : "none ", file.c_str());
        }
        dprintf(told, "\n");
        vshost_stop();
    });
    waitpid(child, nullptr, 0);
    EXPECT_EQ(found, "none none none ");
}

void MakeUnlocked(const std::string &directory)
{
    fs::create_directory(directory);
    close(creat((directory + "/use.lock").c_str(), 0600));
}

TEST(ThrowAway, WhatIsNoLeftOverStays)
{
    ASSERT_EQ(vshost_start(nullptr, 0), 0) << vshost_error();
    const fs::path parent = fs::path(vshost_directory()).parent_path();
    vshost_stop();
    const std::string suffix = "-" + std::to_string(getpid()), other = parent / ("other-test" + suffix);
    const struct {
        const char *name;
        bool stays;
        std::function<void(const std::string &)> make;
    } cases[] = {
        {"vshost-empty", false, [](const std::string &path) { fs::create_directory(path); }},
        {"vshost-dead", false, MakeUnlocked},
        {"vshost-without-lock", true, [](const std::string &path) { fs::create_directories(path + "/dev"); }},
        {"vshost-link", true, [&](const std::string &path) { fs::create_directory_symlink(other, path); }},
        {"vshost-file", true, [](const std::string &path) { close(creat(path.c_str(), 0600)); }},
        {"vshost-foreign", geteuid() == 0,
         [](const std::string &path) {
             MakeUnlocked(path);
             EXPECT_TRUE(geteuid() != 0 || chown(path.c_str(), 65534, 65534) == 0);
         }},
        {"other-test", true, MakeUnlocked},
    };
    for (const auto &row : cases)
        row.make(parent / (row.name + suffix));
    StartAnother();
    for (const auto &row : cases) {
        EXPECT_EQ(fs::exists(fs::symlink_status(parent / (row.name + suffix))), row.stays) << row.name;
        fs::remove_all(parent / (row.name + suffix));
    }
}

// Locks of this process on deleted files, which other processes cannot see.
int VainLocks()
{
    int found = 0;
    for (const auto &descriptor : fs::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        found += fs::read_symlink(descriptor, closed).native().ends_with("use.lock (deleted)");
    }
    return found;
}

TEST(ThrowAway, ALookAtTheWorstMomentTakesNoHostAway)
{
    ASSERT_EQ(vshost_start(nullptr, 0), 0) << vshost_error();
    const fs::path parent = fs::path(vshost_directory()).parent_path();
    for (const std::function<void()> &worst :
         {std::function<void()>(StartAnother), std::function<void()>([] { beforeLock = StartAnother; })}) {
        afterDirectory = worst;
        ASSERT_EQ(vshost_start(nullptr, 0), 0) << vshost_error();
        EXPECT_TRUE(!afterDirectory && !beforeLock) << "the moment did not occur";
        EXPECT_EQ(fs::path(vshost_directory()).parent_path(), parent);
        EXPECT_EQ(DVSZOR_SwitchAdd("id", "vswitch", 8, 1), STATUS_OK);
        StartAnother();
        EXPECT_TRUE(IsLeft(vshost_directory()));
        EXPECT_EQ(VainLocks(), 0);
    }
    vshost_stop();
    EXPECT_EQ(VainLocks(), 0);

    std::string dead;
    waitpid(StartOwner(dead, true), nullptr, 0);
    beforeLock = StartAnother;
    EXPECT_EQ(vshost_start(dead.c_str(), 0), EIO) << "it was removed while it was opened";
    EXPECT_NE(std::string(vshost_error()).find(dead), std::string::npos);
    EXPECT_FALSE(IsLeft(dead));
}

}

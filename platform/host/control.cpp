#include "platform/host/control.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/host/files.h"
#include "platform/host/locations.h"

namespace vshost {

namespace {

constexpr uint64_t MAGIC = 0x314C525443534856; // "VHSCTRL1"
constexpr size_t BOOT_SIZE = 40;

}

// The mapped part of the file.
struct ControlBlock {
    uint64_t magic;
    std::atomic<uint64_t> changes;
    std::atomic<uint32_t> activeFaults;
    std::atomic<uint32_t> started;
    std::atomic<uint64_t> commits;
    char boot[BOOT_SIZE];
    alignas(128) char faults[Control::FAULTS_SIZE];
};
static_assert(offsetof(ControlBlock, activeFaults) == CONTROL_FLAGS);
static_assert(sizeof(ControlBlock) == Control::MAPPED_SIZE && std::atomic<uint64_t>::is_always_lock_free);

namespace {

// Blocks are allocated now: a full disk must show here, not as SIGBUS in a process that maps the file.
int Initialize(int fd, const std::string &boot)
{
    const auto write = [fd](const void *bytes, size_t length, size_t offset) {
        return pwrite(fd, bytes, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    };
    if (ftruncate(fd, 0) != 0) return errno;
    if (int error = posix_fallocate(fd, 0, sizeof(ControlBlock))) return error;
    const bool whole = write(boot.data(), boot.size(), offsetof(ControlBlock, boot)) &&
                       write(&MAGIC, sizeof(MAGIC), offsetof(ControlBlock, magic));
    return whole ? 0 : errno;
}

// 0 when the file is sound, or was made so by clearing it; otherwise an errno value. The file is memory and
// ends with the machine's: whatever a disk has kept of it from before the machine's start is cleared.
int PrepareLocked(int fd, const std::string &directory)
{
    const std::string boot = BootId();
    std::string block(sizeof(ControlBlock), '\0');
    uint64_t magic = 0;
    const ssize_t length = pread(fd, block.data(), block.size(), 0);
    if (length < 0) return errno;
    memcpy(&magic, block.data() + offsetof(ControlBlock, magic), sizeof(magic));
    if (magic != 0 && magic != MAGIC) return EUCLEAN;
    const bool current = block.substr(offsetof(ControlBlock, boot), BOOT_SIZE).c_str() == boot;
    const bool whole = static_cast<size_t>(length) == sizeof(ControlBlock) && magic != 0;
    if (whole && current) return 0;
    // A live host ends with the machine too. A file that is not whole was left by a process that died
    // half-way.
    if (whole) unlink((directory + "/" + SOCKET_FILE).c_str());
    return Initialize(fd, boot);
}

int Prepare(int fd, const std::string &directory)
{
    LockFile(fd, LOCK_EX);
    const int error = PrepareLocked(fd, directory);
    flock(fd, LOCK_UN);
    return error;
}

int PrepareAndMap(int fd, const std::string &directory, ControlBlock *&block)
{
    if (int error = Prepare(fd, directory)) return error;
    void *memory = mmap(nullptr, sizeof(ControlBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) return errno;
    block = static_cast<ControlBlock *>(memory);
    return 0;
}

VsStatus Refuse(const std::string &path, int error, std::string &message)
{
    const char *reason = error == EUCLEAN
                             ? "is damaged or of another version; remove it while no process uses it"
                             : strerror(error);
    message = path + ": " + reason;
    return StatusOfErrno(error);
}

}

Control::Lock::Lock(Control &control) : guard(control.mutex), fd(control.fd) { LockFile(fd, LOCK_EX); }

Control::Lock::~Lock() { flock(fd, LOCK_UN); }

Control::Control(std::string path, int fd, ControlBlock *block)
    : path(std::move(path)), fd(fd), block(block), faults(MakeFaults(*this))
{}

Control::~Control()
{
    munmap(block, MAPPED_SIZE);
    if (fd >= 0) close(fd);
}

VsStatus Control::Open(const std::string &directory, std::unique_ptr<Control> &control, std::string &message)
{
    const std::string path = directory + "/" + CONTROL_FILE;
    const int fd = OpenKeptFile(path, O_RDWR | O_CREAT);
    if (fd < 0) return Refuse(path, errno, message);
    ControlBlock *block = nullptr;
    if (int error = PrepareAndMap(fd, directory, block)) {
        close(fd);
        return Refuse(path, error, message);
    }
    control.reset(new Control(path, fd, block));
    return STATUS_OK;
}

std::atomic<uint64_t> &Control::Changes() { return block->changes; }

StoreCounters Control::Counters() { return {block->changes, block->commits}; }

bool Control::HasStarted() const { return block->started != 0; }

void Control::SetStarted() { block->started = 1; }

std::atomic<uint32_t> &Control::ActiveFaults() { return block->activeFaults; }

void *Control::FaultsArea() { return block->faults; }

void Control::ReopenAfterFork()
{
    close(fd); // a lock of this descriptor would be the parent's too
    fd = OpenKeptFile(path, O_RDWR);
}

}

// The control block: a file that starts with what is mapped by every process of the host, followed by
// the bytes of answers and by the recorded calls, which are written and read as a file.
#include "platform/host/control.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/host/locations.h"

namespace vshost {
namespace {

constexpr uint64_t MAGIC = 0x314C525443534856; // "VHSCTRL1"
constexpr size_t MAX_FAULTS = 64;
constexpr size_t MAX_ANSWERS = 16;
constexpr size_t ANSWER_SIZE = 65536;
constexpr size_t MAX_OUTPUTS = 4;
constexpr size_t OUTPUT_SIZE = 1048576;
constexpr size_t MAX_CALLS = 65536;
constexpr size_t OPERATION_SIZE = 64;
constexpr size_t VERB_SIZE = 16;
constexpr size_t BOOT_SIZE = 40;

// What is looked at by every call; zero when there is nothing to do.
constexpr uint32_t HAS_FAULTS = 1;
constexpr uint32_t RECORDING = 2;
constexpr uint32_t HAS_ALLOCATIONS = CONTROL_HAS_ALLOCATIONS; // beside HAS_FAULTS

// A rule is in use from the moment `times` and the others stand and `kind` is not 0.
struct Fault {
    std::atomic<uint32_t> kind;
    uint32_t nth;
    uint32_t times;
    uint32_t outcome;
    std::atomic<uint32_t> matched;
    char operation[OPERATION_SIZE]; // empty: every one of the kind
};

struct Answer {
    std::atomic<uint32_t> used;
    uint32_t command;
    uint32_t left; // 0: for ever
    uint32_t length;
    uint64_t order;
};

struct Output {
    std::atomic<uint32_t> used;
    uint32_t length;
    char verb[VERB_SIZE];
};

}

struct ControlBlock {
    uint64_t magic;
    std::atomic<uint64_t> changes;
    std::atomic<uint32_t> active;
    std::atomic<uint32_t> failed;
    std::atomic<uint32_t> answers; // how many stand
    std::atomic<uint32_t> outputs;
    std::atomic<uint64_t> calls;
    uint64_t nextOrder;
    Fault fault[MAX_FAULTS];
    Answer answer[MAX_ANSWERS];
    Output output[MAX_OUTPUTS];
    std::atomic<uint64_t> commits;
    char boot[BOOT_SIZE];
    std::atomic<uint32_t> started;
};

namespace {

constexpr size_t BLOCK_SIZE = 16384;
static_assert(offsetof(ControlBlock, active) == CONTROL_FLAGS);
static_assert(sizeof(ControlBlock) <= BLOCK_SIZE && std::atomic<uint64_t>::is_always_lock_free);

constexpr off_t ANSWERS_START = BLOCK_SIZE;
constexpr off_t OUTPUTS_START = ANSWERS_START + MAX_ANSWERS * ANSWER_SIZE;
constexpr off_t CALLS_START = OUTPUTS_START + MAX_OUTPUTS * OUTPUT_SIZE;

off_t AnswerOffset(size_t slot) { return ANSWERS_START + static_cast<off_t>(slot * ANSWER_SIZE); }
off_t OutputOffset(size_t slot) { return OUTPUTS_START + static_cast<off_t>(slot * OUTPUT_SIZE); }
off_t CallOffset(uint64_t index)
{
    return CALLS_START + static_cast<off_t>(index % MAX_CALLS * sizeof(struct vshost_call));
}

// Excludes the other threads of this process and, by the file, other processes. Ends with its process.
class FileLock {
public:
    FileLock(std::mutex &mutex, int fd) : guard(mutex), fd(fd)
    {
        while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    ~FileLock() { flock(fd, LOCK_UN); }

private:
    std::lock_guard<std::mutex> guard;
    int fd;
};

// What a machine is called from one start to the next.
std::string ReadBootId()
{
    char id[BOOT_SIZE] = {};
    const int file = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    const ssize_t length = read(file, id, sizeof id - 1);
    if (file >= 0) close(file);
    return length > 0 ? id : "";
}

// Blocks are allocated now: a full disk must show here, not as SIGBUS in a process that maps the file.
int Initialize(int fd, const std::string &boot)
{
    const auto put = [fd](const void *bytes, size_t length, size_t offset) {
        return pwrite(fd, bytes, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    };
    if (ftruncate(fd, 0) != 0) return errno;
    if (int error = posix_fallocate(fd, 0, BLOCK_SIZE)) return error;
    const bool whole = put(boot.data(), boot.size(), offsetof(ControlBlock, boot)) &&
                       put(&MAGIC, sizeof MAGIC, offsetof(ControlBlock, magic));
    return whole ? 0 : errno;
}

// The fault of a control file, 0 when it is sound and ready to be mapped. It is memory, and ends with the
// machine's: what a disk has kept of it, in whatever order, is cleared.
int Prepare(int fd)
{
    std::mutex own;
    FileLock lock(own, fd);
    const std::string boot = ReadBootId();
    std::string block(BLOCK_SIZE, '\0');
    uint64_t magic = 0;
    const ssize_t length = pread(fd, block.data(), block.size(), 0);
    if (length < 0) return errno;
    memcpy(&magic, block.data() + offsetof(ControlBlock, magic), sizeof magic);
    if (magic != 0 && magic != MAGIC) return EUCLEAN;
    const bool current = block.substr(offsetof(ControlBlock, boot), BOOT_SIZE).c_str() == boot;
    const bool whole = static_cast<size_t>(length) == BLOCK_SIZE && magic != 0;
    return whole && current ? 0 : Initialize(fd, boot); // otherwise whoever made it died half-way
}

VsStatus Refuse(const std::string &path, int error, std::string &message)
{
    const char *reason = error == EUCLEAN
                             ? "is damaged or of another version; remove it while no process uses it"
                             : strerror(error);
    message = path + ": " + reason;
    return StatusOfErrno(error);
}

bool ValidKind(vshost_kind kind)
{
    return kind == VSHOST_STORE || kind == VSHOST_SHELL || kind == VSHOST_DRIVER || kind == VSHOST_OPEN ||
           kind == VSHOST_ALLOCATION;
}

// The slot that is free, or the number of slots.
template<typename Slots> size_t FreeSlot(const Slots &slots)
{
    const auto isFree = [](const auto &slot) { return slot.used == 0; };
    return static_cast<size_t>(std::find_if(std::begin(slots), std::end(slots), isFree) - std::begin(slots));
}

bool Matches(const Fault &fault, vshost_kind kind, const char *operation)
{
    return fault.kind == static_cast<uint32_t>(kind) &&
           (fault.operation[0] == '\0' || strcmp(fault.operation, operation) == 0);
}

// Whether the matching call of this number is one of those that fail.
bool FiresAt(const Fault &fault, uint32_t count)
{
    return count >= fault.nth && (fault.times == 0 || count - fault.nth < fault.times);
}

bool Fires(Fault &fault) { return FiresAt(fault, ++fault.matched); }

void CopyText(char *field, size_t size, std::string_view text)
{
    const size_t length = std::min(text.size(), size - 1);
    memcpy(field, text.data(), length);
    field[length] = '\0';
}

// The parts joined by spaces, cut to the field.
void JoinText(const CallDetails &details, char *field, size_t size)
{
    for (size_t i = 0, used = 0; i < details.textCount && used < size; ++i) {
        const char *part = details.text[i] ? details.text[i] : "-";
        const int length = snprintf(field + used, size - used, i > 0 ? " %s" : "%s", part);
        used += static_cast<size_t>(std::max(length, 0));
    }
}

}

Control::Control(std::string path, int fd, ControlBlock *block) : path(std::move(path)), fd(fd), block(block)
{}

Control::~Control()
{
    munmap(block, BLOCK_SIZE);
    if (fd >= 0) close(fd);
}

VsStatus Control::Open(const std::string &directory, std::unique_ptr<Control> &control, std::string &message)
{
    const std::string path = directory + "/" + CONTROL_FILE;
    const int fd = OpenKeptFile(path, O_RDWR | O_CREAT);
    if (fd < 0) return Refuse(path, errno, message);
    int error = Prepare(fd);
    void *memory = MAP_FAILED;
    if (error == 0) {
        memory = mmap(nullptr, BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED) error = errno;
    }
    if (error != 0) {
        close(fd);
        return Refuse(path, error, message);
    }
    control.reset(new Control(path, fd, static_cast<ControlBlock *>(memory)));
    return STATUS_OK;
}

std::atomic<uint64_t> &Control::Changes() { return block->changes; }

StoreCounters Control::Counters() { return {block->changes, block->commits}; }

bool Control::HasStarted() const { return block->started != 0; }

void Control::SetStarted() { block->started = 1; }

void Control::ReopenAfterFork()
{
    close(fd); // a lock of this descriptor would be the parent's too
    fd = OpenKeptFile(path, O_RDWR);
}

bool Control::Idle() const { return block->active.load(std::memory_order_relaxed) == 0; }

int Control::Fail(vshost_kind kind, const char *operation, unsigned nth, unsigned times, uint32_t outcome)
{
    if (!ValidKind(kind) || nth == 0 || (operation && strlen(operation) >= OPERATION_SIZE)) return EINVAL;
    FileLock lock(mutex, fd);
    for (Fault &fault : block->fault) {
        if (fault.kind != 0) continue;
        fault.nth = nth;
        fault.times = times;
        fault.outcome = outcome;
        fault.matched = 0;
        CopyText(fault.operation, OPERATION_SIZE, operation ? operation : "");
        fault.kind = static_cast<uint32_t>(kind);
        block->active |= kind == VSHOST_ALLOCATION ? HAS_FAULTS | HAS_ALLOCATIONS : HAS_FAULTS;
        return 0;
    }
    return ENOSPC;
}

unsigned Control::Failed() const { return block->failed; }

size_t Control::FreeFaults() const
{
    const auto isFree = [](const Fault &fault) { return fault.kind == 0; };
    return static_cast<size_t>(std::count_if(std::begin(block->fault), std::end(block->fault), isFree));
}

bool Control::NextFails(vshost_kind kind, const char *operation, uint32_t &outcome) const
{
    const auto wouldFire = [&](const Fault &fault) {
        return Matches(fault, kind, operation) && FiresAt(fault, fault.matched + 1);
    };
    const Fault *first = std::find_if(std::begin(block->fault), std::end(block->fault), wouldFire);
    if (first == std::end(block->fault)) return false;
    outcome = first->outcome;
    return true;
}

// The first rule that fires decides; each rule counts every call that matches it.
bool Control::MustFail(vshost_kind kind, const char *operation, uint32_t &outcome)
{
    bool fails = false;
    for (Fault &fault : block->fault) {
        if (!Matches(fault, kind, operation) || !Fires(fault) || fails) continue;
        outcome = fault.outcome;
        fails = true;
    }
    if (fails) ++block->failed;
    return fails;
}

int Control::Answer(uint32_t command, unsigned times, const void *bytes, uint32_t length)
{
    if (length > ANSWER_SIZE || (!bytes && length > 0)) return EINVAL;
    FileLock lock(mutex, fd);
    const size_t slot = FreeSlot(block->answer);
    if (slot == MAX_ANSWERS) return ENOSPC;
    if (pwrite(fd, bytes, length, AnswerOffset(slot)) != static_cast<ssize_t>(length)) return ENOSPC;
    struct Answer &answer = block->answer[slot];
    answer.command = command;
    answer.left = times;
    answer.length = length;
    answer.order = block->nextOrder++;
    answer.used = 1;
    ++block->answers;
    return 0;
}

bool Control::TakeAnswer(uint32_t command, std::string &bytes)
{
    if (block->answers == 0) return false;
    FileLock lock(mutex, fd);
    struct Answer *first = nullptr;
    for (struct Answer &answer : block->answer) {
        if (answer.used && answer.command == command && (!first || answer.order < first->order))
            first = &answer;
    }
    if (!first) return false;
    bytes.resize(first->length);
    const size_t slot = static_cast<size_t>(first - block->answer);
    if (pread(fd, bytes.data(), bytes.size(), AnswerOffset(slot)) != static_cast<ssize_t>(bytes.size()))
        return false;
    if (first->left > 0 && --first->left == 0) {
        first->used = 0;
        --block->answers;
    }
    return true;
}

int Control::ShellOutput(const char *verb, const void *bytes, uint32_t length)
{
    const bool hasOutput = verb && (strcmp(verb, "get") == 0 || strcmp(verb, "ls") == 0);
    if (!hasOutput || length > OUTPUT_SIZE || (!bytes && length > 0)) return EINVAL;
    FileLock lock(mutex, fd);
    const size_t slot = FreeSlot(block->output);
    if (slot == MAX_OUTPUTS) return ENOSPC;
    if (pwrite(fd, bytes, length, OutputOffset(slot)) != static_cast<ssize_t>(length)) return ENOSPC;
    Output &output = block->output[slot];
    output.length = length;
    CopyText(output.verb, VERB_SIZE, verb);
    output.used = 1;
    ++block->outputs;
    return 0;
}

bool Control::TakeShellOutput(std::string_view verb, std::string &bytes)
{
    if (block->outputs == 0) return false;
    FileLock lock(mutex, fd);
    for (size_t slot = 0; slot < MAX_OUTPUTS; ++slot) {
        const Output &output = block->output[slot];
        if (!output.used || verb != output.verb) continue;
        bytes.resize(output.length);
        return pread(fd, bytes.data(), bytes.size(), OutputOffset(slot)) ==
               static_cast<ssize_t>(bytes.size());
    }
    return false;
}

void Control::Clear()
{
    Record(false);
    FileLock lock(mutex, fd);
    block->active = 0;
    for (Fault &fault : block->fault)
        fault.kind = 0;
    for (struct Answer &answer : block->answer)
        answer.used = 0;
    for (Output &output : block->output)
        output.used = 0;
    block->answers = 0;
    block->outputs = 0;
    block->failed = 0;
    block->calls = 0;
}

void Control::Record(bool on)
{
    FileLock lock(mutex, fd);
    if (!on) {
        block->active &= ~RECORDING;
        return;
    }
    block->calls = 0;
    if (ftruncate(fd, CALLS_START) == 0) block->active |= RECORDING;
}

size_t Control::CallCount() const { return block->calls; }

int Control::Call(size_t index, struct vshost_call &call) const
{
    const uint64_t count = block->calls;
    if (index >= count || count - index > MAX_CALLS) return ENOENT;
    const bool whole = pread(fd, &call, sizeof call, CallOffset(index)) == sizeof call;
    return whole && call.kind != 0 ? 0 : ENOENT;
}

uint64_t Control::ReserveCall() { return block->calls++; }

// A call that can't be written, on a full disk, is missing from the list.
void Control::WriteCall(uint64_t index, const struct vshost_call &call)
{
    [[maybe_unused]] const ssize_t written = pwrite(fd, &call, sizeof call, CallOffset(index));
}

void CallGate::Enter(bool canFail)
{
    const uint32_t active = control->block->active;
    if (active & RECORDING) {
        recorded = true;
        index = control->ReserveCall();
    }
    if (active & HAS_FAULTS && canFail) refused = control->MustFail(kind, operation, outcome);
}

void CallGate::Record()
{
    struct vshost_call call = {};
    call.kind = kind;
    call.outcome = outcome;
    call.length = details.length;
    call.flags = details.flags;
    call.process = getpid();
    CopyText(call.operation, sizeof call.operation, operation);
    JoinText(details, call.text, sizeof call.text);
    if (details.input) memcpy(call.input, details.input, std::min(details.inputLength, sizeof call.input));
    control->WriteCall(index, call);
}

}

// The control file: what all processes of a host share in memory. It holds the change counters of the store,
// whether the host has started what it runs, and what tests ask for (platform/host/faults.h).
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "platform/host/engine.h"
#include "platform/host/faults.h"

namespace vshost {

struct ControlBlock;

class Control {
public:
    static constexpr size_t MAPPED_SIZE = 16384;
    static constexpr size_t FAULTS_SIZE = MAPPED_SIZE - 128;

    static VsStatus Open(const std::string &directory, std::unique_ptr<Control> &control,
                         std::string &message);
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;
    ~Control();

    std::atomic<uint64_t> &Changes();
    StoreCounters Counters();
    void ReopenAfterFork();

    // Whether the host has started what it runs, since the machine did.
    bool HasStarted() const;
    void SetStarted();

    Faults &GetFaults() { return *faults; }

    // For the faults: the word that is 0 while there are none, FAULTS_SIZE bytes that are 0 at first and hold
    // their rules, and the file, which is theirs from MAPPED_SIZE on.
    std::atomic<uint32_t> &ActiveFaults();
    void *FaultsArea();
    int File() const { return fd; }

    // Excludes the other threads of this process and other processes from changes of what tests ask for. The
    // kernel releases it when its process ends.
    class Lock {
    public:
        explicit Lock(Control &control);
        Lock(const Lock &) = delete;
        Lock &operator=(const Lock &) = delete;
        ~Lock();

    private:
        std::lock_guard<std::mutex> guard;
        const int fd;
    };

private:
    Control(std::string path, int fd, ControlBlock *block);

    const std::string path;
    int fd;
    ControlBlock *const block;
    std::mutex mutex;
    std::unique_ptr<Faults> faults;
};

}

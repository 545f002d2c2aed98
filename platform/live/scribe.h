// Writes the daemon's own changes of the store, one after the other, on a thread of its own. The daemon's
// main thread never writes: each write waits for it.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/host/engine.h"
#include "platform/live/snapshot.h"

namespace live {

class Scribe {
public:
    using Done = std::function<void(vshost::VsStatus)>;

    explicit Scribe(vshost::Engine &engine) : engine(engine) {}

    // Starts the thread, which lives as long as the process. Before, Post() writes at once: nobody waits for
    // the caller then.
    bool Start();

    // `done` is run by Collect().
    void Post(vshost::Work work, Done done);

    int EventDescriptor() const { return event.Get(); } // readable when Collect() has something to do
    void Collect();

private:
    struct Entry {
        vshost::Work work;
        Done done;
        vshost::VsStatus status = 0;
    };

    void Run();

    vshost::Engine &engine;
    Descriptor event;
    std::mutex mutex;
    std::condition_variable posted;
    std::deque<Entry> entries;
    std::vector<Entry> written;
};

}

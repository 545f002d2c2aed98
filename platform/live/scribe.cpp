#include "platform/live/scribe.h"

#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace live {

bool Scribe::Start()
{
    event = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event) return false;
    std::thread([this] { Run(); }).detach();
    return true;
}

void Scribe::Post(vshost::Work work, Done done)
{
    if (!event) return done(engine.Write(work));
    {
        std::lock_guard lock(mutex);
        entries.push_back({std::move(work), std::move(done)});
    }
    posted.notify_one();
}

void Scribe::Run()
{
    for (;;) {
        std::unique_lock lock(mutex);
        posted.wait(lock, [this] { return !entries.empty(); });
        Entry entry = std::move(entries.front());
        entries.pop_front();
        lock.unlock();
        entry.status = engine.Write(entry.work);
        lock.lock();
        written.push_back(std::move(entry));
        eventfd_write(event.Get(), 1);
    }
}

void Scribe::Collect()
{
    eventfd_t count;
    eventfd_read(event.Get(), &count);
    std::vector<Entry> finished;
    {
        std::lock_guard lock(mutex);
        finished.swap(written);
    }
    for (const Entry &entry : finished)
        entry.done(entry.status);
}

}

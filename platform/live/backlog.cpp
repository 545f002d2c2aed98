#include "platform/live/backlog.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "platform/host/plugs.h"
#include "platform/live/daemon.h"

namespace live {
namespace {

using namespace vshost;

constexpr char FILE_NAME[] = "/proc/sys/net/core/netdev_max_backlog";
constexpr uint32_t WANTED = 10000; // more than the ports of a host

uint32_t ReadValue()
{
    uint32_t value = 0;
    std::ifstream(FILE_NAME) >> value;
    return value;
}

bool WriteValue(uint32_t value)
{
    std::ofstream file(FILE_NAME);
    file << value << std::flush;
    return file.good();
}

void SayLow(const char *why)
{
    Say("can't raise net.core.netdev_max_backlog: %s; a flood to many ports loses copies, set it to %u on "
        "the "
        "machine",
        why, WANTED);
}

}

void RaiseBacklog(Scribe &scribe)
{
    const uint32_t value = ReadValue();
    if (value >= WANTED) return;
    if (value == 0) return SayLow("this network namespace doesn't have it");
    const auto store = [value](Transaction &transaction) {
        return PutRaisedBacklog(transaction, {.before = value, .now = WANTED});
    };
    scribe.Post(store, [](VsStatus status) {
        if (status || !WriteValue(WANTED)) SayLow(status ? "its old value can't be stored" : strerror(errno));
    });
}

void PutBackBacklog(Engine &engine)
{
    RaisedBacklog raised;
    if (GetRaisedBacklog(engine, raised)) return;
    if (ReadValue() == raised.now && !WriteValue(raised.before))
        Say("can't put net.core.netdev_max_backlog back to %u: %s", raised.before, strerror(errno));
    engine.Write([](Transaction &transaction) { return RemoveRaisedBacklog(transaction); });
}

}

#include "platform/store/plugging.h"

#include <algorithm>
#include <cerrno>

#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/live_requests.h"

namespace vshost {
namespace {

const char *Lasting(int keep) { return keep ? "keep" : ""; }

// Sends the words to the vshostd of this process's host.
int Ask(std::initializer_list<const char *> words)
{
    return GuardErrno([&] {
        if (std::find(words.begin(), words.end(), nullptr) != words.end())
            return SetError(EINVAL, "a name is null");
        std::string directory;
        {
            HostUse host;
            if (!host)
                return SetError(ErrnoOf(host.Status() ? host.Status() : STATUS_NOT_FOUND),
                                "this process is not on a host; start it with `vshost run --state DIR`");
            directory = host->Directory();
        }
        const LiveAnswer answer = AskVshostd(directory, {words.begin(), words.end()});
        return answer.error ? SetError(answer.error, answer.text) : 0;
    });
}

}

int PlugInterface(const char *switchName, const char *portId, const char *interface, int keep)
{
    return Ask({"plug", switchName, portId, interface, Lasting(keep)});
}

int UnplugInterface(const char *interface) { return Ask({"unplug", interface}); }

int AddLiveNic(const char *interface, int keep) { return Ask({"add-nic", interface, Lasting(keep)}); }

int RemoveLiveNic(const char *interface) { return Ask({"remove-nic", interface}); }

}

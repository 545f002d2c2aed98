// The core's side of the bridge: the functions of vshost.h, the devices and the shell, each in a guard.
#include "platform/preload/bridge.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/runtime.h"
#include "platform/host/tables.h"
#include "platform/scenario/scenario.h"
#include "platform/store/store.h"
#include "platform/testing/call_names.h"
#include "platform/testing/test_faults.h"

namespace vshost {
namespace {

int NoHost() { return SetError(EINVAL, "this process is not on a host: call vshost_start first"); }

// Runs `use` on the host's faults; 0 or an errno value.
template<typename Use> int OnFaults(Use use)
{
    HostUse host;
    return host ? use(TestFaults::Of(*host.GetControl())) : NoHost();
}

int StartEntry(const char *directory, int durable) { return StartHost(directory, durable != 0); }

int Reset()
{
    HostUse host;
    if (!host) return NoHost();
    const VsStatus status = host->GetEngine().Write(ResetRuntime);
    return status ? SetError(ErrnoOf(status), host->Directory() + ": the runtime tables cannot be written")
                  : 0;
}

int Scenario(const char *json)
{
    HostUse host;
    if (!host) return NoHost();
    std::string message;
    if (ApplyScenario(host->GetEngine(), *host.GetControl(), json ? json : "", message)) return 0;
    return SetError(EINVAL, message);
}

int Explained(int error)
{
    if (error == EINVAL) return SetError(error, "an argument is out of range: see vshost.h");
    if (error == ENOSPC)
        return SetError(error, "the host holds as many as vshost.h allows, or the disk is full");
    return error;
}

int Fail(vshost_kind kind, const char *operation, unsigned nth, unsigned times, uint32_t outcome)
{
    return OnFaults([&](TestFaults &faults) {
        if (operation && !IsCallName(kind, operation))
            return SetError(EINVAL, ExplainCallName(kind, operation));
        return Explained(faults.Fail({kind, operation ? operation : "", nth, times, outcome}));
    });
}

size_t Failed()
{
    HostUse host;
    return host ? TestFaults::Of(*host.GetControl()).Failed() : 0;
}

int Answer(uint32_t command, unsigned times, const void *bytes, uint32_t length)
{
    return OnFaults(
        [&](TestFaults &faults) { return Explained(faults.Answer(command, times, bytes, length)); });
}

int ShellOutput(const char *verb, const void *bytes, uint32_t length)
{
    return OnFaults([&](TestFaults &faults) { return Explained(faults.ShellOutput(verb, bytes, length)); });
}

void Clear()
{
    if (HostUse host; host) TestFaults::Of(*host.GetControl()).Clear();
}

void Record(int on)
{
    if (HostUse host; host) TestFaults::Of(*host.GetControl()).SetRecording(on != 0);
}

size_t CallCount()
{
    HostUse host;
    return host ? TestFaults::Of(*host.GetControl()).CallCount() : 0;
}

int Call(size_t index, struct vshost_call *call)
{
    HostUse host;
    return host ? TestFaults::Of(*host.GetControl()).Call(index, *call) : ENOENT;
}

int ReadProperty(const PropertyOwner &owner, const char *key, StoredProperty &property)
{
    HostUse host;
    if (!host) return ErrnoOf(host.Status() ? host.Status() : STATUS_NOT_FOUND);
    return ErrnoOf(GetProperty(host->GetEngine(), owner, key, property));
}

int PropertyEntry(vshost_level level, const char *switchId, const char *portId, const char *key, void *value,
                  uint32_t capacity, uint32_t *length, uint32_t *flags)
{
    StoredProperty property;
    const PropertyOwner owner{static_cast<StoredLevel>(level), switchId, level == VSHOST_PORT ? portId : ""};
    if (int error = ReadProperty(owner, key, property)) return error;
    if (value) memcpy(value, property.value.data(), std::min<size_t>(capacity, property.value.size()));
    if (length) *length = static_cast<uint32_t>(property.value.size());
    if (flags) *flags = property.flags;
    return 0;
}

// FNV-1a. Lengths are hashed too, so that two tables cannot give the same bytes.
class Hash {
public:
    void Add(std::string_view bytes)
    {
        const uint64_t length = bytes.size();
        AddBytes(BytesOf(length));
        AddBytes(bytes);
    }
    uint64_t Value() const { return value; }

private:
    void AddBytes(std::string_view bytes)
    {
        for (const char byte : bytes)
            value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    }
    uint64_t value = 0xCBF29CE484222325;
};

// Free port numbers don't count: two hosts that differ only in these are equal.
uint64_t Fingerprint()
{
    HostUse host;
    if (!host) return 0;
    Hash hash;
    const std::string freeNumbers = FreeNumbers();
    host->GetEngine().Scan("", [&](std::string_view key, std::string_view value) {
        if (key.starts_with(freeNumbers)) return true;
        hash.Add(key);
        hash.Add(value);
        return true;
    });
    return hash.Value();
}

int Intercept(const PreloadCall *call)
{
    HostUse host;
    const CallDetails details{
        .text = {call->text}, .textCount = 1, .length = call->length, .canFail = call->kind != VSHOST_CLOSE};
    InterceptedCall intercepted(host.GetFaults(), call->kind, call->operation, details);
    if (intercepted.Fails()) return 1;
    intercepted.Return(0);
    return 0;
}

}
}

const struct VshostCore *vshost_core(void)
{
    using namespace vshost;
    static constexpr VshostCore CORE = {
        .start = Guarded<StartEntry>,
        .stop = Guarded<StopHost>,
        .directory = Guarded<HostDirectory>,
        .error = Guarded<LastError>,
        .scenario = Guarded<Scenario>,
        .reset = Guarded<Reset>,
        .fail = Guarded<Fail>,
        .failed = [] { return static_cast<unsigned>(Guarded<Failed>()); },
        .answer = Guarded<Answer>,
        .shellOutput = Guarded<ShellOutput>,
        .clear = Guarded<Clear>,
        .record = Guarded<Record>,
        .callCount = Guarded<CallCount>,
        .call = Guarded<Call>,
        .valuesLent = Guarded<ValuesLent>,
        .property = Guarded<PropertyEntry>,
        .fingerprint = Guarded<Fingerprint>,
        .intercept = Guarded<Intercept>,
        .openDevice = Guarded<OpenDevice>,
        .command = Guarded<RunCommand>,
        .shell =
            [](const char *line, bool inProcess, bool capture, CommandResult *result) {
                try {
                    return RunCommandLine(line, inProcess, capture, result);
                } catch (const abi::__forced_unwind &) {
                    throw;
                } catch (...) {
                    return Verdict::REFUSED;
                }
            },
    };
    return &CORE;
}

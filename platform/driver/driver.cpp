#include "platform/driver/driver.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/driver/request.h"
#include "platform/host/guard.h"
#include "platform/host/host.h"

namespace vshost {

namespace {

constexpr uint32_t MAX_INPUT_LENGTH = 1u << 20; // of one command
constexpr uint32_t RTM_HEADER = sizeof(VSwitchRtmRecord);
constexpr uint32_t RTM_ENTRY = 128;

using Copy = ssize_t (*)(pid_t, const iovec *, unsigned long, const iovec *, unsigned long, unsigned long);

// The memory of the process that runs the command. The kernel copies: it refuses a bad address, where a plain
// copy would end this process. If this process is not allowed to use that for itself, it makes a plain copy.
class CallerMemory {
public:
    explicit CallerMemory(pid_t caller) : caller(caller) {}

    bool Read(void *ours, uint64_t theirs, size_t length) const
    {
        return CopyThrough(process_vm_readv, ours, theirs, length);
    }

    bool Write(uint64_t theirs, std::string_view bytes) const
    {
        return CopyThrough(process_vm_writev, const_cast<char *>(bytes.data()), theirs, bytes.size());
    }

private:
    bool CopyThrough(Copy copy, void *ours, uint64_t theirs, size_t length) const
    {
        if (length == 0) return true;
        if (theirs == 0) return false;
        auto *address = reinterpret_cast<void *>(theirs);
        const iovec local{ours, length}, remote{address, length};
        const ssize_t copied = copy(caller, &local, 1, &remote, 1, 0);
        if (copied < 0 && (errno == EPERM || errno == ENOSYS) && caller == getpid()) {
            const bool reading = copy == process_vm_readv;
            memcpy(reading ? ours : address, reading ? address : ours, length);
            return true;
        }
        return copied == static_cast<ssize_t>(length);
    }

    const pid_t caller;
};

// A command as the device received it: `input` holds the bytes that the header points to.
struct DeviceCall {
    Device device;
    uint32_t number;
    CallerMemory memory;
    VSwitchRequest header = {};
    std::string input = {};
};

const char *DevicePath(Device device)
{
    return device == Device::RTM ? VSWITCH_DRIVER_RTM_DEVICE : VSWITCH_DRIVER_DEVICE;
}

int ReadInput(DeviceCall &call, uint64_t header)
{
    if (!call.memory.Read(&call.header, header, sizeof(call.header))) return EFAULT;
    if (call.header.inLength > MAX_INPUT_LENGTH) return EINVAL;
    call.input.resize(call.header.inLength);
    return call.memory.Read(call.input.data(), call.header.input, call.input.size()) ? 0 : EFAULT;
}

int Query(const DriverCommand &command, Host &host, const DeviceCall &call)
{
    DriverRequest request(host.GetEngine(), host.GetLive(), call.input);
    if (int error = request.Resolve(command.fields)) return error;
    if (int error = command.handler(request)) return error;
    const size_t length = request.Fitting(call.header.outLength);
    const std::string_view answer = std::string_view(request.answer).substr(0, length);
    return call.memory.Write(call.header.output, answer) ? 0 : EFAULT;
}

int Change(const DriverCommand &command, Host &host, std::string_view input)
{
    int error = 0;
    const VsStatus status = host.GetEngine().Write([&](Transaction &transaction) {
        DriverRequest request(transaction, host.GetLive(), input, &transaction);
        const int unresolved = request.Resolve(command.fields);
        error = unresolved ? unresolved : command.handler(request);
        return error ? STATUS_FAILURE : STATUS_OK;
    });
    return error ? error : ErrnoOf(status, EIO);
}

int RunSwitchCommand(Host &host, const DeviceCall &call)
{
    const DriverCommand *command = FindCommand(call.number);
    if (!command) return ENOTTY;
    if (command->inLength && call.input.size() != command->inLength) return EINVAL;
    return command->Changes() ? Change(*command, host, call.input) : Query(*command, host, call);
}

int RunRtmCommand(uint32_t number, Engine &engine, std::string_view input)
{
    if (input.size() != RTM_HEADER + uint64_t{RTM_ENTRY} * WordAt(input, 0)) return EINVAL;
    return ErrnoOf(engine.Write([&](Transaction &transaction) {
        return transaction.Put(runtime::RtmKey(number), input);
    }),
                   EIO);
}

int RunReadable(HostUse &host, const DeviceCall &call)
{
    std::string answer;
    if (host.GetFaults()->NextAnswer(call.number, answer)) {
        const std::string_view fitting = std::string_view(answer).substr(0, call.header.outLength);
        return call.memory.Write(call.header.output, fitting) ? 0 : EFAULT;
    }
    if (call.device == Device::RTM) return RunRtmCommand(call.number, host->GetEngine(), call.input);
    return RunSwitchCommand(*host.operator->(), call);
}

int Run(DeviceCall call, uint64_t header)
{
    HostUse host;
    if (!host) return ENODEV;
    const int unreadable = ReadInput(call, header);
    const std::string operation = std::to_string(call.number);
    const CallDetails details{.text = {DevicePath(call.device)},
                              .textCount = 1,
                              .length = call.header.inLength,
                              .flags = call.header.outLength,
                              .input = call.input.data(),
                              .inputLength = call.input.size()};
    InterceptedCall intercepted(host.GetFaults(), VSHOST_DRIVER, operation.c_str(), details);
    if (intercepted.Fails()) return static_cast<int>(intercepted.Outcome());
    const int error = unreadable ? unreadable : GuardErrno([&] { return RunReadable(host, call); });
    intercepted.Return(static_cast<uint32_t>(error));
    return error;
}

int Open(Device device, int flags, unsigned mode)
{
    HostUse host;
    if (!host) return -ENOENT;
    const char *path = DevicePath(device);
    const CallDetails details{.text = {path}, .textCount = 1};
    InterceptedCall call(host.GetFaults(), VSHOST_OPEN, path, details);
    if (call.Fails()) return -static_cast<int>(call.Outcome());
    const char *file = device == Device::RTM ? RTM_FILE : DEVICE_FILE;
    const int descriptor = open((host->Directory() + "/" + file).c_str(), flags, mode);
    call.Return(static_cast<uint32_t>(descriptor < 0 ? errno : 0));
    return descriptor < 0 ? -errno : descriptor;
}

}

int OpenDevice(Device device, int flags, unsigned mode)
{
    const int before = errno;
    int result = -1;
    const int error = GuardErrno([&] {
        result = Open(device, flags, mode);
        return result < 0 ? -result : 0;
    });
    errno = error ? error : before;
    return error ? -1 : result;
}

int RunCommand(Device device, uint32_t number, void *header)
{
    return RunCommandOf(getpid(), device, number, reinterpret_cast<uint64_t>(header));
}

int RunCommandOf(pid_t caller, Device device, uint32_t number, uint64_t header)
{
    const int before = errno;
    const int result = GuardErrno([&] { return Run({device, number, CallerMemory(caller)}, header); });
    errno = before;
    return result;
}

}

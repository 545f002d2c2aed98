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

// Copies between this process's own memory and itself by the kernel, which refuses a bad address where a
// plain copy would end the process. Where that is not allowed, a plain copy has to do.
using Copy = ssize_t (*)(pid_t, const iovec *, unsigned long, const iovec *, unsigned long, unsigned long);

bool CopyThrough(Copy copy, void *ours, uint64_t theirs, size_t length, bool reading)
{
    if (length == 0) return true;
    if (theirs == 0) return false;
    auto *address = reinterpret_cast<void *>(theirs);
    const iovec local{ours, length}, remote{address, length};
    const ssize_t copied = copy(getpid(), &local, 1, &remote, 1, 0);
    if (copied < 0 && (errno == EPERM || errno == ENOSYS)) {
        memcpy(reading ? ours : address, reading ? address : ours, length);
        return true;
    }
    return copied == static_cast<ssize_t>(length);
}

bool ReadMemory(void *ours, uint64_t theirs, size_t length)
{
    return CopyThrough(process_vm_readv, ours, theirs, length, true);
}

bool WriteMemory(uint64_t theirs, std::string_view bytes)
{
    return CopyThrough(process_vm_writev, const_cast<char *>(bytes.data()), theirs, bytes.size(), false);
}

const char *DevicePath(Device device)
{
    return device == Device::RTM ? VSWITCH_DRIVER_RTM_DEVICE : VSWITCH_DRIVER_DEVICE;
}

int ReadInput(const VSwitchRequest &header, std::string &input)
{
    if (header.inLength > MAX_INPUT_LENGTH) return EINVAL;
    input.resize(header.inLength);
    return ReadMemory(input.data(), header.input, input.size()) ? 0 : EFAULT;
}

int Query(const Command &command, Engine &engine, std::string_view input, const VSwitchRequest &header)
{
    Request request(engine, input);
    if (int error = request.Resolve(command.fields)) return error;
    if (int error = command.handler(request)) return error;
    const size_t length = request.Fitting(header.outLength);
    return WriteMemory(header.output, std::string_view(request.answer).substr(0, length)) ? 0 : EFAULT;
}

int Change(const Command &command, Engine &engine, std::string_view input)
{
    int error = 0;
    const VsStatus status = engine.Write([&](Transaction &transaction) {
        Request request(transaction, input, &transaction);
        error = request.Resolve(command.fields);
        if (!error) error = command.handler(request);
        return error ? STATUS_FAILURE : STATUS_OK;
    });
    return error ? error : ErrnoOf(status, EIO);
}

int RunSwitchCommand(uint32_t number, Engine &engine, std::string_view input, const VSwitchRequest &header)
{
    const Command *command = FindCommand(number);
    if (!command) return ENOTTY;
    if (command->inLength && input.size() != command->inLength) return EINVAL;
    return command->Changes() ? Change(*command, engine, input) : Query(*command, engine, input, header);
}

int RunRtmCommand(uint32_t number, Engine &engine, std::string_view input)
{
    uint32_t count;
    if (input.size() < RTM_HEADER) return EINVAL;
    memcpy(&count, input.data(), sizeof count);
    if (input.size() != RTM_HEADER + uint64_t{RTM_ENTRY} * count) return EINVAL;
    return ErrnoOf(engine.Write([&](Transaction &transaction) {
        return transaction.Put(runtime::RtmKey(number), input);
    }),
                   EIO);
}

int RunChecked(Device device, uint32_t number, HostUse &host, const VSwitchRequest &header,
               std::string_view input)
{
    std::string answer;
    if (host.GetControl()->TakeAnswer(number, answer))
        return WriteMemory(header.output, std::string_view(answer).substr(0, header.outLength)) ? 0 : EFAULT;
    if (device == Device::RTM) return RunRtmCommand(number, host->GetEngine(), input);
    return RunSwitchCommand(number, host->GetEngine(), input, header);
}

int Run(Device device, uint32_t number, void *address)
{
    HostUse host;
    if (!host) return ENODEV;
    VSwitchRequest header = {};
    std::string input;
    int error = ReadMemory(&header, reinterpret_cast<uint64_t>(address), sizeof header) ? 0 : EFAULT;
    if (!error) error = ReadInput(header, input);

    const std::string operation = std::to_string(number);
    CallDetails details;
    details.text[0] = DevicePath(device);
    details.textCount = 1;
    details.length = header.inLength;
    details.flags = header.outLength;
    details.input = input.data();
    details.inputLength = input.size();
    CallGate gate(host.GetControl(), VSHOST_DRIVER, operation.c_str(), details);
    if (gate.Refused()) return static_cast<int>(gate.Outcome());
    if (!error) error = GuardErrno([&] { return RunChecked(device, number, host, header, input); });
    gate.Return(static_cast<uint32_t>(error));
    return error;
}

int Open(Device device, int flags, unsigned mode)
{
    HostUse host;
    if (!host) return -ENOENT;
    const char *path = DevicePath(device);
    CallDetails details;
    details.text[0] = path;
    details.textCount = 1;
    CallGate gate(host.GetControl(), VSHOST_OPEN, path, details);
    if (gate.Refused()) return -static_cast<int>(gate.Outcome());
    const char *file = device == Device::RTM ? RTM_FILE : DEVICE_FILE;
    const int descriptor = open((host->Directory() + "/" + file).c_str(), flags, mode);
    gate.Return(static_cast<uint32_t>(descriptor < 0 ? errno : 0));
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
    const int before = errno;
    const int result = GuardErrno([&] { return Run(device, number, header); });
    errno = before;
    return result;
}

}

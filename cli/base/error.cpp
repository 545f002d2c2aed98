// Statuses, their meanings, and the errors made from them.
#include "cli/base/error.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <utility>

#include "cli/base/library.h"
#include "cli/base/limit.h"

namespace vsctl {

namespace {

// Statuses that are not just failures, or of which vsctl says something else than the library's header.
struct StatusRow {
    VsStatus status;
    Exit exit;
    const char *meaning = nullptr;
};
constexpr StatusRow STATUSES[] = {
    {STATUS_OK, Exit::DONE, "done"},
    {STATUS_FAILURE, Exit::FAILURE, "the platform refused it, or a stored record is damaged"},
    {STATUS_NOT_FOUND, Exit::NOT_FOUND, "it does not exist"},
    {STATUS_NO_DEVICE, Exit::NOT_FOUND, "the uplink or port does not exist"},
    {STATUS_NO_PROCESS, Exit::NOT_FOUND},
    {STATUS_BUSY, Exit::FAILURE, "it is in use"},
    {STATUS_NO_MEMORY, Exit::FAILURE, "not enough memory"},
    {STATUS_NO_SPACE, Exit::FAILURE, "a table or disk is full"},
    {STATUS_EXISTS, Exit::EXISTS, "it already exists"},
    {STATUS_ADDRESS_IN_USE, Exit::EXISTS},
    {STATUS_ALREADY_CONNECTED, Exit::EXISTS},
    {STATUS_BAD_PARAM, Exit::BAD_VALUE, "a value or name is not allowed"},
    {STATUS_TOO_LARGE, Exit::BAD_VALUE},
    {STATUS_NAME_TOO_LONG, Exit::BAD_VALUE, "a name is too long"},
    {STATUS_OUT_OF_RANGE, Exit::BAD_VALUE},
    {STATUS_ARGUMENTS_TOO_LONG, Exit::BAD_VALUE},
    {STATUS_VALUE_OVERFLOW, Exit::BAD_VALUE},
    {STATUS_MESSAGE_TOO_LONG, Exit::BAD_VALUE},
    {STATUS_IO_ERROR, Exit::UNREACHABLE, "the platform cannot read or write its data"},
    {STATUS_NO_DEVICE_OR_ADDRESS, Exit::UNREACHABLE, "no device has that name"},
    {STATUS_NOT_A_DIRECTORY, Exit::UNREACHABLE, "a part of a path is not a directory"},
    {STATUS_IS_A_DIRECTORY, Exit::UNREACHABLE, "the device's path is a directory"},
    {STATUS_LINK_LOOP, Exit::UNREACHABLE},
    {STATUS_TIMED_OUT, Exit::TIMED_OUT},
    {STATUS_READ_ONLY, Exit::PERMISSION, "the platform's data is read-only"},
    {STATUS_PERMISSION_DENIED, Exit::PERMISSION},
    {STATUS_NOT_PERMITTED, Exit::PERMISSION},
};

constexpr const char *ASK_DOCTOR = "'vsctl doctor' shows which parts of the platform work";

struct ExitInfo {
    const char *meaning;
    const char *advice = "";
};

// By Exit.
constexpr ExitInfo EXIT_TABLE[] = {
    {"done"},
    {"failed", ASK_DOCTOR},
    {"wrong usage"},
    {"not found", "'vsctl switch list' lists the switches"},
    {"already exists", "choose another name, or remove the existing one first"},
    {"a value that is not allowed", "'vsctl help NOUN VERB' shows the allowed values"},
    {"the platform, or a part of it, cannot be reached", ASK_DOCTOR},
    {"no permission", "run vsctl as a user who may configure the host"},
    {"timed out", "allow more time with --timeout"},
    {"failed, and only partly undone"},
    {"changes are pending (plan, --dry-run)"},
};
static_assert(std::size(EXIT_TABLE) == EXITS);

std::string MissingAdvice(const Target &target)
{
    if (target.alias.empty() || !SwitchExists(target.alias)) return "'vsctl switch list' lists the switches";
    if (!target.port.empty() && !PortExists(target)) return PortAdvice(target);
    return fmt::format("'vsctl switch show {0}' and 'vsctl uplink live {0}' show what it has", target.alias);
}

Error StatusError(VsStatus status, std::string_view action, const Target &target, const std::string &listed)
{
    const StatusInfo info = Describe(status);
    const std::string name = *info.name ? info.name : fmt::format("0x{:08X}", status);
    Error error(info.exit, fmt::format("{} {} failed: {} ({})", action, target.Text(), info.meaning, name),
                info.exit != Exit::NOT_FOUND ? AdviceFor(info.exit)
                : listed.empty()             ? MissingAdvice(target)
                                             : listed);
    return WithStatus(std::move(error), status);
}

}

const char *AdviceFor(Exit exit) { return EXIT_TABLE[static_cast<size_t>(exit)].advice; }
const char *MeaningOf(Exit exit) { return EXIT_TABLE[static_cast<size_t>(exit)].meaning; }

Error WithStatus(Error error, VsStatus status)
{
    error.status = status;
    error.statusName = Describe(status).name;
    return error;
}

StatusInfo Describe(VsStatus status)
{
    StatusInfo info{"", "an unknown status", Exit::FAILURE};
    for (const StatusText &text : StatusTexts())
        if (text.status == status) info = {text.name, text.meaning, Exit::FAILURE};
    for (const StatusRow &row : STATUSES)
        if (row.status == status) info = {info.name, row.meaning ? row.meaning : info.meaning, row.exit};
    return info;
}

std::string Target::Text() const
{
    if (alias.empty()) return port.empty() ? "the host" : port;
    return port.empty() ? "switch " + alias : port + " of switch " + alias;
}

void Check(VsStatus status, std::string_view action, const Target &target, const std::string &listed)
{
    RestartTimeLimit(); // the platform has answered
    if (status != STATUS_OK) throw StatusError(status, action, target, listed);
}

int DeviceError(const char *device)
{
    const int descriptor = open(device, O_RDWR | O_CLOEXEC);
    if (descriptor < 0) return errno;
    close(descriptor);
    return 0;
}

}

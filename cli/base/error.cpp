// Statuses, their meanings, and the errors made from them.
#include "cli/base/error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <numeric>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cli/base/library.h"
#include "cli/base/limit.h"

namespace vsctl {

namespace {

#define ROW(status, meaning, exit)                                                                           \
    {                                                                                                        \
        status, #status, meaning, Exit::exit                                                                 \
    }

constexpr StatusInfo STATUSES[] = {
    ROW(STATUS_OK, "done", DONE),
    ROW(STATUS_FAILURE, "the platform refused it, or a stored record is damaged", FAILURE),
    ROW(STATUS_WOULD_BLOCK, "not available right now", FAILURE),
    ROW(STATUS_NOT_FOUND, "it does not exist", NOT_FOUND),
    ROW(STATUS_BUSY, "it is in use", FAILURE),
    ROW(STATUS_EXISTS, "it already exists", EXISTS),
    ROW(STATUS_TOO_LARGE, "too large", BAD_VALUE),
    ROW(STATUS_BAD_PARAM, "a value or name is not allowed", BAD_VALUE),
    ROW(STATUS_IO_ERROR, "the platform cannot read or write its data", UNREACHABLE),
    ROW(STATUS_NAME_TOO_LONG, "a name is too long", BAD_VALUE),
    ROW(STATUS_BAD_DESCRIPTOR, "the driver refused the descriptor", FAILURE),
    ROW(STATUS_NO_DEVICE, "the uplink or port does not exist", NOT_FOUND),
    ROW(STATUS_NO_DEVICE_OR_ADDRESS, "no device has that name", UNREACHABLE),
    ROW(STATUS_BAD_ADDRESS, "the driver refused an address", FAILURE),
    ROW(STATUS_NO_MEMORY, "not enough memory", FAILURE),
    ROW(STATUS_TOO_MANY_OPEN_FILES, "too many open files in this process", FAILURE),
    ROW(STATUS_FILE_TABLE_FULL, "too many open files on the host", FAILURE),
    ROW(STATUS_NO_SPACE, "a table or disk is full", FAILURE),
    ROW(STATUS_NOT_IMPLEMENTED, "the platform does not implement it", FAILURE),
    ROW(STATUS_TIMED_OUT, "timed out", TIMED_OUT),
    ROW(STATUS_READ_ONLY, "the platform's data is read-only", PERMISSION),
    ROW(STATUS_ADDRESS_IN_USE, "the address is in use", EXISTS),
    ROW(STATUS_NOT_CONNECTED, "not connected", UNREACHABLE),
    ROW(STATUS_INTERRUPTED, "interrupted", FAILURE),
    ROW(STATUS_CANCELED, "canceled", FAILURE),
    ROW(STATUS_NOT_SUPPORTED, "not supported", FAILURE),
    ROW(STATUS_NETWORK_DOWN, "the network is down", UNREACHABLE),
    ROW(STATUS_NETWORK_UNREACHABLE, "the network is unreachable", UNREACHABLE),
    ROW(STATUS_NETWORK_RESET, "the network was reset", UNREACHABLE),
    ROW(STATUS_CONNECTION_ABORTED, "the connection was aborted", UNREACHABLE),
    ROW(STATUS_CONNECTION_RESET, "the connection was reset", UNREACHABLE),
    ROW(STATUS_SHUT_DOWN, "shut down", UNREACHABLE),
    ROW(STATUS_TOO_MANY_REFERENCES, "too many references", FAILURE),
    ROW(STATUS_CONNECTION_REFUSED, "the connection was refused", UNREACHABLE),
    ROW(STATUS_HOST_DOWN, "the host is down", UNREACHABLE),
    ROW(STATUS_HOST_UNREACHABLE, "the host is unreachable", UNREACHABLE),
    ROW(STATUS_BROKEN_PIPE, "a pipe is broken", FAILURE),
    ROW(STATUS_NOT_A_DIRECTORY, "a part of a path is not a directory", UNREACHABLE),
    ROW(STATUS_IS_A_DIRECTORY, "the device's path is a directory", UNREACHABLE),
    ROW(STATUS_NOT_EMPTY, "not empty", FAILURE),
    ROW(STATUS_PERMISSION_DENIED, "permission denied", PERMISSION),
    ROW(STATUS_NOT_PERMITTED, "not permitted", PERMISSION),
    ROW(STATUS_OUT_OF_RANGE, "out of range", BAD_VALUE),
    ROW(STATUS_NO_CHILD, "no child process", FAILURE),
    ROW(STATUS_NO_PROCESS, "no such process", NOT_FOUND),
    ROW(STATUS_LINK_LOOP, "a loop of symbolic links", UNREACHABLE),
    ROW(STATUS_CROSS_DEVICE, "across devices", FAILURE),
    ROW(STATUS_NOT_A_SOCKET, "not a socket", FAILURE),
    ROW(STATUS_ILLEGAL_SEEK, "illegal seek", FAILURE),
    ROW(STATUS_FAMILY_NOT_SUPPORTED, "the address family is not supported", FAILURE),
    ROW(STATUS_ALREADY_CONNECTED, "already connected", EXISTS),
    ROW(STATUS_BAD_DEVICE_COMMAND, "the driver does not know the command", FAILURE),
    ROW(STATUS_IN_PROGRESS, "in progress", FAILURE),
    ROW(STATUS_BAD_EXECUTABLE, "not an executable", FAILURE),
    ROW(STATUS_TOO_MANY_USERS, "too many users", FAILURE),
    ROW(STATUS_DEADLOCK, "a deadlock", FAILURE),
    ROW(STATUS_ARGUMENTS_TOO_LONG, "too long", BAD_VALUE),
    ROW(STATUS_ALREADY_IN_PROGRESS, "already in progress", FAILURE),
    ROW(STATUS_NO_LOCKS, "no locks left", FAILURE),
    ROW(STATUS_ADDRESS_NOT_AVAILABLE, "the address is not available", FAILURE),
    ROW(STATUS_DESTINATION_REQUIRED, "a destination is required", BAD_VALUE),
    ROW(STATUS_PROTOCOL_NOT_SUPPORTED, "the protocol is not supported", FAILURE),
    ROW(STATUS_FILE_BUSY, "a file is in use", FAILURE),
    ROW(STATUS_VALUE_OVERFLOW, "a value does not fit", BAD_VALUE),
    ROW(STATUS_NO_BUFFER_SPACE, "no buffer space", FAILURE),
    ROW(STATUS_MESSAGE_TOO_LONG, "too long", BAD_VALUE),
    ROW(STATUS_WRONG_PROTOCOL_TYPE, "the wrong type of protocol", FAILURE),
    ROW(STATUS_STALE, "a stale handle", FAILURE),
};
#undef ROW

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
    error.status = status;
    return error;
}

}

const char *AdviceFor(Exit exit) { return EXIT_TABLE[static_cast<size_t>(exit)].advice; }
const char *MeaningOf(Exit exit) { return EXIT_TABLE[static_cast<size_t>(exit)].meaning; }

StatusInfo Describe(VsStatus status)
{
    for (const StatusInfo &row : STATUSES) {
        if (row.status == status) return row;
    }
    return {status, "", "an unknown status", Exit::FAILURE};
}

Error::Error(Exit exit, std::string problem, std::string advice)
    : exit(exit), problem(std::move(problem)), advice(std::move(advice)), message(this->problem)
{
    if (!this->advice.empty()) message += "; " + this->advice;
}

Error::Error(const Error &cause, std::string problem, std::string advice)
    : Error(cause.exit, std::move(problem), std::move(advice))
{
    status = cause.status;
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

size_t EditDistance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); j++) {
            const size_t changed = diagonal + (a[i] != b[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

}

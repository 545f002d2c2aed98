// Each call that an operation makes fails once, in every possible way: the documented status comes back, the
// steps before it are undone, outputs are as documented, and nothing leaks.
#include <algorithm>
#include <cerrno>
#include <map>

#include "tests/operations.h"

namespace {

constexpr VsStatus STATUSES[] = {STATUS_FAILURE,   STATUS_NOT_FOUND, STATUS_BUSY,     STATUS_EXISTS,
                                 STATUS_TOO_LARGE, STATUS_BAD_PARAM, STATUS_IO_ERROR, STATUS_NO_MEMORY,
                                 STATUS_NO_SPACE,  STATUS_READ_ONLY};

// Operations of the store that cannot fail.
bool NeverFails(std::string_view call)
{
    return call == "DVSZOR_DataFree" || call == "DVSData_Update" || call == "DVSData_Free" ||
           call == "DVSData_Data" || call == "DVS_ClassName" || call == "DVS_SwitchId";
}

// One operation, invoked repeatedly on a host in the same state.
class Victim {
public:
    explicit Victim(const Operation &operation) : operation(operation)
    {
        Restart();
        vshost_allocations();
        EXPECT_EQ(Invoke(operation), STATUS_OK);
        allocations = static_cast<unsigned>(vshost_allocations());
        calls = Calls();
        Restart();
    }

    // The calls of a kind: the name of each, and its place among those of its name, from 1.
    std::vector<std::pair<std::string, unsigned>> CallsOf(vshost_kind kind) const
    {
        std::vector<std::pair<std::string, unsigned>> found;
        std::map<std::string, unsigned> places;
        for (const Call &call : calls) {
            if (call.kind == kind) found.emplace_back(call.operation, ++places[call.operation]);
        }
        return found;
    }

    void Fail(vshost_kind kind, const char *call, unsigned nth, unsigned times, uint32_t outcome,
              const Exception &expected)
    {
        SCOPED_TRACE(operation.name + " (" + operation.calls + "): " + (call ? call : "call") + " " +
                     std::to_string(nth) + " fails with " + std::to_string(outcome));
        ASSERT_EQ(vshost_fail(kind, call, nth, times, outcome), 0);
        const VsStatus status = Invoke(operation);
        EXPECT_GE(vshost_failed(), 1u);
        vshost_clear();
        EXPECT_EQ(status, expected.result);
        ExpectNothingLeft();
        const bool changed = vshost_fingerprint() != before;
        if (status != STATUS_OK) {
            EXPECT_EQ(changed, expected.remains) << "the remainder is not as documented";
        }
        if (operation.name == "LibraryInit") LibraryInit();
        if (changed) Restart();
        cases++;
    }

    const Operation &operation;
    unsigned allocations = 0;
    static inline unsigned cases = 0;

private:
    void Restart()
    {
        StartPreparedHost(operation);
        before = vshost_fingerprint();
    }

    std::vector<Call> calls;
    uint64_t before = 0;
};

class Faults : public HostTest {
protected:
    void SetUp() override { Victim::cases = 0; }
    void TearDown() override
    {
        printf("%u cases\n", Victim::cases);
        HostTest::TearDown();
    }
};

TEST_F(Faults, OfTheStore)
{
    for (const Operation &operation : Operations()) {
        Victim victim(operation);
        for (const auto &[call, nth] : victim.CallsOf(VSHOST_STORE)) {
            if (NeverFails(call)) continue;
            for (const VsStatus status : STATUSES)
                victim.Fail(VSHOST_STORE, call.c_str(), nth, 1, status,
                            operation.Expect(call, nth, status, status));
        }
    }
}

TEST_F(Faults, OfStartUpLeaveNoAliasKnown)
{
    const Operation &start = Operations().front();
    for (const char *call : {"DVSState_ConfigReset", "DVSZOR_StateGet", "DVSState_ConfigDeserialize"}) {
        StartPreparedHost(start);
        vshost_fail(VSHOST_STORE, call, 1, 1, STATUS_IO_ERROR);
        char switchId[SWITCH_ID_SIZE];
        EXPECT_EQ(Invoke(start), STATUS_OK);
        EXPECT_STREQ(Calls(VSHOST_STORE).back().operation, call) << "continued after the failure";
        // A cache that was not emptied is unchanged.
        const bool emptied = std::string_view(call) != "DVSState_ConfigReset";
        EXPECT_EQ(DVSAliasToSwitchId(LAB, switchId), emptied ? STATUS_NOT_FOUND : STATUS_OK) << call;
        LibraryInit();
        EXPECT_EQ(DVSAliasToSwitchId(LAB, switchId), STATUS_OK) << call;
        Victim::cases++;
    }
}

TEST_F(Faults, OfAllocations)
{
    for (const Operation &operation : Operations()) {
        Victim victim(operation);
        for (unsigned nth = 1; nth <= victim.allocations; nth++) {
            for (const unsigned times : {1u, 0u})
                victim.Fail(VSHOST_ALLOCATION, nullptr, nth, times, 0,
                            operation.Expect("allocation", nth, 0, STATUS_NO_MEMORY));
        }
    }
}

TEST_F(Faults, OfCommands)
{
    for (const Operation &operation : Operations()) {
        for (const int inProcess : {1, 0}) {
            Victim victim(operation);
            for (const auto &[call, nth] : victim.CallsOf(VSHOST_SHELL)) {
                for (const uint32_t outcome : {1u, VSHOST_SHELL_KILLED, VSHOST_SHELL_NOT_STARTED}) {
                    vshost_shell_in_process(inProcess);
                    victim.Fail(VSHOST_SHELL, call.c_str(), nth, 1, outcome,
                                operation.Expect(call, nth, outcome, STATUS_FAILURE));
                }
            }
        }
    }
}

// The status of each errno, less 0x0BAD0000; every other errno gives STATUS_FAILURE.
constexpr struct {
    int error;
    uint32_t code;
} TRANSLATIONS[] = {
    {EPERM, 0x5B},        {ENOENT, 0x03},       {ESRCH, 0x62},       {EINTR, 0x32},
    {EIO, 0x08},          {ENXIO, 0x11},        {E2BIG, 0xB4},       {ENOEXEC, 0x9B},
    {EBADF, 0x0E},        {ECHILD, 0x61},       {EAGAIN, 0x02},      {ENOMEM, 0x14},
    {EACCES, 0x5A},       {EFAULT, 0x13},       {EBUSY, 0x04},       {EEXIST, 0x05},
    {EXDEV, 0x64},        {ENODEV, 0x0F},       {ENOTDIR, 0x54},     {EISDIR, 0x55},
    {EINVAL, 0x01},       {ENFILE, 0x19},       {EMFILE, 0x18},      {ENOTTY, 0x86},
    {ETXTBSY, 0x10D},     {EFBIG, 0x06},        {ENOSPC, 0x1A},      {ESPIPE, 0x66},
    {EROFS, 0x22},        {EPIPE, 0x53},        {ERANGE, 0x5D},      {EDEADLK, 0xA9},
    {ENAMETOOLONG, 0x0D}, {ENOLCK, 0xE7},       {ENOSYS, 0x20},      {ENOTEMPTY, 0x56},
    {ELOOP, 0x63},        {EOVERFLOW, 0x113},   {EUSERS, 0xA7},      {ENOTSOCK, 0x65},
    {EDESTADDRREQ, 0xFD}, {EMSGSIZE, 0x129},    {EPROTOTYPE, 0x144}, {EPROTONOSUPPORT, 0x104},
    {EOPNOTSUPP, 0x3C},   {EAFNOSUPPORT, 0x67}, {EADDRINUSE, 0x24},  {EADDRNOTAVAIL, 0xFC},
    {ENETDOWN, 0x47},     {ENETUNREACH, 0x48},  {ENETRESET, 0x49},   {ECONNABORTED, 0x4A},
    {ECONNRESET, 0x4B},   {ENOBUFS, 0x125},     {EISCONN, 0x68},     {ENOTCONN, 0x2E},
    {ESHUTDOWN, 0x4D},    {ETOOMANYREFS, 0x4E}, {ETIMEDOUT, 0x21},   {ECONNREFUSED, 0x4F},
    {EHOSTDOWN, 0x50},    {EHOSTUNREACH, 0x51}, {EALREADY, 0xDA},    {EINPROGRESS, 0x88},
    {ESTALE, 0x147},      {ECANCELED, 0x38},
};

VsStatus Translate(int error)
{
    const auto found = std::find_if(std::begin(TRANSLATIONS), std::end(TRANSLATIONS),
                                    [error](const auto &row) { return row.error == error; });
    return 0x0BAD0000 + (found == std::end(TRANSLATIONS) ? 1 : found->code);
}

TEST_F(Faults, OfRequests)
{
    constexpr int LAST_ERROR = 133;
    for (const Operation &operation : Operations()) {
        Victim victim(operation);
        const size_t requests = victim.CallsOf(VSHOST_DRIVER).size();
        for (unsigned nth = 1; nth <= requests; nth++) {
            for (int error = 1; error <= LAST_ERROR; error++) {
                const auto failing = static_cast<uint32_t>(error);
                for (const vshost_kind kind : {VSHOST_OPEN, VSHOST_DRIVER})
                    victim.Fail(kind, nullptr, nth, 1, failing,
                                operation.Expect("request", nth, failing, Translate(error)));
            }
        }
    }
}

}

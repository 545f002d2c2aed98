// `vsctl` as a child process.
#include "fleet/agent/vsctl.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vsfleet {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int TICK = 500, BRIEF = 5;      // ms
constexpr std::chrono::seconds GRACE{10}; // for undoing what was begun

// What a child writes to one of its streams.
struct Stream {
    Stream()
    {
        if (pipe2(ends, O_CLOEXEC)) throw std::runtime_error("can't make a pipe");
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    ~Stream()
    {
        for (int end : ends) {
            if (end >= 0) close(end);
        }
    }
    void CloseWriter() { close(std::exchange(ends[1], -1)); }
    // False: the stream has ended.
    bool Read()
    {
        char bytes[4096];
        const ssize_t length = read(ends[0], bytes, sizeof(bytes));
        if (length > 0) text.append(bytes, static_cast<size_t>(length));
        return length > 0 || (length < 0 && errno == EINTR);
    }

    int ends[2];
    std::string text;
};

// Between fork and exec: allocates nothing, because other threads may have held locks.
[[noreturn]] void Execute(char *const *arguments, const Stream &output, const Stream &errors, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127); // it died before
    // A terminal's signals reach the agent alone.
    setpgid(0, 0);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output.ends[1], STDOUT_FILENO);
    dup2(errors.ends[1], STDERR_FILENO);
    execvp(arguments[0], arguments);
    dprintf(STDERR_FILENO, "can't run %s: %s", arguments[0], strerror(errno));
    _exit(127);
}

// Tells a child whose time is over to stop, and kills it when it doesn't: it, and what it has started.
class Limit {
public:
    Limit(pid_t child, std::chrono::seconds time) : child(child), end(Clock::now() + time) {}
    void Enforce()
    {
        if (Clock::now() < end) return;
        kill(-child, isOver ? SIGKILL : SIGTERM);
        isOver = true;
        end = Clock::now() + GRACE;
    }
    bool IsOver() const { return isOver; }

private:
    pid_t child;
    Clock::time_point end;
    bool isOver = false;
};

// Waits for the child; a child of its own that has kept the streams open isn't waited for.
int Await(pid_t child, Stream &output, Stream &errors, const std::function<void()> &tick)
{
    pollfd streams[] = {{output.ends[0], POLLIN, 0}, {errors.ends[0], POLLIN, 0}};
    int status = 0;
    bool isRunning = true;
    for (;;) {
        const bool hasEnded = streams[0].fd < 0 && streams[1].fd < 0;
        const int ready = poll(streams, 2, !isRunning ? 0 : hasEnded ? BRIEF : TICK);
        if (ready > 0 && streams[0].revents && !output.Read()) streams[0].fd = -1;
        if (ready > 0 && streams[1].revents && !errors.Read()) streams[1].fd = -1;
        if (!isRunning && ready <= 0) return status;
        if (!isRunning) continue;
        isRunning = waitpid(child, &status, WNOHANG) != child;
        if (isRunning) tick();
    }
}

std::string ProblemOf(const std::string &text)
{
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_object() && json.contains("error")) {
        const std::string problem = json["error"].value("problem", ""),
                          advice = json["error"].value("advice", "");
        return advice.empty() ? problem : problem + "; " + advice;
    }
    return text.substr(0, text.find_last_not_of(" \n") + 1);
}

}

VsctlAnswer Vsctl::Run(std::vector<std::string> words, std::chrono::seconds time)
{
    words.insert(words.begin(), program);
    words.push_back("--json");
    Stream output, errors;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const pid_t parent = getpid(), child = fork();
    if (child < 0) throw std::runtime_error(fmt::format("can't start {}: {}", program, strerror(errno)));
    if (child == 0) Execute(arguments.data(), output, errors, parent);
    output.CloseWriter();
    errors.CloseWriter();
    Limit limit(child, time);
    const int status = Await(child, output, errors, [&] {
        limit.Enforce();
        tick();
    });

    VsctlAnswer answer;
    if (WIFEXITED(status)) answer.exit = static_cast<Exit>(WEXITSTATUS(status));
    const Json json = Json::parse(output.text, nullptr, false);
    if (json.is_object()) answer.rows = json.value("result", Json::array());
    if (answer.exit != Exit::DONE && answer.exit != Exit::PENDING) {
        answer.problem = ProblemOf(errors.text);
        if (limit.IsOver() && answer.exit != Exit::PARTLY_UNDONE) {
            answer.exit = Exit::TIMED_OUT;
            answer.problem = fmt::format("{} took longer than {} s, and was ended", program, time.count());
        }
        if (answer.problem.empty())
            answer.problem =
                WIFSIGNALED(status)
                    ? fmt::format("{} was ended by a signal ({})", program, strsignal(WTERMSIG(status)))
                    : fmt::format("{} failed with exit code {}", program, WEXITSTATUS(status));
    }
    return answer;
}

}

#include "fleet/command/plan_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fleet/command/output.h"

namespace vsfleet {

namespace {

struct Run {
    std::string output, errors;
    int exitCode = 0;
};

// Runs a command without a shell until it ends.
Run RunCommand(std::vector<std::string> words)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) throw Error(Exit::FAILURE, strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    pid_t process = 0;
    const int failure = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    Run run;
    pollfd ends[] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *texts[] = {&run.output, &run.errors};
    for (int open = failure ? 0 : 2; open > 0;) {
        poll(ends, 2, -1);
        for (int i = 0; i < 2; i++) {
            if (ends[i].fd < 0 || !ends[i].revents) continue;
            char bytes[65536];
            const ssize_t count = read(ends[i].fd, bytes, sizeof(bytes));
            if (count > 0) {
                texts[i]->append(bytes, static_cast<size_t>(count));
            } else {
                ends[i].fd = -1;
                open--;
            }
        }
    }
    close(out[0]);
    close(err[0]);
    if (failure)
        throw Error(Exit::FAILURE, fmt::format("can't run {}: {}", words[0], strerror(failure)),
                    "set `vsctl` in the configuration file");
    int status = 0;
    waitpid(process, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : static_cast<int>(Exit::FAILURE);
    return run;
}

}

std::string ReadPlanFile(const std::string &vsctl, const std::string &file)
{
    Run run = RunCommand({vsctl, "plan", file, "--check", "--json"});
    if (run.exitCode) {
        const Json details = Json::parse(run.errors, nullptr, false);
        const Json error = details.is_object() ? details.value("error", Json::object()) : Json::object();
        throw Error(static_cast<Exit>(run.exitCode), error.value("problem", run.errors),
                    error.value("advice", ""));
    }
    while (run.output.ends_with('\n'))
        run.output.pop_back();
    if (!Json::accept(run.output)) throw Error(Exit::FAILURE, fmt::format("{} printed no plan file", vsctl));
    return run.output;
}

}

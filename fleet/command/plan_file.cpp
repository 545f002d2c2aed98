#include "fleet/command/plan_file.h"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fleet/command/output.h"

namespace vsfleet {

namespace {

// Runs a command without a shell until it ends. Its exit code.
int RunCommand(std::vector<std::string> words, const std::string &output, const std::string &errors)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, output.c_str(), O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, errors.c_str(), O_WRONLY, 0);
    pid_t process = 0;
    const int failure = posix_spawnp(&process, arguments[0], &files, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (failure)
        throw Error(Exit::FAILURE, fmt::format("can't run {}: {}", words[0], strerror(failure)),
                    "set `vsctl` in the configuration file");
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : static_cast<int>(Exit::FAILURE);
}

}

std::string ReadPlanFile(const std::string &vsctl, const std::string &file)
{
    const TemporaryFile output("", ".json"), errors("", ".json");
    const int exit = RunCommand({vsctl, "plan", file, "--check", "--json"}, output.path, errors.path);
    if (exit) {
        const std::string text = ReadFile(errors.path);
        const Json details = Json::parse(text, nullptr, false);
        const Json error = details.is_object() ? details.value("error", Json::object()) : Json::object();
        throw Error(static_cast<Exit>(exit), error.value("problem", text), error.value("advice", ""));
    }
    std::string text = ReadFile(output.path);
    while (text.ends_with('\n'))
        text.pop_back();
    if (!Json::accept(text)) throw Error(Exit::FAILURE, fmt::format("{} printed no plan file", vsctl));
    return text;
}

}

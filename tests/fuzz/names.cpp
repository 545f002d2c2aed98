// Names in shell commands: the shell would run one command with exactly the intended words.
#include <vector>

#include "tests/fuzz/host.h"

namespace {

std::vector<std::string> commands;

// The words of a command in plain text, single and double quotes; anything else that a shell would act on
// must stand in quotes.
std::vector<std::string> Words(const std::string &command)
{
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    for (size_t i = 0; i < command.size(); i++) {
        const char character = command[i];
        if (character == '\'' || character == '"') {
            const size_t end = command.find(character, i + 1);
            Require(end != std::string::npos);
            word += command.substr(i + 1, end - i - 1);
            i = end;
            inWord = true;
        } else if (character == '\\') {
            word += command.at(++i);
            inWord = true;
        } else if (character == ' ') {
            if (inWord) words.push_back(word);
            word.clear();
            inWord = false;
        } else {
            Require(isalnum(static_cast<unsigned char>(character)) || strchr("._-:@+=,%/>", character));
            word += character;
            inWord = true;
        }
    }
    if (inWord) words.push_back(word);
    return words;
}

}

extern "C" int system(const char *command)
{
    commands.push_back(command);
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string name = Input{data, size}.Text();
    commands.clear();
    Require(VSDVS_CreateVSwitch("unmade", nullptr, name.c_str(), 1, 0, 0, 0, 0) == STATUS_FAILURE);
    for (const std::string &command : commands) {
        if (command.size() == 255) continue; // cut, as a plain name may be
        const std::vector<std::string> words = Words(command);
        Require(words.size() == 8 && words[3] == "/net/create" && words[4] == name.c_str() &&
                words[5] == "128\n");
    }
    return 0;
}

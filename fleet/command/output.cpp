#include "fleet/command/output.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vsfleet {

Rows Readable(Rows rows)
{
    for (Rows &row : rows) {
        for (auto &[key, value] : row.items())
            if (value == "" || (value.is_structured() && value.empty())) value = nullptr;
    }
    return rows;
}

void Note(const std::string &text) { fmt::print(stderr, "vsfleet: {}\n", text); }

bool CanDraw()
{
    const char *terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) && terminal && strcmp(terminal, "dumb") != 0;
}

void LiveText::Show(const std::string &text)
{
    winsize size = {};
    const size_t height = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) || !size.ws_row ? 24 : size.ws_row;
    std::string shown = lines ? fmt::format("\x1b[{}A\x1b[J", lines) : "";
    lines = 0;
    for (size_t begin = 0; begin < text.size() && lines + 1 < height; lines++) {
        const size_t end = text.find('\n', begin) + 1;
        std::string line = text.substr(begin, end - begin - 1);
        // A line that the terminal would break spoils the count.
        const bool isCut = size.ws_col && TextWidth(line) > size.ws_col;
        while (size.ws_col && TextWidth(line) > size.ws_col)
            line.pop_back();
        if (isCut && line.find('\x1b') != std::string::npos) line += "\x1b[0m";
        shown += line + "\n";
        begin = end;
    }
    Print(shown);
}

}

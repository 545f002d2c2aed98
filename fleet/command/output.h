// What the commands print beside rows and errors.
#pragma once

#include "fleet/protocol/records.h"
#include "frontend/files.h"
#include "frontend/output.h"

namespace vsfleet {

using namespace frontend;
using Rows = frontend::Json;

// The rows as people read them: "-" stands for what is empty.
Rows Readable(Rows rows);
// On standard error.
void Note(const std::string &text);
// Whether a text can be drawn over itself on standard output.
bool CanDraw();

// A text that is drawn over itself on a terminal.
class LiveText {
public:
    void Show(const std::string &text);

private:
    size_t lines = 0;
};

}

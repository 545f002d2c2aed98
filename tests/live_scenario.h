// Tables of frames: a switch, events on it, and the frames that leave.
#pragma once

#include "tests/live_fixture.h"

namespace live_test {

// A switch and the events on it, line by line.
//
// A switch is "1 vlan=10; 2 trunk=0,5-7; 9 up; switch mtu=1000": ports by their numbers, with their policies.
// A line is "1 a>b 10 => 2 9:10/3 !VLAN": a frame from address a to b with tag 10 into port 1; it leaves by
// port 2 untagged and by port 9 with tag 10 of priority 3, and counts as dropped at port 1 ("2!VLAN": at port
// 2). Other lines change or check something: Scenario::Do() lists them.
struct Row {
    const char *name;
    const char *ports;
    std::vector<const char *> lines;
};

struct Table {
    const char *name;
    std::vector<Row> rows;
};

// The data path's expected treatment of frames.
const std::vector<Table> &FrameTables();
const std::vector<Table> &MulticastTables();

void Play(Medium &medium, const Row &row);

// The row sets the time or results of sending, or has frames that no interface of a test takes.
bool NeedsTestRun(const Row &row);

}

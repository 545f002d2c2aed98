// A clock that no step of the wall clock moves, and the boot that it counts from.
#pragma once

#include <string>

namespace vsctl {

// Seconds since the machine was started, sleep included.
double SecondsSinceBoot();
// Sleeps until then.
void SleepUntil(double secondsSinceBoot);
// Another one after each start of the machine.
std::string BootId();

}

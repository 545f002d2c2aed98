// A clock that no step of the wall clock moves, and the boot that it counts from.
#include "cli/base/clock.h"

#include <cmath>
#include <ctime>
#include <fstream>

namespace vsctl {

double SecondsSinceBoot()
{
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void SleepUntil(double secondsSinceBoot)
{
    timespec end{static_cast<time_t>(secondsSinceBoot), 0};
    end.tv_nsec = static_cast<long>((secondsSinceBoot - std::floor(secondsSinceBoot)) * 1e9);
    while (clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &end, nullptr) != 0) {
    }
}

std::string BootId()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

}

// The time limit of waiting, and the signals that stop the command. A signal ends the command at once. During
// a change it is remembered instead: the running call finishes, and the change is undone.
#pragma once

namespace vsctl {

void StartTimeLimit(double seconds, bool json);
// Starts the limit again, after an answer that the command waited for.
void RestartTimeLimit();
// From here on, the command waits only for its user.
void EndTimeLimit();
// Sleeps until so many seconds since boot. The limit does not count this time.
void RestUntil(double time);
// While an object of this class exists, a change is being made and has no time limit.
class ChangeScope {
public:
    ChangeScope();
    ~ChangeScope();
};
// Throws when a signal asks to stop.
void ThrowIfStopped();

}

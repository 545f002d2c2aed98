// The time limit of waiting, and the signals that ask the command to stop. Signals end the command at once;
// during a change they are only noted, so that the running call ends and what was done is undone.
#pragma once

namespace vsctl {

void StartTimeLimit(double seconds, bool json);
// Something that the command waited for has come: the limit counts anew.
void RestartTimeLimit();
// From here on the command waits for nobody but its user.
void EndTimeLimit();
// While one lives, the command is changing something, and there is no time limit.
class ChangeScope {
public:
    ChangeScope();
    ~ChangeScope();
};
// Throws when a signal asks to stop.
void ThrowIfStopped();

}

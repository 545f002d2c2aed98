// The time limit, and the signals that ask the command to stop. Between changes both end the command at
// once; during a change they are only noted, so that the running call ends and what was done is undone.
#ifndef CLI_LIMIT_H
#define CLI_LIMIT_H

namespace vsctl {

void StartTimeLimit(double seconds, bool json);
// From here on the command waits for nobody but its user.
void EndTimeLimit();
// While one lives, the command is changing something.
class ChangeScope {
public:
    ChangeScope();
    ~ChangeScope();
};
// Throws when a signal or the time limit asks to stop.
void ThrowIfStopped();

}
#endif

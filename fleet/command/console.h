// What all commands share: the configuration, the connection, and the fleet as it is now.
#pragma once

#include "fleet/command/output.h"
#include "fleet/protocol/config.h"
#include "fleet/rollout/fleet.h"

namespace vsfleet {

class Console {
public:
    Console(std::string command, const std::string &configFile, bool json);

    void ReadFleet();
    void PrintRows(const Rows &rows) const
    {
        frontend::PrintRows(command, json ? rows : Readable(rows), json);
    }
    // The record of an action of this user, now; it goes into the transaction of the action.
    Audit NewAudit(const std::string &action) const;
    // Made or refused as a whole. False: something that was read has changed meanwhile.
    bool Commit(Transaction &transaction, const Audit &audit);

    std::string command;
    bool json;
    Config config;
    Client client;
    Fleet fleet;
    int64_t revision = 0; // of the fleet
};

// user@host
std::string Author();
// Runs a command whose arguments are read, and prints what it throws. `json` is asked when it runs.
Action Guarded(std::string command, std::shared_ptr<bool> json, std::function<Exit(Console &)> run);

// Throws unless the text can be a part of a key. `what` reads like "a host's name".
void CheckName(const std::string &name, const std::string &what);
std::string Join(const Labels &labels);

}

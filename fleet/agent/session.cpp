// The claim and the reports of an agent.
#include "fleet/agent/session.h"

#include <fmt/format.h>
#include <fstream>
#include <unistd.h>

#include "fleet/protocol/certificates.h"

namespace vsfleet {

namespace {

std::string ReadWord(const char *path)
{
    std::string word;
    std::ifstream(path) >> word;
    return word;
}

Claim ThisMachine()
{
    char node[256] = "";
    gethostname(node, sizeof(node) - 1);
    Claim claim{ReadWord("/etc/machine-id"), ReadWord("/proc/sys/kernel/random/boot_id"), node,
                VSWITCHCTL_VERSION};
    if (claim.machine.empty())
        throw std::runtime_error("/etc/machine-id is missing; 'systemd-machine-id-setup' makes it");
    return claim;
}

ClaimRefused Refusal(const std::string &host, const Claim &holder, const Claim &self)
{
    if (holder.machine != self.machine)
        return ClaimRefused(
            fmt::format("{} is machine {} ({}), and this is machine {} ({}); give this one another "
                        "name, or 'vsfleet release {}' frees the name",
                        host, holder.machine, holder.node, self.machine, self.node, host));
    return ClaimRefused(
        fmt::format("{} has another agent, on a machine with the same machine id {} ({}, boot {}); end "
                    "one of them, or give this machine an id and a name of its own",
                    host, holder.machine, holder.node, holder.boot));
}

}

Session::Session(const Config &config, State &state)
    : config(config), state(state), client(config.endpoints, {state.memory.cluster, state.memory.revision}),
      self(ThisMachine())
{}

void Session::Begin()
{
    if (claim && !client.KeepAlive(state.memory.lease)) claim = 0;
    if (!claim) TakeClaim();
    std::ifstream certificate(config.endpoints.certificate);
    state.memory.status.certificate = EndOf({std::istreambuf_iterator<char>(certificate), {}});
    const auto entry = client.Get(keys::Status(config.host));
    status = entry ? entry->modified : 0;
    reported = entry ? entry->value : "";
}

// A claim is ours if it has the lease that we remember: also after a restart of the agent or of the machine.
void Session::TakeClaim()
{
    const std::string claimKey = keys::Claim(config.host), machineKey = keys::Machine(config.host);
    const auto machine = client.Get(machineKey), holder = client.Get(claimKey);
    if (machine) {
        const Claim owner = FromText<Claim>(machine->value);
        if (owner.machine != self.machine) throw Refusal(config.host, owner, self);
    }
    if (holder && holder->lease != state.memory.lease && holder->lease != state.memory.leaseBefore)
        throw Refusal(config.host, FromText<Claim>(holder->value), self);
    nextKeepAlive = Clock::now() + config.lease / 3;
    if (holder && machine && holder->value == ToText(self) && holder->lease == state.memory.lease &&
        client.KeepAlive(holder->lease)) {
        claim = holder->modified;
        return;
    }

    const int64_t lease = client.GrantLease(config.lease);
    Transaction transaction;
    transaction.IfModified(machineKey, machine ? machine->modified : 0)
        .IfModified(claimKey, holder ? holder->modified : 0)
        .Put(claimKey, ToText(self), lease);
    if (!machine) transaction.Put(machineKey, ToText(self));
    state.memory.leaseBefore = holder ? holder->lease : 0;
    state.memory.lease = lease;
    state.Save();
    const Outcome outcome = client.Commit(transaction);
    if (!outcome.isDone) throw ClaimLost("another agent claims the name at the same time");
    claim = outcome.revision;
    if (holder) client.RevokeLease(holder->lease);
}

void Session::Tick()
{
    if (!claim || Clock::now() < nextKeepAlive) return;
    nextKeepAlive = Clock::now() + config.lease / 3;
    if (client.KeepAlive(state.memory.lease)) return;
    claim = 0;
    throw ClaimLost("the lease of the claim has run out");
}

void Session::CheckClaim()
{
    const auto entry = client.Get(keys::Claim(config.host));
    if (entry && entry->modified == claim) return;
    claim = 0;
    throw ClaimLost("somebody has removed the claim");
}

// False: the target is another one.
bool Session::Commit(Transaction &transaction, int64_t target)
{
    transaction.IfModified(keys::Claim(config.host), claim);
    if (target) transaction.IfModified(keys::Target(config.host), target);
    const Outcome outcome = client.Commit(transaction);
    if (outcome.isDone) return true;
    if (target) {
        const auto entry = Target();
        if (!entry || entry->modified != target) return false;
    }
    claim = 0;
    throw ClaimLost("the claim or the status of this host was changed by somebody else");
}

void Session::Report(const Status &shown) { Report(shown, 0); }

bool Session::Report(const Status &shown, int64_t target)
{
    const std::string text = ToText(shown), key = keys::Status(config.host);
    if (text == reported && !target) return true;
    Transaction transaction;
    transaction.IfModified(key, status).Put(key, text);
    if (!Commit(transaction, target)) return false;
    status = client.Known().revision;
    reported = text;
    return true;
}

bool Session::ReportPlan(const std::string &rollout, const Plan &plan)
{
    Transaction transaction;
    transaction.Put(keys::Plan(config.host, rollout), ToText(plan));
    return Commit(transaction, plan.target);
}

std::string Session::Text(const DocumentRevision &document)
{
    std::string text = state.Text(document);
    if (!text.empty()) return text;
    const std::string name = fmt::format("revision {} of document '{}'", document.revision, document.name);
    const auto entry = client.Get(keys::Revision(document.name, document.revision));
    if (!entry) throw std::runtime_error(name + " is not in etcd");
    const StoredDocument stored = FromText<StoredDocument>(entry->value);
    if (stored.format > FORMAT)
        throw std::runtime_error(fmt::format("{} has format {}, and vsfleet {} of this host reads up to {}; "
                                             "install a later version",
                                             name, stored.format, VSWITCHCTL_VERSION, FORMAT));
    if (stored.sum != document.sum) throw std::runtime_error(name + " is another one than the target names");
    text = Restore(stored);
    state.Keep(document, text);
    return text;
}

bool Session::TakeAdoption()
{
    const auto entry = client.Get(keys::ADOPTED);
    const std::string id = entry ? FromText<Adoption>(entry->value).id : "";
    if (id.empty() || id == state.memory.adoption) return false;
    state.memory.adoption = id;
    state.Save();
    return true;
}

}

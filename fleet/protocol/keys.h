// Where everything is in etcd. Prefixes end in "/", so that host1 is not a prefix of host10.
#pragma once

#include <string>

namespace vsfleet::keys {

inline const std::string ROOT = "/vswitchctl/v1/";
inline const std::string DESIRED = ROOT + "desired/"; // NAME/head, NAME/REVISION
inline const std::string ROLLOUTS = ROOT + "rollout/";
inline const std::string HOSTS = ROOT + "hosts/";
inline const std::string LEADER = ROOT + "driver/leader";
inline const std::string AUDIT = ROOT + "audit/";
inline const std::string ADOPTED = ROOT + "fleet/adopted"; // read by agents, written by operators

// Of a document.
inline std::string Head(const std::string &name) { return DESIRED + name + "/head"; }
inline std::string Revision(const std::string &name, int64_t revision)
{
    return DESIRED + name + "/" + std::to_string(revision);
}

inline std::string Rollout(const std::string &id) { return ROLLOUTS + id; }

// Of a host. Who writes: operators the labels, the driver the target, the agent all others.
inline std::string Host(const std::string &host) { return HOSTS + host + "/"; }
inline std::string Labels(const std::string &host) { return Host(host) + "labels"; }
inline std::string Target(const std::string &host) { return Host(host) + "target"; }
inline std::string Claim(const std::string &host) { return Host(host) + "claim"; }
// Who the host is, for good: written by its first agent, removed by an operator.
inline std::string Machine(const std::string &host) { return Host(host) + "machine"; }
inline std::string Status(const std::string &host) { return Host(host) + "status"; }
inline std::string Plan(const std::string &host, const std::string &rollout)
{
    return Host(host) + "plan/" + rollout;
}

}

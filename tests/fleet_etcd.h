// etcd as the fleet meets it: one or three members on loopback, with TLS, in a directory that goes with them.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fleet/etcd/client.h"
#include "fleet/protocol/certificates.h"

class EtcdCluster {
public:
    // `more` are options of each member.
    explicit EtcdCluster(int members = 1, std::vector<std::string> more = {});
    EtcdCluster(const EtcdCluster &) = delete;
    EtcdCluster &operator=(const EtcdCluster &) = delete;
    ~EtcdCluster();

    // The members, as root of etcd's users unless another is named.
    vsfleet::Endpoints Endpoints(const std::string &user = "root");
    void Signal(int member, int signal); // SIGKILL: it is gone until Start
    void Start(int member);
    int Leader(); // which member leads
    // The state of a cluster of one member, and the same cluster in that state again.
    void BackUp();
    void Restore();
    // The client that comes with etcd, as root.
    int Control(const std::string &words);
    const vsfleet::Certificate &Authority() const { return authority; }
    pid_t Process(int member) const { return members[static_cast<size_t>(member)].process; }
    int Members() const { return static_cast<int>(members.size()); }

private:
    struct Member {
        int clientPort = 0, peerPort = 0;
        pid_t process = -1;
    };
    void Write(const std::string &name, const std::string &text);
    void AwaitAnswer();

    std::string directory;
    std::vector<std::string> more;
    vsfleet::Certificate authority;
    std::vector<Member> members;
    std::string peers; // the list of members
    std::mutex mutex;
    std::set<std::string> users; // that have a certificate
};

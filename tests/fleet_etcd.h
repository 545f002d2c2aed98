// etcd as the fleet meets it: one or three members on loopback, with TLS, in a directory that goes with them.
#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fleet/etcd/client.h"
#include "fleet/protocol/certificates.h"

// Runs a command of the shell; its output is added to the file. It doesn't outlive a test that crashes.
pid_t Spawn(const std::string &command, const std::string &log);

// How a command of the shell ends, and what it prints, errors too.
struct Said {
    int exitCode = 0;
    std::string text;
    nlohmann::json Result() const { return nlohmann::json::parse(text.substr(0, text.find('\n')))["result"]; }
};
Said RunCommand(const std::string &command);

std::string ReadText(const std::string &path);

// What vsfleet's configuration says of etcd.
std::string ConfigOf(const vsfleet::Endpoints &endpoints);

class EtcdCluster {
public:
    // With more options of each member.
    explicit EtcdCluster(int members = 1, const std::string &options = "");
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
    std::string more;
    vsfleet::Certificate authority;
    std::vector<Member> members;
    std::string peers; // the list of members
    std::mutex mutex;
    std::set<std::string> users; // that have a certificate
};

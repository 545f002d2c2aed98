// A client of etcd: reads and compare-and-swap transactions on one member at a time.
//
// All reads are linearizable. After a call that throws UNREACHABLE a write may have been carried out or not,
// or may still be: the caller reads the state again and decides anew.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <grpcpp/channel.h>

#include "etcd.pb.h"

namespace vsfleet {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// How long a member may take to answer. A member without a quorum answers late or never.
inline constexpr Milliseconds ANSWER_TIME{3000};

struct EtcdError : std::runtime_error {
    enum class Kind {
        UNREACHABLE, // no member answers, or none that has a quorum
        DENIED,      // the user or certificate may not do this
        NO_SPACE,    // etcd's database is full: it takes no writes until an operator has made room
        COMPACTED,   // etcd has compacted the revision
        RESTORED,    // another cluster, or the same one with an older state: see Identity
        FAILED
    };
    EtcdError(Kind kind, const std::string &problem) : std::runtime_error(problem), kind(kind) {}
    Kind kind;
};

// Where etcd is, and the files of the certificate with which we show who we are.
struct Endpoints {
    std::vector<std::string> addresses; // host:port
    std::string authority;              // PEM files
    std::string certificate;
    std::string key;
};

// What an etcd is known by. A restored backup has another cluster id, or revisions that are gone again.
struct Identity {
    uint64_t cluster = 0; // 0: not known yet
    int64_t revision = 0;
};

struct Entry {
    std::string key;
    std::string value;
    int64_t created = 0;  // revision
    int64_t modified = 0; // revision
    int64_t lease = 0;
};

// What a range held at one revision, by key.
struct Snapshot {
    int64_t revision = 0;
    std::vector<Entry> entries;
};

// The end of the range of all keys with this prefix.
std::string PrefixEnd(std::string prefix);

// Changes that are made together if all comparisons hold. etcd takes 128 operations.
class Transaction {
public:
    // The key has this revision of its last change; 0: it doesn't exist.
    Transaction &IfModified(const std::string &key, int64_t revision);
    // The key has been created at this revision, and exists since.
    Transaction &IfCreated(const std::string &key, int64_t revision);
    Transaction &Put(const std::string &key, const std::string &value, int64_t lease = 0);
    Transaction &Delete(const std::string &key);
    // All keys from the first one on, without the last.
    Transaction &DeleteRange(const std::string &first, const std::string &last);
    Transaction &DeletePrefix(const std::string &prefix) { return DeleteRange(prefix, PrefixEnd(prefix)); }

    int Size() const { return request.success_size(); }
    const etcdserverpb::TxnRequest &Request() const { return request; }

private:
    etcdserverpb::Compare &Compare(const std::string &key);

    etcdserverpb::TxnRequest request;
};

// What became of a transaction: whether it was carried out, and etcd's revision then.
struct Outcome {
    bool isDone = false;
    int64_t revision = 0;
};

class Client {
public:
    explicit Client(Endpoints endpoints, Identity known = {});

    // Null for a key that doesn't exist.
    std::unique_ptr<Entry> Get(const std::string &key);
    Snapshot GetPrefix(const std::string &prefix);
    Outcome Commit(const Transaction &transaction);
    void Compact(int64_t revision);
    // Whether the member that answers leads the others.
    bool IsLeader();

    int64_t GrantLease(std::chrono::seconds timeToLive);
    // False: the lease is gone.
    bool KeepAlive(int64_t lease);
    void RevokeLease(int64_t lease);

    // Users and roles, which exist once the call returns. Roles have the permission for a key, or for all
    // with a prefix that ends in "/".
    void AddRole(const std::string &role);
    void Permit(const std::string &role, const std::string &key, bool mayWrite);
    void AddUser(const std::string &user, const std::string &role);
    void RemoveUser(const std::string &user);
    void RemoveRole(const std::string &role);
    void EnableAuth();

    // The next call opens a new connection. A connection that is only half alive shows itself by that.
    void Reconnect() { channel.reset(); }
    std::shared_ptr<grpc::Channel> Channel();

    // The state that this client has seen, to be known again after a restart.
    const Identity &Known() const { return known; }
    // Throws RESTORED if the answer is not of the etcd that is known, or of a state before the known one.
    void Observe(const etcdserverpb::ResponseHeader &header);
    // Takes the present state for the known one, whatever was known. Reads the key, which must be allowed.
    void Adopt(const std::string &key = "/");

private:
    template<class Stub, class Call, class Answer> void Unary(Call call, Answer *answer);
    template<class Request, class Answer, class Call> void ChangeAuth(const Request &request, Call call);
    std::shared_ptr<grpc::Channel> Connect(const std::string &address);

    Endpoints endpoints;
    size_t current = 0; // in endpoints.addresses
    std::shared_ptr<grpc::Channel> channel;
    Identity known;
};

// Throws what a call's status says; nothing for success.
void ThrowIfFailed(const grpc::Status &status);

}

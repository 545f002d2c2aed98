// A client of etcd: connections, reads, transactions, leases, users.
#include "fleet/etcd/client.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include "etcd.grpc.pb.h"

namespace vsfleet {

namespace {

using namespace etcdserverpb;

constexpr Milliseconds CONNECTION_TIME{1500};
constexpr int64_t PAGE = 1000; // entries in an answer

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) throw EtcdError(EtcdError::Kind::DENIED, "can't read " + path);
    return text.str();
}

Entry EntryOf(const KeyValue &kv)
{
    return {kv.key(), kv.value(), kv.create_revision(), kv.mod_revision(), kv.lease()};
}

EtcdError::Kind KindOf(const grpc::Status &status)
{
    switch (status.error_code()) {
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
    case grpc::StatusCode::CANCELLED:
        return EtcdError::Kind::UNREACHABLE;
    case grpc::StatusCode::PERMISSION_DENIED:
    case grpc::StatusCode::UNAUTHENTICATED:
    case grpc::StatusCode::INVALID_ARGUMENT: // "user name is empty": a certificate without a name
        return EtcdError::Kind::DENIED;
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
        return status.error_message().find("space") != std::string::npos ? EtcdError::Kind::NO_SPACE
                                                                         : EtcdError::Kind::FAILED;
    case grpc::StatusCode::UNKNOWN: // "context deadline exceeded": a member that has waited in vain for
                                    // others
        return status.error_message().starts_with("context ") ? EtcdError::Kind::UNREACHABLE
                                                              : EtcdError::Kind::FAILED;
    case grpc::StatusCode::OUT_OF_RANGE:
        return EtcdError::Kind::COMPACTED;
    default:
        return EtcdError::Kind::FAILED;
    }
}

}

void ThrowIfFailed(const grpc::Status &status)
{
    if (!status.ok()) throw EtcdError(KindOf(status), "etcd: " + status.error_message());
}

std::string PrefixEnd(std::string prefix)
{
    prefix.back() = static_cast<char>(prefix.back() + 1); // prefixes end in "/"
    return prefix;
}

// ---- Transactions ----

Compare &Transaction::Compare(const std::string &key)
{
    etcdserverpb::Compare &compare = *request.add_compare();
    compare.set_key(key);
    return compare;
}

Transaction &Transaction::IfModified(const std::string &key, int64_t revision)
{
    etcdserverpb::Compare &compare = Compare(key);
    compare.set_target(Compare::MOD);
    compare.set_mod_revision(revision);
    return *this;
}

Transaction &Transaction::IfCreated(const std::string &key, int64_t revision)
{
    etcdserverpb::Compare &compare = Compare(key);
    compare.set_target(Compare::CREATE);
    compare.set_create_revision(revision);
    return *this;
}

Transaction &Transaction::Put(const std::string &key, const std::string &value, int64_t lease)
{
    PutRequest &put = *request.add_success()->mutable_request_put();
    put.set_key(key);
    put.set_value(value);
    put.set_lease(lease);
    return *this;
}

Transaction &Transaction::Delete(const std::string &key)
{
    request.add_success()->mutable_request_delete_range()->set_key(key);
    return *this;
}

Transaction &Transaction::DeleteRange(const std::string &first, const std::string &last)
{
    DeleteRangeRequest &range = *request.add_success()->mutable_request_delete_range();
    range.set_key(first);
    range.set_range_end(last);
    return *this;
}

// ---- Connections ----

Client::Client(Endpoints given, Identity known) : endpoints(std::move(given)), known(known) {}

std::shared_ptr<grpc::Channel> Client::Connect(const std::string &address)
{
    grpc::ChannelArguments arguments;
    // Connections are not shared: a new channel is a new connection.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
    arguments.SetMaxReceiveMessageSize(-1);
    // Read each time, so that a renewed certificate is used.
    const grpc::SslCredentialsOptions files = {ReadFile(endpoints.authority), ReadFile(endpoints.key),
                                               ReadFile(endpoints.certificate)};
    return grpc::CreateCustomChannel(address, grpc::SslCredentials(files), arguments);
}

// The present connection, or a new one to the first member that takes it.
std::shared_ptr<grpc::Channel> Client::Channel()
{
    if (channel && channel->GetState(false) == GRPC_CHANNEL_READY) return channel;
    for (size_t attempt = 0; attempt < endpoints.addresses.size(); attempt++) {
        channel = Connect(endpoints.addresses[current]);
        if (channel->WaitForConnected(std::chrono::system_clock::now() + CONNECTION_TIME)) return channel;
        current = (current + 1) % endpoints.addresses.size();
    }
    channel.reset();
    throw EtcdError(EtcdError::Kind::UNREACHABLE, "no member of etcd takes a connection");
}

template<class Stub, class Call, class Answer> void Client::Unary(Call call, Answer *answer)
{
    Stub stub(Channel());
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + ANSWER_TIME);
    const grpc::Status status = call(stub, &context, answer);
    if (!status.ok() && KindOf(status) == EtcdError::Kind::UNREACHABLE) {
        // Another member may have what this one lacks.
        channel.reset();
        current = (current + 1) % endpoints.addresses.size();
    }
    ThrowIfFailed(status);
}

void Client::Observe(const ResponseHeader &header)
{
    if (known.cluster && header.cluster_id() != known.cluster)
        throw EtcdError(EtcdError::Kind::RESTORED, "this is another etcd cluster than before");
    if (header.revision() < known.revision)
        throw EtcdError(EtcdError::Kind::RESTORED, "etcd has lost revisions: it was restored from a backup");
    known = {header.cluster_id(), header.revision()};
}

void Client::Adopt(const std::string &key)
{
    known = {};
    Get(key); // whatever it holds, its header says where etcd is
}

// ---- Keys ----

std::unique_ptr<Entry> Client::Get(const std::string &key)
{
    RangeRequest request;
    request.set_key(key);
    RangeResponse answer;
    Unary<KV::Stub>([&](auto &stub, auto *context, auto *out) { return stub.Range(context, request, out); },
                    &answer);
    Observe(answer.header());
    return answer.kvs_size() ? std::make_unique<Entry>(EntryOf(answer.kvs(0))) : nullptr;
}

Snapshot Client::GetPrefix(const std::string &prefix)
{
    Snapshot snapshot;
    RangeRequest request;
    request.set_key(prefix);
    request.set_range_end(PrefixEnd(prefix));
    request.set_limit(PAGE);
    for (;;) {
        RangeResponse answer;
        Unary<KV::Stub>(
            [&](auto &stub, auto *context, auto *out) { return stub.Range(context, request, out); }, &answer);
        Observe(answer.header());
        for (const KeyValue &kv : answer.kvs())
            snapshot.entries.push_back(EntryOf(kv));
        if (!snapshot.revision) snapshot.revision = answer.header().revision();
        if (!answer.more()) return snapshot;
        // Further pages show the same moment.
        request.set_revision(snapshot.revision);
        request.set_key(snapshot.entries.back().key + '\0');
    }
}

Outcome Client::Commit(const Transaction &transaction)
{
    TxnResponse answer;
    Unary<KV::Stub>(
        [&](auto &stub, auto *context, auto *out) { return stub.Txn(context, transaction.Request(), out); },
        &answer);
    Observe(answer.header());
    return {answer.succeeded(), answer.header().revision()};
}

void Client::Compact(int64_t revision)
{
    CompactionRequest request;
    request.set_revision(revision);
    CompactionResponse answer;
    Unary<KV::Stub>([&](auto &stub, auto *context, auto *out) { return stub.Compact(context, request, out); },
                    &answer);
}

bool Client::IsLeader()
{
    StatusResponse answer;
    Unary<Maintenance::Stub>(
        [](auto &stub, auto *context, auto *out) { return stub.Status(context, {}, out); }, &answer);
    return answer.leader() == answer.header().member_id();
}

// ---- Leases ----

int64_t Client::GrantLease(std::chrono::seconds timeToLive)
{
    LeaseGrantRequest request;
    request.set_ttl(timeToLive.count());
    LeaseGrantResponse answer;
    Unary<Lease::Stub>(
        [&](auto &stub, auto *context, auto *out) { return stub.LeaseGrant(context, request, out); },
        &answer);
    return answer.id();
}

bool Client::KeepAlive(int64_t lease)
{
    LeaseKeepAliveRequest request;
    request.set_id(lease);
    LeaseKeepAliveResponse answer;
    Unary<Lease::Stub>(
        [&](auto &stub, auto *context, auto *out) {
            auto stream = stub.LeaseKeepAlive(context);
            const bool isAnswered = stream->Write(request) && stream->Read(out);
            context->TryCancel(); // one answer is enough
            const grpc::Status end = stream->Finish();
            if (isAnswered) return grpc::Status::OK;
            return end.ok() ? grpc::Status(grpc::StatusCode::UNAVAILABLE, "no answer to a lease") : end;
        },
        &answer);
    return answer.ttl() > 0;
}

void Client::RevokeLease(int64_t lease)
{
    LeaseRevokeRequest request;
    request.set_id(lease);
    LeaseRevokeResponse answer;
    Unary<Lease::Stub>(
        [&](auto &stub, auto *context, auto *out) { return stub.LeaseRevoke(context, request, out); },
        &answer);
}

// ---- Users and roles ----

template<class Request, class Answer, class Call> void Client::ChangeAuth(const Request &request, Call call)
{
    Answer answer;
    try {
        Unary<Auth::Stub>(
            [&](auto &stub, auto *context, auto *out) { return (stub.*call)(context, request, out); },
            &answer);
    } catch (const EtcdError &error) {
        const std::string problem = error.what();
        if (problem.find("already exists") == std::string::npos &&
            problem.find("not found") == std::string::npos)
            throw;
    }
}

void Client::AddRole(const std::string &role)
{
    AuthRoleAddRequest request;
    request.set_name(role);
    ChangeAuth<AuthRoleAddRequest, AuthRoleAddResponse>(request, &Auth::Stub::RoleAdd);
}

void Client::Permit(const std::string &role, const std::string &key, bool mayWrite)
{
    AuthRoleGrantPermissionRequest request;
    request.set_name(role);
    request.mutable_perm()->set_permtype(mayWrite ? Permission::READWRITE : Permission::READ);
    request.mutable_perm()->set_key(key);
    if (key.back() == '/') request.mutable_perm()->set_range_end(PrefixEnd(key));
    ChangeAuth<AuthRoleGrantPermissionRequest, AuthRoleGrantPermissionResponse>(
        request, &Auth::Stub::RoleGrantPermission);
}

void Client::AddUser(const std::string &user, const std::string &role)
{
    AuthUserAddRequest add;
    add.set_name(user);
    add.mutable_options()->set_no_password(true); // its certificate says who it is
    ChangeAuth<AuthUserAddRequest, AuthUserAddResponse>(add, &Auth::Stub::UserAdd);
    AuthUserGrantRoleRequest grant;
    grant.set_user(user);
    grant.set_role(role);
    ChangeAuth<AuthUserGrantRoleRequest, AuthUserGrantRoleResponse>(grant, &Auth::Stub::UserGrantRole);
}

void Client::RemoveUser(const std::string &user)
{
    AuthUserDeleteRequest request;
    request.set_name(user);
    ChangeAuth<AuthUserDeleteRequest, AuthUserDeleteResponse>(request, &Auth::Stub::UserDelete);
}

void Client::RemoveRole(const std::string &role)
{
    AuthRoleDeleteRequest request;
    request.set_role(role);
    ChangeAuth<AuthRoleDeleteRequest, AuthRoleDeleteResponse>(request, &Auth::Stub::RoleDelete);
}

void Client::EnableAuth() { ChangeAuth<AuthEnableRequest, AuthEnableResponse>({}, &Auth::Stub::AuthEnable); }

}

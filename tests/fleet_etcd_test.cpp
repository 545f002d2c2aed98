// The client of etcd on real members: what is read and written, and how soon a member that is stopped, cut
// off or without a quorum is noticed.
#include "tests/fleet_etcd.h"

#include <csignal>
#include <gtest/gtest.h>
#include <thread>

#include "fleet/etcd/watch.h"

namespace {

using namespace vsfleet;
using Kind = EtcdError::Kind;

// What a call throws.
template<class Call> Kind KindOf(Call call)
{
    try {
        call();
    } catch (const EtcdError &error) {
        return error.kind;
    }
    ADD_FAILURE() << "nothing was thrown";
    return Kind::FAILED;
}

// Repeats a call until a member answers.
template<class Call> auto Eventually(Call call)
{
    for (;;) {
        try {
            return call();
        } catch (const EtcdError &error) {
            if (error.kind != Kind::UNREACHABLE) throw;
            std::this_thread::sleep_for(Milliseconds(20));
        }
    }
}

TEST(Etcd, ComparesAndSwaps)
{
    EtcdCluster etcd;
    Client client(etcd.Endpoints());
    EXPECT_EQ(client.Get("/a"), nullptr);
    EXPECT_TRUE(client.Commit(Transaction().IfModified("/a", 0).Put("/a", "1").Put("/b/x", "2")).isDone);
    EXPECT_FALSE(client.Commit(Transaction().IfModified("/a", 0).Put("/a", "3").Delete("/b/x")).isDone);
    const auto entry = client.Get("/a");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->value, "1");
    const Outcome outcome = client.Commit(Transaction().IfModified("/a", entry->modified).Put("/a", "4"));
    EXPECT_TRUE(outcome.isDone);
    EXPECT_FALSE(client.Commit(Transaction().IfCreated("/a", outcome.revision).Put("/a", "5")).isDone);
    EXPECT_TRUE(client.Commit(Transaction().IfCreated("/a", entry->created).DeletePrefix("/b/")).isDone);
    EXPECT_EQ(client.Get("/b/x"), nullptr);
    EXPECT_EQ(client.Get("/a")->value, "4");

    // More entries than an answer holds, of one moment; a neighbour of the prefix is left out.
    client.Commit(Transaction().Put("/host10", "no"));
    for (int first = 0; first < 2500; first += 100) {
        Transaction batch;
        for (int i = first; i < first + 100; i++)
            batch.Put("/host1/" + std::to_string(i), std::to_string(i));
        client.Commit(batch);
    }
    EXPECT_EQ(client.GetPrefix("/host1/").entries.size(), 2500u);
}

TEST(Etcd, KeysGoWithTheirLease)
{
    EtcdCluster etcd;
    Client client(etcd.Endpoints());
    const int64_t lease = client.GrantLease(std::chrono::seconds(60));
    client.Commit(Transaction().Put("/leased", "x", lease));
    EXPECT_EQ(client.Get("/leased")->lease, lease);
    EXPECT_TRUE(client.KeepAlive(lease));
    client.RevokeLease(lease);
    EXPECT_EQ(client.Get("/leased"), nullptr);
    EXPECT_FALSE(client.KeepAlive(lease));
}

TEST(Etcd, WatchesFromARevision)
{
    EtcdCluster etcd;
    Client client(etcd.Endpoints());
    const Outcome first = client.Commit(Transaction().Put("/w/a", "1"));
    client.Commit(Transaction().Put("/w/b", "2").Put("/other", "x"));
    client.Commit(Transaction().Delete("/w/a"));
    Watch watch(client, "/w/", first.revision);
    std::vector<KeyEvent> seen;
    while (seen.size() < 3) {
        for (const KeyEvent &event : watch.Next(Milliseconds(1000)))
            seen.push_back(event);
    }
    EXPECT_EQ(seen[0].entry.value, "1");
    EXPECT_EQ(seen[1].entry.key, "/w/b");
    EXPECT_TRUE(seen[2].isDeleted);
    EXPECT_EQ(watch.NextRevision(), first.revision + 3);
    EXPECT_TRUE(watch.Next(Milliseconds(2500)).empty()); // progress is not an event
    EXPECT_EQ(watch.NextRevision(), first.revision + 3);

    client.Compact(first.revision + 2);
    EXPECT_EQ(KindOf([&] {
                  Watch late(client, "/w/", first.revision);
                  while (late.Next(Milliseconds(1000)).empty()) {
                  }
              }),
              Kind::COMPACTED);
}

TEST(Etcd, AnswersOnlyToItsUsers)
{
    EtcdCluster etcd;
    Client root(etcd.Endpoints());
    root.AddRole("root");
    root.AddUser("root", "root");
    for (const char *host : {"host1", "host10"}) {
        root.AddRole(host);
        root.Permit(host, std::string("/hosts/") + host + "/status", true);
        root.Permit(host, "/desired/", false);
        root.AddUser(host, host);
    }
    root.AddUser("host1", "host1"); // again
    root.EnableAuth();
    Client host(etcd.Endpoints("host1"));
    EXPECT_TRUE(host.Commit(Transaction().Put("/hosts/host1/status", "x")).isDone);
    EXPECT_EQ(host.Get("/desired/a"), nullptr);
    EXPECT_EQ(KindOf([&] { host.Commit(Transaction().Put("/hosts/host10/status", "x")); }), Kind::DENIED);
    EXPECT_EQ(KindOf([&] { host.Commit(Transaction().Put("/desired/a", "x")); }), Kind::DENIED);
    EXPECT_EQ(KindOf([&] { host.GetPrefix("/hosts/"); }), Kind::DENIED);
    EXPECT_EQ(KindOf([&] { Client(etcd.Endpoints("nobody")).Get("/desired/a"); }), Kind::DENIED);
    EXPECT_EQ(KindOf([&] {
                  Watch watch(host, "/hosts/host10/target", 1);
                  watch.Next(Milliseconds(3000));
              }),
              Kind::DENIED);
}

// A watch on three members of which some fail: it ends within 5 s, and another one goes on soon after.
class Failures : public testing::TestWithParam<std::string> {};

TEST_P(Failures, AreNoticed)
{
    EtcdCluster etcd(3);
    Client client(etcd.Endpoints());
    const Outcome before = client.Commit(Transaction().Put("/w", "0"));
    Endpoints first = etcd.Endpoints();
    first.addresses.resize(1);
    Client watcher(first);
    auto watch = std::make_unique<Watch>(watcher, "/w", before.revision);
    EXPECT_EQ(watch->Next(Milliseconds(3000)).size(), 1u);

    if (GetParam() == "stopped") etcd.Signal(0, SIGSTOP);
    if (GetParam() == "killed") etcd.Signal(0, SIGKILL);
    for (int other = 1; GetParam() == "quorum" && other < 3; other++)
        etcd.Signal(other, SIGSTOP);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(KindOf([&] {
                  for (;;)
                      watch->Next(Milliseconds(1000));
              }),
              Kind::UNREACHABLE);
    // Of 5 s, and what a busy machine takes besides.
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(15));
    if (GetParam() != "killed") {
        EXPECT_EQ(KindOf([&] { watcher.Get("/w"); }), Kind::UNREACHABLE);
    }

    if (GetParam() == "killed") etcd.Start(0);
    for (int member = 0; GetParam() != "killed" && member < 3; member++)
        etcd.Signal(member, SIGCONT);
    const Outcome after = Eventually([&] { return client.Commit(Transaction().Put("/w", "1")); });
    EXPECT_TRUE(after.isDone);
    std::vector<KeyEvent> seen;
    while (seen.empty() || seen.back().entry.value != "1") {
        const int64_t next = watch->NextRevision();
        for (const KeyEvent &event : Eventually([&] {
                 watch = std::make_unique<Watch>(watcher, "/w", next);
                 return watch->Next(Milliseconds(3000));
             }))
            seen.push_back(event);
    }
    // A write that timed out may have been carried out as well: what counts is that none is missed.
    EXPECT_EQ(seen.back().entry.value, "1");
}

INSTANTIATE_TEST_SUITE_P(Members, Failures, testing::Values("stopped", "killed", "quorum"),
                         [](const auto &info) { return info.param; });

TEST(Etcd, ClientsGoToAnotherMember)
{
    EtcdCluster etcd(3);
    Client client(etcd.Endpoints());
    client.Commit(Transaction().Put("/a", "1"));
    etcd.Signal(etcd.Leader(), SIGKILL);
    EXPECT_EQ(Eventually([&] { return client.Get("/a"); })->value, "1");
}

}

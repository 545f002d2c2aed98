// A watch on etcd with a heartbeat of its own.
#include "fleet/etcd/watch.h"

#include <algorithm>

#include <grpcpp/completion_queue.h>

#include "etcd.grpc.pb.h"

namespace vsfleet {

namespace {

using namespace etcdserverpb;

constexpr Milliseconds QUESTION_INTERVAL{2000};
constexpr Milliseconds SILENCE{3000};

// Operations of the stream that are under way.
enum Tag : intptr_t { START = 1, WRITE, READ, END };

void *TagOf(Tag tag) { return reinterpret_cast<void *>(static_cast<intptr_t>(tag)); }

std::chrono::system_clock::time_point SystemTime(Clock::time_point time)
{
    return std::chrono::system_clock::now() + (time - Clock::now());
}

}

struct Watch::Stream {
    std::shared_ptr<grpc::Channel> channel;
    std::unique_ptr<etcdserverpb::Watch::Stub> stub;
    grpc::ClientContext context;
    grpc::CompletionQueue queue;
    std::unique_ptr<grpc::ClientAsyncReaderWriter<WatchRequest, WatchResponse>> calls;
    WatchResponse answer;
    WatchRequest question;
    bool isWriting = true; // at most one of a kind is under way
    bool isBroken = false;
};

Watch::Watch(Client &client, const std::string &range, int64_t revision)
    : stream(std::make_unique<Stream>()), lastAnswer(Clock::now()),
      nextQuestion(lastAnswer + QUESTION_INTERVAL), nextRevision(revision)
{
    stream->channel = client.Channel();
    stream->stub = etcdserverpb::Watch::NewStub(stream->channel);
    stream->context.AddMetadata("hasleader", "true"); // end the watch when the quorum is lost
    stream->calls = stream->stub->AsyncWatch(&stream->context, &stream->queue, TagOf(START));

    WatchCreateRequest &create = *stream->question.mutable_create_request();
    create.set_key(range);
    if (range.back() == '/') create.set_range_end(PrefixEnd(range));
    create.set_start_revision(revision);
}

Watch::~Watch()
{
    stream->context.TryCancel();
    stream->queue.Shutdown();
    void *tag;
    bool isDone;
    while (stream->queue.Next(&tag, &isDone)) {
    }
}

void Watch::AskForProgress()
{
    nextQuestion = Clock::now() + QUESTION_INTERVAL;
    if (stream->isWriting) return;
    stream->question.mutable_progress_request();
    stream->isWriting = true;
    stream->calls->Write(stream->question, TagOf(WRITE));
}

void Watch::TakeAnswer()
{
    const WatchResponse &answer = stream->answer;
    lastAnswer = Clock::now();
    if (answer.compact_revision())
        throw EtcdError(EtcdError::Kind::COMPACTED, "etcd no longer keeps the revision that is watched from");
    if (answer.canceled())
        throw EtcdError(answer.cancel_reason().find("permission") == std::string::npos
                            ? EtcdError::Kind::UNREACHABLE
                            : EtcdError::Kind::DENIED,
                        "etcd ends the watch: " + answer.cancel_reason());
    for (const Event &event : answer.events()) {
        const KeyValue &kv = event.kv();
        events.push_back({{kv.key(), kv.value(), kv.create_revision(), kv.mod_revision(), kv.lease()},
                          event.type() == Event::DELETE});
        // An answer of progress has a revision too, but may overtake events: a watch must not go on from it.
        nextRevision = std::max(nextRevision, kv.mod_revision() + 1);
    }
}

// One step of the stream. False: nothing happened until then.
bool Watch::Wait(Clock::time_point until)
{
    void *tag = nullptr;
    bool isDone = false;
    switch (stream->queue.AsyncNext(&tag, &isDone, SystemTime(until))) {
    case grpc::CompletionQueue::TIMEOUT:
        return false;
    case grpc::CompletionQueue::SHUTDOWN:
        stream->isBroken = true;
        return true;
    default:
        break;
    }
    if (!isDone) {
        stream->isBroken = true;
    } else if (tag == TagOf(START)) {
        stream->calls->Write(stream->question, TagOf(WRITE));
        stream->calls->Read(&stream->answer, TagOf(READ));
    } else if (tag == TagOf(WRITE)) {
        stream->isWriting = false;
    } else if (tag == TagOf(READ)) {
        TakeAnswer();
        stream->answer.Clear();
        stream->calls->Read(&stream->answer, TagOf(READ));
    }
    return true;
}

std::vector<KeyEvent> Watch::Next(Milliseconds time)
{
    const Clock::time_point until = Clock::now() + time;
    while (events.empty()) {
        if (stream->isBroken) throw EtcdError(EtcdError::Kind::UNREACHABLE, "etcd has ended the watch");
        if (Clock::now() >= nextQuestion) AskForProgress();
        const Clock::time_point silent = lastAnswer + SILENCE + QUESTION_INTERVAL;
        if (Clock::now() >= silent) throw EtcdError(EtcdError::Kind::UNREACHABLE, "etcd is silent");
        if (!Wait(std::min({until, nextQuestion, silent})) && Clock::now() >= until) break;
    }
    return std::exchange(events, {});
}

}

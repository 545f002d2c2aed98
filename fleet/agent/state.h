// What the agent remembers: its journal, and the texts of the documents that its host follows.
#pragma once

#include "fleet/protocol/documents.h"
#include "frontend/files.h"

namespace vsfleet {

// How far a change got.
enum class Stage {
    IDLE,
    APPLYING, // begun, or done and not reported: to be undone
    REPORTED  // etcd has the report: to be confirmed
};
NLOHMANN_JSON_SERIALIZE_ENUM(Stage, {{Stage::IDLE, "idle"},
                                     {Stage::APPLYING, "applying"},
                                     {Stage::REPORTED, "reported"}})

struct Memory {
    Stage stage = Stage::IDLE;
    int64_t target = 0;                      // number of the target whose change is under way
    std::vector<DocumentRevision> next;      // documents of that change
    std::vector<DocumentRevision> documents; // of the last confirmed change
    Status status;                           // what the host is; etcd has a copy
    uint64_t cluster = 0;                    // the etcd that is known, and its revision
    int64_t revision = 0;
    bool isRestored = false; // etcd is not the one that was known: nothing is followed until its adoption
    std::string adoption;    // id of the last adoption that was seen
    int64_t lease = 0;       // of the claim
    int64_t leaseBefore = 0; // the claim may still have this one
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Memory, stage, target, next, documents, status, cluster,
                                                revision, isRestored, adoption, lease, leaseBefore)

// A directory that only one agent uses. Files are whole and on disk when a call returns.
class State {
public:
    // Throws when another agent uses the directory.
    explicit State(const std::string &directory);
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    ~State();

    void Save(); // the memory
    std::string Path(const std::string &name) const { return files.Path(name); }
    void Write(const std::string &name, const std::string &text) const { files.Write(name, text); }

    // The text of a document; empty when it isn't kept.
    std::string Text(const DocumentRevision &document) const;
    void Keep(const DocumentRevision &document, const std::string &text);
    // Removes the texts of documents that the memory doesn't name.
    void RemoveOthers();

    Memory memory;

private:
    frontend::Files files;
    int lock;
};

}

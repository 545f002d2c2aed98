#include "platform/testing/test_faults.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "platform/host/locations.h"

namespace vshost {

namespace {

constexpr size_t MAX_RULES = 64;
constexpr size_t MAX_ANSWERS = 16;
constexpr size_t ANSWER_SIZE = 65536;
constexpr size_t MAX_OUTPUTS = 4;
constexpr size_t OUTPUT_SIZE = 1048576;
constexpr size_t MAX_CALLS = 65536;
constexpr size_t OPERATION_SIZE = 64;
constexpr size_t VERB_SIZE = 16;

// The bits of the word that every call looks at.
constexpr uint32_t HAS_RULES = 1;
constexpr uint32_t RECORDING = 2;
constexpr uint32_t HAS_ALLOCATIONS = CONTROL_HAS_ALLOCATIONS; // beside HAS_RULES

// A rule is in use while `kind` is not 0, which is written last.
struct RuleSlot {
    std::atomic<uint32_t> kind;
    uint32_t nth;
    uint32_t times;
    uint32_t outcome;
    std::atomic<uint32_t> matched;
    char operation[OPERATION_SIZE]; // empty: every one of the kind
};

struct AnswerSlot {
    std::atomic<uint32_t> used;
    uint32_t command;
    uint32_t left; // 0: for ever
    uint32_t length;
    uint64_t order;
};

struct OutputSlot {
    std::atomic<uint32_t> used;
    uint32_t length;
    char verb[VERB_SIZE];
};

}

// The bytes of answers and outputs, and the recorded calls, are behind it in the file, and read and written
// there.
struct FaultsArea {
    std::atomic<uint32_t> failed;
    std::atomic<uint32_t> answersUsed;
    std::atomic<uint32_t> outputsUsed;
    std::atomic<uint64_t> calls;
    uint64_t nextOrder;
    RuleSlot rules[MAX_RULES];
    AnswerSlot answers[MAX_ANSWERS];
    OutputSlot outputs[MAX_OUTPUTS];
};
static_assert(sizeof(FaultsArea) <= Control::FAULTS_SIZE);

namespace {

constexpr off_t ANSWERS_START = Control::MAPPED_SIZE;
constexpr off_t OUTPUTS_START = ANSWERS_START + MAX_ANSWERS * ANSWER_SIZE;
constexpr off_t CALLS_START = OUTPUTS_START + MAX_OUTPUTS * OUTPUT_SIZE;

off_t AnswerOffset(size_t slot) { return ANSWERS_START + static_cast<off_t>(slot * ANSWER_SIZE); }
off_t OutputOffset(size_t slot) { return OUTPUTS_START + static_cast<off_t>(slot * OUTPUT_SIZE); }
off_t CallOffset(uint64_t index)
{
    return CALLS_START + static_cast<off_t>(index % MAX_CALLS * sizeof(struct vshost_call));
}

bool WriteAt(int file, off_t offset, const void *bytes, size_t length)
{
    return pwrite(file, bytes, length, offset) == static_cast<ssize_t>(length);
}

bool ReadAt(int file, off_t offset, std::string &bytes, size_t length)
{
    bytes.resize(length);
    return pread(file, bytes.data(), length, offset) == static_cast<ssize_t>(length);
}

bool CanFail(vshost_kind kind)
{
    return kind == VSHOST_STORE || kind == VSHOST_SHELL || kind == VSHOST_DRIVER || kind == VSHOST_OPEN ||
           kind == VSHOST_ALLOCATION;
}

// The first free slot, or the number of slots.
template<typename Slots> size_t FreeSlot(const Slots &slots)
{
    const auto isFree = [](const auto &slot) { return slot.used == 0; };
    return static_cast<size_t>(std::find_if(std::begin(slots), std::end(slots), isFree) - std::begin(slots));
}

bool Matches(const RuleSlot &rule, vshost_kind kind, const char *operation)
{
    return rule.kind == static_cast<uint32_t>(kind) &&
           (rule.operation[0] == '\0' || strcmp(rule.operation, operation) == 0);
}

// Whether the rule fails the matching call of this number.
bool FailsAt(const RuleSlot &rule, uint32_t count)
{
    return count >= rule.nth && (rule.times == 0 || count - rule.nth < rule.times);
}

}

std::unique_ptr<Faults> MakeFaults(Control &control) { return std::make_unique<TestFaults>(control); }

TestFaults::TestFaults(Control &control)
    : Faults(control.ActiveFaults()), control(control), area(static_cast<FaultsArea *>(control.FaultsArea()))
{}

int TestFaults::Fail(const CallRule &rule)
{
    if (!CanFail(rule.kind) || rule.nth == 0 || rule.operation.size() >= OPERATION_SIZE) return EINVAL;
    Control::Lock lock(control);
    const auto isFree = [](const RuleSlot &slot) { return slot.kind == 0; };
    RuleSlot *slot = std::find_if(std::begin(area->rules), std::end(area->rules), isFree);
    if (slot == std::end(area->rules)) return ENOSPC;
    slot->nth = rule.nth;
    slot->times = rule.times;
    slot->outcome = rule.outcome;
    slot->matched = 0;
    strcpy(slot->operation, rule.operation.c_str());
    slot->kind = static_cast<uint32_t>(rule.kind);
    active |= rule.kind == VSHOST_ALLOCATION ? HAS_RULES | HAS_ALLOCATIONS : HAS_RULES;
    return 0;
}

unsigned TestFaults::Failed() const { return area->failed; }

size_t TestFaults::FreeRules() const
{
    const auto isFree = [](const RuleSlot &slot) { return slot.kind == 0; };
    return static_cast<size_t>(std::count_if(std::begin(area->rules), std::end(area->rules), isFree));
}

bool TestFaults::NextFails(vshost_kind kind, const char *operation, uint32_t &outcome) const
{
    const auto fails = [&](const RuleSlot &rule) {
        return Matches(rule, kind, operation) && FailsAt(rule, rule.matched + 1);
    };
    const RuleSlot *first = std::find_if(std::begin(area->rules), std::end(area->rules), fails);
    if (first == std::end(area->rules)) return false;
    outcome = first->outcome;
    return true;
}

// The first rule that fails the call decides; each rule counts every call that matches it.
bool TestFaults::CountCall(vshost_kind kind, const char *operation, uint32_t &outcome)
{
    bool fails = false;
    for (RuleSlot &rule : area->rules) {
        if (!Matches(rule, kind, operation) || !FailsAt(rule, ++rule.matched) || fails) continue;
        outcome = rule.outcome;
        fails = true;
    }
    if (fails) area->failed++;
    return fails;
}

Faults::Effect TestFaults::Enter(vshost_kind kind, const char *operation, bool canFail)
{
    Effect effect;
    const uint32_t flags = active;
    if (flags & RECORDING) {
        effect.recorded = true;
        effect.index = area->calls++;
    }
    if (flags & HAS_RULES && canFail) effect.fails = CountCall(kind, operation, effect.outcome);
    return effect;
}

int TestFaults::Answer(uint32_t command, unsigned times, const void *bytes, uint32_t length)
{
    if (length > ANSWER_SIZE || (!bytes && length > 0)) return EINVAL;
    Control::Lock lock(control);
    const size_t slot = FreeSlot(area->answers);
    if (slot == MAX_ANSWERS) return ENOSPC;
    if (!WriteAt(control.File(), AnswerOffset(slot), bytes, length)) return ENOSPC;
    AnswerSlot &answer = area->answers[slot];
    answer.command = command;
    answer.left = times;
    answer.length = length;
    answer.order = area->nextOrder++;
    answer.used = 1;
    area->answersUsed++;
    return 0;
}

bool TestFaults::NextAnswer(uint32_t command, std::string &bytes)
{
    if (area->answersUsed == 0) return false;
    Control::Lock lock(control);
    AnswerSlot *first = nullptr;
    for (AnswerSlot &answer : area->answers) {
        if (answer.used && answer.command == command && (!first || answer.order < first->order))
            first = &answer;
    }
    if (!first) return false;
    const auto slot = static_cast<size_t>(first - area->answers);
    if (!ReadAt(control.File(), AnswerOffset(slot), bytes, first->length)) return false;
    if (first->left > 0 && --first->left == 0) {
        first->used = 0;
        area->answersUsed--;
    }
    return true;
}

int TestFaults::ShellOutput(const char *verb, const void *bytes, uint32_t length)
{
    const bool hasOutput = verb && (strcmp(verb, "get") == 0 || strcmp(verb, "ls") == 0);
    if (!hasOutput || length > OUTPUT_SIZE || (!bytes && length > 0)) return EINVAL;
    Control::Lock lock(control);
    const size_t slot = FreeSlot(area->outputs);
    if (slot == MAX_OUTPUTS) return ENOSPC;
    if (!WriteAt(control.File(), OutputOffset(slot), bytes, length)) return ENOSPC;
    OutputSlot &output = area->outputs[slot];
    output.length = length;
    strcpy(output.verb, verb);
    output.used = 1;
    area->outputsUsed++;
    return 0;
}

bool TestFaults::NextShellOutput(std::string_view verb, std::string &bytes)
{
    if (area->outputsUsed == 0) return false;
    Control::Lock lock(control);
    for (size_t i = 0; i < MAX_OUTPUTS; i++) {
        const OutputSlot &output = area->outputs[i];
        if (output.used && verb == output.verb)
            return ReadAt(control.File(), OutputOffset(i), bytes, output.length);
    }
    return false;
}

void TestFaults::Clear()
{
    Control::Lock lock(control);
    active = 0;
    for (RuleSlot &rule : area->rules)
        rule.kind = 0;
    for (AnswerSlot &answer : area->answers)
        answer.used = 0;
    for (OutputSlot &output : area->outputs)
        output.used = 0;
    area->answersUsed = 0;
    area->outputsUsed = 0;
    area->failed = 0;
    area->calls = 0;
}

void TestFaults::SetRecording(bool on)
{
    Control::Lock lock(control);
    if (!on) {
        active &= ~RECORDING;
        return;
    }
    area->calls = 0;
    if (ftruncate(control.File(), CALLS_START) == 0) active |= RECORDING;
}

size_t TestFaults::CallCount() const { return area->calls; }

int TestFaults::Call(size_t index, struct vshost_call &call) const
{
    const uint64_t count = area->calls;
    if (index >= count || count - index > MAX_CALLS) return ENOENT;
    const bool whole = pread(control.File(), &call, sizeof(call), CallOffset(index)) == sizeof(call);
    return whole && call.kind != 0 ? 0 : ENOENT;
}

// A call that can't be written because the disk is full is missing from the list.
void TestFaults::Record(uint64_t index, const struct vshost_call &call)
{
    WriteAt(control.File(), CallOffset(index), &call, sizeof(call));
}

}

// The faults, answers and recording that tests set with vshost.h, kept in the host's control file.
#pragma once

#include "platform/host/control.h"

namespace vshost {

struct FaultsArea;

// Which calls fail: those from the nth matching one on, `times` of them, 0 for all. An empty operation
// matches every one of its kind.
struct CallRule {
    vshost_kind kind = VSHOST_STORE;
    std::string operation;
    unsigned nth = 1;
    unsigned times = 1;
    uint32_t outcome = 0;
};

class TestFaults : public Faults {
public:
    explicit TestFaults(Control &control);
    static TestFaults &Of(Control &control) { return static_cast<TestFaults &>(control.GetFaults()); }

    // The functions of vshost.h of the same names: 0 or an errno value.
    int Fail(const CallRule &rule);
    unsigned Failed() const;
    int Answer(uint32_t command, unsigned times, const void *bytes, uint32_t length);
    int ShellOutput(const char *verb, const void *bytes, uint32_t length);
    void Clear();
    void SetRecording(bool on);
    size_t CallCount() const;
    int Call(size_t index, struct vshost_call &call) const;

    // How many more rules can stand.
    size_t FreeRules() const;

    Effect Enter(vshost_kind kind, const char *operation, bool canFail) override;
    void Record(uint64_t index, const struct vshost_call &call) override;
    bool NextFails(vshost_kind kind, const char *operation, uint32_t &outcome) const override;
    bool NextAnswer(uint32_t command, std::string &bytes) override;
    bool NextShellOutput(std::string_view verb, std::string &bytes) override;

private:
    bool CountCall(vshost_kind kind, const char *operation, uint32_t &outcome);

    Control &control;
    FaultsArea *const area;
};

}

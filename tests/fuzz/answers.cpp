// The driver's answers to each query: any count, any length, changed between the two requests of a list.
#include <algorithm>

#include "tests/fuzz/host.h"

namespace {

using Query = VsStatus (*)(void **list);

struct Command {
    uint32_t number;
    uint32_t entrySize; // of a list, else 0
    Query query;
};

constexpr uint8_t GROUP[16] = {239, 1, 1, 1};

const Command COMMANDS[] = {
    {4126, 128, [](void **list) { return VSZOR_GetSwitches(1, list); }},
    {4126, 81, [](void **list) { return VSZOR_GetSwitches(0, list); }},
    {4106, 36, [](void **list) { return VSZOR_GetUplinks(SWITCH, list); }},
    {4109, 0, [](void **list) { return VSZOR_GetLAGTable(SWITCH, list); }},
    {4100, 4, [](void **list) { return VSZOR_GetPromiscSessionActiveDsts(SWITCH, list); }},
    {4101, 32, [](void **list) { return VSZOR_GetDVMirrorSessionIDs(SWITCH, list); }},
    {4104, 16, [](void **list) { return VSZOR_GetMcastFilters(SWITCH, 0, 3, list); }},
    {4105, 16, [](void **list) { return VSZOR_GetMcastFilterStats(SWITCH, 0, 3, GROUP, list); }},
    {4117, 18, [](void **list) { return VSZOR_GetPortMACTable(SWITCH, PORT, 0, list); }},
    {4118, 18, [](void **list) { return VSZOR_GetTeamMACTable(SWITCH, 0, list); }},
    {4099, 0, [](void **list) { return VSZOR_GetRuntimeOptions(nullptr, 0, list); }},
    {4125, 2748,
     [](void **list) {
         return VSZOR_GetLSTeamingPolicyTable(SWITCH, reinterpret_cast<LSTeamingPolicyTable **>(list));
     }},
};

}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    Input input = {data, size};
    const Command &command = COMMANDS[input.Byte() % std::size(COMMANDS)];
    const Input first = input.Take(28);
    // A long list is one allocation, no fault; it only makes the fuzzer slow. An answer may write a part of
    // the count, which the list of switches presets.
    const size_t countOffset = command.number == 4105 ? 20 : 0;
    uint32_t count = command.number == 4126 ? UINT32_MAX : 0;
    if (first.size > countOffset)
        memcpy(&count, first.data + countOffset, std::min(sizeof(count), first.size - countOffset));
    if (count * command.entrySize > 1 << 20) return 0;
    vshost_clear();
    vshost_answer(command.number, 1, first.data, first.Length());
    vshost_answer(command.number, 1, input.data, input.Length());
    void *list = nullptr;
    const VsStatus status = command.query(&list);
    Require(status == STATUS_OK || list == nullptr);
    if (list) {
        volatile uint32_t header = *static_cast<uint32_t *>(list);
        (void)header;
    }
    VSZOR_FreeMemory(list);
    return 0;
}

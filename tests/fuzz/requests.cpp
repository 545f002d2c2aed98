// Requests to the emulated driver: any command, any lengths, any record, bad addresses.
#include <algorithm>

#include "tests/fuzz/host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    Input input = {data, size};
    const int32_t command = (input.Byte() % 2 ? 4097 : 8193) + input.Byte() % 32;
    const uint8_t choice = input.Byte();
    uint8_t output[4096 + 8];
    memset(output, 0xA5, sizeof(output));
    const uint32_t outLength = input.Byte() * 16u;
    std::string record = input.Text();
    if (choice & 1) record.resize(212);
    if (choice & 2) memcpy(record.data(), SWITCH, std::min(sizeof(SWITCH), record.size()));
    ZorRequestHeader header = {static_cast<uint32_t>(record.size()), outLength,
                               reinterpret_cast<uint64_t>(record.data()), reinterpret_cast<uint64_t>(output)};
    if (choice & 4) header.inPtr = 8;
    if (choice & 8) header.outPtr = 8;
    ZORIoctl(choice & 16 ? ZOR_RTM_DEVICE : ZOR_DEVICE, command, &header);
    for (size_t i = outLength; i < sizeof(output); i++)
        Require(output[i] == 0xA5);
    return 0;
}

// Requests to the kernel's switch driver: one record, and four ways to send it.
#pragma once

#include "core/text.h"
#include "vswitchctl.h"

#include <cstddef>

// The layout of a list command's entries behind its header.
struct ListShape {
    uint32_t headerSize;
    uint32_t entrySize;
    uint32_t countOffset = 0;
};

inline constexpr uint32_t LIST_HEADER_SIZE = sizeof(ZorListHeader);

// The arguments behind the two names, in the layout that a command uses.
struct [[gnu::packed]] UplinkArgs {
    char uplinkName[32];
    uint32_t adminUp;
};

struct [[gnu::packed]] MirrorArgs {
    char sessionId[32];
    uint8_t unused[4];
};

struct [[gnu::packed]] MulticastArgs {
    uint32_t selector;
    int32_t addressKind;
    uint8_t groupAddress[16];
    uint8_t unused[12];
};

struct [[gnu::packed]] MacEntryArgs {
    ZorMacTableEntry entry;
    uint8_t unused[18];
};

struct [[gnu::packed]] MacLearningArgs {
    ZorMacLearningProps props;
    uint8_t unused[27];
};

struct [[gnu::packed]] ZorRequestInput {
    char name[PORTSET_NAME_SIZE];
    union {
        char dvPortId[DV_PORT_ID_SIZE];
        uint32_t portId;
    };
    union {
        UplinkArgs uplink;
        MirrorArgs mirror;
        MulticastArgs multicast;
        MacEntryArgs macEntry;
        MacLearningArgs macLearning;
    };
};
static_assert(sizeof(ZorRequestHeader) == 24 && offsetof(ZorRequestHeader, inPtr) == 8 &&
              offsetof(ZorRequestHeader, outPtr) == 16);
static_assert(sizeof(ZorListHeader) == 8 && offsetof(ZorListHeader, aux) == 4);
static_assert(sizeof(ZorRequestInput) == 212 && offsetof(ZorRequestInput, dvPortId) == 128 &&
              offsetof(ZorRequestInput, uplink) == 176 && offsetof(UplinkArgs, adminUp) == 32 &&
              offsetof(MulticastArgs, addressKind) == 4 && offsetof(MulticastArgs, groupAddress) == 8);
static_assert(sizeof(UplinkArgs) == 36 && sizeof(MirrorArgs) == 36 && sizeof(MulticastArgs) == 36 &&
              sizeof(MacEntryArgs) == 36 && sizeof(MacLearningArgs) == 36);

// A request to the switch driver. Its input is the common record, zero except for the fields of the command.
class Request {
public:
    Request() : Request(&input, sizeof(input)) {}
    // For a command whose input is not the common record.
    Request(const void *ownInput, uint32_t length)
        : header{length, 0, reinterpret_cast<uint64_t>(ownInput), 0}
    {}
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    void SetName(const char *portsetName)
    {
        text::CopyIntoZeros(input.name, portsetName, sizeof(input.name));
    }
    void SetPortId(uint32_t portId) { input.portId = portId; }
    void SetUplink(const char *name)
    {
        text::CopyIntoZeros(input.uplink.uplinkName, name, sizeof(input.uplink.uplinkName));
    }
    // Names the switch by the portset that the alias stands for.
    VsStatus ResolveName(const char *alias);
    // Names a port by the ids of its switch and its own in the store.
    VsStatus ResolvePort(const char *alias, const char *dvPortId);

    // Asks for a record of a fixed size.
    VsStatus Query(int32_t command, void *output, uint32_t length);
    // Asks for a record of a fixed size in a new buffer, which belongs to the caller on success.
    VsStatus QueryBuffer(int32_t command, uint32_t length, void **output);
    // Changes the driver's state, without an answer.
    VsStatus Change(int32_t command) { return Query(command, nullptr, 0); }
    // Asks for a list, first for its length. Null after any failure except that of the first request.
    VsStatus QueryList(int32_t command, const ListShape &shape, void **list);
    // The second half of QueryList, with the header from the first request.
    VsStatus FetchList(int32_t command, const ListShape &shape, const void *firstHeader, void **list);

    ZorRequestInput input = {};

private:
    ZorRequestHeader header;
};

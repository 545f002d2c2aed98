// VLAN policies: the port's record with its priority, the private VLAN map, nested tagging.
#include "tests/family.h"

namespace {

TEST_F(LabTest, APolicyHasAnyNumberOfRanges)
{
    const std::vector<VLANRange> most(65535, {1, 2});
    ASSERT_EQ(VSDVS_SetPortVLANPolicy(LAB, PORT, 0xffff, 0xfffffffe, 0, 0, most.data(), 65535), STATUS_OK);
    const std::string stored = Read(PORT_VLAN)->bytes;
    EXPECT_EQ(stored.size(), 8u + 4u * 65535u);
    EXPECT_EQ(stored.substr(0, 12), Hex("04 00 ff ff 00 00 ff ff 01 00 02 00"));
    EXPECT_EQ(Read(PORT_PRIORITY)->bytes, Word(0xfffffffe));
}

// Writes the priority and the record's first 16 bytes.
VsStatus GetPolicy(char *out)
{
    auto *const untouched = reinterpret_cast<PortVLANRecord *>(8);
    PortVLANRecord *record = untouched;
    const VsStatus status = VSDVS_GetPortVLANPolicy(LAB, PORT, &record, reinterpret_cast<uint32_t *>(out));
    EXPECT_EQ(record == untouched, status != STATUS_OK);
    if (status != STATUS_OK) return status;
    memcpy(out + 4, record, 16);
    VSDVS_FreeMemory(record);
    return status;
}

TEST_F(LabTest, ARecordIsReadWhenItsLengthFitsItsCount)
{
    const std::string two = Hex("00 00 02 00 00 00 02 00 01 00 02 00 03 00 04 00"), none;
    Reading{PORT_VLAN,
            GetPolicy,
            {{two, STATUS_OK, Word(0) + two},
             {two.substr(0, 15), STATUS_FAILURE, none},
             {two + '\0', STATUS_FAILURE, none},
             {two.substr(0, 12), STATUS_FAILURE, none},
             {two.substr(0, 7), STATUS_FAILURE, none},
             {"", STATUS_FAILURE, none},
             {std::string(8, '\xff'), STATUS_FAILURE, none},
             {{}, STATUS_NOT_FOUND, none}}}
        .Check();
    Write(PORT_VLAN, two);
    Reading{PORT_PRIORITY,
            GetPolicy,
            {{Word(3), STATUS_OK, Word(3) + two},
             {"\3\0\0"s, STATUS_OK, Word(0) + two},
             {"\3\0\0\0\0"s, STATUS_OK, Word(0) + two},
             {"", STATUS_OK, Word(0) + two},
             {{}, STATUS_OK, Word(0) + two}}}
        .Check();
}

// Writes the count and the entries.
VsStatus GetMap(char *out)
{
    auto *const untouched = reinterpret_cast<PVLANMapEntry *>(8);
    PVLANMapEntry *map = untouched;
    uint32_t count = 9;
    const VsStatus status = VSDVS_GetPrivateVLANMap(LAB, &map, &count);
    EXPECT_EQ(map == untouched, status != STATUS_OK);
    if (status != STATUS_OK) return status;
    memcpy(out, &count, sizeof(count));
    if (count > 0) memcpy(out + 4, map, count * sizeof(*map));
    VSDVS_FreeMemory(map);
    return status;
}

TEST_F(LabTest, APrivateVLANMapIsAnArrayOfEntries)
{
    EXPECT_EQ(VSDVS_SetPrivateVLANMap(LAB, nullptr, 0), STATUS_NOT_FOUND);
    const std::string three = "\1\2\3\4\5\6\7\10ABCDEFGHabcdefgh"s;
    const auto *entries = reinterpret_cast<const PVLANMapEntry *>(three.data());
    // Lengths are 32-bit values: this many entries and one are the same.
    for (const uint32_t count : {1u, 3u, 0x20000001u}) {
        ASSERT_EQ(VSDVS_SetPrivateVLANMap(LAB, entries, count), STATUS_OK);
        EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.vswitch.pvlanMap"),
                  (Stored{three.substr(0, count == 3 ? 24 : 8), 0x08}));
    }
    const std::string none;
    Reading{SWITCH_PVLAN_MAP,
            GetMap,
            {{three, STATUS_OK, Word(3) + three},
             {three.substr(0, 8), STATUS_OK, Word(1) + three.substr(0, 8)},
             {"", STATUS_OK, Word(0)},
             {three.substr(0, 20), STATUS_FAILURE, none},
             {three.substr(0, 7), STATUS_FAILURE, none},
             {three.substr(0, 9), STATUS_FAILURE, none},
             {{}, STATUS_NOT_FOUND, none},
             {three, STATUS_OK, Word(3) + three}}}
        .Check();
    EXPECT_EQ(VSDVS_SetPrivateVLANMap(LAB, nullptr, 0), STATUS_OK);
    EXPECT_EQ(Read(SWITCH_PVLAN_MAP), std::nullopt);
}

}

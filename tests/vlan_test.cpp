// VLAN policies: the port's record with its priority, the private VLAN map, nested tagging.
#include "tests/family.h"

namespace {

constexpr char VLAN_KEY[] = "com.talpex.vswitch.port.vlan";
constexpr char PRIORITY_KEY[] = "com.talpex.vswitch.port.priority";
constexpr VLANRange RANGES[] = {{10, 20}, {4095, 0}, {7, 7}};
const std::string RANGE_BYTES = Hex("0a 00 14 00 ff 0f 00 00 07 00 07 00");

VsStatus Set(uint32_t priority, uint16_t vlanId = 5)
{
    return VSDVS_SetPortVLANPolicy(LAB, PORT, vlanId, priority, 0, 0, nullptr, 0);
}

TEST_F(LabTest, APolicyIsStoredAsItsRecord)
{
    const struct {
        uint16_t vlanId;
        uint32_t priority;
        uint8_t trunk, option;
        uint16_t ranges;
        std::string record;
    } cases[] = {
        {0, VLAN_PRIORITY_NONE, 0, 0, 0, Hex("00 00 00 00 00 00 00 00")},
        {0xffff, 7, 0, 0, 0, Hex("04 00 ff ff 00 00 00 00")},
        {1, 0, 0, 1, 0, Hex("06 00 01 00 00 00 00 00")},
        {2, 0xfffffffe, 1, 0, 0, Hex("05 00 02 00 00 00 01 00 00 00 fe 0f")},
        {2, VLAN_PRIORITY_NONE, 0x80, 0xff, 0, Hex("03 00 02 00 00 00 01 00 00 00 fe 0f")},
        {2, VLAN_PRIORITY_NONE, 1, 0, 3, Hex("01 00 02 00 00 00 03 00") + RANGE_BYTES},
        {2, VLAN_PRIORITY_NONE, 0, 0, 3, Hex("00 00 02 00 00 00 03 00") + RANGE_BYTES},
        {2, 3, 1, 1, 1, Hex("07 00 02 00 00 00 01 00 0a 00 14 00")},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        const bool none = row.priority == VLAN_PRIORITY_NONE;
        ASSERT_EQ(VSDVS_SetPortVLANPolicy(LAB, PORT, row.vlanId, row.priority, row.trunk, row.option,
                                          row.ranges ? RANGES : nullptr, row.ranges),
                  STATUS_OK);
        EXPECT_EQ(Read(StoreLevel::PORT, VLAN_KEY), (Stored{row.record, 0x08}));
        EXPECT_EQ(Read(StoreLevel::PORT, PRIORITY_KEY),
                  none ? std::nullopt : std::optional(Stored{Word(row.priority), 0x08}));
        PortVLANRecord *record = nullptr;
        uint32_t priority = 9;
        ASSERT_EQ(VSDVS_GetPortVLANPolicy(LAB, PORT, &record, &priority), STATUS_OK);
        EXPECT_EQ(memcmp(record, row.record.data(), row.record.size()), 0);
        EXPECT_EQ(priority, none ? 0 : row.priority);
        VSDVS_FreeMemory(record);
    }
    const std::vector<VLANRange> most(65535, {1, 2});
    ASSERT_EQ(VSDVS_SetPortVLANPolicy(LAB, PORT, 0, VLAN_PRIORITY_NONE, 0, 0, most.data(), 65535), STATUS_OK);
    EXPECT_EQ(Read(PORT_VLAN)->bytes.size(), 8u + 4u * 65535u);
}

TEST_F(LabTest, APriorityFollowsItsPolicy)
{
    const std::string port = " lab-id port0 "s, vlan = port + VLAN_KEY, priority = port + PRIORITY_KEY;
    const Steps set = {"PortDataSet" + vlan, "PortDataSet" + priority};
    const Steps look = {"PortDataSet" + vlan, "PortDataGet" + priority};
    const Steps remove = {look[0], look[1], "PortDataClear" + priority};
    const struct {
        uint32_t priority;
        const char *fails;
        unsigned nth;
        VsStatus outcome, status;
        Steps steps;
    } cases[] = {
        {VLAN_PRIORITY_NONE, nullptr, 0, 0, STATUS_OK, look},
        {VLAN_PRIORITY_NONE, "DVSZOR_PortDataGet", 1, STATUS_BUSY, STATUS_OK, look},
        {3, nullptr, 0, 0, STATUS_OK, set},
        {4, "DVSZOR_PortDataSet", 1, STATUS_BUSY, STATUS_BUSY, {set[0]}},
        {5, "DVSZOR_PortDataSet", 2, STATUS_BUSY, STATUS_BUSY, set},
        {VLAN_PRIORITY_NONE, "DVSZOR_PortDataClear", 1, STATUS_BUSY, STATUS_BUSY, remove},
        {VLAN_PRIORITY_NONE, "DVSZOR_PortDataClear", 1, STATUS_NOT_FOUND, STATUS_OK, remove},
        {VLAN_PRIORITY_NONE, nullptr, 0, 0, STATUS_OK, remove},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        vshost_clear();
        if (row.fails) vshost_fail(VSHOST_STORE, row.fails, row.nth, 1, row.outcome);
        EXPECT_EQ(StepsOf([&] { EXPECT_EQ(Set(row.priority), row.status); }), row.steps);
    }
    EXPECT_EQ(Read(PORT_PRIORITY), std::nullopt);
    ASSERT_EQ(Set(3, 6), STATUS_OK);
    const uint64_t before = vshost_fingerprint();
    vshost_fail(VSHOST_STORE, "DVSZOR_PortDataSet", 1, 1, STATUS_BUSY);
    EXPECT_EQ(Set(VLAN_PRIORITY_NONE, 7), STATUS_BUSY);
    EXPECT_EQ(vshost_fingerprint(), before);
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

TEST_F(LabTest, AClearedPolicyTakesItsPriorityAlong)
{
    ASSERT_EQ(Set(3), STATUS_OK);
    vshost_fail(VSHOST_STORE, "DVSZOR_PortDataClear", 1, 1, STATUS_BUSY);
    EXPECT_EQ(VSDVS_ClearPortVLANPolicy(LAB, PORT), STATUS_BUSY);
    EXPECT_TRUE(Read(PORT_VLAN) && Read(PORT_PRIORITY));
    vshost_fail(VSHOST_STORE, "DVSZOR_PortDataClear", 2, 1, STATUS_BUSY);
    EXPECT_EQ(VSDVS_ClearPortVLANPolicy(LAB, PORT), STATUS_BUSY);
    EXPECT_TRUE(!Read(PORT_VLAN) && Read(PORT_PRIORITY));
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(VSDVS_ClearPortVLANPolicy(LAB, PORT), STATUS_OK);
        EXPECT_TRUE(!Read(PORT_VLAN) && !Read(PORT_PRIORITY));
    }
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

// Uplinks: ports that are also in two lists, which any program may have written.
#include "tests/family.h"

namespace {

constexpr char NAMES_KEY[] = "com.talpex.common.uplinkPorts";
constexpr char IDS_KEY[] = "com.talpex.common.host.uplinkPorts";
const std::string SET_NAMES = "GlobalPropSet lab-id - "s + NAMES_KEY,
                  SET_IDS = "HostPropSet lab-id - "s + IDS_KEY,
                  CLEAR_NAMES = "GlobalPropClear lab-id - "s + NAMES_KEY;

using Texts = std::vector<std::string>;
using OptionalList = std::optional<std::string>;

std::string List(const Texts &texts, size_t width)
{
    std::string list = Word(static_cast<uint32_t>(texts.size()));
    for (const std::string &text : texts)
        list += Field(text, width);
    return list;
}
std::string Names(const Texts &texts) { return List(texts, 81); }
std::string Ids(const Texts &texts) { return List(texts, 48); }

VsStatus Set(const Texts &names, const Texts &ids)
{
    return VSDVS_SetSwitchUplinkPorts(LAB, reinterpret_cast<const UplinkNameList *>(Names(names).data()),
                                      reinterpret_cast<const UplinkPortIdList *>(Ids(ids).data()));
}

VsStatus Add(const std::string &name) { return VSDVS_AddSwitchUplinkPort(LAB, name.c_str()); }
VsStatus RemoveUplink(const std::string &id) { return VSDVS_RemoveSwitchUplinkPort(LAB, id.c_str()); }

// The fields of a list up to their NULs; releases the list.
template<typename Field, typename List> Texts Take(List *list)
{
    Texts texts;
    const auto *fields = reinterpret_cast<const Field *>(list + 1);
    for (uint32_t i = 0; i < list->count; i++)
        texts.emplace_back(fields[i].text, strnlen(fields[i].text, sizeof(Field)));
    VSDVS_FreeMemory(list);
    return texts;
}

// The names in the order of the ids.
void ExpectRead(const Texts &uplinks)
{
    UplinkNameList *names = nullptr;
    UplinkPortIdList *ids = nullptr;
    ASSERT_EQ(VSDVS_GetSwitchUplinkPorts(LAB, &names, &ids), STATUS_OK);
    EXPECT_EQ(Take<UplinkName>(names), uplinks);
    EXPECT_EQ(Take<UplinkPortId>(ids), uplinks);
}

// "lab" with the port "port0" and no uplinks.
class Uplinks : public HostTest {
    void SetUp() override
    {
        HostTest::SetUp();
        ASSERT_EQ(VSDVS_CreateVSwitch(LAB, LAB_ID, LAB_PORTSET, 1, 0, 0, 0, 1), STATUS_OK);
    }
};

TEST_F(Uplinks, AreNoMoreThanAListHolds)
{
    // Too many for a list's 32-bit length.
    const UplinkNameList names = {0xFFFFFFFF};
    const UplinkPortIdList ids = {0};
    EXPECT_EQ(StepsOf([&] {
                  EXPECT_EQ(SetNumSwitchUplinkPortsByUUID(LAB_ID, 0x80000000u), STATUS_NO_MEMORY);
                  EXPECT_EQ(VSDVS_SetSwitchUplinkPorts(LAB, &names, &ids), STATUS_NO_MEMORY);
              }),
              Steps{});
}

// Failures of the undo do not change the status and do not end the undo.
TEST_F(Uplinks, AreUndoneLastFirst)
{
    vshost_fail(VSHOST_STORE, "DVSZOR_HostPropSet", 1, 1, STATUS_BUSY);
    for (const char *undo : {"DVSZOR_GlobalPropClear", "DVSZOR_PortRemove"})
        vshost_fail(VSHOST_STORE, undo, 1, 0, STATUS_IO_ERROR);
    EXPECT_EQ(
        StepsOf([] {
            EXPECT_EQ(Set({"c", "a", "b"}, {"a", "b", "c"}), STATUS_BUSY);
        }),
        (Steps{"PortAdd lab-id a -", "PortAdd lab-id b -", "PortAdd lab-id c -", SET_NAMES, SET_IDS,
               CLEAR_NAMES, "PortRemove lab-id c -", "PortRemove lab-id b -", "PortRemove lab-id a -"}));
}

TEST_F(Uplinks, ListsThatAreNotWholeAreNotRead)
{
    const std::string full(81, 'n'), id(48, 'i'); // fields without NUL
    for (const char *port : {"a", "b", "long", id.c_str()})
        ASSERT_EQ(VSDVS_AddDVPort(LAB, port, 1), STATUS_OK);
    Write(PORT_ALIAS, Text(full), "long");
    const std::string names = Names({"b", "a"}), ids = Ids({"a", "b"}), none = Names({});
    const struct {
        OptionalList names, ids;
        VsStatus status;
    } cases[] = {{names, ids, STATUS_OK},
                 {none, none, STATUS_OK},
                 {Names({id}), Ids({id}), STATUS_OK},
                 {{}, {}, STATUS_NOT_FOUND},
                 {{}, ids, STATUS_NOT_FOUND},
                 {names, {}, STATUS_NOT_FOUND},
                 {names, Ids({"a", "gone"}), STATUS_NOT_FOUND},
                 {none + std::string(80, '\0'), none, STATUS_FAILURE}, // 84 bytes, count 0
                 {none.substr(1), none, STATUS_FAILURE},
                 {none, none.substr(1), STATUS_FAILURE},
                 {"", "", STATUS_FAILURE},
                 {names.substr(0, 165), ids, STATUS_FAILURE},
                 {names + '\0', ids, STATUS_FAILURE},
                 {names, ids.substr(0, 99), STATUS_FAILURE},
                 {names, ids + '\0', STATUS_FAILURE},
                 {Word(0xFFFFFFFF), ids, STATUS_FAILURE},
                 {names, Word(0xFFFFFFFF), STATUS_FAILURE},
                 {names, Ids({"a"}), STATUS_FAILURE},
                 {Names({"a"}), ids, STATUS_FAILURE},
                 {Names({"a", "c"}), ids, STATUS_FAILURE},
                 {Names({"a", "bb"}), ids, STATUS_FAILURE},
                 {Names({full}), Ids({"long"}), STATUS_FAILURE}};
    auto *const noNames = reinterpret_cast<UplinkNameList *>(8);
    auto *const noIds = reinterpret_cast<UplinkPortIdList *>(8);
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        Store(SWITCH_UPLINK_NAMES, row.names);
        Store(HOST_UPLINK_IDS, row.ids);
        UplinkNameList *nameList = noNames;
        UplinkPortIdList *idList = noIds;
        EXPECT_EQ(VSDVS_GetSwitchUplinkPorts(LAB, &nameList, &idList), row.status);
        if (row.status == STATUS_OK) {
            const Texts read = Take<UplinkPortId>(idList);
            EXPECT_EQ(Ids(read), *row.ids);
            EXPECT_EQ(Take<UplinkName>(nameList), read);
            continue;
        }
        EXPECT_EQ(nameList, row.names ? nullptr : noNames);
        EXPECT_EQ(idList, row.names ? nullptr : noIds);
        const uint64_t before = vshost_fingerprint();
        EXPECT_EQ(RemoveUplink("a"), row.status);
        if (row.status == STATUS_FAILURE) {
            EXPECT_EQ(Add("new"), STATUS_FAILURE);
        }
        EXPECT_EQ(vshost_fingerprint(), before);
    }
    // An id without a NUL does not equal any text: its port is not an uplink to remove or to collide with.
    Store(SWITCH_UPLINK_NAMES, Names({id}));
    Store(HOST_UPLINK_IDS, Ids({id}));
    EXPECT_EQ(RemoveUplink(id), STATUS_OK);
    EXPECT_EQ(DVPortExist(LAB_ID, id.c_str()), 1);
    EXPECT_EQ(Add(id.substr(1)), STATUS_OK);
    ExpectRead({id, id.substr(1)});
}

}

// Uplinks: ports that are also in two lists, which any program may have written.
#include "tests/family.h"

namespace {

constexpr char NAMES_KEY[] = "com.talpex.common.uplinkPorts";
constexpr char IDS_KEY[] = "com.talpex.common.host.uplinkPorts";
const std::string SET_NAMES = "GlobalPropSet lab-id - "s + NAMES_KEY,
                  SET_IDS = "HostPropSet lab-id - "s + IDS_KEY,
                  CLEAR_NAMES = "GlobalPropClear lab-id - "s + NAMES_KEY,
                  CLEAR_IDS = "HostPropClear lab-id - "s + IDS_KEY;

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

void ExpectStored(const OptionalList &names, const OptionalList &ids)
{
    const auto stored = [](const OptionalList &list) {
        return list ? std::optional(Stored{*list, 0x10}) : std::nullopt;
    };
    EXPECT_EQ(Read(StoreLevel::GLOBAL, NAMES_KEY), stored(names));
    EXPECT_EQ(Read(StoreLevel::HOST, IDS_KEY), stored(ids));
}

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

TEST_F(Uplinks, AreNumberedFromZero)
{
    const Texts three = {"uplink0", "uplink1", "uplink2"};
    ASSERT_EQ(SetNumSwitchUplinkPortsByUUID(LAB_ID, 3), STATUS_OK);
    ExpectStored(Names(three), Ids(three));
    ExpectRead(three);
    ASSERT_EQ(SetNumSwitchUplinkPortsByUUID(LAB_ID, 0), STATUS_OK);
    ExpectStored(Names({}), Ids({}));
    ExpectRead({});
    // Too many for a list's 32-bit length.
    const UplinkNameList names = {0xFFFFFFFF};
    const UplinkPortIdList ids = {0};
    EXPECT_EQ(StepsOf([&] {
                  for (const uint32_t count : {0xFFFFFFFFu, 0x80000000u, 0xFFFFFFFFu / 81 + 1})
                      EXPECT_EQ(SetNumSwitchUplinkPortsByUUID(LAB_ID, count), STATUS_NO_MEMORY);
                  EXPECT_EQ(VSDVS_SetSwitchUplinkPorts(LAB, &names, &ids), STATUS_NO_MEMORY);
              }),
              Steps{});
}

TEST_F(Uplinks, AreSetAndUndoneLastFirst)
{
    ExpectUndone(
        {"DVSZOR_PortAdd", "DVSZOR_GlobalPropSet", "DVSZOR_HostPropSet", "DVSData_Alloc",
         "DVSData_Serialize"},
        5, [] { return Set({"a"}, {"a"}); }, [] { EXPECT_EQ(RemoveUplink("a"), STATUS_OK); });
    const Steps add = {"PortAdd lab-id a -", "PortAdd lab-id b -", "PortAdd lab-id c -"};
    Steps expected = {add[0],
                      add[1],
                      add[2],
                      SET_NAMES,
                      SET_IDS,
                      CLEAR_NAMES,
                      "PortRemove lab-id c -",
                      "PortRemove lab-id b -",
                      "PortRemove lab-id a -"};
    const auto set = [](VsStatus status) {
        return StepsOf([&] { EXPECT_EQ(Set({"c", "a", "b"}, {"a", "b", "c"}), status); });
    };
    vshost_fail(VSHOST_STORE, "DVSZOR_HostPropSet", 1, 1, STATUS_BUSY);
    EXPECT_EQ(set(STATUS_BUSY), expected);
    vshost_fail(VSHOST_STORE, "DVSZOR_PortAdd", 3, 1, STATUS_BUSY);
    EXPECT_EQ(set(STATUS_BUSY), (Steps{add[0], add[1], add[2], expected[7], expected[8]}));
    ASSERT_EQ(set(STATUS_OK), Steps(expected.begin(), expected.begin() + 5));
    ExpectStored(Names({"c", "a", "b"}), Ids({"a", "b", "c"}));
    ExpectRead({"a", "b", "c"});
    // Failures of the undo do not change the status and do not end the undo.
    for (const char *port : {"a", "b", "c"})
        ASSERT_EQ(VSDVS_RemoveDVPort(LAB, port), STATUS_OK);
    vshost_fail(VSHOST_STORE, "DVSZOR_HostPropSet", 1, 1, STATUS_BUSY);
    for (const char *undo : {"DVSZOR_GlobalPropClear", "DVSZOR_PortRemove"})
        vshost_fail(VSHOST_STORE, undo, 1, 0, STATUS_IO_ERROR);
    EXPECT_EQ(set(STATUS_BUSY), expected);
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

TEST_F(Uplinks, AreAddedOneByOne)
{
    const std::string longest(47, 'u'), getNames = "GlobalPropGet lab-id - "s + NAMES_KEY;
    EXPECT_EQ(StepsOf([&] { EXPECT_EQ(Add(longest), STATUS_OK); }),
              (Steps{getNames, "PortAdd lab-id " + longest + " -", SET_NAMES, SET_IDS}));
    ExpectStored(Names({longest}), Ids({longest}));
    EXPECT_EQ(Add("u"), STATUS_OK);
    ExpectRead({longest, "u"});
    const uint64_t before = vshost_fingerprint();
    EXPECT_EQ(Add("u"), STATUS_EXISTS);
    EXPECT_EQ(Add(PORT), STATUS_EXISTS) << "from the store";
    EXPECT_EQ(StepsOf([&] { EXPECT_EQ(Add(longest + 'u'), STATUS_BAD_PARAM); }), Steps{});
    EXPECT_EQ(vshost_fingerprint(), before);
    ExpectUndone(
        {"DVSZOR_PortAdd", "DVSZOR_GlobalPropSet", "DVSZOR_HostPropSet", "DVSData_Alloc", "DVSData_Serialize",
         "DVSZOR_GlobalPropGet", "DVSZOR_HostPropGet", "DVSZOR_PortDataGet"},
        9, [] { return Add("v"); }, [] { EXPECT_EQ(RemoveUplink("v"), STATUS_OK); });
    // Without an id list, an addition starts new lists.
    Remove(HOST_UPLINK_IDS);
    EXPECT_EQ(Add("b"), STATUS_OK);
    ExpectStored(Names({"b"}), Ids({"b"}));
    EXPECT_EQ(VSDVS_ClearSwitchUplinkPorts(LAB), STATUS_OK);
    vshost_fail(VSHOST_STORE, "DVSZOR_HostPropSet", 1, 1, STATUS_BUSY);
    EXPECT_EQ(
        StepsOf([] { EXPECT_EQ(Add("c"), STATUS_BUSY); }),
        (Steps{getNames, "PortAdd lab-id c -", SET_NAMES, SET_IDS, SET_NAMES, "PortRemove lab-id c -"}));
    ExpectStored(Names({}), {}); // the names as before: the switch had no lists
}

TEST_F(Uplinks, AreRemovedFromBothLists)
{
    ASSERT_EQ(Set({"c", "b", "a"}, {"a", "b", "c"}), STATUS_OK);
    ASSERT_EQ(RemoveUplink("b"), STATUS_OK);
    ExpectStored(Names({"a", "c"}), Ids({"a", "c"}));
    EXPECT_EQ(RemoveUplink("b"), STATUS_NOT_FOUND);
    const uint64_t before = vshost_fingerprint();
    for (const char *alias : {"a", PORT}) { // a port that only the names have, and a port in neither list
        Write(PORT_ALIAS, Text(alias));
        EXPECT_EQ(RemoveUplink(PORT), STATUS_OK);
    }
    vshost_fail(VSHOST_STORE, "DVSZOR_PortRemove", 1, 1, STATUS_BUSY);
    EXPECT_EQ(RemoveUplink("a"), STATUS_BUSY);
    EXPECT_EQ(vshost_fingerprint(), before);
    // Once the port is gone nothing is undone.
    vshost_fail(VSHOST_STORE, "DVSZOR_GlobalPropSet", 1, 1, STATUS_BUSY);
    EXPECT_EQ(RemoveUplink("a"), STATUS_BUSY);
    ExpectStored(Names({"a", "c"}), Ids({"a", "c"}));
    EXPECT_EQ(DVPortExist(LAB_ID, "a"), 0);
    vshost_clear();
    Write(SWITCH_UPLINK_NAMES, Names({"c"}));
    Write(HOST_UPLINK_IDS, Ids({"c"}));
    const Steps steps = StepsOf([] { EXPECT_EQ(RemoveUplink("c"), STATUS_OK); });
    EXPECT_EQ(Steps(steps.end() - 3, steps.end()), (Steps{"PortRemove lab-id c -", CLEAR_NAMES, CLEAR_IDS}));
    ExpectStored({}, {});
}

TEST_F(LabTest, ClearedUplinkListsLeaveThePorts)
{
    vshost_fail(VSHOST_STORE, "DVSZOR_HostPropClear", 1, 1, STATUS_BUSY);
    vshost_fail(VSHOST_STORE, "DVSZOR_GlobalPropClear", 1, 1, STATUS_BUSY);
    for (int round = 0; round < 3; round++) // it ignores all failures
        EXPECT_EQ(StepsOf([] { EXPECT_EQ(VSDVS_ClearSwitchUplinkPorts(LAB), STATUS_OK); }),
                  (Steps{CLEAR_IDS, CLEAR_NAMES}));
    ExpectStored({}, {});
    EXPECT_EQ(RemoveUplink("uplink1"), STATUS_NOT_FOUND);
    EXPECT_EQ(DVPortExist(LAB_ID, "uplink1"), 1);
}

}

// The embedded host's functions for undoing a change: ports with their numbers and NICs, and the names of
// properties.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <functional>

#include "core/store.h"
#include "tests/fixture.h"

namespace {

using HostPort = struct vshost_port;
using Name = struct vshost_property_name;

std::vector<HostPort> Ports(const char *switchId = LAB_ID)
{
    size_t count = 0;
    EXPECT_EQ(vshost_list_ports(switchId, nullptr, 0, &count), 0);
    std::vector<HostPort> ports(count);
    EXPECT_EQ(vshost_list_ports(switchId, ports.data(), count, &count), 0);
    return ports;
}

std::vector<Name> Names(const char *portId, const char *switchId = LAB_ID)
{
    size_t count = 0;
    EXPECT_EQ(vshost_list_properties(switchId, portId, nullptr, 0, &count), 0);
    std::vector<Name> names(count);
    EXPECT_EQ(vshost_list_properties(switchId, portId, names.data(), count, &count), 0);
    return names;
}

// A property with its value and its place.
struct Saved {
    Name name;
    std::string portId, value;
};

void Save(const char *portId, std::vector<Saved> &saved)
{
    for (const Name &name : Names(portId)) {
        const auto stored = Read(static_cast<StoreLevel>(name.level), name.key, portId);
        ASSERT_TRUE(stored && stored->flags == name.flags && stored->bytes.size() == name.length) << name.key;
        saved.push_back({name, portId ? portId : "", stored->bytes});
    }
}

void PutBack(const Saved &saved)
{
    const Property property{saved.name.key, static_cast<StoreLevel>(saved.name.level), saved.name.flags};
    Write(property, saved.value, saved.portId.c_str());
}

// Numbers 1 to 4 are free; the lab's ports have higher ones. uplink0 has a plugged-in NIC, uplink1 a NIC that
// the host made.
class Undo : public HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        ASSERT_EQ(vshost_scenario(R"({"nics": {"eth0": {}}})"), 0) << vshost_error();
        ASSERT_EQ(VSDVS_CreateVSwitch("low", "low-id", nullptr, 1, 0, 0, 0, 4), STATUS_OK);
        ASSERT_EQ(CreateLab(), STATUS_OK);
        ASSERT_EQ(VSDVS_CreateVSwitch("other", "other-id", nullptr, 1, 0, 0, 1, 1), STATUS_OK);
        ASSERT_EQ(VSDVS_DestroyVSwitch("low"), STATUS_OK);
        ASSERT_EQ(VSDVS_SetMTU(LAB, 4000), STATUS_OK);
    }
};

TEST_F(Undo, ListsPortsInTheOrderOfTheirNumbers)
{
    std::string listed;
    for (const HostPort &port : Ports())
        listed += std::string(port.id) + ' ' + std::to_string(port.number) + ' ' +
                  std::to_string(port.isUplink) + ' ' + port.nic + ' ' + std::to_string(port.nicMade) + ' ' +
                  std::to_string(port.nicMtu) + ' ' + std::to_string(port.nicAdminUp) + '\n';
    EXPECT_EQ(listed, "uplink0 5 1 eth0 0 4000 1\nuplink1 6 1 nic0 1 4000 1\n"
                      "port0 7 0  0 0 0\nport1 8 0  0 0 0\n");
    std::vector<HostPort> some(3);
    memset(&some[2], 0x5A, sizeof(HostPort));
    size_t count = 0;
    EXPECT_EQ(vshost_list_ports(LAB_ID, some.data(), 2, &count), 0);
    EXPECT_EQ(count, 4u);
    EXPECT_STREQ(some[1].id, "uplink1");
    EXPECT_EQ(some[2].id[0], 0x5A) << "written beyond the capacity";
}

TEST_F(Undo, ListsTheNicsOfTheHost)
{
    ASSERT_EQ(vshost_scenario(R"({"nics": {"eth10": {"speed": 1000, "full-duplex": false, "link": false},
                                           "eth2": {"mtu": 2000, "numa-node": 1}}})"),
              0)
        << vshost_error();
    struct vshost_nic nics[8];
    size_t count = 0;
    ASSERT_EQ(vshost_list_nics(nics, std::size(nics), &count), 0);
    std::string listed;
    for (size_t i = 0; i < count; i++) {
        const auto &nic = nics[i];
        listed += std::string(nic.name) + ' ' + nic.switchId + '/' + nic.portId;
        for (const int64_t number : {int64_t{nic.speed}, int64_t{nic.fullDuplex}, int64_t{nic.link},
                                     int64_t{nic.adminUp}, int64_t{nic.mtu}, int64_t{nic.numaNode}})
            listed += ' ' + std::to_string(number);
        listed += '\n';
    }
    EXPECT_EQ(listed, "eth0 lab-id/uplink0 10000 1 1 1 4000 0\neth2 / 10000 1 1 1 2000 1\n"
                      "nic0 lab-id/uplink1 10000 1 1 1 4000 0\nnic1 other-id/uplink0 10000 1 1 1 1500 0\n"
                      "eth10 / 1000 0 0 1 1500 0\n");
    EXPECT_EQ(vshost_list_nics(nullptr, 1, &count), EINVAL);
    EXPECT_EQ(vshost_list_nics(nics, 1, nullptr), EINVAL);
}

TEST_F(Undo, ASwitchThatWasDestroyedComesBackWhole)
{
    const uint16_t vlan = 7;
    ASSERT_EQ(VSDVS_SetPortVLANPolicy(LAB, PORT, vlan, 3, 0, 0, nullptr, 0), STATUS_OK);
    Write({"a.key", StoreLevel::HOST, 0x33}, "of another program");
    const uint64_t before = vshost_fingerprint();
    std::vector<HostPort> ports = Ports();
    std::vector<Saved> saved;
    Save(nullptr, saved);
    for (const HostPort &port : ports)
        Save(port.id, saved);
    const size_t properties = saved.size();
    EXPECT_GT(properties, 20u);
    // The ports in every order, as many as there are.
    const auto earlier = [](const HostPort &left, const HostPort &right) {
        return left.number < right.number;
    };
    do {
        ASSERT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK);
        ASSERT_EQ(CreateLab(), STATUS_OK);
        ASSERT_EQ(VSDVS_SetMTU(LAB, 4000), STATUS_OK);
        ASSERT_NE(vshost_fingerprint(), before);
        for (const HostPort &port : ports)
            ASSERT_EQ(vshost_restore_port(LAB_ID, &port), 0) << port.id << ": " << port.number;
        for (const Saved &property : saved)
            PutBack(property);
        ASSERT_EQ(vshost_fingerprint(), before);
    } while (std::next_permutation(ports.begin(), ports.end(), earlier));
}

TEST_F(Undo, NumbersAndNicsMayBeExchangedWithinASwitch)
{
    std::vector<HostPort> ports = Ports();
    std::swap(ports[0].number, ports[3].number);
    strcpy(ports[0].nic, "nic0");
    ports[0].nicMade = 1;
    ASSERT_EQ(vshost_restore_port(LAB_ID, &ports[0]), 0);
    const std::vector<HostPort> now = Ports();
    EXPECT_STREQ(now[3].id, "uplink0");
    EXPECT_STREQ(now[3].nic, "nic0");
    EXPECT_STREQ(now[0].id, "port1");
    EXPECT_STREQ(now[1].nic, "eth0") << "the other uplink took the NIC that became free";
    uint32_t number = 0;
    EXPECT_EQ(VSDVS_DvPortIDToPortID(LAB, "uplink0", &number), STATUS_OK);
    EXPECT_EQ(number, 8u);
}

TEST_F(Undo, RefusalsChangeNothing)
{
    const HostPort uplink = Ports()[0], port = Ports()[2], others = Ports("other-id")[0];
    const struct {
        const char *what;
        const char *switchId;
        HostPort base;
        std::function<void(HostPort &)> change;
        int error;
    } cases[] = {
        {"no such switch", "none", uplink, [](HostPort &) {}, ENOENT},
        {"no such port", LAB_ID, uplink, [](HostPort &wanted) { strcpy(wanted.id, "none"); }, ENOENT},
        {"number of another switch", LAB_ID, uplink, [&](HostPort &wanted) { wanted.number = others.number; },
         EBUSY},
        {"NIC of another switch", LAB_ID, uplink, [&](HostPort &wanted) { strcpy(wanted.nic, others.nic); },
         EBUSY},
        {"number 0", LAB_ID, uplink, [](HostPort &wanted) { wanted.number = 0; }, EINVAL},
        {"number never given out", LAB_ID, uplink, [](HostPort &wanted) { wanted.number = 500; }, EINVAL},
        {"number beyond all", LAB_ID, uplink, [](HostPort &wanted) { wanted.number = UINT32_MAX; }, EINVAL},
        {"a NIC for an ordinary port", LAB_ID, port, [](HostPort &wanted) { strcpy(wanted.nic, "eth0"); },
         EINVAL},
        {"NIC that is gone", LAB_ID, uplink, [](HostPort &wanted) { strcpy(wanted.nic, "eth9"); }, ENODEV},
        {"a NIC that no host makes", LAB_ID, uplink,
         [](HostPort &wanted) {
             strcpy(wanted.nic, "eth9");
             wanted.nicMade = 1;
         },
         ENODEV},
        {"an MTU out of range", LAB_ID, uplink,
         [](HostPort &wanted) {
             strcpy(wanted.nic, "nic7");
             wanted.nicMade = 1;
             wanted.nicMtu = 1;
         },
         EINVAL},
        {"an id without NUL", LAB_ID, uplink,
         [](HostPort &wanted) { memset(wanted.id, 'x', sizeof(wanted.id)); }, EINVAL},
    };
    const uint64_t before = vshost_fingerprint();
    for (const auto &row : cases) {
        HostPort wanted = row.base;
        wanted.number = 2; // free; it would be taken if the refusal had left a half-made port
        row.change(wanted);
        EXPECT_EQ(vshost_restore_port(row.switchId, &wanted), row.error) << row.what;
        EXPECT_EQ(vshost_fingerprint(), before) << row.what;
    }
    size_t count = 99;
    EXPECT_EQ(vshost_restore_port(nullptr, &uplink), EINVAL);
    EXPECT_EQ(vshost_restore_port(LAB_ID, nullptr), EINVAL);
    EXPECT_EQ(vshost_list_ports("none", nullptr, 0, &count), ENOENT);
    EXPECT_EQ(vshost_list_ports(LAB_ID, nullptr, 1, &count), EINVAL);
    EXPECT_EQ(vshost_list_properties(LAB_ID, "none", nullptr, 0, &count), ENOENT);
    EXPECT_EQ(vshost_list_properties("none", nullptr, nullptr, 0, &count), ENOENT);
    Write({std::string(128, 'k').c_str(), StoreLevel::HOST, 0}, "");
    EXPECT_EQ(vshost_list_properties(LAB_ID, nullptr, nullptr, 0, &count), EOVERFLOW);
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(vshost_list_ports(LAB_ID, nullptr, 0, nullptr), EINVAL);
}

// As in a program that must also start on other platforms: the store's library has these functions, even
// without the preload.
TEST(NoHost, ThePlatformCanBeRecognised)
{
    vshost_stop();
    Dl_info library = {};
    void *symbol = dlsym(RTLD_DEFAULT, "vshost_platform");
    ASSERT_TRUE(symbol && dladdr(symbol, &library));
    EXPECT_NE(std::string(library.dli_fname).find("liborkPublic.so"), std::string::npos);
    EXPECT_STREQ(reinterpret_cast<decltype(&vshost_platform)>(symbol)(), "vshost 1");
    size_t count = 99;
    const HostPort port = {};
    EXPECT_EQ(vshost_list_ports(LAB_ID, nullptr, 0, &count), ENOENT);
    EXPECT_EQ(vshost_list_properties(LAB_ID, nullptr, nullptr, 0, &count), ENOENT);
    EXPECT_EQ(vshost_restore_port(LAB_ID, &port), ENOENT);
    EXPECT_EQ(count, 99u);
}

}

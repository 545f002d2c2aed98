// The three names of a switch, and the start-up that makes them known.
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/family.h"

namespace {

// Another store may lend an id that fills its field, or continue a walk after a match.
const char *fullId = nullptr;
bool walksOn = false;

struct Visitor {
    int (*callback)(SwitchHandle *, void *);
    void *context;
};
int VisitAndWalkOn(SwitchHandle *handle, void *visitor)
{
    const auto *visit = static_cast<const Visitor *>(visitor);
    visit->callback(handle, visit->context);
    return 0;
}

template<typename Function> Function *Next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}

// The library finds these functions before the host's.
extern "C" {

const char *DVS_SwitchId(SwitchHandle *handle)
{
    return fullId ? fullId : Next<decltype(DVS_SwitchId)>("DVS_SwitchId")(handle);
}

VsStatus DVSState_HostPropLookup(const char *switchId, const char *key, PropHandle **property)
{
    if (switchId == fullId) return STATUS_NOT_FOUND;
    return Next<decltype(DVSState_HostPropLookup)>("DVSState_HostPropLookup")(switchId, key, property);
}

VsStatus DVSState_GlobalPropLookup(const char *switchId, const char *key, PropHandle **property)
{
    if (switchId == fullId) return STATUS_NOT_FOUND;
    return Next<decltype(DVSState_GlobalPropLookup)>("DVSState_GlobalPropLookup")(switchId, key, property);
}

void DVSState_SwitchForEach(int (*callback)(SwitchHandle *, void *), void *context)
{
    Visitor visitor = {callback, context};
    const auto walk = Next<decltype(DVSState_SwitchForEach)>("DVSState_SwitchForEach");
    walksOn ? walk(VisitAndWalkOn, &visitor) : walk(callback, context);
}
}

namespace {

constexpr char UNTOUCHED = '\x55';

// Status and whole buffer of a conversion.
using Converted = std::pair<VsStatus, std::string>;

template<size_t size> Converted Convert(VsStatus (*convert)(const char *, char *), const std::string &name)
{
    std::string buffer(size, UNTOUCHED);
    const VsStatus status = convert(name.c_str(), buffer.data());
    return {status, buffer};
}
Converted SwitchId(const std::string &alias) { return Convert<SWITCH_ID_SIZE>(DVSAliasToSwitchId, alias); }
Converted PortsetName(const std::string &alias)
{
    return Convert<PORTSET_NAME_SIZE>(DVSAliasToPortsetName, alias);
}
Converted Alias(const std::string &portsetName)
{
    const Converted alias = Convert<SWITCH_ALIAS_SIZE>(DVSPortsetNameToAlias, portsetName);
    EXPECT_EQ(Convert<SWITCH_ALIAS_SIZE>(VSDVS_GetAliasFromPortset, portsetName), alias);
    return alias;
}
Converted Found(const std::string &name) { return {STATUS_OK, Field(name.substr(0, 127), 128)}; }

using OptionalText = std::optional<std::string>;

class Identity : public HostTest {
protected:
    // Only in the store; an absent name is not stored.
    void AddSwitch(const OptionalText &alias, const OptionalText &portset, const char *className = "vswitch")
    {
        const std::string id = std::to_string(next++);
        ASSERT_EQ(DVSZOR_SwitchAdd(id.c_str(), className, 8, 1), STATUS_OK);
        if (alias) Write(SWITCH_ALIAS, Text(*alias), nullptr, id.c_str());
        if (portset) Write(SWITCH_PORTSET, Text(*portset), nullptr, id.c_str());
    }
    uint32_t next = 1;
};

TEST_F(Identity, AnIdWithoutANulComesOutAsItsFirst63Characters)
{
    AddSwitch("lab", {});
    // The id ends where the readable memory does.
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *const memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    char *const end = static_cast<char *>(memory) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    memset(end - SWITCH_ID_SIZE, 'i', SWITCH_ID_SIZE);
    fullId = end - SWITCH_ID_SIZE;
    EXPECT_EQ(PortsetName("lab"), Found(std::string(63, 'i')));
    EXPECT_EQ(SwitchId("lab"), (Converted{STATUS_OK, Text(std::string(63, 'i'))}));
    fullId = nullptr;
    munmap(memory, 2 * page);
}

TEST_F(Identity, APortsetNameFindsTheLongestStoredPrefix)
{
    const std::string x127(127, 'x'), y128(128, 'y'), nameless = "nameless" + std::string(200, 'z');
    AddSwitch("one", "lab");
    AddSwitch("two", "laboratory");
    AddSwitch(x127, "lab-127");
    AddSwitch(y128, "lab-128");
    AddSwitch({}, "nameless");
    AddSwitch("other", "dvs", "dvs");
    AddSwitch("without portset", {});
    const std::pair<std::string, std::string> cases[] = {{"lab", "one"},
                                                         {"lab2", "one"},
                                                         {"laborator", "one"},
                                                         {"laboratory", "two"},
                                                         {"laboratory:3", "two"},
                                                         {"lab-127", x127},
                                                         {"lab-128", y128.substr(1)},
                                                         {nameless, nameless},
                                                         {"dvs0", "other"},
                                                         {"la", ""},
                                                         {"LAB", ""},
                                                         {"without portset", ""}};
    for (const bool on : {false, true}) {
        walksOn = on;
        for (const auto &[wanted, alias] : cases)
            EXPECT_EQ(Alias(wanted), Found(alias)) << wanted << ", walks on: " << on;
    }
    walksOn = false;
    EXPECT_EQ(Alias(""), (Converted{STATUS_BAD_PARAM, std::string(SWITCH_ALIAS_SIZE, UNTOUCHED)}));
    AddSwitch("empty", "");
    EXPECT_EQ(Alias("la"), Found("empty"));
    EXPECT_EQ(Alias("lab"), Found("one"));
}

}

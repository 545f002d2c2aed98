#include "platform/testing/call_names.h"

#include <algorithm>
#include <charconv>

#include "platform/host/nearest.h"
#include "platform/include/vswitch_driver.h"

namespace vshost {

namespace {

using CallNames = std::vector<std::string_view>;

// Operations that are recorded but return no status.
const CallNames NEVER_FAIL = {"DVSZOR_DataFree", "DVS_ClassName",  "DVS_SwitchId",
                              "DVSData_Data",    "DVSData_Update", "DVSData_Free"};

bool Contains(const CallNames &names, std::string_view name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Every number is a command of the RTM device.
bool IsCommandNumber(std::string_view name)
{
    uint32_t number = 0;
    const char *end = name.data() + name.size();
    const auto [parsed, error] = std::from_chars(name.data(), end, number);
    return error == std::errc() && parsed == end && (name.size() == 1 || name[0] != '0');
}

const CallNames &NamesOf(vshost_kind kind)
{
    static const CallNames store = {"DVSZOR_GlobalPropGet",       "DVSZOR_GlobalPropSet",
                                    "DVSZOR_GlobalPropClear",     "DVSZOR_HostPropGet",
                                    "DVSZOR_HostPropSet",         "DVSZOR_HostPropClear",
                                    "DVSZOR_PortDataGet",         "DVSZOR_PortDataSet",
                                    "DVSZOR_PortDataClear",       "DVSZOR_PortAdd",
                                    "DVSZOR_PortRemove",          "DVSZOR_SwitchAdd",
                                    "DVSZOR_SwitchRemove",        "DVSZOR_SwitchAssociate",
                                    "DVSZOR_SwitchDissociate",    "DVSZOR_StateGet",
                                    "DVSState_ConfigReset",       "DVSState_ConfigDeserialize",
                                    "DVSState_SwitchFindByAlias", "DVSState_SwitchForEach",
                                    "DVSState_PortFind",          "DVSState_GlobalPropLookup",
                                    "DVSState_HostPropLookup",    "DVSData_Alloc",
                                    "DVSData_Serialize"};
    static const CallNames shell = {"create", "destroy", "get", "ls", "set"};
    static const CallNames device = {VSWITCH_DRIVER_DEVICE, VSWITCH_DRIVER_RTM_DEVICE};
    static const CallNames allocation = {"calloc", "malloc", "realloc"};
    static const CallNames none;
    switch (kind) {
    case VSHOST_STORE:
        return store;
    case VSHOST_SHELL:
        return shell;
    case VSHOST_OPEN:
        return device;
    case VSHOST_ALLOCATION:
        return allocation;
    default:
        return none;
    }
}

}

bool IsCallName(vshost_kind kind, std::string_view name)
{
    if (kind == VSHOST_DRIVER) return IsCommandNumber(name);
    return Contains(NamesOf(kind), name);
}

std::string ExplainCallName(vshost_kind kind, std::string_view name)
{
    const std::string given = '"' + std::string(name) + '"';
    if (kind == VSHOST_DRIVER) return given + " must be the number of a driver command, such as 4106";
    if (kind == VSHOST_STORE && Contains(NEVER_FAIL, name)) return given + " never fails";
    const std::string_view nearest = NearestName(name, NamesOf(kind));
    if (!nearest.empty()) return given + " is unknown; did you mean " + std::string(nearest) + "?";
    return given + " is unknown; vshost.h says what can fail";
}

}

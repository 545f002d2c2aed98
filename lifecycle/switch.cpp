// Switches: a portset in the kernel and a record in the store, created and destroyed together.
#include <cstdio>
#include <cstring>

#include "core/property.h"
#include "core/shell.h"
#include "lifecycle/port.h"

namespace {

constexpr uint32_t DEFAULT_MAX_PORTS = 128;
constexpr char VSWITCH_CLASS[] = "vswitch";
constexpr char CREATE_COMMAND[] = "/bin/tybel -e set /net/create %s \"%d\n\" vswitch 2>/dev/null";
constexpr char DESTROY_COMMAND[] = "/bin/tybel -e set /net/portsets/%s/destroy destroy 2> /dev/null";

// The first 15 characters of the alias as 16 bytes in hexadecimal, the last byte always zero.
void GenerateSwitchId(const char *alias, char *switchId)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    constexpr size_t BYTES = 16;
    uint8_t block[BYTES] = {};
    memcpy(block, alias, strnlen(alias, BYTES - 1));
    for (size_t i = 0; i < BYTES; i++) {
        switchId[3 * i] = DIGITS[block[i] >> 4];
        switchId[3 * i + 1] = DIGITS[block[i] & 0xF];
        switchId[3 * i + 2] = i == BYTES / 2 - 1 ? '-' : ' ';
    }
    switchId[3 * BYTES - 1] = '\0';
}

// A switch that is being stored, after its portset was created.
struct NewSwitch {
    const char *alias;
    const char *switchId;
    const char *portsetName;
    uint32_t version;
    bool opaque;

    VsStatus Identify() const
    {
        const PropertyScope scope(switchId);
        if (VsStatus status = scope.SetText(SWITCH_ALIAS, alias)) return status;
        if (VsStatus status = scope.Set(SWITCH_VERSION, version)) return status;
        if (VsStatus status = scope.SetText(SWITCH_OPAQUE, opaque ? "true" : "false")) return status;
        return scope.SetText(SWITCH_PORTSET, portsetName);
    }

    VsStatus AddPorts(uint32_t numUplinks, uint32_t numPorts) const
    {
        if (numUplinks > 0) {
            if (VsStatus status = SetNumSwitchUplinkPortsByUUID(switchId, numUplinks)) return status;
        }
        for (uint32_t i = 0; i < numPorts; i++) {
            char dvPortId[32];
            snprintf(dvPortId, sizeof(dvPortId), "port%d", static_cast<int32_t>(i));
            if (VsStatus status = AddDVPortByUUID(switchId, dvPortId, DEFAULT_CONNECT_ID, false))
                return status;
        }
        return STATUS_OK;
    }

    // Removing the switch's record also removes its ports and uplink lists.
    VsStatus Fill(uint32_t numUplinks, uint32_t numPorts) const
    {
        if (VsStatus status = Identify()) return status;
        if (VsStatus status = DVSZOR_SwitchAssociate(switchId)) return status;
        const VsStatus status = AddPorts(numUplinks, numPorts);
        if (status != STATUS_OK) DVSZOR_SwitchDissociate(switchId);
        return status;
    }

    VsStatus Add(uint32_t maxPorts, uint32_t numUplinks, uint32_t numPorts) const
    {
        if (VsStatus status = DVSZOR_SwitchAdd(switchId, VSWITCH_CLASS, maxPorts, version)) return status;
        const VsStatus status = Fill(numUplinks, numPorts);
        if (status != STATUS_OK) DVSZOR_SwitchRemove(switchId);
        return status;
    }
};

}

VsStatus VSDVS_CreateVSwitch(const char *alias, const char *switchId, const char *portsetName,
                             uint32_t version, uint8_t opaque, uint32_t maxPorts, uint32_t numUplinks,
                             uint32_t numPorts)
{
    if (!alias) return STATUS_BAD_PARAM;
    char generatedId[SWITCH_ID_SIZE];
    if (!switchId) {
        GenerateSwitchId(alias, generatedId);
        switchId = generatedId;
    }
    if (!portsetName) portsetName = alias;
    if (maxPorts == 0) maxPorts = DEFAULT_MAX_PORTS;

    const ShellCommand create(CREATE_COMMAND, portsetName, static_cast<int32_t>(maxPorts));
    const ShellCommand destroy(DESTROY_COMMAND, portsetName);
    if (!destroy.Formed()) return STATUS_FAILURE;
    if (VsStatus status = create.Run()) return status;
    const NewSwitch added = {alias, switchId, portsetName, version, opaque != 0};
    const VsStatus status = added.Add(maxPorts, numUplinks, numPorts);
    if (status != STATUS_OK) destroy.Run();
    return status;
}

VsStatus VSDVS_DestroyVSwitch(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    char portsetName[PORTSET_NAME_SIZE];
    if (VsStatus status = DVSAliasToPortsetName(alias, portsetName)) return status;
    char switchId[SWITCH_ID_SIZE];
    if (VsStatus status = DVSAliasToSwitchId(alias, switchId)) return status;
    const ShellCommand destroy(DESTROY_COMMAND, portsetName);
    if (!destroy.Formed()) return STATUS_FAILURE;
    if (VsStatus status = DVSZOR_SwitchDissociate(switchId)) return status;
    if (VsStatus status = DVSZOR_SwitchRemove(switchId)) return status;
    return destroy.Run();
}

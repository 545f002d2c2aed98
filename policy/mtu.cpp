// The MTU in force: a node of the portset and a node of each of its physical uplinks. They are set together,
// then stored.
#include <cstdio>
#include <cstring>

#include "core/property.h"
#include "core/shell.h"

namespace {

constexpr char GET_PORTSET_MTU[] = "/bin/tybel -e get /net/portsets/%s/mtu";
constexpr char LIST_UPLINKS[] = "tybel -e ls /net/portsets/%s/uplinks";
constexpr char SET_PORTSET_MTU[] = "tybel -e set /net/portsets/%s/mtu %d";
constexpr char SET_UPLINK_MTU[] = "tybel -e set /net/pNics/%s/mtu %d";
constexpr size_t QUERY_SIZE = 128;

// The last number of the text counts.
bool ParseMTU(char *text, int32_t *mtu)
{
    bool found = false;
    char *rest = nullptr;
    for (char *token = strtok_r(text, ":\r\n", &rest); token; token = strtok_r(nullptr, ":\r\n", &rest))
        found |= sscanf(token, "%d", mtu) == 1;
    return found;
}

VsStatus QueryPortsetMTU(const char *portsetName, int32_t *mtu)
{
    ShellOutput output(ShellCommand(GET_PORTSET_MTU, portsetName));
    if (!output.Started()) return STATUS_FAILURE;
    char text[QUERY_SIZE + 1];
    text[output.Read(text, QUERY_SIZE)] = '\0';
    return ParseMTU(text, mtu) ? STATUS_OK : STATUS_FAILURE;
}

// The uplinks whose MTU was changed, in the order of the listing.
class ChangedUplinks {
public:
    VsStatus ChangeAll(const char *portsetName, int32_t mtu)
    {
        ShellOutput listing(ShellCommand(LIST_UPLINKS, portsetName));
        if (!listing.Started()) return STATUS_FAILURE;
        while (count < MAX_UPLINKS) {
            char *name = names[count];
            const ShellOutput::Line line = listing.ReadLine(name, NAME_SIZE);
            if (line == ShellOutput::Line::END) break;
            if (line == ShellOutput::Line::TOO_LONG) return STATUS_FAILURE;
            CutTrailingSlashes(name);
            if (VsStatus status = ShellCommand(SET_UPLINK_MTU, name, mtu).Run()) return status;
            count++;
        }
        return STATUS_OK;
    }

    void Restore(int32_t mtu)
    {
        while (count > 0)
            ShellCommand(SET_UPLINK_MTU, names[--count], mtu).Run();
    }

private:
    static constexpr uint32_t MAX_UPLINKS = 32;
    static constexpr size_t NAME_SIZE = 32;

    static void CutTrailingSlashes(char *name)
    {
        for (size_t length = strlen(name); length > 0 && name[length - 1] == '/'; length--)
            name[length - 1] = '\0';
    }

    char names[MAX_UPLINKS][NAME_SIZE];
    uint32_t count = 0;
};

VsStatus ChangePortset(const PropertyScope &scope, const char *portsetName, int32_t mtu, int32_t oldMTU)
{
    if (VsStatus status = ShellCommand(SET_PORTSET_MTU, portsetName, mtu).Run()) return status;
    if (VsStatus status = scope.Set(SWITCH_MTU, mtu)) {
        ShellCommand(SET_PORTSET_MTU, portsetName, oldMTU).Run();
        return status;
    }
    scope.Set(ETHERSWITCH_MTU, mtu);
    return STATUS_OK;
}

}

VsStatus VSDVS_GetMTU(const char *alias, int32_t *mtu)
{
    if (!alias || !mtu) return STATUS_BAD_PARAM;
    char portsetName[PORTSET_NAME_SIZE];
    if (VsStatus status = DVSAliasToPortsetName(alias, portsetName)) return status;
    return QueryPortsetMTU(portsetName, mtu);
}

VsStatus VSDVS_SetMTU(const char *alias, int32_t mtu)
{
    if (!alias || mtu < MTU_MIN || mtu > MTU_MAX) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    char portsetName[PORTSET_NAME_SIZE];
    if (VsStatus status = DVSAliasToPortsetName(alias, portsetName)) return status;
    int32_t oldMTU = 0;
    if (VsStatus status = QueryPortsetMTU(portsetName, &oldMTU)) return status;

    ChangedUplinks uplinks;
    VsStatus status = uplinks.ChangeAll(portsetName, mtu);
    if (status == STATUS_OK) status = ChangePortset(scope, portsetName, mtu, oldMTU);
    if (status != STATUS_OK) uplinks.Restore(oldMTU);
    return status;
}

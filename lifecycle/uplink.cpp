// Uplinks: ports that are also in two lists, the switch's list of names and this host's list of port ids.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/property.h"
#include "core/text.h"
#include "lifecycle/port.h"

namespace {

static_assert(sizeof(UplinkName) == 81 && sizeof(UplinkNameList) == 4);
static_assert(sizeof(UplinkPortId) == 48 && sizeof(UplinkPortIdList) == 4);

// Both lists hold a count and that many fields of one width, each a text that ends at a NUL or fills it.
template<typename List, typename Field> struct UplinkList {
    static constexpr uint32_t MAX_COUNT = (UINT32_MAX - sizeof(List)) / sizeof(Field);

    static uint64_t Size(uint32_t count) { return sizeof(List) + uint64_t{count} * sizeof(Field); }

    static Field *Fields(List *list) { return reinterpret_cast<Field *>(list + 1); }
    static const Field *Fields(const List *list) { return reinterpret_cast<const Field *>(list + 1); }

    static bool IsWhole(const StoreValue &value)
    {
        return value.length >= sizeof(List) && value.length == Size(value.As<List>()->count);
    }

    // Null when memory is short or the list does not fit the store's 32-bit lengths.
    static List *Allocate(uint32_t count)
    {
        if (count > MAX_COUNT) return nullptr;
        auto *list = static_cast<List *>(calloc(1, Size(count)));
        if (list) list->count = count;
        return list;
    }

    static List *Copy(const List *list)
    {
        List *copy = Allocate(list->count);
        if (copy) memcpy(copy, list, Size(list->count));
        return copy;
    }

    static VsStatus Store(const PropertyScope &scope, const Property &property, const List *list)
    {
        if (list->count > MAX_COUNT) return STATUS_NO_MEMORY;
        return scope.Set(property, list, static_cast<uint32_t>(Size(list->count)));
    }

    // An emptied list is removed, not stored.
    static VsStatus StoreOrClear(const PropertyScope &scope, const Property &property, const List *list)
    {
        return list->count > 0 ? Store(scope, property, list) : scope.Clear(property);
    }

    static void RemoveAt(List *list, uint32_t index)
    {
        list->count--;
        Field *removed = Fields(list) + index;
        memmove(removed, removed + 1, (list->count - index) * sizeof(Field));
    }

    static List *WithOneMore(const List *list, const char *text)
    {
        List *longer = list->count < MAX_COUNT ? Allocate(list->count + 1) : nullptr;
        if (!longer) return nullptr;
        memcpy(Fields(longer), Fields(list), list->count * sizeof(Field));
        text::CopyIntoZeros(Fields(longer)[list->count].text, text, sizeof(Field));
        return longer;
    }
};

using NameList = UplinkList<UplinkNameList, UplinkName>;
using IdList = UplinkList<UplinkPortIdList, UplinkPortId>;

// A list in the library's own memory.
template<typename List> struct OwnedList {
    explicit OwnedList(List *list) : list(list) {}
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
    ~OwnedList() { free(list); }
    List *list;
};

// A field without a NUL equals no text.
bool Equals(const UplinkPortId &field, const char *dvPortId)
{
    return strnlen(dvPortId, sizeof(field.text)) < sizeof(field.text) &&
           strncmp(field.text, dvPortId, sizeof(field.text)) == 0;
}

bool Equals(const UplinkName &field, const StoreValue &alias)
{
    const size_t length = strnlen(field.text, sizeof(field.text));
    return length < sizeof(field.text) && length + 1 == alias.length &&
           memcmp(field.text, alias.data, alias.length) == 0;
}

const UplinkName *FindName(const UplinkNameList *names, const StoreValue &alias)
{
    const UplinkName *fields = NameList::Fields(names);
    for (uint32_t i = 0; i < names->count; i++) {
        if (Equals(fields[i], alias)) return &fields[i];
    }
    return nullptr;
}

const UplinkPortId *FindId(const UplinkPortIdList *ids, const char *dvPortId)
{
    const UplinkPortId *fields = IdList::Fields(ids);
    for (uint32_t i = 0; i < ids->count; i++) {
        if (Equals(fields[i], dvPortId)) return &fields[i];
    }
    return nullptr;
}

// A port id that is safe to pass on even if the list's field lacks its NUL.
struct PortIdText {
    explicit PortIdText(const UplinkPortId &field)
    {
        memcpy(text, field.text, sizeof(field.text));
        text[sizeof(field.text)] = '\0';
    }
    char text[sizeof(UplinkPortId) + 1];
};

void RemovePortsBackwards(const char *switchId, const UplinkPortIdList *ids, uint32_t count)
{
    while (count-- > 0)
        DVSZOR_PortRemove(switchId, PortIdText(IdList::Fields(ids)[count]).text);
}

VsStatus AddPorts(const char *switchId, const UplinkPortIdList *ids)
{
    for (uint32_t i = 0; i < ids->count; i++) {
        const PortIdText dvPortId(IdList::Fields(ids)[i]);
        if (VsStatus status = AddDVPortByUUID(switchId, dvPortId.text, DEFAULT_CONNECT_ID, true)) {
            RemovePortsBackwards(switchId, ids, i);
            return status;
        }
    }
    return STATUS_OK;
}

VsStatus StoreLists(const PropertyScope &scope, const UplinkNameList *names, const UplinkPortIdList *ids)
{
    if (VsStatus status = NameList::Store(scope, SWITCH_UPLINK_NAMES, names)) return status;
    const VsStatus status = IdList::Store(scope, HOST_UPLINK_IDS, ids);
    if (status != STATUS_OK) scope.Clear(SWITCH_UPLINK_NAMES);
    return status;
}

VsStatus SetSwitchUplinkPortsByUUID(const char *switchId, const UplinkNameList *names,
                                    const UplinkPortIdList *ids)
{
    if (VsStatus status = AddPorts(switchId, ids)) return status;
    const VsStatus status = StoreLists(PropertyScope(switchId), names, ids);
    if (status != STATUS_OK) RemovePortsBackwards(switchId, ids, ids->count);
    return status;
}

VsStatus ReadPortAlias(const PropertyScope &scope, const char *dvPortId, StoreValue *alias)
{
    return PropertyScope(scope.SwitchId(), dvPortId).Get(PORT_ALIAS, alias);
}

// Writes the name of the port in id entry i into name entry i, for each port.
VsStatus AlignNames(const PropertyScope &scope, UplinkNameList *names, const UplinkPortIdList *ids)
{
    OwnedList<UplinkNameList> stored(nullptr); // a copy, from the first name that is out of place
    for (uint32_t i = 0; i < ids->count; i++) {
        StoreValue alias;
        if (VsStatus status = ReadPortAlias(scope, PortIdText(IdList::Fields(ids)[i]).text, &alias))
            return status;
        UplinkName *field = NameList::Fields(names) + i;
        if (Equals(*field, alias)) continue;
        if (!stored.list) stored.list = NameList::Copy(names);
        if (!stored.list) return STATUS_NO_MEMORY;
        const UplinkName *name = FindName(stored.list, alias);
        if (!name) return STATUS_FAILURE;
        memcpy(field->text, name->text, alias.length);
    }
    return STATUS_OK;
}

// Both lists as they are stored, then with each name in the place of its port.
struct StoredLists {
    VsStatus ReadNames(const PropertyScope &scope) { return scope.Get(SWITCH_UPLINK_NAMES, &names); }

    VsStatus ReadIdsAndAlign(const PropertyScope &scope)
    {
        if (!NameList::IsWhole(names)) return STATUS_FAILURE;
        if (VsStatus status = scope.Get(HOST_UPLINK_IDS, &ids)) return status;
        if (!IdList::IsWhole(ids) || Ids()->count != Names()->count) return STATUS_FAILURE;
        return AlignNames(scope, Names(), Ids());
    }

    VsStatus Read(const PropertyScope &scope)
    {
        const VsStatus status = ReadNames(scope);
        return status != STATUS_OK ? status : ReadIdsAndAlign(scope);
    }

    UplinkNameList *Names() const { return names.As<UplinkNameList>(); }
    UplinkPortIdList *Ids() const { return ids.As<UplinkPortIdList>(); }

    StoreValue names;
    StoreValue ids;
};

VsStatus AddUplink(const PropertyScope &scope, const char *name, const UplinkNameList *oldNames,
                   const UplinkPortIdList *oldIds)
{
    if (FindId(oldIds, name)) return STATUS_EXISTS;
    const OwnedList<UplinkNameList> names(NameList::WithOneMore(oldNames, name));
    const OwnedList<UplinkPortIdList> ids(IdList::WithOneMore(oldIds, name));
    if (!names.list || !ids.list) return STATUS_NO_MEMORY;

    if (VsStatus status = AddDVPortByUUID(scope.SwitchId(), name, DEFAULT_CONNECT_ID, true)) return status;
    VsStatus status = NameList::Store(scope, SWITCH_UPLINK_NAMES, names.list);
    if (status == STATUS_OK) {
        status = IdList::Store(scope, HOST_UPLINK_IDS, ids.list);
        if (status == STATUS_OK) return STATUS_OK;
        NameList::Store(scope, SWITCH_UPLINK_NAMES, oldNames);
    }
    DVSZOR_PortRemove(scope.SwitchId(), name);
    return status;
}

VsStatus StoreShorterLists(const PropertyScope &scope, const UplinkNameList *names,
                           const UplinkPortIdList *ids)
{
    if (VsStatus status = NameList::StoreOrClear(scope, SWITCH_UPLINK_NAMES, names)) return status;
    return IdList::StoreOrClear(scope, HOST_UPLINK_IDS, ids);
}

// A port whose alias or id is not in the lists stays unchanged.
VsStatus RemoveUplink(const PropertyScope &scope, const char *dvPortId, const StoredLists &lists)
{
    StoreValue alias;
    if (VsStatus status = ReadPortAlias(scope, dvPortId, &alias)) return status;
    const UplinkName *name = FindName(lists.Names(), alias);
    const UplinkPortId *id = FindId(lists.Ids(), dvPortId);
    if (!name || !id) return STATUS_OK;
    NameList::RemoveAt(lists.Names(), static_cast<uint32_t>(name - NameList::Fields(lists.Names())));
    IdList::RemoveAt(lists.Ids(), static_cast<uint32_t>(id - IdList::Fields(lists.Ids())));
    if (VsStatus status = DVSZOR_PortRemove(scope.SwitchId(), dvPortId)) return status;
    return StoreShorterLists(scope, lists.Names(), lists.Ids());
}

}

VsStatus SetNumSwitchUplinkPortsByUUID(const char *switchId, uint32_t numUplinks)
{
    if (!switchId) return STATUS_BAD_PARAM;
    const OwnedList<UplinkNameList> names(NameList::Allocate(numUplinks));
    const OwnedList<UplinkPortIdList> ids(IdList::Allocate(numUplinks));
    if (!names.list || !ids.list) return STATUS_NO_MEMORY;
    for (uint32_t i = 0; i < numUplinks; i++) {
        char *name = NameList::Fields(names.list)[i].text;
        snprintf(name, sizeof(UplinkName), "uplink%d", static_cast<int32_t>(i));
        text::CopyIntoZeros(IdList::Fields(ids.list)[i].text, name, sizeof(UplinkPortId));
    }
    return SetSwitchUplinkPortsByUUID(switchId, names.list, ids.list);
}

VsStatus VSDVS_SetSwitchUplinkPorts(const char *alias, const UplinkNameList *names,
                                    const UplinkPortIdList *ids)
{
    if (!alias || !names || !ids) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return SetSwitchUplinkPortsByUUID(scope.SwitchId(), names, ids);
}

VsStatus VSDVS_GetSwitchUplinkPorts(const char *alias, UplinkNameList **names, UplinkPortIdList **ids)
{
    if (!alias || !names || !ids) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    StoredLists lists;
    if (VsStatus status = lists.ReadNames(scope)) return status;
    const VsStatus status = lists.ReadIdsAndAlign(scope);
    const bool whole = status == STATUS_OK;
    *names = whole ? lists.names.HandOver<UplinkNameList>() : nullptr;
    *ids = whole ? lists.ids.HandOver<UplinkPortIdList>() : nullptr;
    return status;
}

VsStatus VSDVS_AddSwitchUplinkPort(const char *alias, const char *name)
{
    if (!alias || !name) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    // The lists would cut a longer name, and its port could not be found again.
    if (strlen(name) >= DV_PORT_ID_SIZE) return STATUS_BAD_PARAM;
    StoredLists lists;
    const VsStatus status = lists.Read(scope);
    if (status == STATUS_NOT_FOUND) {
        constexpr UplinkNameList NO_NAMES = {0};
        constexpr UplinkPortIdList NO_IDS = {0};
        return AddUplink(scope, name, &NO_NAMES, &NO_IDS);
    }
    return status != STATUS_OK ? status : AddUplink(scope, name, lists.Names(), lists.Ids());
}

VsStatus VSDVS_RemoveSwitchUplinkPort(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    StoredLists lists;
    if (VsStatus status = lists.Read(scope)) return status;
    return RemoveUplink(scope, dvPortId, lists);
}

VsStatus VSDVS_ClearSwitchUplinkPorts(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    scope.Clear(HOST_UPLINK_IDS);
    scope.Clear(SWITCH_UPLINK_NAMES);
    return STATUS_OK;
}

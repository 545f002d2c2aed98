// Every operation as it is documented, on the host of model_host.h. It takes the documented steps in their
// order: the first failing step ends the operation, which leaves the documented remainder.
#pragma once

#include "tests/model_host.h"

#include <deque>

namespace model {

class Model : public Host {
public:
    // The bytes of a list that was handed out; null for any other pointer.
    const std::string *HandedOut(const void *list) const
    {
        for (const std::string &bytes : handedOut)
            if (bytes.data() == list) return &bytes;
        return nullptr;
    }

    void Init()
    {
        if (Gate(VSHOST_STORE, "DVSState_ConfigReset")) return;
        cacheLoaded =
            !Gate(VSHOST_STORE, "DVSZOR_StateGet") && !Gate(VSHOST_STORE, "DVSState_ConfigDeserialize");
    }
    void Nothing() {}

    // ---- Switch identity ----

    void DVSAliasToSwitchId(const char *alias, char *out) { Put(out, Field(Resolve(alias), 64)); }
    void DVSAliasToPortsetName(const char *alias, char *out) { Put(out, Field(ResolvePortset(alias), 128)); }
    void DVSPortsetNameToAlias(const char *name, char *out)
    {
        Require(*name, STATUS_BAD_PARAM);
        std::string alias;
        if (!Gate(VSHOST_STORE, "DVSState_SwitchForEach") && cacheLoaded)
            for (const std::string &id : Walk()) {
                const auto portset = Lookup(PORTSET, id);
                if (!portset || !std::string_view(name).starts_with(*portset)) continue;
                alias = Lookup(ALIAS, id).value_or(name);
                break;
            }
        Put(out, Field(Cut(alias), 128));
    }
    void PortExists(const char *id, const char *port)
    {
        Require(!Gate(VSHOST_STORE, "DVSState_PortFind") && cacheLoaded, STATUS_NOT_FOUND);
        Owner(StoreLevel::PORT, id, port);
    }

    // ---- Properties by key ----

    template<StoreLevel level>
    void GetOfPort(const char *alias, const char *port, const char *key, PropValueBuffer *value,
                   const char *id, uint8_t useAlias)
    {
        const std::string stored = Get({key, level, 0}, ResolveEither(alias, id, useAlias), port);
        const auto length = static_cast<int32_t>(stored.size());
        Require(value->length == 0 || value->length >= length, STATUS_NO_MEMORY);
        value->length ? Put(value->data, stored) : Put(&value->length, Bytes(length));
    }
    template<StoreLevel level>
    void GetOfSwitch(const char *alias, const char *key, PropValueBuffer *value, const char *id,
                     uint8_t useAlias)
    {
        GetOfPort<level>(alias, "", key, value, id, useAlias);
    }
    template<StoreLevel level>
    void SetOfPort(const char *alias, const char *port, const char *key, const void *data, uint32_t length,
                   const char *id, uint8_t useAlias)
    {
        Set({key, level, 0x10}, ResolveEither(alias, id, useAlias), port,
            In(static_cast<const char *>(data), length));
    }
    template<StoreLevel level>
    void SetOfSwitch(const char *alias, const char *key, const void *data, uint32_t length, const char *id,
                     uint8_t useAlias)
    {
        SetOfPort<level>(alias, "", key, data, length, id, useAlias);
    }
    template<StoreLevel level>
    void ClearOfPort(const char *alias, const char *port, const char *key, const char *id, uint8_t useAlias)
    {
        Clear({key, level, 0}, ResolveEither(alias, id, useAlias), port);
    }
    template<StoreLevel level>
    void ClearOfSwitch(const char *alias, const char *key, const char *id, uint8_t useAlias)
    {
        ClearOfPort<level>(alias, "", key, id, useAlias);
    }

    // ---- Switches and ports ----

    void VSDVS_CreateVSwitch(const char *alias, const char *switchId, const char *portsetName,
                             uint32_t version, uint8_t opaque, uint32_t maxPorts, uint32_t numUplinks,
                             uint32_t numPorts)
    {
        const std::string id = switchId ? switchId : DerivedId(alias),
                          portset = portsetName ? portsetName : alias;
        RequireNodeName(portset);
        Command("create", [&] { AddPortset(portset, maxPorts ? maxPorts : 128); });
        const auto identify = [&] {
            Set(KEYS[ALIAS], id, "", Text(alias));
            Set(KEYS[VERSION], id, "", Word(version));
            Set(KEYS[OPAQUE], id, "", Text(opaque ? "true" : "false"));
            Set(KEYS[PORTSET], id, "", Text(portset));
            Associate(id, true);
        };
        const auto addPorts = [&] {
            if (numUplinks) SetNumSwitchUplinkPortsByUUID(id.c_str(), numUplinks);
            for (uint32_t i = 0; i < numPorts; i++)
                AddPort(id, "port" + std::to_string(i), 1, false);
        };
        const auto fill = [&] {
            identify();
            OrUndo(addPorts, [&] { Associate(id, false); });
        };
        const auto add = [&] {
            SwitchAdd(id, "vswitch", maxPorts ? maxPorts : 128);
            OrUndo(fill, [&] { SwitchRemove(id); });
        };
        OrUndo(add, [&] { Command("destroy", [&] { RemovePortset(portset); }); });
    }

    void VSDVS_DestroyVSwitch(const char *alias)
    {
        const std::string portset = ResolvePortset(alias), id = Resolve(alias);
        RequireNodeName(portset);
        Associate(id, false);
        SwitchRemove(id);
        Command("destroy", [&] { RemovePortset(portset); });
    }

    void VSDVS_AddDVPort(const char *alias, const char *port, uint32_t connectId)
    {
        AddPort(Resolve(alias), port, connectId, false);
    }
    void VSDVS_AddOpaqueDVPort(const char *alias, const char *port, const char *externalId)
    {
        const std::string id = Resolve(alias);
        AddPort(id, port, 1, false);
        Set(KEYS[EXTERNAL_ID], id, port, Text(externalId));
    }
    void VSDVS_RemoveDVPort(const char *alias, const char *port) { PortRemove(Resolve(alias), port); }
    void VSDVS_DvPortIDToPortIDFromDVSID(const char *id, const char *port, uint32_t *number)
    {
        const std::string record = Get(KEYS[STATUS], id, port);
        Require(record.size() >= 20, STATUS_FAILURE);
        Put(number, record.substr(16, 4));
    }
    void VSDVS_DvPortIDToPortID(const char *alias, const char *port, uint32_t *number)
    {
        VSDVS_DvPortIDToPortIDFromDVSID(Resolve(alias).c_str(), port, number);
    }

    // ---- Uplink ports ----

    void SetNumSwitchUplinkPortsByUUID(const char *id, uint32_t numUplinks)
    {
        Require(4 + 81 * uint64_t{numUplinks} <= UINT32_MAX, STATUS_NO_MEMORY);
        Allocate();
        UplinkLists lists;
        for (uint32_t i = 0; i < numUplinks; i++)
            lists.Add("uplink" + std::to_string(i));
        SetUplinks(id, lists);
    }
    void VSDVS_SetSwitchUplinkPorts(const char *alias, const UplinkNameList *names,
                                    const UplinkPortIdList *ids)
    {
        SetUplinks(Resolve(alias), {Fields(names, names->count, 81), Fields(ids, ids->count, 48)});
    }
    void VSDVS_GetSwitchUplinkPorts(const char *alias, UplinkNameList **names, UplinkPortIdList **ids)
    {
        const std::string id = Resolve(alias), nameList = Get(KEYS[NAMES], id);
        *names = nullptr;
        *ids = nullptr;
        const UplinkLists lists = ReadUplinks(id, nameList);
        HandOut(names, lists.Names());
        HandOut(ids, lists.Ids());
    }

    void VSDVS_AddSwitchUplinkPort(const char *alias, const char *name)
    {
        const std::string id = Resolve(alias);
        UplinkLists lists;
        Require(strlen(name) <= 47, STATUS_BAD_PARAM);
        IfThere([&] { return lists = ReadUplinks(id, Get(KEYS[NAMES], id)), ""; }, "");
        Require(lists.IndexOfId(name) == lists.ids.size(), STATUS_EXISTS);
        Allocate();
        UplinkLists longer = lists;
        longer.Add(name);
        AddPort(id, name, 1, true);
        const auto store = [&] {
            Set(KEYS[NAMES], id, "", longer.Names());
            OrUndo([&] { Set(KEYS[IDS], id, "", longer.Ids()); },
                   [&] { Set(KEYS[NAMES], id, "", lists.Names()); });
        };
        OrUndo(store, [&] { PortRemove(id, name); });
    }

    void VSDVS_RemoveSwitchUplinkPort(const char *alias, const char *port)
    {
        const std::string id = Resolve(alias);
        UplinkLists lists = ReadUplinks(id, Get(KEYS[NAMES], id));
        const size_t name = lists.IndexOfAlias(Get(KEYS[PORT_ALIAS], id, port)),
                     entry = lists.IndexOfId(port);
        if (name == lists.names.size() || entry == lists.ids.size()) return;
        lists.names.erase(lists.names.begin() + static_cast<ptrdiff_t>(name));
        lists.ids.erase(lists.ids.begin() + static_cast<ptrdiff_t>(entry));
        PortRemove(id, port);
        lists.names.empty() ? Clear(KEYS[NAMES], id) : Set(KEYS[NAMES], id, "", lists.Names());
        lists.ids.empty() ? Clear(KEYS[IDS], id) : Set(KEYS[IDS], id, "", lists.Ids());
    }

    void VSDVS_ClearSwitchUplinkPorts(const char *alias)
    {
        const std::string id = Resolve(alias);
        Succeeds([&] { Clear(KEYS[IDS], id); });
        Succeeds([&] { Clear(KEYS[NAMES], id); });
    }

    // ---- What many operations do with one property ----

    template<Key key, typename Record> void Store(const char *alias, const Record *record)
    {
        Set(KEYS[key], Resolve(alias), "", In(record));
    }
    template<Key key, typename Record>
    void StoreAtPort(const char *alias, const char *port, const Record *record)
    {
        Set(KEYS[key], Resolve(alias), port, In(record));
    }
    template<Key key> void StoreText(const char *alias, const char *port, const char *text)
    {
        Set(KEYS[key], Resolve(alias), port, Text(text));
    }
    template<Key key, typename Record> void CopyById(const char *id, Record *out)
    {
        Put(out, Sized(Get(KEYS[key], id), sizeof(Record)));
    }
    template<Key key, typename Record> void Copy(const char *alias, Record *out)
    {
        CopyById<key>(Resolve(alias).c_str(), out);
    }
    template<Key key> void Forget(const char *alias) { Clear(KEYS[key], Resolve(alias)); }
    template<Key key> void ForgetIfThere(const char *alias) { ClearIfThere(key, Resolve(alias)); }
    template<Key key> void ForgetAtPort(const char *alias, const char *port)
    {
        ClearIfThere(key, Resolve(alias), port);
    }

    // ---- Multicast filter mode ----

    void VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode)
    {
        const std::string id = Resolve(alias), text = IfThere([&] { return Get(KEYS[MCAST], id); }, "absent");
        if (text == "absent") return VSZOR_GetMcastFilterMode(ResolvePortset(alias).c_str(), mode);
        for (const uint32_t known : {0u, 1u})
            if (text.starts_with(Text(MODES[known]))) return Put(mode, Word(known));
        Fail(STATUS_FAILURE);
    }
    void VSDVS_SetMcastFilterMode(const char *alias, int32_t mode)
    {
        Require(mode == 0 || mode == 1, STATUS_BAD_PARAM);
        Set(KEYS[MCAST], Resolve(alias), "", Text(MODES[mode]));
    }

    // ---- Mirror sessions ----

    void VSDVS_GetDVMirrorSessions(const char *alias, const char *port, MirrorSessionList **out)
    {
        const std::string id = ResolveOrFailure(alias);
        HandOut(out, ReadMirrors(id, port));
    }

    void VSDVS_AppendDVMirrorSessions(const char *alias, const char *port, const MirrorSessionList *list)
    {
        const MirrorSessions added(list);
        Require(added.AddUp(), STATUS_BAD_PARAM);
        const std::string id = Resolve(alias);
        MirrorSessions stored(IfThere([&] { return ReadMirrors(id, port); },
                                      Word(0xFACEBEEF) + Word(2) + Word(0) + Word(0) + Word(0))
                                  .data());
        for (const std::string &session : added.sessions)
            Require(stored.Find(Cut(session, 32)) == stored.sessions.size(), STATUS_EXISTS);
        Allocate();
        const auto before = static_cast<uint32_t>(stored.entries.size());
        for (const std::string &session : added.sessions)
            stored.sessions.push_back(session.substr(0, 228) + Word(WordAt(session, 228) + before));
        stored.entries.insert(stored.entries.end(), added.entries.begin(), added.entries.end());
        Set(MirrorKey(port), id, port ? port : "", stored.List());
    }

    void VSDVS_RemoveDVMirrorSession(const char *alias, const char *port, const char *sessionId)
    {
        const std::string id = Resolve(alias), place = port ? port : "", list = ReadMirrors(id, port);
        MirrorSessions stored(list.data());
        const size_t found = stored.Find(Cut(sessionId, 32));
        Require(found < stored.sessions.size(), STATUS_NOT_FOUND);
        if (stored.sessions.size() == 1) return Clear(MirrorKey(port), id, place);
        Require(stored.AreInOrder(), STATUS_FAILURE);
        stored.Remove(found);
        Set(MirrorKey(port), id, place, stored.List());
    }

    void VSDVS_ClearDVMirrorSessions(const char *alias, const char *port)
    {
        const std::string id = Resolve(alias);
        IfThere([&] { return Clear(MirrorKey(port), id, port ? port : ""), ""; }, "");
    }

    // ---- VLAN policies ----

    void VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count)
    {
        const std::string map = Get(KEYS[PVLANS], Resolve(alias));
        Require(map.size() % 8 == 0, STATUS_FAILURE);
        Put(count, Count(map.size() / 8));
        HandOut(entries, map);
    }
    void VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries, uint32_t count)
    {
        const std::string id = Resolve(alias);
        count ? Set(KEYS[PVLANS], id, "", In(entries, count)) : Clear(KEYS[PVLANS], id);
    }

    void VSDVS_GetPortVLANPolicy(const char *alias, const char *port, PortVLANRecord **record,
                                 uint32_t *priority)
    {
        const std::string id = Resolve(alias), vlan = Get(KEYS[VLAN], id, port);
        Require(vlan.size() >= 8 && vlan.size() == 8 + 4 * (WordAt(vlan, 4) >> 16), STATUS_FAILURE);
        std::string stored;
        Succeeds([&] { stored = Get(KEYS[PRIORITY], id, port); });
        Put(priority, stored.size() == 4 ? stored : Word(0));
        HandOut(record, vlan);
    }
    void VSDVS_SetPortVLANPolicy(const char *alias, const char *port, uint16_t vlanId, uint32_t priority,
                                 uint8_t trunk, uint8_t option, const VLANRange *ranges, uint16_t count)
    {
        const std::string id = Resolve(alias), list = trunk && !count ? Word(4094u << 16) : In(ranges, count);
        Allocate();
        const bool hasPriority = priority != VLAN_PRIORITY_NONE;
        const uint32_t flags = (trunk ? 1u : 0) + (option ? 2u : 0) + (hasPriority ? 4u : 0);
        Set(KEYS[VLAN], id, port, Word(flags | uint32_t{vlanId} << 16) + Count(list.size() / 4 << 16) + list);
        if (hasPriority)
            Set(KEYS[PRIORITY], id, port, Word(priority));
        else if (Succeeds([&] { Get(KEYS[PRIORITY], id, port); }))
            ClearIfThere(PRIORITY, id, port);
    }
    void VSDVS_ClearPortVLANPolicy(const char *alias, const char *port)
    {
        const std::string id = Resolve(alias);
        ClearIfThere(VLAN, id, port);
        ClearIfThere(PRIORITY, id, port);
    }
    void VSDVS_GetPortNestedVLANTagging(const char *alias, const char *port, uint8_t *enabled)
    {
        *enabled = WordAt(ReadSized(NESTED, Resolve(alias), port, Word(0)), 0) != 0;
    }
    void VSDVS_SetPortNestedVLANTagging(const char *alias, const char *port, uint8_t enabled)
    {
        Set(KEYS[NESTED], Resolve(alias), port, Word(enabled != 0));
    }

    // ---- Port security, extra Ethernet filter, sink port ----

    void VSDVS_GetPortSecurity(const char *alias, const char *port, uint32_t *flags)
    {
        Put(flags, ReadSized(SECURITY, Resolve(alias), port, Word(1)));
    }
    void VSDVS_SetPortSecurity(const char *alias, const char *port, const uint32_t *flags)
    {
        Require(*flags <= 7, STATUS_BAD_PARAM);
        Set(KEYS[SECURITY], Resolve(alias), port, In(flags));
    }
    void VSDVS_GetExtraEthFilter(const char *alias, const char *port, ExtraEthFilterRecord *record)
    {
        const std::string id = ResolveOrFailure(alias);
        Put(record, Sized(Get(KEYS[ETH_FILTER], id, port), 200));
    }
    void VSDVS_IsSinkPortEnabled(const char *alias, const char *port, uint8_t *enabled)
    {
        const std::string id = ResolveOrFailure(alias);
        *enabled = ReadSized(ETH_FILTER, id, port, std::string(200, '\0'))[2] & 1;
    }
    void VSDVS_ConfigureSinkPort(const char *alias, const char *port, uint8_t enable)
    {
        const std::string id = ResolveOrFailure(alias), none = std::string(200, 'n');
        std::string filter = ReadSized(ETH_FILTER, id, port, none);
        if (filter == none)
            filter.assign(200, '\0');
        else if ((filter[2] & 1) == (enable != 0))
            return;
        filter[2] = static_cast<char>((filter[2] & ~1) | (enable != 0));
        Set(KEYS[ETH_FILTER], Resolve(alias), port, filter);
    }

    // ---- MAC learning ----

    void VSDVS_GetPortMACLearning(const char *alias, const char *port, PortMACLearningConfig *config)
    {
        const std::string usual = Hex("0000000010000000000000"); // 4096 at offset 3
        Put(config, ReadSized(MAC_MANAGEMENT, Resolve(alias), port, usual).substr(1));
    }
    void VSDVS_SetPortMACLearning(const char *alias, const char *port, const PortMACLearningConfig *config)
    {
        const std::string id = Resolve(alias);
        std::string security;
        Succeeds([&] { security = Get(KEYS[SECURITY], id, port); });
        const bool derived = security.size() == 4 && !(security[0] & 2);
        Set(KEYS[MAC_MANAGEMENT], id, port, (derived ? "\1"s : "\0"s) + In(config));
    }
    void VSDVS_GetMACLearning(const char *alias, SwitchMACLearningRecord *record)
    {
        const std::string usual = "\x58\2\0"s + static_cast<char>(record->switchByte) + Word(65536);
        Put(record, ReadSized(LEARNING, Resolve(alias), "", usual));
    }
    void VSDVS_SetMACLearning(const char *alias, const SwitchMACLearningRecord *record)
    {
        Require((WordAt(In(record), 0) & 0xFFFFFF) <= 1000000, STATUS_BAD_PARAM);
        Set(KEYS[LEARNING], Resolve(alias), "", In(record));
    }
    void VSDVS_GetLearnStatic(const char *alias, uint8_t *enabled)
    {
        const std::string id = Resolve(alias);
        *enabled = IfThere([&] { return Get(KEYS[LEARN_STATIC], id); }, "").starts_with("true");
    }
    void VSDVS_SetLearnStatic(const char *alias, uint8_t enabled)
    {
        Set(KEYS[LEARN_STATIC], Resolve(alias), "", Text(enabled ? "true" : "false"));
    }

    // ---- Teaming policies ----

    void VSDVS_GetTxUplinkAlways(const char *alias, const char *port, uint8_t *always)
    {
        *always = Get(KEYS[TX_UPLINK], Resolve(alias), port).starts_with(Text("always"));
    }
    void VSDVS_SetTxUplinkAlways(const char *alias, const char *port, uint8_t always)
    {
        Set(KEYS[TX_UPLINK], Resolve(alias), port, Text(always ? "always" : "normal"));
    }
    void VSDVS_GetPortTeamingPolicy(const char *alias, const char *port, TeamingPolicy *policy)
    {
        const std::string stored = Get(KEYS[PORT_TEAMING], Resolve(alias), port);
        Require(stored.size() > 7 && stored.size() <= 2616, STATUS_FAILURE);
        Put(policy, stored);
    }
    void VSDVS_GetPortTeamingOverride(const char *alias, const char *port, char *text)
    {
        PutText(OVERRIDE, alias, port, text, 81);
        text[80] = '\0';
    }

    void HandOutTable(const char *id, LSTeamingPolicyTable **table)
    {
        const std::string stored = Get(KEYS[LS_TABLE], id);
        Require(stored.size() >= 4, STATUS_FAILURE);
        HandOut(table, stored);
    }
    void VSDVS_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table)
    {
        HandOutTable(Resolve(alias).c_str(), table);
    }
    void VSDVS_SetLSTeamingPolicy(const char *alias, const LSTeamingPolicyTable *table)
    {
        const auto *bytes = reinterpret_cast<const char *>(table);
        Set(KEYS[LS_TABLE], Resolve(alias), "", In(bytes, 4 + size_t{2748} * table->count));
    }
    void VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *port, char *name)
    {
        PutText(LS_POLICY, alias, port, name, 136);
    }

    // ---- MTU ----

    void VSDVS_GetMTU(const char *alias, int32_t *mtu) { Put(mtu, Word(QueryMtu(ResolvePortset(alias)))); }

    void VSDVS_SetMTU(const char *alias, int32_t mtu)
    {
        Require(mtu >= 1280 && mtu <= 9000, STATUS_BAD_PARAM);
        const auto wanted = static_cast<uint32_t>(mtu);
        const std::string id = Resolve(alias), portset = ResolvePortset(alias);
        const uint32_t before = QueryMtu(portset), listing = Gate(VSHOST_SHELL, "ls");
        Require(listing != VSHOST_SHELL_NOT_STARTED, STATUS_FAILURE);
        std::vector<std::string> changed;
        const auto change = [&] {
            // A failed listing counts as empty.
            for (const std::string &nic : listing ? std::vector<std::string>() : Uplinks(SwitchOf(portset))) {
                SetNicMtu(nic, wanted);
                changed.push_back(nic);
            }
            SetPortsetMtu(portset, wanted);
            OrUndo([&] { Set(KEYS[MTU], id, "", Word(wanted)); }, [&] { SetPortsetMtu(portset, before); });
            Succeeds([&] { Set(KEYS[ETHER_MTU], id, "", Word(wanted)); });
        };
        OrUndo(change, [&] {
            for (; !changed.empty(); changed.pop_back())
                Succeeds([&] { SetNicMtu(changed.back(), before); });
        });
    }

    // ---- What many requests do with the driver's answer about a portset ----

    template<uint32_t command, auto answer, typename Out> void Ask(const char *portset, Out *out)
    {
        Query(command, out, 0, [&] { return (this->*answer)(Cut(portset)); });
    }
    template<uint32_t command, size_t size, auto answer> void AskCleared(const char *portset, void *out)
    {
        Query(command, out, size, [&] { return (this->*answer)(Cut(portset)); });
    }
    template<uint32_t command, auto answer> void AskForList(const char *portset, void **out)
    {
        QueryList(command, out, 8, [&] { return (this->*answer)(Cut(portset)); });
    }
    template<uint32_t command, size_t header, auto answer, typename Out>
    void AskByAlias(const char *alias, Out **out)
    {
        const std::string portset = ResolvePortset(alias);
        QueryList(command, out, header, [&] { return (this->*answer)(portset); });
    }
    template<size_t size> std::string NoStatistics(const std::string &portset)
    {
        return Running(portset), std::string(size, '\0');
    }
    std::string Mode(const std::string &portset) { return Word(Snoops(SwitchRunning(portset))); }

    // ---- Running switches and uplinks ----

    void Ioctl(const char *path, int32_t command, void *out)
    {
        Require(!strcmp(path, ZOR_DEVICE), STATUS_NOT_FOUND);
        Query(static_cast<uint32_t>(command), out, 0, [&] {
            Require(command == 4120, NO_SUCH_COMMAND);
            return learningProps;
        });
    }
    void VSZOR_GetSwitches(uint32_t kind, void **list)
    {
        *list = nullptr;
        Require(Succeeds([&] { Request(4126); }), STATUS_FAILURE);
        Allocate();
        const std::string answer = Switches(kind);
        if (answer.size() > 8) Request(4126);
        HandOut(list, answer);
    }
    void VSZOR_GetUplinkLinkState(const char *portset, const char *nic, uint32_t *linkUp)
    {
        Query(4107, linkUp, 0, [&] { return Word(UplinkOf(Cut(portset), Cut(nic, 31)).LinkUp()); });
    }
    void VSZOR_GetUplinkLACPLinkState(const char *portset, const char *nic, uint32_t *linkUp)
    {
        Query(4108, linkUp, 0, [&] {
            return Word(UplinkOf(Cut(portset), Cut(nic, 31)).LinkUp() && InLag(Cut(portset), nic));
        });
    }
    void VSZOR_SetUplinkAdminLinkState(const char *portset, const char *nic, int32_t up)
    {
        Request(8194);
        UplinkOf(Cut(portset), Cut(nic, 31)).adminUp = up != 0;
    }
    void VSZOR_GetLAGTable(const char *portset, void **table)
    {
        Allocate();
        Request(4109);
        HandOut(table, Lags(Cut(portset)));
    }
    void VSZOR_PortGetTeamUplinkHint(uint32_t port, void *hint)
    {
        Query(4122, hint, 32, [&] { return Hint(port); });
    }
    void VSZOR_GetUplinkDVPortID(const char *nic, char *port)
    {
        Query(4123, port, 48, [&] {
            Require(nics.contains(Cut(nic, 31)), NO_SUCH_DEVICE);
            return Field(nics[Cut(nic, 31)].portId, 48);
        });
    }
    void VSZOR_RefreshDevNUMAInfo(const char *portset)
    {
        Request(8198);
        Running(Cut(portset));
    }

    // ---- MAC tables ----

    void VSZOR_GetPortMACTable(const char *alias, const char *port, uint8_t selector, void **table)
    {
        const std::string id = Resolve(alias);
        QueryList(4117, table, 8, [&] { return PortMacs(id, Cut(port, 47), selector); });
    }
    void VSZOR_SetPortMACTable(const char *alias, const char *port, const ZorMacTableEntry *entry)
    {
        VSwitchMacEntry mac;
        Macs &table = MacTable(8195, alias, port, *entry, mac);
        const bool station = !(mac.address[0] & 1) && In(&mac.address) != std::string(6, '\0');
        Require(mac.vlanId <= 4094 && mac.type <= VSWITCH_MAC_LEARNED && station, STATUS_FAILURE);
        const bool learned = mac.type == VSWITCH_MAC_LEARNED;
        table[{uint16_t{mac.vlanId}, In(&mac.address)}] = {learned ? uint32_t{mac.age} : 0,
                                                           uint8_t(learned ? 2 : 1), mac.flags};
    }
    void VSZOR_ClearPortMACTable(const char *alias, const char *port, const ZorMacTableEntry *entry)
    {
        VSwitchMacEntry mac;
        Macs &table = MacTable(8196, alias, port, *entry, mac);
        Require(table.erase({uint16_t{mac.vlanId}, In(&mac.address)}) > 0, STATUS_NOT_FOUND);
    }
    void VSZOR_GetTeamMACTable(const char *alias, int32_t selector, void **table)
    {
        const std::string portset = ResolvePortset(alias);
        QueryList(4118, table, 8, [&] { return TeamMacs(portset, static_cast<uint8_t>(selector)); });
    }
    void VSZOR_GetPortMACLearningStats(const char *port, const char *alias, void *stats)
    {
        const std::string id = Resolve(alias);
        Query(4119, stats, 28, [&] { return PortLearning(id, Cut(port, 47)); });
    }
    void VSZOR_GetGlobalMACLearningProps(ZorMacLearningProps *props)
    {
        Query(4120, props, 0, [&] { return learningProps; });
    }
    void VSZOR_SetGlobalMACLearningProps(const ZorMacLearningProps *props)
    {
        Request(8197);
        Require(props->bytes[0] <= 1, STATUS_FAILURE);
        learningProps = In(props);
    }

    // ---- Multicast and mirroring of the running switch ----

    void VSZOR_GetMcastFilterMode(const char *portset, uint32_t *mode)
    {
        Ask<4103, &Model::Mode>(portset, mode);
    }
    void VSZOR_GetMcastFilters(const char *portset, uint32_t, int32_t kind, void **filters)
    {
        const auto none = [&] { return Running(Cut(portset)), Word(0) + Bytes(kind); };
        if (kind == 0 || kind == 2 || kind == 3) return QueryList(4104, filters, 8, none);
        Request(4104);
        none();
        Fail(STATUS_BAD_PARAM);
    }
    void VSZOR_GetMcastFilterStats(const char *, uint32_t, int32_t kind, const void *, void **)
    {
        Require(kind == 2 || kind == 3, STATUS_BAD_PARAM);
        Request(4105);
        Fail(STATUS_NOT_FOUND); // no such group, or no such portset
    }
    void VSZOR_GetDVMirrorSessionStats(const char *alias, const char *session, void *stats)
    {
        const std::string portset = ResolvePortset(alias);
        Query(4102, stats, 0, [&] { return SessionStats(portset, Cut(session, 31)); });
    }

    // ---- Runtime options, logical-switch teaming, RTM ----

    void VSZOR_GetRuntimeOptions(const uint16_t *ids, uint16_t count, void **out)
    {
        *out = nullptr;
        Allocate();
        Request(4099);
        HandOut(out, Options(ids ? std::vector<uint16_t>(ids, ids + count) : std::vector<uint16_t>()));
    }
    void VSZOR_SetRuntimeOptions(const void *record)
    {
        const std::string bytes(static_cast<const char *>(record), *static_cast<const uint32_t *>(record));
        Request(8193);
        Require(bytes.size() == 8 + 8 * size_t{WordAt(bytes, 4)}, STATUS_FAILURE);
        for (size_t at = 8; at < bytes.size(); at += 8)
            Require(WordAt(bytes, at) > 0 && WordAt(bytes, at) <= 0xFFFF, STATUS_FAILURE);
        for (size_t at = 8; at < bytes.size(); at += 8)
            options[static_cast<uint16_t>(WordAt(bytes, at))] = WordAt(bytes, at + 4);
    }
    void VSZOR_GetPortLSTeamingPolicyName(uint32_t number, char *name)
    {
        // The tables of these tests hold no policy that the driver understands, so no port follows one.
        Query(4124, name, 136, [&] {
            PortOf(number);
            return Field("", 136);
        });
    }
    void VSZOR_RTMOp(const void *, uint32_t command) { Request(command, ZOR_RTM_DEVICE); }

private:
    static constexpr const char *MODES[] = {"legacyFiltering", "snooping"};

    // Both lists of a switch's uplinks; a field without NUL equals no text.
    struct UplinkLists {
        std::vector<std::string> names, ids;

        void Add(const std::string &name)
        {
            names.push_back(Field(name, 81));
            ids.push_back(Field(name, 48));
        }
        std::string Names() const { return Count(names.size()) + Joined(names); }
        std::string Ids() const { return Count(ids.size()) + Joined(ids); }
        size_t IndexOfAlias(const std::string &alias) const
        {
            return IndexOf(names, [&](const std::string &name) { return Text(UpToNul(name)) == alias; });
        }
        size_t IndexOfId(const std::string &id) const
        {
            return IndexOf(ids, [&](const std::string &entry) { return UpToNul(entry) == id; });
        }
        template<typename Test> static size_t IndexOf(const std::vector<std::string> &fields, Test test)
        {
            const auto found = std::find_if(fields.begin(), fields.end(), [&](const std::string &field) {
                return Contains(field, '\0') && test(field);
            });
            return static_cast<size_t>(found - fields.begin());
        }
    };

    // A list of mirror sessions, taken apart.
    struct MirrorSessions {
        std::string header;
        std::vector<std::string> sessions, entries;

        explicit MirrorSessions(const void *list) : header(static_cast<const char *>(list), 20)
        {
            const char *const first = static_cast<const char *>(list) + 20;
            sessions = Records(first, WordAt(header, 8), 232);
            entries = Records(first + 232 * sessions.size(), WordAt(header, 12), 52);
        }
        static uint64_t First(const std::string &session) { return WordAt(session, 228); }
        static uint64_t Owned(const std::string &session)
        {
            return uint64_t{WordAt(session, 216)} + WordAt(session, 220) + WordAt(session, 224);
        }
        bool AddUp() const
        {
            uint64_t sum = 0;
            for (const std::string &session : sessions) {
                if (First(session) + Owned(session) > entries.size()) return false;
                sum += Owned(session);
            }
            return sum == entries.size();
        }
        // Whether the blocks of entries stay in the list, don't overlap and follow the sessions' order. A
        // session without entries has none.
        bool AreInOrder() const
        {
            uint64_t next = 0;
            for (const std::string &session : sessions) {
                if (Owned(session) == 0) continue;
                if (First(session) < next) return false;
                next = First(session) + Owned(session);
            }
            return next <= entries.size();
        }
        size_t Find(const std::string &id) const
        {
            size_t index = 0;
            while (index < sessions.size() && UpToNul(Cut(sessions[index], 32)) != UpToNul(id))
                index++;
            return index;
        }
        void Remove(size_t index)
        {
            const auto owned = static_cast<uint32_t>(Owned(sessions[index]));
            if (owned > 0) {
                const auto first = entries.begin() + static_cast<ptrdiff_t>(First(sessions[index]));
                entries.erase(first, first + owned);
            }
            sessions.erase(sessions.begin() + static_cast<ptrdiff_t>(index));
            for (; index < sessions.size(); index++) {
                const uint32_t first = WordAt(sessions[index], 228);
                sessions[index].replace(228, 4, Word(first - std::min(first, owned)));
            }
        }
        std::string List() const
        {
            return header.substr(0, 8) + Count(sessions.size()) + Count(entries.size()) + header.substr(16) +
                   Joined(sessions) + Joined(entries);
        }
    };

    // ---- Arguments and outputs ----

    template<typename Record> static std::string In(const Record *records, size_t count = 1)
    {
        return {reinterpret_cast<const char *>(records), count * sizeof(Record)};
    }
    static void Put(void *out, const std::string &bytes) { memcpy(out, bytes.data(), bytes.size()); }
    template<typename List> void HandOut(List **out, const std::string &bytes)
    {
        if (handedOut.size() > 8) handedOut.pop_front();
        *out = reinterpret_cast<List *>(handedOut.emplace_back(bytes).data());
    }
    static std::vector<std::string> Records(const char *first, size_t count, size_t size)
    {
        std::vector<std::string> records;
        for (size_t i = 0; i < count; i++)
            records.emplace_back(first + i * size, size);
        return records;
    }
    static std::vector<std::string> Fields(const void *list, size_t count, size_t size)
    {
        return Records(static_cast<const char *>(list) + 4, count, size);
    }
    static std::string Joined(const std::vector<std::string> &records)
    {
        std::string bytes;
        for (const std::string &record : records)
            bytes += record;
        return bytes;
    }

    // ---- Names ----

    std::string Resolve(const char *alias)
    {
        const std::string id = FindByAlias(alias);
        Require(At(id).className == "vswitch", STATUS_BAD_PARAM);
        return id;
    }
    std::string ResolveOrFailure(const char *alias)
    {
        std::string id;
        Require(Succeeds([&] { id = Resolve(alias); }), STATUS_FAILURE);
        return id;
    }
    std::string ResolvePortset(const char *alias)
    {
        const std::string id = FindByAlias(alias);
        auto portset = Lookup(PORTSET, id);
        if (!portset) portset = Lookup(ALIAS, id);
        return Cut(portset.value_or(id));
    }
    std::string ResolveEither(const char *alias, const char *id, uint8_t useAlias)
    {
        if (useAlias) return Resolve(alias);
        Require(strlen(id) <= 63, STATUS_BAD_PARAM);
        return id;
    }
    // A name that can stand in a command.
    static void RequireNodeName(const std::string &name)
    {
        Require(!name.empty() && name[0] != '-' && !Contains(name, '/') && name != "." && name != "..",
                STATUS_FAILURE);
    }
    static std::string DerivedId(const char *alias)
    {
        std::string id;
        for (const char byte : Field(Cut(alias, 15), 16)) {
            char pair[4];
            snprintf(pair, sizeof(pair), "%02x%c", static_cast<uint8_t>(byte), id.size() == 21 ? '-' : ' ');
            id += pair;
        }
        return Cut(id, 47);
    }

    // ---- Steps that operations share ----

    static std::string Sized(const std::string &value, size_t size)
    {
        Require(value.size() == size, STATUS_FAILURE);
        return value;
    }
    // A value of the size of `otherwise`, which is its default.
    std::string ReadSized(Key key, const std::string &id, const char *port, const std::string &otherwise)
    {
        return Sized(IfThere([&] { return Get(KEYS[key], id, port); }, otherwise), otherwise.size());
    }
    void ClearIfThere(Key key, const std::string &id, const char *port = "")
    {
        IfThere([&] { return Clear(KEYS[key], id, port), ""; }, "");
    }
    // A text into a buffer that is cleared first.
    void PutText(Key key, const char *alias, const char *port, char *out, size_t size)
    {
        memset(out, 0, size);
        const std::string text = Get(KEYS[key], Resolve(alias), port);
        Require(text.size() <= size, STATUS_FAILURE);
        Put(out, text);
    }

    void AddPort(const std::string &id, const std::string &port, uint32_t connectId, bool uplink)
    {
        StoreGate("DVSData_Alloc");
        Allocate();
        StoreGate("DVSData_Serialize");
        PortAdd(id, port,
                {{KEYS[PORT_ALIAS].key, {Text(port), 0x10}},
                 {KEYS[CONNECT_ID].key, {Word(connectId), 0x10}},
                 {KEYS[BLOCK].key, {Text("false"), 0x10}},
                 {KEYS[STATISTICS].key, {std::string(128, '\0'), 0x20}},
                 {KEYS[VLAN].key, {Hex(uplink ? "01000000000001000100FE0F" : "0000000000000000"), 0x08}}});
    }

    void SetUplinks(const std::string &id, const UplinkLists &lists)
    {
        size_t made = 0;
        const auto set = [&] {
            for (; made < lists.ids.size(); made++)
                AddPort(id, UpToNul(lists.ids[made]), 1, true);
            Set(KEYS[NAMES], id, "", lists.Names());
            OrUndo([&] { Set(KEYS[IDS], id, "", lists.Ids()); }, [&] { Clear(KEYS[NAMES], id); });
        };
        OrUndo(set, [&] {
            while (made > 0)
                Succeeds([&] { PortRemove(id, UpToNul(lists.ids[--made])); });
        });
    }

    UplinkLists ReadUplinks(const std::string &id, const std::string &names)
    {
        const uint64_t count = WordAt(names, 0);
        Require(names.size() >= 4 && names.size() == 4 + 81 * count, STATUS_FAILURE);
        const std::string ids = Get(KEYS[IDS], id);
        Require(ids.size() >= 4 && ids.size() == 4 + 48 * uint64_t{WordAt(ids, 0)}, STATUS_FAILURE);
        Require(WordAt(ids, 0) == count, STATUS_FAILURE);
        Allocate();
        const UplinkLists stored = {Fields(names.data(), count, 81), Fields(ids.data(), count, 48)};
        UplinkLists lists = stored;
        for (size_t i = 0; i < count; i++) {
            const std::string alias = Get(KEYS[PORT_ALIAS], id, UpToNul(lists.ids[i]));
            Require(stored.IndexOfAlias(alias) < count, STATUS_FAILURE);
            lists.names[i].replace(0, alias.size(), alias);
        }
        return lists;
    }

    static const Property &MirrorKey(const char *port)
    {
        return KEYS[port && *port ? MIRRORS : HOST_MIRRORS];
    }
    std::string ReadMirrors(const std::string &id, const char *port)
    {
        const std::string list = Get(MirrorKey(port), id, port ? port : "");
        const uint64_t sessions = WordAt(list, 8), entries = WordAt(list, 12);
        Require(list.size() >= 20 && list.size() >= 20 + 232 * sessions + 52 * entries, STATUS_FAILURE);
        return list;
    }

    uint32_t QueryMtu(const std::string &portset)
    {
        RequireNodeName(portset);
        Require(!Gate(VSHOST_SHELL, "get") && portsets.contains(portset), STATUS_FAILURE);
        return portsets[portset].mtu;
    }

    // An answer into the caller's buffer, of which `cleared` bytes are zero before.
    template<typename Make> void Query(uint32_t command, void *out, size_t cleared, Make answer)
    {
        memset(out, 0, cleared);
        Request(command);
        Put(out, answer());
    }
    template<typename Out, typename Make>
    void QueryList(uint32_t command, Out **out, size_t header, Make make)
    {
        Request(command);
        const std::string answer = make();
        *out = nullptr;
        Allocate();
        if (answer.size() > header) Request(command);
        HandOut(out, answer);
    }

    // The table that a command is to change, and the entry.
    Macs &MacTable(uint32_t command, const char *alias, const char *port, const ZorMacTableEntry &entry,
                   VSwitchMacEntry &mac)
    {
        memcpy(&mac, &entry, sizeof(mac));
        const std::string id = Resolve(alias);
        Request(command);
        const std::string portset = PortsetRunning(id);
        NumberOf(id, Cut(port, 47));
        return macs[portset][Cut(port, 47)];
    }

    std::deque<std::string> handedOut;
};

}

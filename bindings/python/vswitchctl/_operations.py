"""The library's constants, records and operations. Made from include/vswitchctl.h by bindings/python/generate.py."""

from ctypes import byref, c_char, c_int32, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p, string_at
from typing import Any, Sequence

from . import _library as lib

SWITCH_ID_SIZE = 64
SWITCH_ALIAS_SIZE = 128
PORTSET_NAME_SIZE = 128
DV_PORT_ID_SIZE = 48
MCAST_FILTER_LEGACY = 0
MCAST_FILTER_SNOOPING = 1
MIRROR_LIST_MAGIC = 0xFACEBEEF
MIRROR_LIST_VERSION = 2
VLAN_FLAG_TRUNK = 1
VLAN_FLAG_OPTION = 2
VLAN_FLAG_PRIORITY = 4
VLAN_PRIORITY_NONE = 0xFFFFFFFF
SINK_PORT_BIT = 0x00010000
TEAMING_OVERRIDE_SIZE = 81
LS_TEAMING_POLICY_NAME_SIZE = 136
MTU_MIN = 1280
MTU_MAX = 9000
ZOR_DEVICE = "/dev/vswitch"
ZOR_RTM_DEVICE = "/krem/devices/char/zordriver/rtm"
VS_INFO_SIZE = 208
LAG_TABLE_SIZE = 35588
UPLINK_ENTRY_SIZE = 36
UPLINK_HINT_SIZE = 32
PORT_MAC_LEARNING_STATS_SIZE = 28
SWITCH_MAC_LEARNING_INFO_SIZE = 52
ADDRESS_KIND_ETHERNET = 0
ADDRESS_KIND_IPV4 = 2
ADDRESS_KIND_IPV6 = 3
MIRROR_SESSION_STATS_SIZE = 121
RARP_STATS_SIZE = 16
SERVICE_PORT_TEAMING_STATS_SIZE = 48
RUNTIME_OPTIONS_SIZE = 4096


class MirrorSessionList(lib.Record):
    """Header of a list of mirror sessions; 20 bytes."""

    _fields_ = [("magic", c_uint32), ("version", c_uint32), ("sessionCount", c_uint32), ("portEntryCount", c_uint32), ("reserved", c_uint32)]
    magic: int
    version: int
    sessionCount: int
    portEntryCount: int
    reserved: int


class MirrorSessionRecord(lib.Record):
    """A mirror session; 232 bytes."""

    _fields_ = [("sessionId", c_char * 32), ("settings", c_uint8 * 184), ("entryCountA", c_uint32), ("entryCountB", c_uint32), ("entryCountC", c_uint32), ("firstPortEntry", c_uint32)]
    sessionId: Any
    settings: Any
    entryCountA: int
    entryCountB: int
    entryCountC: int
    firstPortEntry: int


class VLANRange(lib.Record):
    """A range of a VLAN trunk, both ends included; 4 bytes."""

    _fields_ = [("first", c_uint16), ("last", c_uint16)]
    first: int
    last: int


class PortVLANRecord(lib.Record):
    """VLAN policy of a port; 8 + 4 * rangeCount bytes."""

    _fields_ = [("flags", c_uint16), ("vlanId", c_uint16), ("reserved", c_uint16), ("rangeCount", c_uint16)]
    flags: int
    vlanId: int
    reserved: int
    rangeCount: int


class ExtraEthFilterRecord(lib.Record):
    """Extra Ethernet filter of a port; 200 bytes."""

    _fields_ = [("firstWord", c_uint32), ("rest", c_uint8 * 196)]
    firstWord: int
    rest: Any


class PortMACLearningConfig(lib.Record):
    """MAC learning of a port; 10 bytes."""

    _fields_ = [("portFlagA", c_uint8), ("portFlagB", c_uint8), ("portValueA", c_uint32), ("portValueB", c_uint32)]
    portFlagA: int
    portFlagB: int
    portValueA: int
    portValueB: int


class SwitchMACLearningRecord(lib.Record):
    """MAC learning of a switch on this host; 8 bytes."""

    _fields_ = [("switchValueA", c_uint8 * 3), ("switchByte", c_uint8), ("switchValueB", c_uint32)]
    switchValueA: Any
    switchByte: int
    switchValueB: int


class ZorRequestHeader(lib.Record):
    """Header of a driver request; 24 bytes."""

    _fields_ = [("inLength", c_uint32), ("outLength", c_uint32), ("inPtr", c_uint64), ("outPtr", c_uint64)]
    inLength: int
    outLength: int
    inPtr: int
    outPtr: int


class ZorListHeader(lib.Record):
    """Header of a driver list; 8 bytes."""

    _fields_ = [("count", c_uint32), ("aux", c_uint32)]
    count: int
    aux: int


class ZorMcastStatsHeader(lib.Record):
    """Header of the statistics of a multicast group; 28 bytes."""

    _fields_ = [("statistics", c_uint8 * 20), ("count", c_uint32), ("reserved", c_uint8 * 4)]
    statistics: Any
    count: int
    reserved: Any


def LibraryInit() -> None:
    """Fills the store's cache in this process: empties it, fetches the configuration from the store and loads it."""
    lib.call_plain("LibraryInit")


def VSDVS_FreeMemory(buffer: c_void_p) -> None:
    """Releases a buffer that a VSDVS_ operation handed out, by giving it back to the store."""
    lib.call_plain("VSDVS_FreeMemory", buffer)


def VSZOR_FreeMemory(buffer: c_void_p) -> None:
    """Releases a buffer that a VSZOR_ operation handed out, with free."""
    lib.call_plain("VSZOR_FreeMemory", buffer)


def Log(format: str | None) -> None:
    """Does nothing with any arguments; exported for the programs that expect it."""
    lib.call_plain("Log", lib.text(format))


def Warning(format: str | None) -> None:
    """Does nothing with any arguments; see Log()."""
    lib.call_plain("Warning", lib.text(format))


def Panic(format: str | None) -> None:
    """Does nothing with any arguments, and returns; see Log()."""
    lib.call_plain("Panic", lib.text(format))


def DVSAliasToSwitchId(alias: str) -> str:
    """Finds the switch id of a switch, as the store's cache has it."""
    return lib.call("DVSAliasToSwitchId", lib.text(alias), lib.text_out(64))


def DVSAliasToPortsetName(alias: str) -> str:
    """Finds the kernel name of a switch, as the store's cache has it: its host property com.talpex.common.host.portset, else its alias (com.talpex.common.alias), else its switch id."""
    return lib.call("DVSAliasToPortsetName", lib.text(alias), lib.text_out(128))


def DVSPortsetNameToAlias(portsetName: str) -> str:
    """Finds the alias of the switch to which a kernel name belongs."""
    return lib.call("DVSPortsetNameToAlias", lib.text(portsetName), lib.text_out(128))


def VSDVS_GetAliasFromPortset(portsetName: str) -> str:
    """Finds the alias of the switch to which a kernel name belongs, exactly as DVSPortsetNameToAlias() does."""
    return lib.call("VSDVS_GetAliasFromPortset", lib.text(portsetName), lib.text_out(128))


def DVPortExist(switchId: str, dvPortId: str) -> bool:
    """Tells whether the store's cache holds a port."""
    return bool(lib.call_plain("DVPortExist", lib.text(switchId), lib.text(dvPortId), returns=c_uint8))


def VSDVS_GetPortProp(alias: str | None, dvPortId: str, key: str, dvsId: str | None = None, useAlias: bool = True) -> bytes:
    """Reads the value of any property of a port by its key."""
    return lib.read_value("VSDVS_GetPortProp", lib.text(alias), lib.text(dvPortId), lib.text(key), None, lib.text(dvsId), lib.flag(useAlias))


def VSDVS_GetHostProp(alias: str | None, key: str, dvsId: str | None = None, useAlias: bool = True) -> bytes:
    """Reads the value of any property of this host's view of a switch by its key; sizes as in VSDVS_GetPortProp()."""
    return lib.read_value("VSDVS_GetHostProp", lib.text(alias), lib.text(key), None, lib.text(dvsId), lib.flag(useAlias))


def VSDVS_GetGlobProp(alias: str | None, key: str, dvsId: str | None = None, useAlias: bool = True) -> bytes:
    """Reads the value of any global property of a switch by its key; sizes as in VSDVS_GetPortProp()."""
    return lib.read_value("VSDVS_GetGlobProp", lib.text(alias), lib.text(key), None, lib.text(dvsId), lib.flag(useAlias))


def VSDVS_SetPortProp(alias: str | None, dvPortId: str, key: str, data: bytes, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Writes any property of a port by its key."""
    lib.call("VSDVS_SetPortProp", lib.text(alias), lib.text(dvPortId), lib.text(key), lib.block(data), lib.number(c_uint32, len(data)), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_SetHostProp(alias: str | None, key: str, data: bytes, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Writes any property of this host's view of a switch by its key, with store flags 0x10."""
    lib.call("VSDVS_SetHostProp", lib.text(alias), lib.text(key), lib.block(data), lib.number(c_uint32, len(data)), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_SetGlobProp(alias: str | None, key: str, data: bytes, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Writes any global property of a switch by its key, with store flags 0x10."""
    lib.call("VSDVS_SetGlobProp", lib.text(alias), lib.text(key), lib.block(data), lib.number(c_uint32, len(data)), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_ClearPortProp(alias: str | None, dvPortId: str, key: str, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Removes any property of a port by its key."""
    lib.call("VSDVS_ClearPortProp", lib.text(alias), lib.text(dvPortId), lib.text(key), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_ClearHostProp(alias: str | None, key: str, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Removes any property of this host's view of a switch by its key."""
    lib.call("VSDVS_ClearHostProp", lib.text(alias), lib.text(key), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_ClearGlobProp(alias: str | None, key: str, dvsId: str | None = None, useAlias: bool = True) -> None:
    """Removes any global property of a switch by its key."""
    lib.call("VSDVS_ClearGlobProp", lib.text(alias), lib.text(key), lib.text(dvsId), lib.flag(useAlias))


def VSDVS_CreateVSwitch(alias: str, switchId: str | None, portsetName: str | None, version: int, opaque: bool, maxPorts: int, numUplinks: int, numPorts: int) -> None:
    """Creates a switch: its portset in the kernel, its record and identity in the store, its association with this host, then its uplink ports (as SetNumSwitchUplinkPortsByUUID() does) and its ordinary ports "port0", "port1" and so on."""
    lib.call("VSDVS_CreateVSwitch", lib.text(alias), lib.text(switchId), lib.text(portsetName), lib.number(c_uint32, version), lib.flag(opaque), lib.number(c_uint32, maxPorts), lib.number(c_uint32, numUplinks), lib.number(c_uint32, numPorts))


def VSDVS_DestroyVSwitch(alias: str) -> None:
    """Destroys a switch: ends its association with this host, removes its record and all its ports from the store, then destroys its portset."""
    lib.call("VSDVS_DestroyVSwitch", lib.text(alias))


def VSDVS_AddDVPort(alias: str, dvPortId: str, connectId: int) -> None:
    """Adds an ordinary port to a switch, with all its initial properties at once."""
    lib.call("VSDVS_AddDVPort", lib.text(alias), lib.text(dvPortId), lib.number(c_uint32, connectId))


def VSDVS_AddOpaqueDVPort(alias: str, dvPortId: str, externalId: str) -> None:
    """Adds an ordinary port as VSDVS_AddDVPort() does, with connect id 1, then stores its external id (com.talpex.port.extraConfig.vnic.external.id, flags 0x10)."""
    lib.call("VSDVS_AddOpaqueDVPort", lib.text(alias), lib.text(dvPortId), lib.text(externalId))


def VSDVS_RemoveDVPort(alias: str, dvPortId: str) -> None:
    """Removes a port with all its properties."""
    lib.call("VSDVS_RemoveDVPort", lib.text(alias), lib.text(dvPortId))


def VSDVS_DvPortIDToPortIDFromDVSID(switchId: str, dvPortId: str) -> int:
    """Finds the number by which the kernel's driver knows a port: the 32-bit word at offset 16 of its status record (com.talpex.common.port.volatile.status)."""
    return lib.call("VSDVS_DvPortIDToPortIDFromDVSID", lib.text(switchId), lib.text(dvPortId), lib.number_out(c_uint32))


def VSDVS_DvPortIDToPortID(alias: str, dvPortId: str) -> int:
    """Finds the number by which the kernel's driver knows a port, as VSDVS_DvPortIDToPortIDFromDVSID() does."""
    return lib.call("VSDVS_DvPortIDToPortID", lib.text(alias), lib.text(dvPortId), lib.number_out(c_uint32))


def SetNumSwitchUplinkPortsByUUID(switchId: str, numUplinks: int) -> None:
    """Creates a number of uplink ports on a switch that has none, "uplink0", "uplink1" and so on, each with its id as its name, and stores both uplink lists."""
    lib.call("SetNumSwitchUplinkPortsByUUID", lib.text(switchId), lib.number(c_uint32, numUplinks))


def VSDVS_SetSwitchUplinkPorts(alias: str, names: Sequence[str], ids: Sequence[str]) -> None:
    """Creates the uplink ports of a switch and stores its uplink lists: the names for the whole switch (com.talpex.common.uplinkPorts) and the port ids for this host (com.talpex.common.host.uplinkPorts), both with flags 0x10."""
    lib.call("VSDVS_SetSwitchUplinkPorts", lib.text(alias), lib.counted(names, 81), lib.counted(ids, 48))


def VSDVS_GetSwitchUplinkPorts(alias: str) -> tuple[list[str], list[str]]:
    """Reads both uplink lists of a switch, with the names put in the order of the port ids: entry i of the names is the alias (com.talpex.common.port.alias) of the port in entry i of the ids."""
    return lib.call("VSDVS_GetSwitchUplinkPorts", lib.text(alias), lib.buffer_out("VSDVS_FreeMemory", lambda a: [lib.as_text(e) for e in lib.entries(a + 4, lib.word(a), 81)]), lib.buffer_out("VSDVS_FreeMemory", lambda a: [lib.as_text(e) for e in lib.entries(a + 4, lib.word(a), 48)]))


def VSDVS_AddSwitchUplinkPort(alias: str, name: str) -> None:
    """Adds one uplink to a switch: creates the port and appends it to both uplink lists."""
    lib.call("VSDVS_AddSwitchUplinkPort", lib.text(alias), lib.text(name))


def VSDVS_RemoveSwitchUplinkPort(alias: str, dvPortId: str) -> None:
    """Removes one uplink of a switch: takes its name and its port id from the two uplink lists and removes the port."""
    lib.call("VSDVS_RemoveSwitchUplinkPort", lib.text(alias), lib.text(dvPortId))


def VSDVS_ClearSwitchUplinkPorts(alias: str) -> None:
    """Forgets both uplink lists of a switch."""
    lib.call("VSDVS_ClearSwitchUplinkPorts", lib.text(alias))


def VSDVS_GetMcastFilterMode(alias: str) -> int:
    """Reads the multicast filter mode of a switch (com.talpex.vswitch.multicastFilter)."""
    return lib.call("VSDVS_GetMcastFilterMode", lib.text(alias), lib.number_out(c_uint32))


def VSDVS_SetMcastFilterMode(alias: str, mode: int) -> None:
    """Stores the multicast filter mode of a switch as the text "legacyFiltering" or "snooping" (com.talpex.vswitch.multicastFilter, flags 0x10)."""
    lib.call("VSDVS_SetMcastFilterMode", lib.text(alias), lib.number(c_int32, mode))


def VSDVS_GetDVMirrorSessions(alias: str, dvPortId: str | None) -> tuple[MirrorSessionList, list[MirrorSessionRecord], list[bytes]]:
    """Reads a list of mirror sessions: that of a port (com.talpex.vswitch.port.mirrorSessions) or, without a port id, that of this host's uplinks (com.talpex.vswitch.uplinkMirrorSessions)."""
    return lib.call("VSDVS_GetDVMirrorSessions", lib.text(alias), lib.text(dvPortId), lib.buffer_out("VSDVS_FreeMemory", lambda a: lib.headed(a, MirrorSessionList, {"sessionCount": MirrorSessionRecord, "portEntryCount": 52})))


def VSDVS_AppendDVMirrorSessions(alias: str, dvPortId: str | None, list: tuple[MirrorSessionList, list[MirrorSessionRecord], list[bytes]]) -> None:
    """Appends mirror sessions to the list of a port or of this host's uplinks; the first one makes the list."""
    lib.call("VSDVS_AppendDVMirrorSessions", lib.text(alias), lib.text(dvPortId), lib.behind(list, ['sessionCount', 'portEntryCount']))


def VSDVS_RemoveDVMirrorSession(alias: str, dvPortId: str | None, sessionId: str) -> None:
    """Removes the first mirror session with an id, and its port entries, from the list of a port or of this host's uplinks."""
    lib.call("VSDVS_RemoveDVMirrorSession", lib.text(alias), lib.text(dvPortId), lib.text(sessionId))


def VSDVS_ClearDVMirrorSessions(alias: str, dvPortId: str | None) -> None:
    """Removes the whole list of mirror sessions of a port or of this host's uplinks."""
    lib.call("VSDVS_ClearDVMirrorSessions", lib.text(alias), lib.text(dvPortId))


def VSDVS_GetPrivateVLANMap(alias: str) -> list[bytes]:
    """Reads the private VLAN map of a switch (com.talpex.vswitch.pvlanMap)."""
    return lib.read_counted("VSDVS_GetPrivateVLANMap", lib.text(alias), size=8)


def VSDVS_SetPrivateVLANMap(alias: str, entries: Sequence[bytes]) -> None:
    """Replaces the private VLAN map of a switch (com.talpex.vswitch.pvlanMap, flags 0x08), or removes it."""
    lib.call("VSDVS_SetPrivateVLANMap", lib.text(alias), lib.block(lib.joined(entries, 8)), lib.number(c_uint32, len(entries)))


def VSDVS_GetPortVLANPolicy(alias: str, dvPortId: str) -> tuple[tuple[PortVLANRecord, list[VLANRange]], int]:
    """Reads the VLAN policy of a port (com.talpex.vswitch.port.vlan) and its priority (com.talpex.vswitch.port.priority)."""
    return lib.call("VSDVS_GetPortVLANPolicy", lib.text(alias), lib.text(dvPortId), lib.buffer_out("VSDVS_FreeMemory", lambda a: lib.headed(a, PortVLANRecord, {"rangeCount": VLANRange})), lib.number_out(c_uint32))


def VSDVS_SetPortVLANPolicy(alias: str, dvPortId: str, vlanId: int, priority: int, trunk: bool, optionFlag: bool, ranges: Sequence[VLANRange]) -> None:
    """Replaces the VLAN policy of a port (com.talpex.vswitch.port.vlan), then stores its priority (com.talpex.vswitch.port.priority, 4 bytes) or removes it; both with flags 0x08."""
    lib.call("VSDVS_SetPortVLANPolicy", lib.text(alias), lib.text(dvPortId), lib.number(c_uint16, vlanId), lib.number(c_uint32, priority), lib.flag(trunk), lib.flag(optionFlag), lib.block(lib.joined(ranges, 4)), lib.number(c_uint16, len(ranges)))


def VSDVS_ClearPortVLANPolicy(alias: str, dvPortId: str) -> None:
    """Removes the VLAN policy of a port, then its priority (com.talpex.vswitch.port.vlan and com.talpex.vswitch.port.priority)."""
    lib.call("VSDVS_ClearPortVLANPolicy", lib.text(alias), lib.text(dvPortId))


def VSDVS_GetPortNestedVLANTagging(alias: str, dvPortId: str) -> bool:
    """Tells whether nested VLAN tagging is on for a port (com.talpex.vswitch.port.vlanNestedTag)."""
    return lib.call("VSDVS_GetPortNestedVLANTagging", lib.text(alias), lib.text(dvPortId), lib.flag_out())


def VSDVS_SetPortNestedVLANTagging(alias: str, dvPortId: str, enabled: bool) -> None:
    """Turns nested VLAN tagging of a port on or off (com.talpex.vswitch.port.vlanNestedTag, 4 bytes, flags 0x10)."""
    lib.call("VSDVS_SetPortNestedVLANTagging", lib.text(alias), lib.text(dvPortId), lib.flag(enabled))


def VSDVS_GetPortSecurity(alias: str, dvPortId: str) -> int:
    """Reads the security flags of a port (com.talpex.vswitch.port.security)."""
    return lib.call("VSDVS_GetPortSecurity", lib.text(alias), lib.text(dvPortId), lib.number_out(c_uint32))


def VSDVS_SetPortSecurity(alias: str, dvPortId: str, flags: int) -> None:
    """Stores the security flags of a port (com.talpex.vswitch.port.security, 4 bytes, flags 0x10)."""
    lib.call("VSDVS_SetPortSecurity", lib.text(alias), lib.text(dvPortId), byref(lib.number(c_uint32, flags)))


def VSDVS_GetExtraEthFilter(alias: str, dvPortId: str) -> ExtraEthFilterRecord:
    """Reads the extra Ethernet filter of a port (com.talpex.vswitch.port.extraEthFRP)."""
    return lib.call("VSDVS_GetExtraEthFilter", lib.text(alias), lib.text(dvPortId), lib.record_out(ExtraEthFilterRecord))


def VSDVS_SetExtraEthFilter(alias: str, dvPortId: str, record: ExtraEthFilterRecord) -> None:
    """Stores the extra Ethernet filter of a port (com.talpex.vswitch.port.extraEthFRP, flags 0x10), sink port bit included."""
    lib.call("VSDVS_SetExtraEthFilter", lib.text(alias), lib.text(dvPortId), lib.block(record, 200))


def VSDVS_ClearExtraEthFilter(alias: str, dvPortId: str) -> None:
    """Removes the extra Ethernet filter of a port, and with it the sink port setting."""
    lib.call("VSDVS_ClearExtraEthFilter", lib.text(alias), lib.text(dvPortId))


def VSDVS_IsSinkPortEnabled(alias: str, dvPortId: str) -> bool:
    """Tells whether a port is a sink port: whether SINK_PORT_BIT is set in its extra Ethernet filter."""
    return lib.call("VSDVS_IsSinkPortEnabled", lib.text(alias), lib.text(dvPortId), lib.flag_out())


def VSDVS_ConfigureSinkPort(alias: str, dvPortId: str, enable: bool) -> None:
    """Makes a port a sink port or an ordinary one, by SINK_PORT_BIT in its extra Ethernet filter; the rest of the filter stays."""
    lib.call("VSDVS_ConfigureSinkPort", lib.text(alias), lib.text(dvPortId), lib.flag(enable))


def VSDVS_GetPortMACLearning(alias: str, dvPortId: str) -> PortMACLearningConfig:
    """Reads the MAC learning of a port (com.talpex.vswitch.port.macManagement, 11 bytes, of which the last 10 are handed out)."""
    return lib.call("VSDVS_GetPortMACLearning", lib.text(alias), lib.text(dvPortId), lib.record_out(PortMACLearningConfig))


def VSDVS_SetPortMACLearning(alias: str, dvPortId: str, config: PortMACLearningConfig) -> None:
    """Stores the MAC learning of a port (com.talpex.vswitch.port.macManagement, flags 0x10): one byte, then the 10 bytes of config."""
    lib.call("VSDVS_SetPortMACLearning", lib.text(alias), lib.text(dvPortId), lib.block(config, 10))


def VSDVS_GetMACLearning(alias: str) -> SwitchMACLearningRecord:
    """Reads the MAC learning of a switch on this host (host property com.talpex.vswitch.macLearning)."""
    return lib.call("VSDVS_GetMACLearning", lib.text(alias), lib.record_out(SwitchMACLearningRecord))


def VSDVS_SetMACLearning(alias: str, record: SwitchMACLearningRecord) -> None:
    """Stores the MAC learning of a switch on this host (host property com.talpex.vswitch.macLearning, flags 0x10)."""
    lib.call("VSDVS_SetMACLearning", lib.text(alias), lib.block(record, 8))


def VSDVS_ClearMACLearning(alias: str) -> None:
    """Removes the MAC learning of a switch on this host (host property com.talpex.vswitch.macLearning)."""
    lib.call("VSDVS_ClearMACLearning", lib.text(alias))


def VSDVS_GetLearnStatic(alias: str) -> bool:
    """Reads the learn-static setting of a switch on this host (host property com.talpex.vswitch.macLearning.learnStatic): true when the stored text begins with "true"."""
    return lib.call("VSDVS_GetLearnStatic", lib.text(alias), lib.flag_out())


def VSDVS_SetLearnStatic(alias: str, enabled: bool) -> None:
    """Stores the learn-static setting of a switch on this host as "true" or "false" (host property com.talpex.vswitch.macLearning.learnStatic, flags 0x10)."""
    lib.call("VSDVS_SetLearnStatic", lib.text(alias), lib.flag(enabled))


def VSDVS_ClearLearnStatic(alias: str) -> None:
    """Removes the learn-static setting of a switch on this host (host property com.talpex.vswitch.macLearning.learnStatic)."""
    lib.call("VSDVS_ClearLearnStatic", lib.text(alias))


def VSDVS_GetTeamingPolicyFromDVSID(switchId: str) -> bytes:
    """Reads the teaming policy of a switch (com.talpex.vswitch.teaming)."""
    return lib.call("VSDVS_GetTeamingPolicyFromDVSID", lib.text(switchId), lib.bytes_out(2616))


def VSDVS_GetTeamingPolicy(alias: str) -> bytes:
    """Reads the teaming policy of a switch (com.talpex.vswitch.teaming)."""
    return lib.call("VSDVS_GetTeamingPolicy", lib.text(alias), lib.bytes_out(2616))


def VSDVS_SetTeamingPolicy(alias: str, policy: bytes) -> None:
    """Stores the teaming policy of a switch (com.talpex.vswitch.teaming, flags 0x10)."""
    lib.call("VSDVS_SetTeamingPolicy", lib.text(alias), lib.block(policy, 2616))


def VSDVS_ClearTeamingPolicy(alias: str) -> None:
    """Removes the teaming policy of a switch."""
    lib.call("VSDVS_ClearTeamingPolicy", lib.text(alias))


def VSDVS_GetTxUplinkAlways(alias: str, dvPortId: str) -> bool:
    """Tells whether the transmit-uplink mode of a port is "always" (com.talpex.vswitch.port.txUplink)."""
    return lib.call("VSDVS_GetTxUplinkAlways", lib.text(alias), lib.text(dvPortId), lib.flag_out())


def VSDVS_SetTxUplinkAlways(alias: str, dvPortId: str, always: bool) -> None:
    """Stores the transmit-uplink mode of a port as "always" or "normal" (com.talpex.vswitch.port.txUplink, 7 bytes, flags 0x10)."""
    lib.call("VSDVS_SetTxUplinkAlways", lib.text(alias), lib.text(dvPortId), lib.flag(always))


def VSDVS_GetPortTeamingPolicy(alias: str, dvPortId: str) -> bytes:
    """Reads the teaming policy of a port (com.talpex.vswitch.port.teaming.policy)."""
    return lib.call("VSDVS_GetPortTeamingPolicy", lib.text(alias), lib.text(dvPortId), lib.bytes_out(2616))


def VSDVS_SetPortTeamingPolicy(alias: str, dvPortId: str, policy: bytes) -> None:
    """Stores the teaming policy of a port (com.talpex.vswitch.port.teaming.policy, flags 0x10)."""
    lib.call("VSDVS_SetPortTeamingPolicy", lib.text(alias), lib.text(dvPortId), lib.block(policy, 2616))


def VSDVS_ClearPortTeamingPolicy(alias: str, dvPortId: str) -> None:
    """Removes the teaming policy of a port."""
    lib.call("VSDVS_ClearPortTeamingPolicy", lib.text(alias), lib.text(dvPortId))


def VSDVS_GetPortTeamingOverride(alias: str, dvPortId: str) -> str:
    """Reads the teaming override of a port (com.talpex.vswitch.port.teaming.override)."""
    return lib.call("VSDVS_GetPortTeamingOverride", lib.text(alias), lib.text(dvPortId), lib.text_out(81))


def VSDVS_SetPortTeamingOverride(alias: str, dvPortId: str, text: str) -> None:
    """Stores the teaming override of a port (com.talpex.vswitch.port.teaming.override, flags 0x10)."""
    lib.call("VSDVS_SetPortTeamingOverride", lib.text(alias), lib.text(dvPortId), lib.text(text))


def VSDVS_ClearPortTeamingOverride(alias: str, dvPortId: str) -> None:
    """Removes the teaming override of a port."""
    lib.call("VSDVS_ClearPortTeamingOverride", lib.text(alias), lib.text(dvPortId))


def VSDVS_GetLSTeamingPolicyTableFromDVSID(switchId: str) -> list[bytes]:
    """Reads the logical-switch teaming policies of a switch (com.talpex.vswitch.logicalswitch.teaming)."""
    return lib.call("VSDVS_GetLSTeamingPolicyTableFromDVSID", lib.text(switchId), lib.buffer_out("VSDVS_FreeMemory", lambda a: lib.entries(a + 4, lib.word(a), 2748)))


def VSDVS_GetLSTeamingPolicyTable(alias: str) -> list[bytes]:
    """Reads the logical-switch teaming policies of a switch (com.talpex.vswitch.logicalswitch.teaming)."""
    return lib.call("VSDVS_GetLSTeamingPolicyTable", lib.text(alias), lib.buffer_out("VSDVS_FreeMemory", lambda a: lib.entries(a + 4, lib.word(a), 2748)))


def VSDVS_SetLSTeamingPolicy(alias: str, table: Sequence[bytes]) -> None:
    """Stores the logical-switch teaming policies of a switch (com.talpex.vswitch.logicalswitch.teaming, flags 0x10)."""
    lib.call("VSDVS_SetLSTeamingPolicy", lib.text(alias), lib.counted(table, 2748))


def VSDVS_ClearLSTeamingPolicy(alias: str) -> None:
    """Removes the logical-switch teaming policies of a switch."""
    lib.call("VSDVS_ClearLSTeamingPolicy", lib.text(alias))


def VSDVS_GetPortLSTeamingPolicyName(alias: str, dvPortId: str) -> str:
    """Reads the name of the logical-switch teaming policy that a port follows (com.talpex.vswitch.port.logicalswitch.teaming)."""
    return lib.call("VSDVS_GetPortLSTeamingPolicyName", lib.text(alias), lib.text(dvPortId), lib.text_out(136))


def VSDVS_SetPortLSTeamingPolicy(alias: str, dvPortId: str, policyName: str) -> None:
    """Stores the name of the logical-switch teaming policy that a port follows (com.talpex.vswitch.port.logicalswitch.teaming, flags 0x10)."""
    lib.call("VSDVS_SetPortLSTeamingPolicy", lib.text(alias), lib.text(dvPortId), lib.text(policyName))


def VSDVS_ClearPortLSTeamingPolicy(alias: str, dvPortId: str) -> None:
    """Removes the name of the logical-switch teaming policy that a port follows."""
    lib.call("VSDVS_ClearPortLSTeamingPolicy", lib.text(alias), lib.text(dvPortId))


def VSDVS_GetMTU(alias: str) -> int:
    """Reads the MTU in force on a running switch, of any class, from the system shell (convention 11)."""
    return lib.call("VSDVS_GetMTU", lib.text(alias), lib.number_out(c_int32))


def VSDVS_SetMTU(alias: str, mtu: int) -> None:
    """Sets the MTU of a running switch: on each of its uplinks (the first 32 listed), then on its portset, with these commands (convention 11); then stores it in com.talpex.vswitch.mtu and com.talpex.etherswitch.mtu (4 bytes, flags 0x10)."""
    lib.call("VSDVS_SetMTU", lib.text(alias), lib.number(c_int32, mtu))


def ZORIoctl(path: str, request: int, data: bytes, outLength: int) -> bytes:
    """Sends one request to a device: opens it for reading and writing, issues one ioctl, closes it again."""
    return lib.ioctl(lib.text(path), lib.number(c_int32, request), data, outLength)


def VSZOR_GetSwitches(kind: int) -> lib.DriverList:
    """Lists the running switches."""
    return lib.call("VSZOR_GetSwitches", lib.number(c_uint32, kind), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 128 if kind == 1 else 81)))


def VSZOR_GetVSInfo(portsetName: str) -> bytes:
    """Reads the driver's information record of a running switch."""
    return lib.call("VSZOR_GetVSInfo", lib.text(portsetName), lib.bytes_out(208))


def VSZOR_GetUplinks(portsetName: str) -> lib.DriverList:
    """Lists the uplinks of a running switch."""
    return lib.call("VSZOR_GetUplinks", lib.text(portsetName), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 36)))


def VSZOR_GetUplinkLinkState(portsetName: str, uplinkName: str) -> int:
    """Tells whether the link of an uplink is up."""
    return lib.call("VSZOR_GetUplinkLinkState", lib.text(portsetName), lib.text(uplinkName), lib.number_out(c_uint32))


def VSZOR_GetUplinkLACPLinkState(portsetName: str, uplinkName: str) -> int:
    """Tells whether the link of an uplink is up for LACP."""
    return lib.call("VSZOR_GetUplinkLACPLinkState", lib.text(portsetName), lib.text(uplinkName), lib.number_out(c_uint32))


def VSZOR_SetUplinkAdminLinkState(portsetName: str, uplinkName: str, upFlag: int) -> None:
    """Brings an uplink up or takes it down."""
    lib.call("VSZOR_SetUplinkAdminLinkState", lib.text(portsetName), lib.text(uplinkName), lib.number(c_int32, upFlag))


def VSZOR_GetLAGTable(portsetName: str) -> bytes:
    """Reads the LAG table of a running switch."""
    return lib.call("VSZOR_GetLAGTable", lib.text(portsetName), lib.buffer_out("VSZOR_FreeMemory", lambda a: string_at(a, 35588)))


def VSZOR_PortGetTeamUplinkHint(portNumber: int) -> bytes:
    """Reads the team uplink hint of a port."""
    return lib.call("VSZOR_PortGetTeamUplinkHint", lib.number(c_uint32, portNumber), lib.bytes_out(32))


def VSZOR_GetUplinkDVPortID(uplinkName: str) -> str:
    """Finds the port id of an uplink of this host."""
    return lib.call("VSZOR_GetUplinkDVPortID", lib.text(uplinkName), lib.text_out(48))


def VSZOR_RefreshDevNUMAInfo(portsetName: str) -> None:
    """Has the driver refresh its device NUMA information for a running switch."""
    lib.call("VSZOR_RefreshDevNUMAInfo", lib.text(portsetName))


def VSZOR_GetPortMACTable(alias: str, dvPortId: str, selector: int) -> lib.DriverList:
    """Lists the MAC addresses known at a port."""
    return lib.call("VSZOR_GetPortMACTable", lib.text(alias), lib.text(dvPortId), lib.number(c_uint8, selector), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 18)))


def VSZOR_SetPortMACTable(alias: str, dvPortId: str, entry: bytes) -> None:
    """Puts an entry into the MAC table of a port."""
    lib.call("VSZOR_SetPortMACTable", lib.text(alias), lib.text(dvPortId), lib.block(entry, 18))


def VSZOR_ClearPortMACTable(alias: str, dvPortId: str, entry: bytes) -> None:
    """Removes an entry from the MAC table of a port."""
    lib.call("VSZOR_ClearPortMACTable", lib.text(alias), lib.text(dvPortId), lib.block(entry, 18))


def VSZOR_GetTeamMACTable(alias: str, selector: int) -> lib.DriverList:
    """Lists the MAC addresses known at the team of a running switch, of any class."""
    return lib.call("VSZOR_GetTeamMACTable", lib.text(alias), lib.number(c_int32, selector), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 18)))


def VSZOR_GetPortMACLearningStats(dvPortId: str, alias: str) -> bytes:
    """Reads the MAC learning statistics of a port."""
    return lib.call("VSZOR_GetPortMACLearningStats", lib.text(dvPortId), lib.text(alias), lib.bytes_out(28))


def VSZOR_GetGlobalMACLearningProps() -> bytes:
    """Reads the driver's MAC learning properties, which hold for the whole host."""
    return lib.call("VSZOR_GetGlobalMACLearningProps", lib.bytes_out(9))


def VSZOR_SetGlobalMACLearningProps(props: bytes) -> None:
    """Sets the driver's MAC learning properties, which hold for the whole host."""
    lib.call("VSZOR_SetGlobalMACLearningProps", lib.block(props, 9))


def VSZOR_GetSwitchMACLearningInfo(portsetName: str) -> bytes:
    """Reads the MAC learning information of a running switch."""
    return lib.call("VSZOR_GetSwitchMACLearningInfo", lib.text(portsetName), lib.bytes_out(52))


def VSZOR_GetMcastFilterMode(portsetName: str) -> int:
    """Reads the multicast filter mode in force on a running switch."""
    return lib.call("VSZOR_GetMcastFilterMode", lib.text(portsetName), lib.number_out(c_uint32))


def VSZOR_GetMcastFilters(portsetName: str, selector: int, kind: int) -> lib.DriverList:
    """Lists the multicast addresses of one kind that a running switch filters."""
    return lib.call("VSZOR_GetMcastFilters", lib.text(portsetName), lib.number(c_uint32, selector), lib.number(c_int32, kind), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, lib.ADDRESS_SIZES[kind])))


def VSZOR_GetMcastFilterStats(portsetName: str, selector: int, kind: int, group: bytes) -> tuple[ZorMcastStatsHeader, list[bytes]]:
    """Reads the statistics of a multicast group on a running switch, with the list of its sources."""
    return lib.call("VSZOR_GetMcastFilterStats", lib.text(portsetName), lib.number(c_uint32, selector), lib.number(c_int32, kind), lib.block(group, lib.ADDRESS_SIZES.get(kind, 0)), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.headed(a, ZorMcastStatsHeader, {"count": lib.ADDRESS_SIZES[kind]})))


def VSZOR_GetDVMirrorSessionIDs(alias: str) -> lib.DriverList:
    """Lists the ids of the mirror sessions of a running switch, of any class."""
    return lib.call("VSZOR_GetDVMirrorSessionIDs", lib.text(alias), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 32)))


def VSZOR_GetDVMirrorSessionStats(alias: str, sessionId: str) -> bytes:
    """Reads the statistics of a mirror session of a running switch, of any class."""
    return lib.call("VSZOR_GetDVMirrorSessionStats", lib.text(alias), lib.text(sessionId), lib.bytes_out(121))


def VSZOR_GetPromiscSessionActiveDsts(alias: str) -> lib.DriverList:
    """Lists the active destinations of the promiscuous sessions of a running switch, of any class."""
    return lib.call("VSZOR_GetPromiscSessionActiveDsts", lib.text(alias), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.driver_list(a, 4)))


def VSZOR_GetRARPStats(portsetName: str) -> bytes:
    """Reads the RARP statistics of a running switch."""
    return lib.call("VSZOR_GetRARPStats", lib.text(portsetName), lib.bytes_out(16))


def VSZOR_GetServicePortTeamingStats(portsetName: str) -> bytes:
    """Reads the service-port teaming statistics of a running switch."""
    return lib.call("VSZOR_GetServicePortTeamingStats", lib.text(portsetName), lib.bytes_out(48))


def VSZOR_GetRuntimeOptions(ids: Sequence[int]) -> bytes:
    """Reads run-time options of the driver."""
    return lib.call("VSZOR_GetRuntimeOptions", (c_uint16 * len(ids))(*(lib.number(c_uint16, n).value for n in ids)), lib.number(c_uint16, len(ids)), lib.buffer_out("VSZOR_FreeMemory", lambda a: string_at(a, 4096)))


def VSZOR_SetRuntimeOptions(record: bytes) -> None:
    """Sets run-time options of the driver."""
    lib.call("VSZOR_SetRuntimeOptions", lib.block(record, lib.leading(record)))


def VSZOR_GetPortLSTeamingPolicyName(portNumber: int) -> str:
    """Reads the name of the logical-switch teaming policy that a port follows in the driver."""
    return lib.call("VSZOR_GetPortLSTeamingPolicyName", lib.number(c_uint32, portNumber), lib.text_out(136))


def VSZOR_GetLSTeamingPolicyTable(alias: str) -> list[bytes]:
    """Reads the logical-switch teaming policies that the driver holds for a running switch, of any class."""
    return lib.call("VSZOR_GetLSTeamingPolicyTable", lib.text(alias), lib.buffer_out("VSZOR_FreeMemory", lambda a: lib.entries(a + 4, lib.word(a), 2748)))


def VSZOR_RTMOp(record: bytes, command: int) -> None:
    """Sends a request to the RTM device, ZOR_RTM_DEVICE."""
    lib.call("VSZOR_RTMOp", lib.block(record, 9 + 128 * lib.leading(record)), lib.number(c_uint32, command))

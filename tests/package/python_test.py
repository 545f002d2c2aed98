"""Every operation of the Python module once, on an embedded host: usage python_test.py VERSION_SCRIPT."""

import pickle
import re
import struct
import sys
import unittest
from pathlib import Path

import vswitchctl as v
from vswitchctl import _library

SCRIPT = sys.argv.pop(1)
PORT = ("lab", "port0")
TEAMING = bytes(range(256)) * 10 + bytes(56)
called = set()


def outcome(function, *arguments):
    try:
        return function(*arguments)
    except v.StatusError as error:
        return error.status


class OperationTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for name in ("call", "call_plain", "read_value"):
            function = getattr(_library, name)

            def counting(operation, *arguments, function=function, **options):
                called.add(operation)
                return function(operation, *arguments, **options)
            setattr(_library, name, counting)
        v.LibraryInit()
        v.VSDVS_CreateVSwitch("lab", None, None, 1, False, 64, 2, 4)

    @classmethod
    def tearDownClass(cls):
        v.VSDVS_DestroyVSwitch("lab")
        missing = set(re.findall(r"^    (\w+);", Path(SCRIPT).read_text(), re.M)) - called
        assert not missing, f"no test calls {missing}"

    def test_policies_come_back_as_they_were_written(self):
        vlan_map, entry = ([b"\1\0\2\0\0\0\0\1", b"\3\0\4\0\0\0\0\2"],
                           (b"policy".ljust(132, b"\0") + b"\1").ljust(2748, b"\0"))
        cases = [
            ("PortSecurity", PORT, 3), ("ExtraEthFilter", PORT, v.ExtraEthFilterRecord(7)),
            ("PortMACLearning", PORT, v.PortMACLearningConfig(1, 1, 20, 30)), ("PortNestedVLANTagging", PORT, True),
            ("PortTeamingPolicy", PORT, TEAMING), ("PortTeamingOverride", PORT, "überholt"),
            ("TxUplinkAlways", PORT, True), ("MACLearning", PORT[:1], v.SwitchMACLearningRecord((1, 2, 3), 4, 5)),
            ("LearnStatic", PORT[:1], True), ("TeamingPolicy", PORT[:1], TEAMING),
            ("PrivateVLANMap", PORT[:1], vlan_map),
            ("McastFilterMode", PORT[:1], v.MCAST_FILTER_SNOOPING), ("MTU", PORT[:1], 9000),
        ]
        for name, where, value in cases:
            with self.subTest(name):
                get, clear = getattr(v, f"VSDVS_Get{name}"), getattr(v, f"VSDVS_Clear{name}", None)
                before = outcome(get, *where)
                getattr(v, f"VSDVS_Set{name}")(*where, value)
                self.assertNotEqual(value, before)
                self.assertEqual(get(*where), value)
                if clear:
                    clear(*where)
                    self.assertEqual(outcome(get, *where), before)
        v.VSDVS_SetLSTeamingPolicy("lab", [entry])
        v.VSDVS_SetPortLSTeamingPolicy(*PORT, "policy")
        identity = v.DVSAliasToSwitchId("lab")
        self.assertEqual(v.VSDVS_GetLSTeamingPolicyTable("lab"), [entry])
        self.assertEqual(v.VSDVS_GetLSTeamingPolicyTableFromDVSID(identity), [entry])
        self.assertEqual(v.VSZOR_GetLSTeamingPolicyTable("lab"), [entry])
        self.assertEqual(v.VSDVS_GetPortLSTeamingPolicyName(*PORT), "policy")
        self.assertEqual(v.VSZOR_GetPortLSTeamingPolicyName(v.VSDVS_DvPortIDToPortID(*PORT)), "policy")
        v.VSDVS_ClearPortLSTeamingPolicy(*PORT)
        v.VSDVS_ClearLSTeamingPolicy("lab")
        v.VSDVS_SetTeamingPolicy("lab", TEAMING)
        self.assertEqual(v.VSDVS_GetTeamingPolicyFromDVSID(identity), TEAMING)

    def test_ports_uplinks_and_names(self):
        identity = v.DVSAliasToSwitchId("lab")
        self.assertEqual(v.DVSAliasToPortsetName("lab"), "lab")
        self.assertEqual(v.DVSPortsetNameToAlias("lab"), "lab")
        self.assertEqual(v.VSDVS_GetAliasFromPortset("lab"), "lab")
        v.VSDVS_AddDVPort("lab", "db", 7)
        v.VSDVS_AddOpaqueDVPort("lab", "web", "external")
        self.assertTrue(v.DVPortExist(identity, "db"))
        self.assertEqual(v.VSDVS_DvPortIDToPortID("lab", "db"), v.VSDVS_DvPortIDToPortIDFromDVSID(identity, "db"))
        v.VSDVS_RemoveDVPort("lab", "web")
        self.assertFalse(v.DVPortExist(identity, "web"))
        self.assertEqual(v.VSDVS_GetSwitchUplinkPorts("lab"), (["uplink0", "uplink1"],) * 2)
        v.VSDVS_AddSwitchUplinkPort("lab", "spare")
        names, ids = v.VSDVS_GetSwitchUplinkPorts("lab")
        v.VSDVS_RemoveSwitchUplinkPort("lab", ids[names.index("spare")])
        v.VSDVS_CreateVSwitch("other", "id-of-other", None, 1, True, 0, 0, 0)
        v.SetNumSwitchUplinkPortsByUUID("id-of-other", 2)
        v.VSDVS_ClearSwitchUplinkPorts("other")
        v.VSDVS_SetSwitchUplinkPorts("other", *[["left", "right"]] * 2)
        self.assertEqual(v.VSDVS_GetSwitchUplinkPorts("other"), (["left", "right"],) * 2)
        v.VSDVS_DestroyVSwitch("other")

    def test_properties_vlans_and_mirrors(self):
        for level, where in (("Port", PORT), ("Host", PORT[:1]), ("Glob", PORT[:1])):
            for value in (b"", b"\0\1\2", bytes(70000)):
                getattr(v, f"VSDVS_Set{level}Prop")(*where, "a.key", value)
                self.assertEqual(getattr(v, f"VSDVS_Get{level}Prop")(*where, "a.key"), value)
            getattr(v, f"VSDVS_Clear{level}Prop")(*where, "a.key")
            self.assertRaises(v.NotFound, getattr(v, f"VSDVS_Get{level}Prop"), *where, "a.key")
        ranges = [v.VLANRange(100, 199), v.VLANRange(300, 300)]
        v.VSDVS_SetPortVLANPolicy(*PORT, 5, 3, True, False, ranges)
        (record, stored), priority = v.VSDVS_GetPortVLANPolicy(*PORT)
        self.assertEqual((record.vlanId, stored, priority), (5, ranges, 3))
        v.VSDVS_ClearPortVLANPolicy(*PORT)
        v.VSDVS_ConfigureSinkPort(*PORT, True)
        self.assertTrue(v.VSDVS_IsSinkPortEnabled(*PORT))
        sessions = (v.MirrorSessionList(v.MIRROR_LIST_MAGIC, v.MIRROR_LIST_VERSION, 1, 1, 0),
                    [v.MirrorSessionRecord(b"span", (1,), entryCountA=1)], [bytes(range(52))])
        v.VSDVS_AppendDVMirrorSessions(*PORT, sessions)
        self.assertEqual(v.VSDVS_GetDVMirrorSessions(*PORT), sessions)
        self.assertEqual([v.as_text(i) for i in v.VSZOR_GetDVMirrorSessionIDs("lab")], ["span"])
        self.assertEqual(v.as_text(v.VSZOR_GetDVMirrorSessionStats("lab", "span")), "span")
        v.VSZOR_GetPromiscSessionActiveDsts("lab")
        v.VSDVS_RemoveDVMirrorSession(*PORT, "span")
        v.VSDVS_ClearDVMirrorSessions(*PORT)
        self.assertRaises(ValueError, v.VSDVS_AppendDVMirrorSessions, *PORT, (sessions[0], [], []))

    def test_running_switch(self):
        self.assertEqual([v.as_text(name) for name in v.VSZOR_GetSwitches(1)], ["lab"])
        self.assertEqual(v.as_text(v.VSZOR_GetVSInfo("lab")), "lab")
        nic = v.as_text(v.VSZOR_GetUplinks("lab")[0])
        self.assertEqual(v.VSZOR_GetUplinkDVPortID(nic), "uplink0")
        for up in (0, 1):
            v.VSZOR_SetUplinkAdminLinkState("lab", nic, up)
            self.assertEqual(v.VSZOR_GetUplinkLinkState("lab", nic), up)
        self.assertEqual(v.VSZOR_GetUplinkLACPLinkState("lab", nic), 0)
        self.assertEqual(len(v.VSZOR_GetLAGTable("lab")), v.LAG_TABLE_SIZE)
        v.VSZOR_PortGetTeamUplinkHint(v.VSDVS_DvPortIDToPortID(*PORT))
        v.VSZOR_RefreshDevNUMAInfo("lab")
        mac = struct.pack("<6sBBHII", b"\2\0\0\0\0\7", 1, 0, 100, 0, 0)
        v.VSZOR_SetPortMACTable(*PORT, mac)
        self.assertEqual([entry[:12] for entry in v.VSZOR_GetPortMACTable(*PORT, 0)], [mac[:12]])
        v.VSZOR_ClearPortMACTable(*PORT, mac)
        self.assertEqual((v.VSZOR_GetPortMACTable(*PORT, 0), v.VSZOR_GetTeamMACTable("lab", 0)), ([], []))
        v.VSZOR_SetGlobalMACLearningProps(struct.pack("<BII", 1, 300, 5000))
        self.assertEqual(v.VSZOR_GetGlobalMACLearningProps(), struct.pack("<BII", 1, 300, 5000))
        self.assertEqual(len(v.VSZOR_GetPortMACLearningStats("port0", "lab")), v.PORT_MAC_LEARNING_STATS_SIZE)
        self.assertEqual(len(v.VSZOR_GetSwitchMACLearningInfo("lab")), v.SWITCH_MAC_LEARNING_INFO_SIZE)
        v.VSZOR_GetMcastFilterMode("lab")
        self.assertEqual(v.VSZOR_GetMcastFilters("lab", 0, v.ADDRESS_KIND_IPV4), [])
        self.assertRaises(v.NotFound, v.VSZOR_GetMcastFilterStats, "lab", 0, v.ADDRESS_KIND_IPV4, b"\xef\1\1\1")
        self.assertEqual(len(v.VSZOR_GetRARPStats("lab")), v.RARP_STATS_SIZE)
        self.assertEqual(len(v.VSZOR_GetServicePortTeamingStats("lab")), v.SERVICE_PORT_TEAMING_STATS_SIZE)
        v.VSZOR_SetRuntimeOptions(v.VSZOR_GetRuntimeOptions([])[:4].ljust(4, b"\0") and struct.pack("<I", 8) + bytes(4))
        v.VSZOR_RTMOp(bytes(9), 17)
        self.assertEqual(v.ZORIoctl(v.ZOR_DEVICE, 4120, bytes(212), 9), v.VSZOR_GetGlobalMACLearningProps())

    def test_failures_and_bad_values(self):
        with self.assertRaises(v.NotFound) as caught:
            v.VSDVS_GetMTU("nowhere")
        error = caught.exception
        self.assertEqual((error.status, error.operation, error.arguments),
                         (v.Status.NOT_FOUND, "VSDVS_GetMTU", {"alias": "nowhere"}))
        self.assertEqual(str(pickle.loads(pickle.dumps(error))),
                         "VSDVS_GetMTU(alias='nowhere'): NOT_FOUND (0x0BAD0003)")
        with self.assertRaisesRegex(v.StatusError, r"\(alias='lab', dvPortId='no', key='a.key'\): NOT_FOUND"):
            v.VSDVS_GetPortProp("lab", "no", "a.key")
        self.assertRaises(v.Exists, v.VSDVS_CreateVSwitch, "lab", None, "second", 1, False, 0, 0, 0)
        self.assertRaises(v.BadParam, v.VSDVS_SetMTU, "lab", 1)
        wrong = [
            (TypeError, "alias must be str, not NoneType", v.VSDVS_GetMTU, None),
            (TypeError, "alias must be str, not bytes", v.VSDVS_GetMTU, b"lab"),
            (ValueError, "alias can't hold a NUL", v.VSDVS_GetMTU, "a\0b"),
            (TypeError, "mtu must be int, not str", v.VSDVS_SetMTU, "lab", "9000"),
            (TypeError, "mtu must be int, not float", v.VSDVS_SetMTU, "lab", 9000.0),
            (OverflowError, "connectId: -1 does not fit unsigned 32 bits", v.VSDVS_AddDVPort, "lab", "x", -1),
            (OverflowError, "mtu: 1099511627776 does not fit signed 32 bits", v.VSDVS_SetMTU, "lab", 1 << 40),
            (TypeError, "enable must be bool, not str", v.VSDVS_ConfigureSinkPort, *PORT, "no"),
            (TypeError, "data must be bytes or a record, not int", v.VSDVS_SetPortProp, *PORT, "a.key", 5),
            (TypeError, "data must be bytes or a record, not str", v.VSDVS_SetPortProp, *PORT, "a.key", "5"),
            (ValueError, "policy: 2616 bytes are needed, not 5", v.VSDVS_SetTeamingPolicy, "lab", b"short"),
            (ValueError, "record: 137 bytes are needed, not 4", v.VSZOR_RTMOp, b"\1\0\0\0", 1),
            (TypeError, "record must be bytes or a record, not int", v.VSZOR_RTMOp, 9, 1),
            (TypeError, "names must be a sequence, not str", v.VSDVS_SetSwitchUplinkPorts, "lab", "up", ["y"]),
            (TypeError, "an entry of names must be bytes or a record, not int", v.VSDVS_SetSwitchUplinkPorts, "lab",
             [1], ["y"]),
            (ValueError, "names: 81 bytes are needed for each entry, not 82", v.VSDVS_SetSwitchUplinkPorts, "lab",
             ["x" * 81], ["y"]),
            (TypeError, "ids must be a sequence, not int", v.VSZOR_GetRuntimeOptions, 5),
            (TypeError, "list must be a tuple of a record and 2 lists", v.VSDVS_AppendDVMirrorSessions, *PORT, []),
            (TypeError, "outLength must be int, not NoneType", v.ZORIoctl, v.ZOR_DEVICE, 4120, b"", None),
        ]
        before = v.VSDVS_GetMTU("lab")
        for error, message, function, *arguments in wrong:
            with self.subTest(message), self.assertRaisesRegex(error, f"^{re.escape(message)}$"):
                function(*arguments)
        self.assertEqual(v.VSDVS_GetMTU("lab"), before)
        for hook in (v.Log, v.Warning, v.Panic):
            hook("%s%n")
        for release in (v.VSDVS_FreeMemory, v.VSZOR_FreeMemory):
            release(None)


if __name__ == "__main__":
    unittest.main()

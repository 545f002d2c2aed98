import itertools

import pytest
import vswitchctl as v
from tenant import add_tenant, live_uplinks


def test_gets_all_its_ports(host):
    add_tenant("lab", "blue", 3, 100)
    assert v.VSDVS_DvPortIDToPortID("lab", "blue-2")


def test_leaves_nothing_whichever_write_fails(host):
    before = host.fingerprint()
    for nth in itertools.count(1):
        host.fail("DVSZOR_PortDataSet", nth, v.Status.IO_ERROR)
        try:
            add_tenant("lab", "blue", 3, 100)
        except v.StatusError as error:
            assert host.failed() and error.status == v.Status.IO_ERROR
            assert host.fingerprint() == before, f"after write {nth}"
        else:
            assert not host.failed()  # fewer than n writes
            return


def test_sees_a_dead_uplink(host):
    assert live_uplinks("lab") == ["nic0", "nic1"]
    host.scenario(nics={"nic0": {"link": False}})
    assert live_uplinks("lab") == ["nic1"]

"""The embedded host as a fixture. Run with `vshost run -- python3 -m pytest`: the preload is then in the process."""

import ctypes
import json

import pytest
import vswitchctl

STORE = 1  # VSHOST_STORE in vshost.h


class Host:
    def __init__(self):
        self.library = ctypes.CDLL(None)
        self.library.vshost_error.restype = ctypes.c_char_p
        self.library.vshost_fingerprint.restype = ctypes.c_uint64

    def start(self):
        assert self.library.vshost_start(None, 0) == 0, self.library.vshost_error()

    def stop(self):
        self.library.vshost_clear()
        self.library.vshost_stop()

    def fail(self, operation, nth, status):
        assert self.library.vshost_fail(STORE, operation.encode(), nth, 1, ctypes.c_uint32(status)) == 0

    def failed(self):
        """Whether a call has failed as asked for; forgets what was asked for."""
        count = self.library.vshost_failed()
        self.library.vshost_clear()
        return count > 0

    def scenario(self, **scenario):
        assert self.library.vshost_scenario(json.dumps(scenario).encode()) == 0, self.library.vshost_error()

    def fingerprint(self):
        return self.library.vshost_fingerprint()


@pytest.fixture
def host():
    host = Host()
    host.start()
    vswitchctl.VSDVS_CreateVSwitch("lab", None, None, 1, False, 64, 2, 0)
    yield host
    host.stop()

"""The devices of a live host: answered for any program, across the deaths of the daemon."""
import errno
import fcntl
import os
import pathlib
import signal
import struct
import subprocess
import sys
import unittest

from live_host import *

IN_PROCESS = """
import sys
sys.argv = [sys.argv[0]] + sys.argv[1:]
sys.path.insert(0, sys.argv[3])
from live_host import request
answer = request("/dev/vswitch", int(sys.argv[4]), bytes.fromhex(sys.argv[5]))
print(answer if isinstance(answer, int) else answer.hex())
"""


class Devices(LiveHost):
    def setUp(self):
        super().setUp()
        self.start()
        self.vsctl("switch", "create", "one", "--ports", "8")

    def in_process(self, number, data):
        """The answer that a preloaded program gets."""
        text = self.on_host(sys.executable, "-c", IN_PROCESS, BUILD, SOURCE, SOURCE / "tests", number,
                            data.hex()).stdout
        return int(text) if text.strip().isdigit() and len(text) < 8 else bytes.fromhex(text)

    def test_a_program_without_the_preload_gets_the_same_answers(self):
        for number, data in ((GET_SWITCHES, struct.pack("=I", 1)), (GET_INFO, portset_input("one")),
                             (GET_UPLINKS, portset_input("one")), (GET_INFO, portset_input("two")),
                             (GET_INFO, b"short"), (4999, b"")):
            with self.subTest(number=number, data=data[:8]):
                self.assertEqual(request(self.device, number, data), self.in_process(number, data))
        self.assertIn(b"one", request(self.device, GET_SWITCHES, struct.pack("=I", 1)))

    def test_changes_are_seen_on_both_ways(self):
        properties = struct.pack("=BII", 0, 77, 1234)
        self.assertIsInstance(request(self.device, SET_LEARNING_PROPS, bytes(176) + properties.ljust(36, b"\0")), bytes)
        self.assertEqual(self.in_process(GET_LEARNING_PROPS, bytes(INPUT_SIZE))[:9], properties)

    def test_bad_addresses_are_refused(self):
        device = os.open(self.device, os.O_RDWR)
        self.addCleanup(os.close, device)
        outside = struct.pack("=IIQQ", 4, 4096, 16, 16)
        for header in (ctypes.c_void_p(0), ctypes.c_void_p(16), ctypes.create_string_buffer(outside, 24)):
            self.assertEqual(LIBC.ioctl(device, ctypes.c_ulong(GET_SWITCHES), header), -1)
            self.assertEqual(ctypes.get_errno(), errno.EFAULT)

    def test_the_rtm_device_takes_numbers_of_every_form(self):
        path = str(self.directory / "dev/rtm")
        for number in (3, 77, 0xFFFF, 0x40047601, 0x80047601, 0xC0047601):
            self.assertIsInstance(request(path, number, struct.pack("=IIB", 0, 0, 0)), bytes, hex(number))
        self.assertEqual(request(path, 77, b"short"), errno.EINVAL)

    def test_the_file_says_who_may_open_the_device(self):
        opener = ["sh", "-c", f"exec 3<>{self.device}"]
        os.chmod(self.directory, 0o755)
        for mode, may in ((0o644, False), (0o666, True)):
            self.stop()
            os.chmod(self.device, mode)
            self.start()
            done = run(*opener, check=False, user=65534)
            self.assertEqual(done.returncode == 0, may, done.stderr)


class Supervisor(LiveHost):
    def fails(self, *command, **options):
        done = run(*command, check=False, **options)
        self.assertNotEqual(done.returncode, 0)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        return done.stderr

    def test_stop_leaves_nothing(self):
        self.start()
        self.assertEqual(len([line for line in mounts_under(self.directory) if " fuse " in line]), 1)
        self.stop()
        self.assertEqual(mounts_under(self.directory), [])
        left = {path.name for path in self.directory.iterdir()}
        self.assertLessEqual(left, {"control", "dev", "host.db", "host.db-shm", "host.db-wal", "use.lock",
                                    "write.lock"})
        self.vsctl("switch", "create", "one")  # an emulated host again

    def test_stop_cleans_up_after_a_killed_supervisor_too(self):
        self.start()
        self.vsctl("switch", "create", "one")
        self.kill_supervisor()
        with self.assertRaisesRegex(OSError, "not connected"):
            os.listdir(self.directory / "dev")
        run(VSHOST, "stop", "--state", self.directory)
        self.assertEqual(mounts_under(self.directory), [])
        self.vsctl("switch", "destroy", "one")

    def test_the_next_one_waits_for_the_daemon_of_a_killed_one(self):
        self.start()
        self.kill_supervisor()
        with open(self.directory / "vshostd.pid") as held:  # as a daemon that is slow to die holds it
            fcntl.flock(held, fcntl.LOCK_EX | fcntl.LOCK_NB)
            release = threading.Timer(0.5, fcntl.flock, (held, fcntl.LOCK_UN))
            release.start()
            self.start()
            release.join()
        self.assertNotIn("runs already", self.read_log())

    def test_each_refusal_is_a_line_that_says_what_to_do(self):
        self.start()
        self.assertIn("runs already; end it with", self.fails(VSHOSTD, "--state", self.directory))
        nobody = ["setpriv", "--reuid=65534", "--inh-caps=+dac_read_search", "--ambient-caps=+dac_read_search"]
        self.assertIn("needs root", self.fails(*nobody, VSHOSTD, "--state", self.directory))
        self.assertIn("is not a host", self.fails(VSHOST, "stop", "--state", "/nowhere"))

    def test_where_a_live_host_cannot_run_an_emulated_one_does(self):
        vshostd = [VSHOSTD, "--state", self.directory]
        hidden = ["unshare", "--mount", "sh", "-c", f"mount -t tmpfs none /dev && exec {' '.join(map(str, vshostd))}"]
        for expected, command in (("process namespace", ["unshare", "--pid", "--fork", *vshostd]),
                                  ("load the kernel's module fuse", hidden),
                                  ("a live host needs a kernel that permits bpf",
                                   ["unshare", "--user", "--map-root-user", "--mount", *vshostd]),
                                  ("a live host needs 5.17 or later", ["setarch", "--uname-2.6", *vshostd]),
                                  ("needs the capability CAP_BPF", ["setpriv", "--bounding-set=-bpf", *vshostd])):
            with self.subTest(expected):
                self.assertIn(expected, self.fails(*command))
                self.assertEqual(mounts_under(self.directory), [])
                self.vsctl("switch", "create", "one")
                self.assertIn("one", self.vsctl("switch", "list"))
                self.vsctl("switch", "destroy", "one")
                left = {path.name for path in self.directory.iterdir()}
                self.assertFalse(left & {"bpf", "vshostd.pid", "vshostd.socket"}, left)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])

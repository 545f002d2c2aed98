"""A write on a live host: it takes effect before it returns, or store and kernel stay as they were."""
import os
import pathlib
import signal
import sqlite3
import sys
import time
import unittest

from live_host import *

# Writes the VLAN policy of a port once for each VLAN given; prints the statuses and the longest wait in seconds.
WRITE = """
import ctypes, sys, time
vswitch, statuses, longest = ctypes.CDLL(sys.argv[1]), [], 0
for vlan in sys.argv[3:]:
    begin = time.monotonic()
    status = vswitch.VSDVS_SetPortVLANPolicy(b"one", sys.argv[2].encode(), ctypes.c_uint16(int(vlan)),
                                             ctypes.c_uint32(0xFFFFFFFF), 0, 0, None, ctypes.c_uint16(0))
    longest = max(longest, time.monotonic() - begin)
    statuses.append(hex(status & 0xFFFFFFFF))
print(longest, *statuses)
"""
# Gives VLANs to ports in a bulk: port 2 at the end. Says when all is stored, then waits for a line, and ends the bulk.
BULK = """
import ctypes, os, sys
vswitch, platform = ctypes.CDLL(sys.argv[1]), ctypes.CDLL("liborkPublic.so")
assert platform.vshost_bulk(1) == 0
for vlan in range(1, int(sys.argv[2]) + 1):
    for port in (b"3", b"2"):
        status = vswitch.VSDVS_SetPortVLANPolicy(b"one", port, ctypes.c_uint16(vlan), ctypes.c_uint32(0xFFFFFFFF), 0, 0,
                                                 None, ctypes.c_uint16(0))
        assert status == 0, hex(status)
print(os.getpid(), flush=True)
sys.stdin.readline()
assert platform.vshost_bulk(0) == 0
print("published", flush=True)
sys.stdin.readline()
"""
OK, BUSY = "0x0", "0xbad0004"
A, S = "02:00:00:00:00:01", "02:00:00:00:01:"


class Writes(PluggedHost):
    def write(self, port, *vlans):
        """The longest wait, and the statuses."""
        done = self.on_host(sys.executable, "-c", WRITE, BUILD / "libvswitchctl.so", port, *vlans)
        longest, *statuses = done.stdout.split()
        return float(longest), statuses

    def rows_of_store(self):
        with sqlite3.connect(self.directory / "host.db") as database:
            table = database.execute("SELECT name FROM sqlite_master WHERE type='table'").fetchone()[0]
            return database.execute(f"SELECT * FROM {table} ORDER BY 1").fetchall()

    def assert_kernel_agrees(self):
        self.assertEqual(run(VSHOST, "check", "--state", self.directory, check=False).stdout, "")


class Busy(Writes):
    def setUp(self):
        super().setUp()
        self.a, self.b = self.two()

    def assert_busy(self):
        before = self.rows_of_store()
        waited, statuses = self.write("2", 300)
        self.assertEqual(statuses, [BUSY])
        self.assertGreater(waited, 4)
        self.assertEqual(self.rows_of_store(), before)
        wait_until(lambda: self.a.reaches(self.b), "an answer")

    def test_a_daemon_that_does_not_answer(self):
        worker = self.worker()
        os.kill(worker, signal.SIGSTOP)
        try:
            self.assert_busy()
        finally:
            os.kill(worker, signal.SIGCONT)
        self.assertEqual(self.write("2", 300)[1], [OK])
        self.assertFalse(self.a.reaches(self.b))
        self.assert_kernel_agrees()

    def test_no_vshostd_at_all(self):
        for signal_number in (signal.SIGKILL, signal.SIGTERM):
            with self.subTest(signal=signal_number):
                worker = self.worker()
                os.kill(self.daemon.pid, signal_number)
                self.daemon.wait(LONGEST_WAIT)
                wait_until(lambda: not pathlib.Path(f"/proc/{worker}").exists(), "the end of the daemon")
                self.assert_busy()
                self.start()
                self.assertEqual(self.write("2", 300, 0)[1], [OK, OK])
        self.stop()
        self.assertEqual(self.write("2", 300)[1], [OK])  # an emulated host

    def test_a_daemon_that_is_started_again_is_waited_for(self):
        for vlan in (300, 0, 301):
            os.kill(self.worker(), signal.SIGKILL)
            self.assertEqual(self.write("2", vlan)[1], [OK])
            if vlan:
                self.assertFalse(self.a.reaches(self.b))
            else:
                wait_until(lambda: self.a.reaches(self.b), "an answer")


class NoSpace(Writes):
    OPTIONS = ("--ports", "2", "--switches", "1", "--addresses", "8")

    def assert_refused(self, *command):
        before = self.rows_of_store()
        done = run(*command, check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertEqual(self.rows_of_store(), before)
        self.assert_kernel_agrees()
        return done.stderr

    def on(self, *command):
        return (VSHOST, "run", "--state", self.directory, "--", *command)

    def test_ports_and_switches(self):
        a, b = self.two()
        c = self.namespace("c", "10.9.0.3")
        plug = (VSHOST, "plug", "--state", self.directory)
        self.assertIn("no room for another port", self.assert_refused(*plug, "one", "3", c.interface))
        run(VSHOST, "unplug", "--state", self.directory, b.interface)
        self.vsctl("switch", "create", "two", "--ports", "4")
        self.vsctl("port", "add", "two", "1")
        self.assertIn("no room for another switch", self.assert_refused(*plug, "two", "1", c.interface))
        run(*plug, "one", "3", c.interface)
        wait_until(lambda: a.reaches(c), "an answer")

    def test_a_port_that_comes_back(self):
        a, b = self.two()
        c = self.namespace("c", "10.9.0.3")
        self.vsctl("port", "remove", "one", "2")
        self.plug("3", c)
        error = self.assert_refused(*self.on(VSCTL, "port", "add", "one", "2"))
        self.assertIn("space", error.lower())
        run(VSHOST, "unplug", "--state", self.directory, c.interface)
        self.vsctl("port", "add", "one", "2")
        wait_until(lambda: a.reaches(b), "an answer")

    def test_static_addresses(self):
        a, b = self.two()
        add = lambda last: ("mac", "add", "one", "2", "--address", S + f"{last:02x}")
        for last in range(4):
            self.vsctl(*add(last))
        self.assertIn("space", self.assert_refused(*self.on(VSCTL, *add(4))).lower())
        from_a, from_b = a.wire(), b.wire()
        self.addCleanup(from_a.close)
        self.addCleanup(from_b.close)
        for last in range(4):
            from_a.send(frame(S + f"{last:02x}", A, str(last)))
            self.assertEqual(text_of(from_b), str(last))
        self.vsctl("mac", "remove", "one", "2", "--address", S + "00")
        self.vsctl(*add(4))
        self.assertIn("a write is refused", self.read_log())


class Bulk(Writes):
    def setUp(self):
        super().setUp()
        self.a, self.b = self.two()
        wait_until(lambda: self.a.reaches(self.b), "an answer")

    def begin(self):
        """A process whose writes have cut port 2 off, in a bulk that it has not ended."""
        command = (VSHOST, "run", "--state", self.directory, "--", sys.executable, "-c", BULK,
                   BUILD / "libvswitchctl.so", 30)
        process = subprocess.Popen(list(map(str, command)), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        return process, int(process.stdout.readline())

    def end(self, process):
        process.stdin.write("\n")
        process.stdin.flush()
        self.assertEqual(process.stdout.readline(), "published\n")

    def test_it_is_published_at_its_end(self):
        process, _ = self.begin()
        self.assertEqual(self.row("port", "vlan", "one", "2")["id"], 30)
        self.assertTrue(self.a.reaches(self.b))
        self.assertEqual(self.write("3", 5)[1], [OK])  # of another process, published as ever
        self.assertTrue(self.a.reaches(self.b))
        self.end(process)
        self.assertFalse(self.a.reaches(self.b))
        self.assert_kernel_agrees()

    def test_it_is_published_when_its_process_ends(self):
        _, program = self.begin()
        self.assertTrue(self.a.reaches(self.b))
        os.kill(program, signal.SIGKILL)
        wait_until(lambda: not self.a.reaches(self.b), "what the store holds")
        self.assert_kernel_agrees()

    def test_it_is_published_when_the_daemon_ends(self):
        process, _ = self.begin()
        self.kill_worker()
        self.end(process)
        self.assertFalse(self.a.reaches(self.b))
        self.assert_kernel_agrees()


class Sizes(Writes):
    def test_long_values_and_many_rows_are_followed_too(self):
        a, b = self.two()
        value = self.directory / "value"
        value.write_bytes(bytes(1 << 20))
        self.vsctl("property", "set", "one", "com.example.long", "--port", "2", "--file", value)
        self.vsctl("switch", "create", "two", "--ports", "2000")
        self.vsctl("switch", "destroy", "two")
        self.assertEqual(self.write("2", 300)[1], [OK])
        self.assertFalse(a.reaches(b))
        self.assert_kernel_agrees()

    def test_writes_of_many_processes_all_take_effect(self):
        a, b = self.two()
        vlans = [str(vlan) for vlan in range(1, 41)]
        writers = [subprocess.Popen([*map(str, (VSHOST, "run", "--state", self.directory, "--", sys.executable, "-c",
                                                WRITE, BUILD / "libvswitchctl.so", port, *vlans, "0"))],
                                    stdout=subprocess.PIPE, text=True) for port in ("1", "2", "3") * 2]
        for writer in writers:
            self.assertEqual(set(writer.communicate(timeout=120)[0].split()[1:]), {OK})
        wait_until(lambda: a.reaches(b), "an answer")
        self.assert_kernel_agrees()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])

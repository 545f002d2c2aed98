"""What a live host changes on the machine and puts back: settings of interfaces, and the kernel's backlog."""
import sys
import unittest

from live_host import *

BACKLOG = pathlib.Path("/proc/sys/net/core/netdev_max_backlog")


class Settings(PluggedHost):
    def ipv6_is_off(self, interface):
        return pathlib.Path(f"/proc/sys/net/ipv6/conf/{interface}/disable_ipv6").read_text() == "1\n"

    def set_ipv6(self, interface, on):
        pathlib.Path(f"/proc/sys/net/ipv6/conf/{interface}/disable_ipv6").write_text(f"{1 - on}\n")

    def test_ipv6_is_off_while_plugged_and_then_as_before(self):
        for use, unuse in ((("plug", "one", "1", "va"), ("unplug", "va")),
                           (("nic", "add", "va"), ("nic", "remove", "va"))):
            for was_on in (True, False):
                with self.subTest(use, was_on=was_on):
                    a = self.namespace("a", "10.9.0.1")
                    self.set_ipv6("va", was_on)
                    command = lambda words: (VSHOST, *words, "--state", self.directory)
                    run(*command(use))
                    if use[0] == "nic":
                        self.vsctl("uplink", "add", "one", "up1")
                    wait_until(lambda: self.ipv6_is_off("va"), "IPv6 turned off")
                    self.assertEqual(run(VSHOST, "check", "--state", self.directory).stdout, "")
                    self.kill_worker()
                    run(*command(unuse))
                    self.assertEqual(self.ipv6_is_off("va"), not was_on)
                    if use[0] == "nic":
                        self.vsctl("uplink", "remove", "one", "up1")
                    self.namespaces.remove(a)
                    a.remove()

    def test_check_tells_of_a_setting_that_somebody_turns_on(self):
        a, _ = self.two()
        self.set_ipv6("va", True)
        done = run(VSHOST, "check", "--state", self.directory, check=False)
        self.assertEqual(done.stdout, "interface va: on, but to be off: IPv6\n")


class Backlog(LiveHost):
    def setUp(self):
        super().setUp()
        self.fake = tempfile.mkdtemp()
        run("mount", "--bind", self.fake, BACKLOG.parent)
        self.addCleanup(os.rmdir, self.fake)
        self.addCleanup(run, "umount", BACKLOG.parent)

    def test_it_is_raised_until_the_stop(self):
        self.addCleanup(BACKLOG.unlink)
        for before, during, changed, after in ((1000, 10000, None, 1000), (20000, 20000, None, 20000),
                                               (1000, 10000, 5000, 5000)):
            with self.subTest(before=before, changed=changed):
                BACKLOG.write_text(f"{before}\n")
                self.start()
                wait_until(lambda: BACKLOG.read_text().strip() == str(during), during)
                self.kill_supervisor()
                self.start()
                self.assertEqual(int(BACKLOG.read_text()), during)
                if changed:
                    BACKLOG.write_text(f"{changed}\n")
                self.stop()
                self.assertEqual(int(BACKLOG.read_text()), after)
        self.assertEqual(self.read_log(), "")

    def test_it_is_said_that_it_cannot_be_raised(self):
        self.start()
        self.assertEqual(self.read_log().count("can't raise net.core.netdev_max_backlog"), 1)
        self.stop()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])

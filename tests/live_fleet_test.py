#!/usr/bin/env python3
"""A host of a fleet whose way to etcd runs through its own switch: a change that cuts it off is undone."""
import base64
import hashlib
import zlib

from live_host import *

VSFLEET = str(BUILD / "vsfleet")
ROOT, HOST = "/vswitchctl/v1/", "/vswitchctl/v1/hosts/host1/"


class CutOff(PluggedHost):
    def setUp(self):
        super().setUp()
        self.etcd_space, self.host_space = self.two()
        self.assertTrue(self.host_space.reaches(self.etcd_space))
        self.etcd_space.run("ip", "link", "set", "lo", "up")
        self.fleet = pathlib.Path(tempfile.mkdtemp(prefix="live-fleet-"))
        self.addCleanup(shutil.rmtree, self.fleet, ignore_errors=True)
        self.authority = self.fleet / "authority"
        run(VSFLEET, "setup", "--directory", self.authority, "--member", f"m0={self.etcd_space.address}")
        # As Debian's unit starts it, but for the directories.
        settings = (self.authority / "members/m0/etcd").read_text().replace("/var/lib/etcd/m0", f"{self.fleet}/data")
        settings = settings.replace("/etc/vswitchctl/etcd", str(self.authority / "members/m0"))
        self.etcd = self.spawn(self.etcd_space, "etcd", "--unsafe-no-fsync", env=dict(
            line.split("=", 1) for line in settings.splitlines()))
        wait_until(lambda: self.etcdctl("get", "x", check=False).returncode == 0, "etcd")
        self.operator("setup", "--directory", self.authority, "--roles")
        self.operator("enroll", "host1", "--directory", self.authority)
        own = self.authority / "hosts/host1"
        config = own / "fleet.toml"
        config.write_text(config.read_text().replace("/etc/vswitchctl", str(own)) +
                          f'state = "{self.fleet}/state"\nvsctl = "{VSCTL}"\nlease = 2\ndrift-interval = 5\n')
        self.agent = self.spawn(self.host_space, VSHOST, "run", "--state", self.directory, "--", VSFLEET, "agent",
                                "--config", config)

    def spawn(self, space, *command, env={}):
        process = subprocess.Popen(["nsenter", f"--net=/proc/{space.holder.pid}/ns/net", *map(str, command)],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={**os.environ, **env})
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def operator(self, *words):
        return self.etcd_space.run(VSFLEET, *words, "--config", self.authority / "fleet.toml")

    def etcdctl(self, *words, **options):
        authority = self.authority
        return self.etcd_space.run("env", "ETCDCTL_API=3", "etcdctl", f"--endpoints={self.etcd_space.address}:2379",
                                   f"--cacert={authority / 'ca.pem'}", f"--cert={authority / 'root.pem'}",
                                   f"--key={authority / 'root.key'}", *words, **options)

    def get(self, key):
        found = json.loads(self.etcdctl("get", key, "-w", "json").stdout).get("kvs")
        return (json.loads(base64.b64decode(found[0]["value"])), found[0]["mod_revision"]) if found else ({}, 0)

    def ask(self, revision, confirm=60, **ports):
        """Makes switch one of the host to have these ports; returns the number of the target."""
        text = json.dumps({"switches": {"one": {"ports": ports}}})
        document = {"name": "doc", "revision": revision, "sum": hashlib.sha256(text.encode()).hexdigest()}
        stored = {"sum": document["sum"], "size": len(text), "switches": ["one"],
                  "compressed": base64.b64encode(zlib.compress(text.encode())).decode()}
        self.etcdctl("put", f"{ROOT}desired/doc/{revision}", json.dumps(stored))
        target = {"phase": "apply", "documents": [document], "confirm": confirm}
        self.etcdctl("put", HOST + "target", json.dumps(target))
        return self.get(HOST + "target")[1]

    def wait_for(self, state, target):
        status = lambda: self.get(HOST + "status")[0]
        ends = ("confirmed", "failed", "partly-undone", "held")
        wait_until(lambda: status().get("target") == target and status()["state"] in ends, state, 60)
        self.assertEqual(status()["state"], state, status())
        return status()

    def test_a_change_that_cuts_the_host_off_is_undone(self):
        self.wait_for("confirmed", self.ask(1, p2={}, **{"2": {"vlan": {"priority": 3}}}))
        cut = self.ask(2, 8, p2={}, **{"2": {"vlan": {"id": 300}}})
        self.assertIn("undone", self.wait_for("failed", cut)["error"])
        self.assertTrue(self.host_space.reaches(self.etcd_space))
        self.assertEqual(self.row("port", "vlan", "one", "2")["id"], 0)
        # The same for a port that is not on its way.
        other = self.ask(3, p2={}, **{"2": {"vlan": {"priority": 3}}, "3": {"vlan": {"id": 300}}})
        self.wait_for("confirmed", other)
        self.assertEqual(self.row("port", "vlan", "one", "3")["id"], 300)

    def test_also_when_nobody_is_left_to_undo_it_but_its_guard(self):
        self.wait_for("confirmed", self.ask(1, **{"2": {"vlan": {"priority": 3}}}))
        cut = self.ask(2, 10, **{"2": {"vlan": {"id": 300}}})
        wait_until(lambda: self.row("port", "vlan", "one", "2")["id"] == 300, "the change")
        self.agent.kill()
        wait_until(lambda: self.row("port", "vlan", "one", "2")["id"] == 0, "the undo")
        self.assertTrue(self.host_space.reaches(self.etcd_space))
        self.assertIn(self.get(HOST + "status")[0]["state"], ("applying", "unconfirmed"))
        self.assertLess(self.get(HOST + "status")[0]["target"], cut + 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])

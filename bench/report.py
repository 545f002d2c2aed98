#!/usr/bin/env python3
"""Prints the table of ratios from the results of the benchmarks (Google Benchmark's JSON files)."""
import json
import statistics
import sys

# The measured side, its peer, the goal of the ratio, and the name of the row. The ratio divides the median of the
# measured side by the median of the peer.
ROWS = [
    ("write_disk/library", "write_disk/sqlite", "<= 1.1", "VLAN policy, on disk, beside SQLite FULL"),
    ("write_disk/library", "write_disk/ovsdb", "< 1", "VLAN policy, on disk, beside OVSDB durable"),
    ("write_disk/library8", "write_disk/library", "<= 0.33", "the same by 8 threads, a call, beside 1 thread"),
    ("processes/library/8", "processes/library/1", "<= 1", "240 writes on disk by 8 processes, beside 1"),
    ("write_process/library", "write_process/sqlite", "<= 1.3",
     "VLAN policy, survives its process, beside SQLite NORMAL"),
    ("write_process/library", "write_process/ovsdb", "<= 0.2", "VLAN policy, survives its process, beside OVSDB"),
    ("read/library_one", "read/sqlite", "<= 1.2", "one property, beside a prepared SELECT"),
    ("read/library", "read/sqlite", "", "VLAN policy (two properties), beside a prepared SELECT"),
    ("read/library", "read/ovsdb", "<= 0.025", "VLAN policy, beside OVSDB select"),
    ("alias/library/10", None, "<= 200 ns", "alias look-up, 10 switches"),
    ("alias/library/1000", "alias/library/10", "<= 1.2", "alias look-up, 1,000 switches, beside 10"),
    ("alias/library/100000", "alias/library/10", "<= 1.2", "alias look-up, 100,000 switches, beside 10"),
    ("create/library/64", "create/ovsdb/64", "< 1", "create a switch with 64 ports, beside OVSDB"),
    ("create/library/1024", "create/ovsdb/1024", "< 1", "create a switch with 1,024 ports, beside OVSDB"),
    ("create/library/10000", "create/ovsdb/10000", "< 1", "create a switch with 10,000 ports, beside OVSDB"),
    ("create/library/1024", "create/library/64", "<= 16", "1,024 ports beside 64: linear is 16"),
    ("create/library/10000", "create/library/1024", "<= 9.8", "10,000 ports beside 1,024: linear is 9.8"),
    ("create/library/64", "create/ovs_vsctl/64", "< 1", "create a switch with 64 ports, beside one ovs-vsctl"),
    ("create/library/1024", "create/ovs_vsctl/1024", "< 1", "create a switch with 1,024 ports, beside one ovs-vsctl"),
    ("create/library_disk/64", "write_disk/sqlite", "", "64 ports with each on disk, in SQLite FULL commits"),
    ("create/library_disk/1024", "write_disk/sqlite", "", "1,024 ports with each on disk, in SQLite FULL commits"),
    ("create/library_synced/1024", "create/library_disk/1024", "",
     "1,024 ports on disk by one sync, beside a sync each"),
    ("change_all/library", "change_all/ovsdb", "< 1", "VLAN of 1,000 ports, beside OVSDB"),
    ("change_all/library", "change_all/ovsdb_at_once", "", "VLAN of 1,000 ports, beside one OVSDB transaction"),
    ("read_all/library", "read_all/ovsdb", "< 1", "read 1,000 VLAN policies, beside OVSDB"),
    ("read_all/library", "read_all/ovsdb_at_once", "", "read 1,000 VLAN policies, beside one OVSDB select"),
    ("start/ports_10", "start/empty", "", "program that reads one value, 10 ports, beside an empty one"),
    ("start/ports_many", "start/ports_10", "", "the same with 100,000 ports (10,000 if quick)"),
    ("command/ports_10", "start/empty", "+ 5 ms", "vsctl that reads one value, 10 ports, beside an empty program"),
    ("command/ports_many", "start/empty", "+ 5 ms", "the same with 100,000 ports (10,000 if quick)"),
    ("command/read", "command/ovs_read", "< 1", "vsctl shows a VLAN policy, beside ovs-vsctl"),
    ("command/write", "command/ovs_write", "< 1", "vsctl sets a VLAN policy, beside ovs-vsctl"),
    ("command/batch", "command/ovs_batch", "< 1", "vsctl batch sets 1,000 of them, beside one ovs-vsctl"),
    ("Load/library", "Load/empty", "", "dlopen of the library, beside an empty object"),
]


def load(paths):
    times, counters = {}, {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            for run in json.load(file)["benchmarks"]:
                if run["run_type"] == "iteration":
                    name = "/".join(part for part in run["name"].split("/")
                                    if not part.startswith(("iterations:", "repeats:", "threads:", "real_time")))
                    times.setdefault(name, []).append(run["real_time"])
                    for key in run:  # only the first round takes the memory
                        if key.endswith("_per_port"):
                            counters[key] = max(counters.get(key, 0), run[key])
    return times, counters


def text(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def met(goal, own, peer):
    """Goals: "<= 1.1" and "< 1" of the ratio, "<= 200 ns" of the time, "+ 5 ms" above the peer's."""
    if not goal:
        return ""
    compare, limit, *unit = goal.split()
    limit = float(limit) * {"ns": 1, "ms": 1e6}[unit[0]] if unit else float(limit)
    value = own - peer if compare == "+" else own if unit else own / peer
    return "yes" if (value < limit if compare == "<" else value <= limit) else "NO"


def main():
    times, counters = load(sys.argv[1:])
    print(f"{'':62}{'min':>10}{'median':>10}{'peer min':>10}{'median':>10}{'ratio':>8}  {'goal':10}met")
    for name, peer, goal, title in ROWS:
        if name not in times or (peer and peer not in times):
            continue
        own = times[name]
        median = statistics.median(own)
        line = f"{title:62}{text(min(own)):>10}{text(median):>10}"
        other = statistics.median(times[peer]) if peer else 0
        if peer:
            ratio = median / other
            shown = f"{ratio:,.0f}" if ratio >= 1000 else f"{ratio:.3g}"
            line += f"{text(min(times[peer])):>10}{text(other):>10}{shown:>8}"
        else:
            line += " " * 28
        print(f"{line}  {goal:10}{met(goal, median, other)}")
    rounds = max(len(values) for values in times.values())
    print(f"{rounds} rounds, sides in random order within each. " +
          ", ".join(f"{key.replace('_', ' ')}: {value:.0f} bytes" for key, value in counters.items()))


main()

#!/usr/bin/env python3
"""Runs the benchmark programs several times over, prints the medians with their ratios and compares
them with the targets. The same table goes into a file, with what is needed to repeat it.

A round runs every program once, in the reverse order every other time, so that what else happens on
the machine hits the bus and its peers alike. A ratio is taken within each round; the table shows the
median of the rounds.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

PAYLOADS = ["double", "map", "struct"]
PEERS = ["floor", "tbb", "moodycamel", "invokeMethod", "postEvent", "zmq"]
PEER_TITLES = {
    "bus": "lxbase",
    "floor": "floor: mutex and swapped vector",
    "tbb": "oneTBB queue",
    "moodycamel": "moodycamel queue",
    "invokeMethod": "queued invokeMethod",
    "postEvent": "postEvent",
    "zmq": "libzmq inproc",
}
PATHS = {
    "direct_1to1": "direct, 1 producer",
    "direct_4to1": "direct, 4 producers",
    "direct_1to1_150idle": "direct, 1 producer, 150 idle workers beside",
    "broadcast_1": "broadcast to 1",
    "broadcast_8": "broadcast to 8",
    "broadcast_64": "broadcast to 64",
    "net": "net path",
    "quotation": "quotation path",
    "event": "event, to a subscriber",
    "event_relation": "event, to a relation group",
}
# (program, idle policy, filter, each benchmark in a process of its own). A thousand workers that
# poll measure the scheduler and nothing else, so costs that need many plugins are left to park.
PLAN = [
    ("throughput", "park", ".", False),
    ("throughput", "poll", ".", False),
    ("latency", "park", ".", False),
    ("latency", "poll", ".", False),
    ("costs", "park", ".", False),
    ("costs", "poll", "drain|log", False),
    ("memory", "park", ".", True),
    ("monitor", "park", ".", False),
    ("pool", "park", ".", False),
    ("windows", "park", ".", False),
]
QUICK_PLAN = [
    ("throughput", "park", "/double", False),
    ("latency", "park", "latency_500_", False),
    ("costs", "park", ".", False),
    ("memory", "park", "/double", True),
    ("monitor", "park", ".", False),
    ("pool", "park", ".", False),
    ("windows", "park", ".", False),
]
OPTIONAL = ["windows"]  # not built where Qt Widgets is missing
WAYS_TO_WINDOWS = {
    "frame": "the newest of each symbol every 33 ms (lxclient::Conflator)",
    "refresh": "one refresh posted by the handler that finds none pending",
    "each": "each quote queued",
    "none": "handed to no window: what the feed and the bus take",
}
# What counting costs is a matter of a few per cent, far less than a benchmark shakes from one run to
# the next: many short runs, every level in turn.
LEVELS = ["off", "counts", "sampled"]
LEVEL_RUNS = 15
LEVEL_PLAN = [
    ("throughput", "^direct_1to1/bus/double", ["against", *LEVELS, "traced"]),
    ("latency", "^latency_500_0idle/bus", ["against", "off", "sampled"]),
]
LEVEL_MIN_TIME = 0.12  # seconds
PROGRAM_TIMEOUT_S = 1800
DELIVERIES_PER_BATCH = 64000  # as in throughput.cpp


class Results:
    """Figures by idle policy, benchmark and counter: one per round."""

    def __init__(self):
        self.context = {}
        self._rounds = {}

    def add(self, policy, report, prefix=""):
        self.context.update(report["context"])
        for run in report["benchmarks"]:
            # "/real_time", "/iterations:1" and the like say how it was measured, not what
            name = re.sub(r"/(process_time|real_time|manual_time|\w+:\d+)", "", run["name"])
            if run.get("error_occurred"):
                sys.exit(f"{name}: {run['error_message']}")
            for counter, value in run.items():
                if isinstance(value, (int, float)):
                    self._rounds.setdefault((policy, prefix + name, counter), []).append(value)

    def rounds(self, name, counter="items_per_second", policy="park"):
        return self._rounds.get((policy, name, counter), [])

    def median(self, name, counter="items_per_second", policy="park"):
        values = self.rounds(name, counter, policy)
        return statistics.median(values) if values else None

    def ratio(self, above, below, counter="items_per_second", policy="park"):
        """Median over the rounds of one figure divided by another, or by the best of several."""
        below = [below] if isinstance(below, str) else below
        upper = self.rounds(above, counter, policy)
        lower = [max(v) for v in zip(*(self.rounds(name, counter, policy) for name in below))]
        pairs = [u / v for u, v in zip(upper, lower) if v]
        return statistics.median(pairs) if pairs else None

    def slowdown(self, name, base):
        """How many times longer one message takes in `name` than in `base`."""
        return self.ratio(base, name)

    def names(self, prefix):
        return [n for (p, n, c) in self._rounds if p == "park" and n.startswith(prefix)]


def microseconds(value):
    return f"{value:.1f} us"


def times(value):
    return f"{value:.2f}"


def targets(results):
    """(measure, figure, limit, whether the limit is the least, format), in the order of the table."""
    one = "direct_1to1/{}/double".format
    pool_limit = 60.0
    mutex = results.median("pool_1threads/mutex", "real_time")
    if mutex is not None:
        pool_limit = max(pool_limit, 2 * mutex)
    rows = [
        ("direct, 1 to 1, double, against queued invokeMethod",
         results.ratio(one("bus"), one("invokeMethod")), 12, True, times),
        ("the same against the floor", results.ratio(one("bus"), one("floor")), 1.1, True, times),
        ("the same against the better of the oneTBB and moodycamel queues",
         results.ratio(one("bus"), [one("tbb"), one("moodycamel")]), 0.9, True, times),
        ("broadcast to 8: cost per delivery against 1 to 1",
         results.slowdown("broadcast_8/bus/double", one("bus")), 1.2, False, times),
        ("broadcast to 64: cost per delivery against 1 to 1",
         results.slowdown("broadcast_64/bus/double", one("bus")), 1.2, False, times),
        ("150 idle workers beside: throughput against none",
         results.ratio("direct_1to1_150idle/bus/double", one("bus")), 0.9, True, times),
        ("150 idle workers beside: p99 at 500/s against none",
         results.ratio("latency_500_150idle/bus", "latency_500_0idle/bus", "p99_us"), 1.5, False,
         times),
        ("150 idle workers beside: p99 at 50,000/s against none",
         results.ratio("latency_50000_150idle/bus", "latency_50000_0idle/bus", "p99_us"), 1.5,
         False, times),
        ("CPU of 150 idle workers, cores", results.median("cpu_150idle/bus", "cores"), 0.03, False,
         "{:.4f}".format),
    ]
    for percentile, limit in (("p50_us", 20), ("p99_us", 150)):
        name = percentile.split("_")[0]
        rows.append((f"latency at 500/s, {name}", results.median("latency_500_0idle/bus", percentile),
                     limit, False, microseconds))
        rows.append((f"latency at 500/s, {name}, against queued invokeMethod",
                     results.ratio("latency_500_0idle/bus", "latency_500_0idle/invokeMethod",
                                   percentile), 1, False, times))
    for path in ("net", "quotation"):
        rows.append((f"draining 200,000 against 2,000, {path} list, per message",
                     results.slowdown(f"drain_{path}_200000/bus", f"drain_{path}_2000/bus"), 1.3,
                     False, times))
    rows += [
        ("put to one of 1,000 plugins against one of 10",
         results.slowdown("put_among_1000/bus", "put_among_10/bus"), 1.3, False, times),
        ("put to 1,000 plugins in turn against 10 in turn",
         results.slowdown("put_round_1000/bus", "put_round_10/bus"), 1.3, False, times),
        ("put with 100,000 types against 10",
         results.slowdown("put_types_100000/bus", "put_types_10/bus"), 3, False, times),
        ("put under KeepLatest against unbounded, 10 types",
         results.slowdown("put_latest_10_types/bus", "put_unbounded_10_types/bus"), 1.3, False,
         times),
        ("put under KeepLatest against unbounded, 1,000 types",
         results.slowdown("put_latest_1000_types/bus", "put_unbounded_1000_types/bus"), 1.3, False,
         times),
        *level_rows(results),
        ("pool: take and give back, one thread",
         results.median("pool_1threads/bus", "real_time"), pool_limit, False, "{:.0f} ns".format),
    ]
    return rows


def level_rows(results):
    """What the levels of the statistics cost, for the table of targets. They are compared with an
    earlier build if one was given, else with the level off."""
    one = "direct_1to1/bus/double"
    base = "against" if results.rounds(f"against/{one}") else "off"
    title = "an earlier build" if base == "against" else "level off"
    rows = []
    for level, least in zip(LEVELS, (0.99, 0.97, 0.95)):
        if level != base:
            rows.append((f"level {level}: direct, 1 to 1, double, against {title}",
                         results.ratio(f"{level}/{one}", f"{base}/{one}"), least, True, times))
    rows.append((f"level sampled: latency at 500/s, p50, against {title}",
                 results.ratio("sampled/latency_500_0idle/bus", f"{base}/latency_500_0idle/bus",
                               "p50_us"), 1.05, False, times))
    rows.append(("recording a trace: direct, 1 to 1, double, against none",
                 results.ratio(f"traced/{one}", f"counts/{one}"), 0.5, True, times))
    rows.append(("snapshot of 150 workers", results.median("snapshot_150/bus", "real_time"), 1,
                 False, "{:.2f} ms".format))
    bare = results.median("memory_per_inbox_off/bus", "bytes")
    sampled = results.median("memory_per_inbox_sampled/bus", "bytes")
    rows.append(("level sampled: memory per inbox above level off",
                 None if bare is None or sampled is None else sampled - bare, 6144, False,
                 "{:.0f} B".format))
    return rows


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def shown(value, form=times):
    return "not measured" if value is None else form(value)


def million(value):
    return "" if value is None else f"{value / 1e6:.2f}"


def cpu_ns_per_message(results, name):
    milliseconds = results.median(name, "cpu_time")  # of one iteration
    return "" if milliseconds is None else f"{milliseconds * 1e6 / DELIVERIES_PER_BATCH:.0f}"


def target_table(measured):
    rows = []
    for measure, value, limit, least, form in measured:
        verdict = ""
        if value is not None:
            verdict = "met" if (value >= limit if least else value <= limit) else "**missed**"
        rows.append([measure, shown(value, form),
                     ("at least " if least else "at most ") + form(limit), verdict])
    return table(["measure (park)", "measured", "target", ""], rows)


def throughput_tables(results):
    parts = []
    for path in ("direct_1to1", "direct_4to1"):
        for policy in ("park", "poll"):
            rows = []
            for peer in ["bus"] + PEERS:
                row = [PEER_TITLES[peer]]
                for payload in PAYLOADS:
                    name = f"{path}/{peer}/{payload}"
                    rate = results.median(name, policy=policy)
                    ratio = results.ratio(f"{path}/bus/{payload}", name, policy=policy)
                    row += [million(rate), "" if ratio is None else times(ratio)]
                rows.append(row)
            if any(cell for row in rows for cell in row[1:]):
                parts.append(f"### {PATHS[path]}, {policy}\n\n" + table(
                    ["M messages/s; lxbase as a multiple of it", "double", "", "map", "", "struct",
                     ""], rows))
    rows = []
    for peer in ["bus"] + PEERS:
        rows.append([PEER_TITLES[peer]] + [
            cpu_ns_per_message(results, f"{path}/{peer}/{payload}")
            for path in ("direct_1to1", "direct_4to1") for payload in PAYLOADS])
    parts.append("### CPU time per message, all threads, park\n\n" + table(
        ["ns", "1 producer, double", "map", "struct", "4 producers, double", "map", "struct"],
        rows))
    rows = []
    for path, title in PATHS.items():
        rows.append([title] + [million(results.median(f"{path}/bus/{payload}", policy=policy))
                               for policy in ("park", "poll") for payload in PAYLOADS])
    parts.append("### The paths of the bus\n\n" + table(
        ["M deliveries/s", "park, double", "map", "struct", "poll, double", "map", "struct"], rows))
    return "\n".join(parts)


def latency_table(results):
    rows = []
    for policy in ("park", "poll"):
        for rate in (500, 50000):
            for idle in (0, 150):
                for peer in ("bus", "invokeMethod"):
                    name = f"latency_{rate}_{idle}idle/{peer}"
                    if not results.rounds(name, "p50_us", policy):
                        continue
                    rows.append([PEER_TITLES[peer], policy, f"{rate:,}/s", str(idle)]
                                + [f"{results.median(name, p, policy):.1f}"
                                   for p in ("p50_us", "p99_us", "p999_us")])
    parts = table(["", "idle policy of the bus", "rate", "idle workers", "p50, us", "p99, us",
                   "p99.9, us"], rows)
    rows = [[policy, str(idle), f"{results.median(f'cpu_{idle}idle/bus', 'cores', policy):.4f}"]
            for policy in ("park", "poll") for idle in (0, 150)
            if results.rounds(f"cpu_{idle}idle/bus", "cores", policy)]
    return parts + "\n" + table(["idle policy", "idle workers", "cores used"], rows)


def cost_table(results):
    rows = []
    for prefix, what in (("put_", "one put, receivers held"), ("drain_", "one message of a backlog"),
                         ("register_", "one plugin, three workers"),
                         ("unregister_", "one plugin, three workers"), ("pool_", "")):
        for name in results.names(prefix):
            rate = results.median(name)
            row = [name.replace("/bus", ""), what, f"{1e6 / rate:.3f} us" if rate else ""]
            if row not in rows:
                rows.append(row)
    parts = table(["benchmark", "time of", "median"], rows)
    rows = []
    for peer in ("bus", "floor", "invokeMethod"):
        rows.append([PEER_TITLES[peer]] + [
            "" if value is None else f"{value:.0f}"
            for value in (results.median(f"memory_per_item/{peer}/{payload}", "bytes")
                          for payload in PAYLOADS)])
    return parts + "\n" + table(["bytes per queued message", "double", "map", "struct"], rows)


def window_table(results):
    rows = [[title, f"{cores:.2f}"] for way, title in WAYS_TO_WINDOWS.items()
            if (cores := results.median(f"windows/{way}", "cores")) is not None]
    if not rows:
        return "Not measured: built without Qt Widgets.\n"
    return table(["two tables of 50 symbols, 10,000 quotes/s", "cores used"], rows)


def machine():
    model = platform.processor() or platform.machine()
    memory = ""
    try:
        for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
        kib = int(pathlib.Path("/proc/meminfo").read_text().split()[1])
        memory = f", {kib / 2**20:.0f} GiB"
    except OSError:
        pass
    return f"{model}, {os.cpu_count()} cores{memory}, {platform.system()} {platform.release()}"


def commit(folder):
    try:
        return subprocess.run(["git", "-C", str(folder), "describe", "--always", "--dirty"],
                              capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def report(results, rounds, min_time, here):
    context = results.context
    load = ", ".join(f"{value:.1f}" for value in os.getloadavg())
    return f"""# Results

Written by `bench/run.py`. A figure is the median of the rounds, a ratio the median of the ratios
within each round. Every transport is given a record that was made with `new`, copies type,
destination and payload, deletes the record, and hands the values to the same virtual handler; an
iteration puts one batch and ends with its last delivery. The queues and the floor hold pointers to
items made with plain `new`, and their consumers give way and sleep by the rule of the bus. Map and
struct are made afresh for each message.

- machine: {machine()}
- date: {datetime.date.today().isoformat()}; load average at the end: {load}
- lxbase {commit(here)}, Qt {context.get('qt')}, oneTBB {context.get('tbb')}, libzmq \
{context.get('zmq')}, {context.get('compiler')}
- repeat: `make bench`; here {rounds} round{'s' if rounds > 1 else ''}, at least {min_time} s for \
each benchmark

## Targets

{target_table(targets(results))}
## Throughput, put to handler

{throughput_tables(results)}
## Latency, put to handler

{latency_table(results)}
## Single costs

{cost_table(results)}
## From handler to window

The widgets draw into memory (platform `offscreen`).

{window_table(results)}"""


def run_program(program, arguments):
    command = [str(program), "--benchmark_format=json"] + arguments
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=PROGRAM_TIMEOUT_S)
    except OSError as error:
        sys.exit(f"{program} cannot be run ({error.strerror}): build the benchmarks first with "
                 "-DLXBASE_BUILD_BENCH=ON and give the build folder")
    except subprocess.TimeoutExpired:
        sys.exit(f"{' '.join(command)}: gave up after {PROGRAM_TIMEOUT_S} s")
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)}: exit status {done.returncode}\n{done.stderr}")
    return json.loads(done.stdout)


def run_levels(programs, against, runs, results):
    """Runs what LEVEL_PLAN names at each level, and from the programs of an earlier build if there
    are some; that build's programs may not know the option."""
    folders = {level: (programs, [f"--level={level}"]) for level in LEVELS}
    folders["traced"] = (programs, ["--trace=on"])
    if against:
        folders["against"] = (against, [])
    for k in range(runs):
        print(f"levels, run {k + 1} of {runs}", file=sys.stderr, flush=True)
        for program, pattern, variants in LEVEL_PLAN:
            for variant in variants if k % 2 == 0 else reversed(variants):
                if variant not in folders:
                    continue
                folder, options = folders[variant]
                report = run_program(folder / f"lxbench_{program}", options + [
                    f"--benchmark_filter={pattern}", f"--benchmark_min_time={LEVEL_MIN_TIME}"])
                results.add("park", report, f"{variant}/")


def run_step(step, programs, min_time, results):
    name, policy, pattern, alone = step
    program = programs / f"lxbench_{name}"
    if name in OPTIONAL and not program.exists():
        return
    arguments = [f"--idle={policy}", f"--benchmark_min_time={min_time}"]
    patterns = [pattern]
    if alone:
        listed = subprocess.run([str(program), "--benchmark_list_tests", "--benchmark_filter="
                                 + pattern], capture_output=True, text=True, check=True)
        patterns = [f"^{test}$" for test in listed.stdout.split()]
    for one in patterns:
        results.add(policy, run_program(program, arguments + [f"--benchmark_filter={one}"]))


def main():
    here = pathlib.Path(__file__).resolve().parent
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("build", type=pathlib.Path,
                        help="build folder, configured with -DLXBASE_BUILD_BENCH=ON")
    parser.add_argument("--against", type=pathlib.Path, metavar="BUILD",
                        help="build folder of an earlier state, to compare the levels of the "
                        "statistics with")
    parser.add_argument("--levels-only", action="store_true",
                        help="measure the levels of the statistics only; writes no file unless "
                        "--out names one")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--min-time", type=float, default=0.3, help="seconds per benchmark")
    parser.add_argument("--quick", action="store_true",
                        help="one short round of the most important benchmarks; writes no file "
                        "unless --out names one")
    parser.add_argument("--out", type=pathlib.Path, help="the file to write (bench/results.md)")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("--rounds takes a number from 1 on")
    rounds = 1 if options.quick else options.rounds
    min_time = 0.05 if options.quick else options.min_time
    plan = QUICK_PLAN if options.quick else PLAN
    if options.levels_only:
        plan = [step for step in plan if step[0] == "monitor"]

    results = Results()
    run_levels(options.build / "bench", options.against and options.against / "bench",
               1 if options.quick else LEVEL_RUNS, results)
    for k in range(rounds):
        for step in plan if k % 2 == 0 else reversed(plan):
            print(f"round {k + 1} of {rounds}: {step[0]}, {step[1]}", file=sys.stderr, flush=True)
            run_step(step, options.build / "bench", min_time, results)

    if options.levels_only:
        text = target_table(level_rows(results))
    else:
        text = report(results, rounds, min_time, here)
    print(text)
    shows_all = not (options.quick or options.levels_only)
    out = options.out or (here / "results.md" if shows_all else None)
    if out:
        out.write_text(text)
        print(f"written to {out}", file=sys.stderr)


if __name__ == "__main__":
    main()

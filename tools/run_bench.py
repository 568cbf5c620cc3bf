#!/usr/bin/env python3
"""Runs the benchmarks of a build folder and prints one table: name, ours, peer or limit, ratio, target.

Usage: run_bench.py BUILD_FOLDER [FILTER]     FILTER: a regular expression on benchmark names
A benchmark named "<what>/ours" is set against every "<what>/peer:<name>" of the same program. All benchmarks of a
program run in random interleaving, several times, and the medians are compared: these machines are shared, so only a
ratio taken in one run means something. targets.tsv beside the sources holds what we aim at. Rows with neither name,
and the counters that a benchmark keeps (allocations per call, percentiles), follow below the table.
Ends with 1 when a program failed, when a target matches no benchmark, or, with BENCH_STRICT=1, when one is missed.
"""

import csv
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
REPETITIONS = os.environ.get("BENCH_REPETITIONS", "9")
NOT_COUNTERS = {"real_time", "cpu_time", "items_per_second", "bytes_per_second"}
UNIT = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def targets():
    found = {}
    for path in sorted((ROOT / "bench").rglob("targets.tsv")):
        with path.open(encoding="utf-8") as handle:
            for row in csv.reader(handle, delimiter="\t"):
                if len(row) >= 4 and not row[0].startswith("#"):
                    found[(row[0], row[1])] = (row[2], float(row[3]), row[4] if len(row) > 4 else "")
    return found


def medians(program, pattern):
    command = [str(program), "--benchmark_format=json", f"--benchmark_repetitions={REPETITIONS}",
               "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true",
               "--benchmark_min_time=0.05"]
    if pattern:
        command.append(f"--benchmark_filter={pattern}")
    # Standard output may carry lines of the library's log; a program that knows no such file prints its results alone.
    with tempfile.NamedTemporaryFile("r", suffix=".json") as results:
        command += [f"--benchmark_out={results.name}", "--benchmark_out_format=json"]
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=False)
        text = results.read() or done.stdout
    if done.returncode != 0:
        print(f"{program.name}: ended with status {done.returncode}", file=sys.stderr)
        return {}, {}, False
    if not text.strip():
        return {}, {}, True
    result, counters = {}, {}
    for entry in json.loads(text)["benchmarks"]:
        if entry.get("aggregate_name") != "median":
            continue
        name = re.sub(r"/(manual_time|real_time|process_time|iterations:\d+|threads:\d+|min_time:[\d.]+|repeats:\d+)", "", entry["run_name"])
        result[name] = entry["real_time"] * UNIT[entry["time_unit"]]
        counters[name] = {key: value for key, value in entry.items()
                          if isinstance(value, float) and key not in NOT_COUNTERS}
    return result, counters, True


def scaled(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def main():
    build = pathlib.Path(sys.argv[1])
    pattern = sys.argv[2] if len(sys.argv) > 2 else ""
    goals = targets()
    rows, notes, missed, reached, good = [], [], 0, set(), True
    for program in sorted((build / "bench").iterdir()):
        if not (program.is_file() and os.access(program, os.X_OK)):
            continue
        print(f"running {program.name}", file=sys.stderr)
        times, counters, ran = medians(program, pattern)
        good = good and ran
        for name, ours in times.items():
            kept = ", ".join(f"{key} {value:.3g}" for key, value in sorted(counters[name].items()))
            compared = name.endswith("/ours") or "/peer:" in name
            if kept or not compared:
                notes.append(name + ": " + ", ".join(filter(None, [kept, "" if compared else scaled(ours)])))
            if not name.endswith("/ours"):
                continue
            what = name[:-len("/ours")]
            for other, peer in times.items():
                if not other.startswith(what + "/peer:"):
                    continue
                peer_name = other[len(what + "/peer:"):]
                goal = goals.get((what, peer_name))
                ratio = ours / peer
                verdict = ""
                if goal:
                    reached.add((what, peer_name))
                    met = ratio <= goal[1] if goal[0] == "<=" else ratio >= goal[1]
                    missed += not met
                    verdict = f"{goal[0]} {goal[1]:g} {'met' if met else 'MISSED'}"
                rows.append((what, scaled(ours), peer_name, scaled(peer), f"{ratio:.2f}", verdict))
    heads = ("what", "ours", "peer or limit", "its time", "ratio", "target")
    widths = [max(len(row[i]) for row in rows + [heads]) for i in range(6)]
    for row in [heads] + rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    if notes:
        print("\n" + "\n".join(notes))
    print(f"\n{len(rows)} comparisons, {len(reached)} with a target, {missed} missed")
    lost = [] if pattern else sorted(set(goals) - reached)
    for what, peer_name in lost:
        print(f"the target of {what} against {peer_name} matches no benchmark", file=sys.stderr)
    if missed and os.environ.get("BENCH_STRICT") == "1":
        return 1
    return 0 if good and rows and not lost else 1


if __name__ == "__main__":
    sys.exit(main())

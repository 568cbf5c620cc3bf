#!/usr/bin/env python3
"""Runs the benchmarks of a build folder and prints one table: name, ours, peer or limit, ratio, target.

Usage: run_bench.py BUILD_FOLDER [FILTER]     FILTER: a regular expression on benchmark names
A benchmark named "<what>/ours" is set against every "<what>/peer:<name>" of the same program. All benchmarks of a
program run in random interleaving, several times, and the medians are compared: these machines are shared, so only a
ratio taken in one run means something. targets.tsv beside the sources holds what we aim at.
"""

import csv
import json
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
REPETITIONS = os.environ.get("BENCH_REPETITIONS", "9")
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
    done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        print(f"{program.name}: ended with status {done.returncode}", file=sys.stderr)
        return {}, False
    if not done.stdout.strip():
        return {}, True
    result = {}
    for entry in json.loads(done.stdout)["benchmarks"]:
        if entry.get("aggregate_name") != "median":
            continue
        name = re.sub(r"/(manual_time|real_time|process_time|iterations:\d+|threads:\d+|min_time:[\d.]+|repeats:\d+)", "", entry["run_name"])
        result[name] = entry["real_time"] * UNIT[entry["time_unit"]]
    return result, True


def scaled(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def main():
    build = pathlib.Path(sys.argv[1])
    pattern = sys.argv[2] if len(sys.argv) > 2 else ""
    goals = targets()
    rows, good = [], True
    for program in sorted((build / "bench").iterdir()):
        if not (program.is_file() and os.access(program, os.X_OK)):
            continue
        print(f"running {program.name}", file=sys.stderr)
        times, ran = medians(program, pattern)
        good = good and ran
        for name, ours in times.items():
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
                    met = ratio <= goal[1] if goal[0] == "<=" else ratio >= goal[1]
                    verdict = f"{goal[0]} {goal[1]:g} {'met' if met else 'MISSED'}"
                rows.append((what, scaled(ours), peer_name, scaled(peer), f"{ratio:.2f}", verdict))
    heads = ("what", "ours", "peer or limit", "its time", "ratio", "target")
    widths = [max(len(row[i]) for row in rows + [heads]) for i in range(6)]
    for row in [heads] + rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    return 0 if good and rows else 1


if __name__ == "__main__":
    sys.exit(main())

"""Whole processes timed as the benchmark scripts time them."""
import re
import subprocess
import sys
import time


def run_once(command):
    """Wall seconds (timed here: /usr/bin/time gives hundredths), CPU seconds
    and peak KB of one run."""
    start = time.perf_counter()
    out = subprocess.run(["/usr/bin/time", "-f", "TIME %U %S %M"] + command,
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    wall = time.perf_counter() - start
    if out.returncode != 0:
        sys.exit(f"failed: {' '.join(command)}\n{out.stderr}")
    user, system, kb = re.findall(r"TIME (\S+) (\S+) (\S+)", out.stderr)[-1]
    return wall, float(user) + float(system), int(kb)


def measure(command, runs):
    """The run of median wall time. Runs under a second are made at least
    seven times: the machine's noise is a larger part of them."""
    results = [run_once(command)]
    while len(results) < runs or (len(results) < 7 and results[0][0] < 1.0):
        results.append(run_once(command))
    results.sort()
    return results[len(results) // 2]

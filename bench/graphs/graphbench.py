#!/usr/bin/python3
"""Cost per node as graphs grow: chains of gains and balanced trees of over
composites over 512x512 constants, from 10 to 10,000 nodes, rendered by the
tessera command (graph file to EXR) on 1 and 2 threads; the same tree over
16x16 constants too, whose pixels cost next to nothing, for the engine's own
cost per node. Wall time, peak resident memory and milliseconds per node;
writes a Markdown section into docs/performance.md (replacing the one it
wrote before)."""
import argparse
import json
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from processes import measure  # noqa: E402
from report import replace_section  # noqa: E402

SECTION = "## Graph size"
SIZES = (10, 100, 1000, 10000)
SIDE = 512
TINY = 16


def chain(n, side=SIDE):
    """A constant and n - 1 gains after it."""
    nodes = [{"id": "n0", "op": "constant",
              "params": {"color": [0.5, 0.5, 0.5, 1], "area": [0, 0, side, side]}}]
    for i in range(1, n):
        nodes.append({"id": f"n{i}", "op": "gain", "params": {"gain": [1.0001, 1, 1, 1]},
                      "inputs": {"input": f"n{i - 1}"}})
    return nodes, f"n{n - 1}"


def over_tree(n, side=SIDE):
    """(n + 1) / 2 constants, each its own colour and area (no two merge),
    composited over each other pairwise up to one."""
    leaves = (n + 1) // 2
    nodes, level = [], []
    for i in range(leaves):
        nodes.append({"id": f"l{i}", "op": "constant",
                      "params": {"color": [i / leaves, 0.5, 0.2, 0.5],
                                 "area": [i % (side // 8), 0, side, side]}})
        level.append(f"l{i}")
    k = 0
    while len(level) > 1:
        paired = []
        for j in range(0, len(level) - 1, 2):
            nodes.append({"id": f"o{k}", "op": "composite", "params": {},
                          "inputs": {"a": level[j], "b": level[j + 1]}})
            paired.append(f"o{k}")
            k += 1
        if len(level) % 2:
            paired.append(level[-1])
        level = paired
    return nodes, level[0]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tessera", required=True)
    parser.add_argument("--out", default="docs/performance.md")
    args = parser.parse_args()
    tessera = os.path.abspath(args.tessera)
    rows, fixed = [], {}
    with tempfile.TemporaryDirectory(prefix="tessera-graphbench-") as work:
        # The process's own cost (start-up, one constant of the series'
        # size, the file): what a graph costs beyond it is its nodes'.
        for side in (SIDE, TINY):
            graph = os.path.join(work, f"one{side}.json")
            with open(graph, "w") as f:
                nodes, last = chain(1, side)
                json.dump({"nodes": nodes,
                           "outputs": [{"node": last, "file": os.path.join(work, "o.exr")}]}, f)
            for threads in (1, 2):
                fixed[(side, threads)] = measure([tessera, "render", graph, "--quiet",
                                                  "--threads", str(threads)], 7)[0]
        for name, build, side in (("chain of gains", chain, SIDE),
                                  ("balanced over-tree", over_tree, SIDE),
                                  (f"balanced over-tree, {TINY}x{TINY}", over_tree, TINY)):
            for n in SIZES:
                nodes, last = build(n, side)
                graph = os.path.join(work, f"g{n}.json")
                with open(graph, "w") as f:
                    json.dump({"nodes": nodes,
                               "outputs": [{"node": last, "file": os.path.join(work, "o.exr")}]},
                              f)
                for threads in (1, 2):
                    wall, _, kb = measure([tessera, "render", graph, "--quiet",
                                           "--threads", str(threads)], 3)
                    rows.append((name, side, n, threads, wall, kb))
                    print(f"{name} {n} nodes, {threads} threads: {wall:.2f} s, {kb // 1024} MB",
                          flush=True)
    lines = [SECTION, "",
             f"Graph files of chains and balanced trees at {SIDE}x{SIDE}, rendered to an EXR "
             "by `tessera render` (parsing, set-up and rendering; the median run of three, of seven "
             "under a second). "
             "Cost per node should stay flat as graphs grow, and memory follow the graph's "
             "depth, not its width. Per node is the time beyond a one-node graph's "
             f"({fixed[(SIDE, 1)]:.2f} s on 1 thread, {fixed[(SIDE, 2)]:.2f} s on 2: the "
             "process, one constant of the series' size, the file), over the nodes. Per added "
             "node is the time the nodes added since the row above took (from one node for the "
             "first), each over its "
             "number: the cost of a node with the process's fixed costs left out. "
             f"The {TINY}x{TINY} tree's pixels cost next to nothing: its cost is the "
             "engine's own (parsing, set-up, scheduling and each tile's bookkeeping), "
             "and what the 512x512 tree costs beyond it is pixel work, which slows as "
             "the tiles a level reads fall out of the cache.", "",
             "| graph | nodes | threads | wall (s) | per node (ms) | per added node (ms) | "
             "peak memory (MB) |",
             "| --- | ---: | ---: | ---: | ---: | ---: | ---: |"]

    def per_node(side, wall, n, threads):
        return max(wall - fixed[(side, threads)], 0.0) / (n - 1)

    # The time of each size's nodes beyond those of the size before.
    previous, added = {}, {}
    for name, side, n, threads, wall, _ in rows:
        last_n, last_wall = previous.get((name, threads), (1, fixed[(side, threads)]))
        added[(name, n, threads)] = max(wall - last_wall, 0.0) / (n - last_n)
        previous[(name, threads)] = (n, wall)
    for name, side, n, threads, wall, kb in rows:
        lines.append(f"| {name} | {n} | {threads} | {wall:.2f} | "
                     f"{1000 * per_node(side, wall, n, threads):.3f} | "
                     f"{1000 * added[(name, n, threads)]:.3f} | {kb / 1024:.0f} |")
    flat = {}
    for name, _, n, threads, _, _ in rows:
        if n >= 100:  # from 10 nodes on; the step to 10 is within the runs' noise
            flat.setdefault((name, threads), []).append(added[(name, n, threads)])
    lines += ["", "Largest over smallest cost per added node from 10 to 10,000 nodes: " + ", ".join(
        f"{name} on {threads} thread{'s' if threads > 1 else ''} {max(v) / min(v):.2f}x"
        for (name, threads), v in flat.items()) + ".", ""]
    replace_section(args.out, SECTION, lines)


if __name__ == "__main__":
    main()

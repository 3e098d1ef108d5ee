#!/usr/bin/python3
"""File-to-file runs of whole processes: the tessera command against oiiotool
and the vips command line on the same 3840x2160 RGBA float files, with wall
time, CPU time and peak resident memory from /usr/bin/time, and the time of
moving the files' bytes alone. Writes a Markdown section into
docs/performance.md (replacing the one it wrote before)."""
import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from processes import measure, run_once  # noqa: E402
from report import replace_section  # noqa: E402

W, H = 3840, 2160
SECTION = "## File to file"
COMPRESSIONS = ("none", "zip", "piz")
# Piz runs only where oiiotool takes seconds, not minutes.
PIZ_WORKLOADS = ("copy", "ten colour corrections")

# name, Tessera nodes after the input "a" (and "b"), oiiotool arguments between
# the inputs and the output, vips steps (operation and arguments; each step is
# one process reading and writing .v files, as a shell script would chain them).
COLOUR_STEPS = ["mul", "add", "pow"] * 3 + ["mul"]


def colour_nodes():
    nodes, prev = [], "a"
    for i, step in enumerate(COLOUR_STEPS):
        node = {"id": f"c{i}", "inputs": {"input": prev}}
        if step == "mul":
            node.update(op="gain", params={"gain": [1.1, 1.1, 1.1, 1]})
        elif step == "add":
            node.update(op="colortransform", params={"offset": [0.01, 0.01, 0.01, 0]})
        else:
            node.update(op="exponential", params={"exponent": [0.9, 0.9, 0.9, 1]})
        nodes.append(node)
        prev = node["id"]
    return nodes, prev


def colour_oiio():
    args = []
    for step in COLOUR_STEPS:
        args += {"mul": ["--mulc", "1.1,1.1,1.1,1"], "add": ["--addc", "0.01,0.01,0.01,0"],
                 "pow": ["--powc", "0.9,0.9,0.9,1"]}[step]
    return args


def colour_vips():
    return [{"mul": ["linear", "1.1 1.1 1.1 1", "0"], "add": ["linear", "1", "0.01 0.01 0.01 0"],
             "pow": ["math2_const", "pow", "0.9 0.9 0.9 1"]}[s] for s in COLOUR_STEPS]


def workloads():
    colour, last = colour_nodes()
    return [
        ("copy", [], "a", [], [["copy"]], 1),
        ("ten colour corrections", colour, last, colour_oiio(), colour_vips(), 1),
        ("gaussian blur, sigma 10",
         [{"id": "blur", "op": "blur", "params": {"size": [40, 40], "extend": "clamp"},
           "inputs": {"input": "a"}}], "blur",
         ["--blur", "41x41"], [["gaussblur", "10"]], 1),
        ("resize to half, lanczos3",
         [{"id": "half", "op": "resize", "params": {"size": [W // 2, H // 2]},
           "inputs": {"input": "a"}}], "half",
         ["--resize:filter=lanczos3", f"{W // 2}x{H // 2}"], [["resize", "0.5", "--kernel", "lanczos3"]],
         1),
        ("A over B",
         [{"id": "over", "op": "composite", "params": {}, "inputs": {"a": "a", "b": "b"}}], "over",
         ["--over"], [["composite2", "over"]], 2),
    ]


def measure_chain(commands, runs):
    """A chain of processes: summed times, the largest peak."""
    totals = []
    for _ in range(runs):
        wall = cpu = 0.0
        peak = 0
        for c in commands:
            w, u, k = run_once(c)
            wall, cpu, peak = wall + w, cpu + u, max(peak, k)
        totals.append((wall, cpu, peak))
    totals.sort()
    return totals[len(totals) // 2]


def main():
    global W, H
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tessera", required=True)
    parser.add_argument("--out", default="docs/performance.md")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--size", default=f"{W}x{H}", help="WIDTHxHEIGHT of the files")
    parser.add_argument("--big", action="store_true",
                        help="also a 16384x16384 blur, file to file (needs about 3 GB of disk)")
    args = parser.parse_args()
    W, H = (int(v) for v in args.size.split("x"))
    tessera = os.path.abspath(args.tessera)
    for tool in ("oiiotool", "vips"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is missing: scripts/install-deps --bench installs it")

    work = tempfile.mkdtemp(prefix="tessera-filebench-")
    try:
        lines = run(tessera, work, args)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    replace_section(args.out, SECTION, lines)


def render(tessera, work, name, nodes, outputs, threads=None):
    graph = os.path.join(work, name + ".json")
    with open(graph, "w") as f:
        json.dump({"nodes": nodes, "outputs": outputs}, f)
    command = [tessera, "render", graph, "--quiet"]
    return command + (["--threads", str(threads)] if threads else [])


def run(tessera, work, args):
    area = [0, 0, W, H]
    inputs = {}
    for name, seed in (("a", 1), ("b", 2)):
        nodes = [{"id": "n", "op": "perlinnoise",
                  "params": {"area": area, "scale": 90, "seed": seed,
                             "low": [0, 0, 0, 0.2], "high": [1.2, 1, 0.8, 1]}}]
        outputs = []
        for compression in COMPRESSIONS:
            path = os.path.join(work, f"{name}_{compression}.exr")
            outputs.append({"node": "n", "file": [path], "dataType": "float",
                            "compression": compression})
            inputs[(name, compression)] = path
        subprocess.run(render(tessera, work, "make_" + name, nodes, outputs), check=True)
        vfile = os.path.join(work, name + ".v")
        subprocess.run(["vips", "copy", inputs[(name, "none")], vfile], check=True)
        inputs[(name, "v")] = vfile

    lines = [SECTION, "",
             "Generated by `make bench` (bench/files/filebench.py): whole processes, each run "
             f"{args.runs} times, or 7 when under a second (the median shown), reading "
             f"{W}x{H} RGBA float files and "
             "writing float files. Tessera and oiiotool read and write EXR (uncompressed, and "
             "zip or piz in and out); the vips command line writes no EXR, so it reads and writes its "
             "own .v format, one process per operation as a script chains them (times summed, "
             "the largest peak shown). Wall and CPU seconds, peak resident MB; the ratio is the "
             "peer's wall time over Tessera's.", ""]

    # The I/O ceiling: the bytes of the input and the output moved alone.
    size = os.path.getsize(inputs[("a", "none")]) / 1e6
    read = measure(["cat", inputs[("a", "none")]], args.runs)[0]
    copy_to = os.path.join(work, "raw_copy.exr")
    written = measure(["cp", inputs[("a", "none")], copy_to], args.runs)[0]
    lines += [f"The files' bytes alone (uncompressed, {size:.0f} MB, in the page cache): read "
              f"{read:.2f} s, copied to a new file {written:.2f} s.", ""]

    rows = {}
    for threads in (1, 2):
        for compression in COMPRESSIONS:
            for (name, nodes, last, oiio_args, vips_steps, count) in workloads():
                if compression == "piz" and name not in PIZ_WORKLOADS:
                    continue
                out = os.path.join(work, f"out_{compression}.exr")
                sources = [{"id": n, "op": "filein",
                            "params": {"path": inputs[(n, compression)]}}
                           for n in "ab"[:count]]
                outputs = [{"node": last, "file": [out], "dataType": "float",
                            "compression": compression}]
                t = measure(render(tessera, work, "w", sources + nodes, outputs, threads),
                            args.runs)
                o = measure(["oiiotool", "--threads", str(threads)] +
                            [inputs[(n, compression)] for n in "ab"[:count]] + oiio_args +
                            ["-d", "float", "--compression", compression, "-o", out], args.runs)
                v = None
                if compression == "none":
                    chain, prev = [], None
                    for i, step in enumerate(vips_steps):
                        first = [inputs[(n, "v")] for n in "ab"[:count]][::-1] if i == 0 else [prev]
                        target = os.path.join(work, f"v{i}.v")
                        op, rest = step[0], step[1:]
                        chain.append(["vips", f"--vips-concurrency={threads}", op] + first +
                                     [target] + rest)
                        prev = target
                    v = measure_chain(chain, args.runs)
                rows.setdefault((threads, compression), []).append((name, t, o, v))

    def cell(r):
        return f"{r[0]:.2f} / {r[1]:.2f} / {r[2] / 1024:.0f}"

    for (threads, compression), entries in rows.items():
        lines += [f"### {threads} thread{'s' if threads > 1 else ''}, "
                  f"{'uncompressed' if compression == 'none' else compression} EXR", ""]
        header = "| workload | Tessera s / CPU s / MB | oiiotool s / CPU s / MB | ratio |"
        rule = "|---|---|---|---|"
        if compression == "none":
            header += " vips (.v) s / CPU s / MB | ratio |"
            rule += "---|---|"
        lines += [header, rule]
        for name, t, o, v in entries:
            line = f"| {name} | {cell(t)} | {cell(o)} | {o[0] / t[0]:.1f} |"
            if compression == "none":
                line += f" {cell(v)} | {v[0] / t[0]:.1f} |"
            lines.append(line)
        lines.append("")
    zip1 = {n: t[0] for n, t, _, _ in rows[(1, "zip")]}
    zip2 = {n: t[0] for n, t, _, _ in rows[(2, "zip")]}
    plain2 = {n: t[0] for n, t, _, _ in rows[(2, "none")]}
    lines += ["Tessera's ten colour corrections over its copy, uncompressed, 2 threads: "
              f"{plain2['ten colour corrections'] / plain2['copy']:.2f}x.", ""]
    lines += ["Tessera's speed-up from 1 to 2 threads with zip EXR in and out: " +
              ", ".join(f"{n} {zip1[n] / zip2[n]:.2f}x" for n in zip1) + ".", ""]

    if args.big:
        lines += big_blur(tessera, work, args)
    return lines


def big_blur(tessera, work, args):
    size = 16384
    src = os.path.join(work, "big.exr")
    out = os.path.join(work, "big_blur.exr")
    nodes = [{"id": "n", "op": "perlinnoise", "params": {"area": [0, 0, size, size], "scale": 200}}]
    subprocess.run(render(tessera, work, "make_big", nodes,
                          [{"node": "n", "file": [src], "dataType": "half", "compression": "zip"}]),
                   check=True)
    nodes = [{"id": "in", "op": "filein", "params": {"path": src}},
             {"id": "blur", "op": "blur", "params": {"size": [40, 40], "extend": "clamp"},
              "inputs": {"input": "in"}}]
    t = measure(render(tessera, work, "big", nodes,
                       [{"node": "blur", "file": [out], "dataType": "half", "compression": "zip"}],
                       2), 1)
    return [f"### {size}x{size} blur, file to file", "",
            f"A gaussian blur (size 40) of a {size}x{size} RGBA half zip EXR (4 GiB as floats) "
            f"into another, 2 threads: {t[0]:.1f} s wall, {t[1]:.1f} s CPU, peak resident "
            f"{t[2] / 1024:.0f} MB.", ""]


if __name__ == "__main__":
    main()

"""tessera-farm on a local Dask cluster: the frames it writes are the
frames rendered locally, bit for bit; it survives a killed worker, reports
failed frames by number, and stops on Ctrl-C. Every process a test starts
is stopped by it."""
import json
import os
import re
import signal
import subprocess
import threading
import time

import pytest

import tessera
from sequences import assert_same_frames, write_comp, write_inputs

pytestmark = pytest.mark.skipif(
    not os.environ.get("TESSERA_FARM") or os.environ.get("TESSERA_SANITIZED"),
    reason="the farm runs in the release build (worker processes cannot preload a sanitizer)")

FRAMES = 24
# Frames slow enough (a quarter of a second, five times their time without
# it) that a test acts while a chunk is half done, even on a loaded machine.
SLOW = ["--set", "glow.radius=[100, 100]"]


@pytest.fixture
def shot(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    write_inputs(tmp_path, f"1-{FRAMES}")
    return write_comp(tmp_path, frames=f"1-{FRAMES}")


def started(command, **kwargs):
    return subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True, **kwargs)


def stop(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait(timeout=30)


class Farm:
    """tessera-farm in a session of its own, its output lines read as they come."""

    def __init__(self, graph, cwd, *args):
        cwd.mkdir(exist_ok=True)
        self.process = subprocess.Popen(
            [os.environ["TESSERA_FARM"], str(graph), "--workers", "2", "--threads", "1", *args],
            cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            start_new_session=True)
        self.lines, self._errors = [], []
        self._readers = [threading.Thread(target=self._read, args=(pipe, lines), daemon=True)
                         for pipe, lines in ((self.process.stdout, self.lines),
                                             (self.process.stderr, self._errors))]
        for reader in self._readers:
            reader.start()

    @staticmethod
    def _read(pipe, lines):
        for line in pipe:
            lines.append(line.rstrip("\n"))

    @property
    def errors(self):
        return "\n".join(self._errors)

    def first_line(self, pattern, timeout=60):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for line in list(self.lines):
                match = re.search(pattern, line)
                if match:
                    return match
            time.sleep(0.02)
        raise AssertionError(f"no line matching {pattern!r} in {self.lines}")

    def wait(self, timeout=120):
        try:
            status = self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.stop()
            raise
        for reader in self._readers:
            reader.join(timeout=5)
        return status

    def stop(self):
        stop(self.process)  # its workers too


@pytest.fixture
def farms():
    started = []
    yield lambda *args: started.append(Farm(*args)) or started[-1]
    for farm in started:
        farm.stop()


def leftovers(folder):
    return [p.name for p in folder.iterdir() if ".tessera-" in p.name]


def test_frames_rendered_on_the_farm_equal_the_local_render(shot, farms, cli):
    local = shot.parent / "local"
    local.mkdir()
    subprocess.run([cli, "render", str(shot), "-q"], cwd=local, check=True, timeout=120)
    farm = farms(shot, shot.parent / "farm", "--chunk", "5")
    assert farm.wait() == 0, farm.errors
    assert f"tessera-farm: {FRAMES} of {FRAMES} frames in" in farm.lines[-1]
    assert sum("written" in line for line in farm.lines) == FRAMES
    assert_same_frames(local / "out", shot.parent / "farm/out", range(1, FRAMES + 1))


def test_a_running_scheduler_and_its_workers_render_the_same_frames(shot, farms, tmp_path):
    """Many machines, as one: a dask-scheduler and two dask-workers started apart."""
    address_file = tmp_path / "scheduler.json"
    processes = [started(["/usr/bin/dask-scheduler", "--host", "127.0.0.1", "--port", "0",
                          "--no-dashboard", "--scheduler-file", str(address_file)])]
    try:
        deadline = time.monotonic() + 60
        while not address_file.exists() or not address_file.read_text():
            assert time.monotonic() < deadline, "the scheduler did not start"
            time.sleep(0.1)
        address = json.loads(address_file.read_text())["address"]
        # A worker imports tessera from where this test does.
        package = os.path.dirname(os.path.dirname(os.path.abspath(tessera.__file__)))
        env = dict(os.environ, PYTHONPATH=package)
        for _ in range(2):
            processes.append(started(["/usr/bin/dask-worker", address, "--nthreads", "1",
                                      "--no-dashboard", "--host", "127.0.0.1"], env=env))
        local = tmp_path / "local"
        local.mkdir()
        subprocess.run([os.environ["TESSERA_CLI"], "render", str(shot), "-q", "--frames", "1-8"],
                       cwd=local, check=True, timeout=120)
        farm = farms(shot, tmp_path / "farm", "--frames", "1-8", "--chunk", "2",
                     "--scheduler", address)
        assert farm.wait() == 0, farm.errors
        assert "8 of 8 frames" in farm.lines[-1]
        assert_same_frames(local / "out", tmp_path / "farm/out", range(1, 9))
    finally:
        for process in processes:
            stop(process)


def test_a_chunk_whose_worker_is_killed_is_rendered_again(shot, farms):
    out = shot.parent / "farm"
    farm = farms(shot, out, "--chunk", "12", *SLOW)
    # The worker that wrote the first frame is killed in the middle of its chunk.
    pid = int(farm.first_line(r"frame \d+ written .* pid (\d+)").group(1))
    os.kill(pid, signal.SIGKILL)
    assert farm.wait() == 0, farm.errors
    assert "rendered again after a lost worker" in farm.lines[-1]
    written = sorted(p.name for p in (out / "out").iterdir())
    assert written == [f"comp.{f:04d}.exr" for f in range(1, FRAMES + 1)]
    assert leftovers(out / "out") == []


def test_a_failed_frame_is_reported_by_number(shot, farms):
    (shot.parent / "in.0007.exr").unlink()
    farm = farms(shot, shot.parent / "farm", "--frames", "1-12", "--chunk", "4")
    assert farm.wait() == 1
    assert "tessera-farm: 1 of 12 frames failed: 7" in farm.errors
    assert "in.0007.exr" in farm.errors
    assert len(list((shot.parent / "farm/out").iterdir())) == 11


def test_ctrl_c_cancels_the_frames_not_rendered(shot, farms):
    out = shot.parent / "farm"
    farm = farms(shot, out, "--chunk", "2", *SLOW)
    farm.first_line(r"frame \d+ written")
    workers = subprocess.run(["pgrep", "-s", str(farm.process.pid)], capture_output=True,
                             text=True).stdout.split()
    farm.process.send_signal(signal.SIGINT)
    assert farm.wait(timeout=60) == 130
    assert "interrupted" in farm.errors
    assert len(list((out / "out").iterdir())) < FRAMES
    assert leftovers(out / "out") == []
    alive = [p for p in workers if os.path.exists(f"/proc/{p}")
             and open(f"/proc/{p}/stat").read().split()[2] != "Z"]
    assert alive == [], [open(f"/proc/{p}/cmdline").read() for p in alive]


def test_a_sequence_into_one_file_is_refused_before_the_cluster_starts(tmp_path, farms):
    graph = tmp_path / "plain.json"
    graph.write_text(json.dumps({
        "nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}}],
        "outputs": [{"node": "c", "file": "o.exr"}]}))
    farm = farms(graph, tmp_path / "run", "--frames", "1-3")
    assert farm.wait(timeout=30) == 2
    assert "'o.exr' has no frame number" in farm.errors, farm.errors
    assert not (tmp_path / "run" / "o.exr").exists()


def test_a_graph_no_frame_can_load_is_refused_before_the_cluster_starts(shot, farms):
    """A typo fails at once with one line, not at every frame on the workers."""
    graph = json.loads(shot.read_text())
    graph["nodes"][-1]["op"] = "glowx"
    typo = shot.parent / "typo.json"
    typo.write_text(json.dumps(graph))
    farm = farms(typo, shot.parent / "run")
    assert farm.wait(timeout=30) == 2
    assert farm.errors.count("\n") == 0, farm.errors
    assert "unknown operation 'glowx'" in farm.errors
    assert "on 2 workers" not in "\n".join(farm.lines)  # no cluster started


def test_threads_follow_the_cpus_the_process_may_use(monkeypatch):
    from tessera import farm

    assert farm.usable_cpus() == len(os.sched_getaffinity(0))
    monkeypatch.setenv("SLURM_CPUS_PER_TASK", "1")
    assert farm.usable_cpus() == 1
    # The engine's own default, before any set_threads: the same CPUs.
    probe = subprocess.run(
        ["taskset", "-c", "0", "/usr/bin/python3", "-c", "import tessera; print(tessera.threads())"],
        capture_output=True, text=True, timeout=60, check=True,
        env=dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(tessera.__file__))))
    assert probe.stdout.strip() == "1"


def test_a_graph_built_in_python_is_farmed_as_written_locally(shot, monkeypatch):
    """Python-built outputs go to the workers as a graph file; the frames
    equal what Task.write renders locally."""
    from tessera import farm

    def graded(frame):
        plate = tessera.filein(path="in.####.exr", frame=frame)
        return plate.blur(size=[5, 5]).gain(gain=[1.1, 1, 0.9, 1])

    result = farm.render({"farmed.####.exr": graded(1)}, frames=[1, 2, 3], workers=2, threads=1)
    assert result == {"written": [1, 2, 3], "failed": {}}
    for frame in (1, 3):
        graded(frame).write(f"local.{frame}.exr")
        assert open(f"farmed.{frame:04d}.exr", "rb").read() == \
            open(f"local.{frame}.exr", "rb").read()
    assert open("farmed.0001.exr", "rb").read() != open("farmed.0003.exr", "rb").read()
    assert not [p for p in os.listdir(".") if p.startswith(".tessera-farm-")]
    # No frame of the graph loads (frame 0 has no input): refused at once.
    with pytest.raises(farm.Refused, match="in.0000.exr"):
        farm.render(str(shot), frames="0")

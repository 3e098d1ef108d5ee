"""tessera-farm: a graph file's frames rendered on Dask distributed.

The frames are cut into chunks; each chunk runs on a worker, which renders
it through this package (``tessera.render_frames``) and reports every frame
as it is written. Without ``--scheduler`` a local cluster of worker
processes starts on this machine (loopback only); with ``--scheduler
ADDRESS`` the chunks go to a running ``dask-scheduler`` and its
``dask-worker`` processes, on as many machines as it has. Workers must see
the graph, its inputs and its output folders at the same paths as this
command (a shared file system), and have this package installed.

A chunk whose worker dies, or that raises, runs again (``--retries``); its
frames are written under temporary names and renamed when complete, so a
killed worker leaves no truncated image. Ctrl-C cancels the chunks not
finished and stops the running ones.
"""

import argparse
import logging
import os
import signal
import socket
import sys
import tempfile
import threading
import time
import uuid

# Exit status, as the tessera command's.
OK, FAILED, USAGE, INTERRUPTED = 0, 1, 2, 130


def chunks(frames, size):
    """The frames in runs of `size`, in order."""
    return [frames[i:i + size] for i in range(0, len(frames), size)]


def _names(run):
    return f"tessera-{run}-progress", f"tessera-{run}-cancel"


def render_chunk(graph, frames, overrides, threads, run, folder):
    """Runs on a worker: writes the frames, reports each to the run's queue.

    Returns {"rendered": [...], "failed": {frame: message}}. The run's cancel
    event stops it between tiles.
    """
    import tessera
    from distributed import Event, Queue

    if threads:
        tessera.set_threads(threads)
    progress_name, cancel_name = _names(run)
    progress = Queue(progress_name)
    remote_cancel = Event(cancel_name)
    cancel = threading.Event()

    def watch():  # the run's cancel event, seen from this worker
        while not cancel.is_set():
            try:
                if remote_cancel.wait(0.5):
                    cancel.set()
            except Exception:  # noqa: BLE001 - the scheduler is gone: no frame could be reported
                cancel.set()

    watcher = threading.Thread(target=watch, daemon=True)
    watcher.start()
    where = f"{socket.gethostname()} pid {os.getpid()}"

    def on_frame(frame, error):
        progress.put({"frame": frame, "error": error, "worker": where})

    # Relative paths in the graph are taken from the submitting folder.
    previous = os.getcwd()
    os.chdir(folder)
    try:
        return tessera.render_frames(graph, frames, set=overrides, on_frame=on_frame,
                                     cancel=cancel, remove_abandoned_files=True)
    except tessera.Cancelled:
        # Not a failure to retry: the run is over. Its frames were reported.
        return {"rendered": [], "failed": {}}
    finally:
        os.chdir(previous)
        cancel.set()  # the watcher ends at its next look, without holding up the next chunk


class Run:
    """The frames of one farm run: what is done, failed and rendered twice."""

    def __init__(self, frames, quiet):
        self.total = len(frames)
        self.written = set()
        self.failed = {}
        self.reported = 0
        self.again = 0
        self.quiet = quiet

    def frame_reported(self, message):
        frame, error = message["frame"], message["error"]
        self.reported += 1
        if frame in self.written or frame in self.failed:
            self.again += 1  # its chunk ran again after its worker was lost
        if error:
            self.failed[frame] = error
            self.written.discard(frame)
            print(f"tessera-farm: {error} (on {message['worker']})", file=sys.stderr, flush=True)
            return
        self.failed.pop(frame, None)
        self.written.add(frame)
        if not self.quiet:
            print(f"frame {frame} written ({len(self.written)} of {self.total}, "
                  f"on {message['worker']})", flush=True)

    def chunk_done(self, frames, result):
        """A chunk's own report is the final word on its frames."""
        for frame in result["rendered"]:
            self.failed.pop(frame, None)
            self.written.add(frame)
        for frame, error in result["failed"].items():
            self.written.discard(frame)
            self.failed[frame] = error

    def chunk_failed(self, frames, error):
        print(f"tessera-farm: frames {', '.join(str(f) for f in frames)} failed: {error}",
              file=sys.stderr, flush=True)
        for frame in frames:
            if frame not in self.written:
                self.failed[frame] = f"frame {frame}: {error}"


def _arguments(argv):
    parser = argparse.ArgumentParser(
        prog="tessera-farm",
        description="Renders a graph file's frames on Dask distributed: a local cluster of "
                    "worker processes, or a running dask-scheduler's workers.",
        epilog="Exit status: 0 every frame written, 1 a frame failed, 2 a usage or graph-file "
               "error, 130 when interrupted.")
    parser.add_argument("graph", metavar="GRAPH", help="the graph file (JSON)")
    parser.add_argument("--frames", metavar="LIST",
                        help="1-100, 1-100x2, 5, 1,4,9 or a mix (default: the graph's frames)")
    parser.add_argument("--chunk", type=int, default=8, metavar="N",
                        help="frames per chunk, the unit a worker renders (default 8)")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="a running dask-scheduler (tcp://host:8786); default: a local cluster")
    parser.add_argument("--workers", type=int, default=2, metavar="N",
                        help="worker processes of the local cluster (default 2)")
    parser.add_argument("--threads", type=int, default=0, metavar="N",
                        help="render threads per worker (default: the CPUs this process may "
                             "use (its affinity, SLURM_CPUS_PER_TASK) shared among the local "
                             "workers; a remote worker's own cores)")
    parser.add_argument("--retries", type=int, default=3, metavar="N",
                        help="times a chunk runs again after its worker died or it raised "
                             "(default 3)")
    parser.add_argument("--set", action="append", default=[], metavar="NODE.PARAM=VALUE",
                        help="override a parameter of a node (VALUE is JSON); repeatable")
    parser.add_argument("-q", "--quiet", action="store_true", help="errors and the summary only")
    args = parser.parse_args(argv)
    for name in ("chunk", "workers"):
        if getattr(args, name) < 1:
            parser.error(f"--{name} must be 1 or more")
    if args.threads < 0 or args.retries < 0:
        parser.error("--threads and --retries must be 0 or more")
    overrides = {}
    for text in args.set:
        key, equals, value = text.partition("=")
        if not equals or "." not in key:
            parser.error(f"--set '{text}' is not of the form NODE.PARAM=VALUE")
        overrides[key] = value
    args.overrides = overrides
    return args


def _cluster(args):
    """A client of the scheduler, or of a local cluster it owns (closed with it)."""
    import dask
    from distributed import Client, LocalCluster

    if args.scheduler:
        return Client(args.scheduler, timeout="30s"), None
    dask.config.set({"distributed.scheduler.allowed-failures": args.retries})
    cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                           host="127.0.0.1", dashboard_address=None,
                           silence_logs=logging.CRITICAL)
    return Client(cluster), cluster


def _close_local(cluster):
    """Closes a local cluster and returns once every process it started has
    ended, so that nothing of the run outlives the command (a worker still
    exiting under load, multiprocessing's resource tracker)."""
    import psutil
    from multiprocessing import resource_tracker

    started = psutil.Process().children(recursive=True)
    cluster.close()
    resource_tracker._resource_tracker._stop()  # it waits for our end of its pipe
    _, alive = psutil.wait_procs(started, timeout=10)
    for process in alive:
        process.kill()
    psutil.wait_procs(alive, timeout=10)


def _graph_problem(tessera, graph, frames, overrides):
    """Why the graph cannot render any frame (a typo, a missing node), or None.

    Found here, before a cluster starts. A frame that fails to load alone
    (its input frame is missing) is that frame's failure, reported by its
    worker: only when no frame loads is the graph at fault.
    """
    first_error = None
    for frame in frames:
        try:
            loaded = tessera.load_graph(graph, set=overrides, frame=frame)
        except tessera.Error as e:
            first_error = first_error or str(e)
            continue
        return loaded.sequence_error if len(frames) > 1 else None
    return first_error


def usable_cpus():
    """The CPUs this process may use: its affinity (taskset, cgroups) and,
    under Slurm, the CPUs allocated to the task."""
    try:
        cpus = len(os.sched_getaffinity(0))
    except (AttributeError, OSError):
        cpus = os.cpu_count() or 1
    slurm = os.environ.get("SLURM_CPUS_PER_TASK", "")
    if slurm.isdigit() and int(slurm) > 0:
        cpus = min(cpus, int(slurm))
    return max(1, cpus)


def _interrupt(signum, frame):
    raise KeyboardInterrupt


def main(argv=None):
    args = _arguments(argv)
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        return _run(args)[0]
    except Refused as e:
        print(f"tessera-farm: {e}", file=sys.stderr)
        return USAGE
    except KeyboardInterrupt:  # before the chunks went out, or after they came back
        print("tessera-farm: interrupted", file=sys.stderr)
        return INTERRUPTED


class Refused(ValueError):
    """A farm run refused before any frame renders: the graph, the frames or
    the options are wrong (exit status 2 from the command)."""


def _run(args):
    """Renders the run; returns its status and its Run (None when refused
    before starting). Raises Refused."""
    import tessera

    graph = os.path.abspath(args.graph)
    try:
        # A file that is not a graph fails here; a frame that fails to load
        # (a missing input frame) is that frame's failure, on its worker.
        declared = tessera.graph_frames(graph)
        frames = tessera.parse_frames(args.frames) if args.frames else declared
    except (ValueError, tessera.Error) as e:
        raise Refused(f"{args.graph}: {e}") from None
    if not frames:
        raise Refused(f"{args.graph} declares no frames: give --frames")
    problem = _graph_problem(tessera, graph, frames, args.overrides)
    if problem:
        raise Refused(f"{args.graph}: {problem}")

    start = time.monotonic()
    run = Run(frames, args.quiet)
    client = cluster = cancel = None
    futures = {}
    try:
        client, cluster = _cluster(args)
        from distributed import Event, Queue

        workers = len(client.scheduler_info()["workers"])
        if not workers:
            print("tessera-farm: the scheduler has no workers yet; the chunks wait for them",
                  file=sys.stderr, flush=True)
        threads = args.threads
        if not threads and cluster:
            threads = max(1, usable_cpus() // args.workers)
        run_id = uuid.uuid4().hex
        progress_name, cancel_name = _names(run_id)
        progress = Queue(progress_name, client=client)
        cancel = Event(cancel_name, client=client)
        work = chunks(frames, args.chunk)
        if not args.quiet:
            print(f"tessera-farm: {len(frames)} frames in {len(work)} chunks on {workers} "
                  f"workers ({'scheduler ' + args.scheduler if args.scheduler else 'local'})",
                  flush=True)
        for i, chunk in enumerate(work):
            future = client.submit(render_chunk, graph, chunk, args.overrides, threads, run_id,
                                   os.getcwd(), key=f"tessera-{run_id}-chunk-{i}",
                                   retries=args.retries, pure=False, priority=len(work) - i)
            futures[future] = chunk

        pending = set(futures)
        while pending:
            time.sleep(0.2)
            for message in progress.get(batch=True):
                run.frame_reported(message)
            for future in [f for f in pending if f.done()]:
                pending.discard(future)
                if future.status == "finished":
                    run.chunk_done(futures[future], future.result())
                else:
                    run.chunk_failed(futures[future], _reason(future))
        for message in progress.get(batch=True):  # reports still on their way
            run.frame_reported(message)
    except OSError as e:  # no scheduler at the address, or the cluster did not start
        print(f"tessera-farm: {e}", file=sys.stderr)
        return FAILED, run
    except KeyboardInterrupt:
        if cancel is not None:
            # Running chunks stop between tiles and the others return at
            # once, so no worker is killed while it writes a file.
            from distributed import wait
            cancel.set()
            try:
                wait(list(futures), timeout=10)
            except TimeoutError:
                pass
        print(f"tessera-farm: interrupted; {len(run.written)} of {run.total} frames written",
              file=sys.stderr)
        return INTERRUPTED, run
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            _close_local(cluster)

    seconds = time.monotonic() - start
    again = f"; {run.again} rendered again after a lost worker" if run.again else ""
    print(f"tessera-farm: {len(run.written)} of {run.total} frames in {seconds:.1f} s "
          f"({len(run.written) / seconds:.2f} frames per second) on {workers} workers{again}",
          flush=True)
    if not run.failed:
        return OK, run
    failed = sorted(run.failed)
    print(f"tessera-farm: {len(failed)} of {run.total} frames failed: "
          f"{', '.join(str(f) for f in failed)}", file=sys.stderr)
    return FAILED, run


def render(outputs, frames=None, *, scheduler=None, workers=2, chunk=8, threads=0, retries=3,
           overrides=None, quiet=True):
    """Renders frames on Dask, as tessera-farm does, and returns
    {"written": [frames], "failed": {frame: message}}.

    `outputs` is a graph file's path, or outputs built in Python
    ({file: task}, numbered files such as "out.####.exr"), which are saved
    as a graph file beside the current folder for the workers (they must see
    it and the inputs at the same paths). `frames`: a frame list ("1-48",
    [1, 5, 9]); the graph's own by default. Raises Refused when the graph or
    the frames are wrong; Ctrl-C raises KeyboardInterrupt after the running
    chunks stopped.
    """
    import tessera

    if isinstance(frames, (list, tuple, range)):
        frames = ",".join(str(f) for f in frames)
    saved = None
    if not isinstance(outputs, (str, os.PathLike)):
        handle, saved = tempfile.mkstemp(prefix=".tessera-farm-", suffix=".json", dir=os.getcwd())
        os.close(handle)
        tessera.save_graph(saved, outputs)
    args = argparse.Namespace(graph=os.fspath(saved or outputs), frames=frames, chunk=chunk,
                              scheduler=scheduler, workers=workers, threads=threads,
                              retries=retries, overrides=dict(overrides or {}), quiet=quiet)
    try:
        status, run = _run(args)
    finally:
        if saved:
            os.unlink(saved)
    if status == INTERRUPTED:
        raise KeyboardInterrupt
    return {"written": sorted(run.written), "failed": dict(sorted(run.failed.items()))}


def _reason(future):
    """Why a chunk failed, in one line (a worker's traceback stays on the worker)."""
    try:
        exception = future.exception()
    except Exception as e:  # noqa: BLE001 - a cancelled future has none
        exception = e
    if type(exception).__name__ == "KilledWorker":
        return "its worker died every time it ran"
    if isinstance(exception, ModuleNotFoundError):
        return f"{exception} on the worker (is Tessera installed there?)"
    text = " ".join(str(exception).split())
    return f"{type(exception).__name__}: {text}" if text else type(exception).__name__


if __name__ == "__main__":
    sys.exit(main())

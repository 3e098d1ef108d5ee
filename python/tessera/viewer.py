"""``tessera view``: a graph file's output in the browser, rendered as the
artist looks at it, with a panel to tune the nodes and save the file.

The server listens on 127.0.0.1 only. Every request must carry the random
token printed with the URL; requests from another origin or host are
refused, and only files inside the graph's folder are served. Tiles go to
the page over a WebSocket as they finish, as binary messages: a header of
six little-endian 32-bit integers (render, x, y, width, height, level)
then four floats a pixel: the channels the page shows as red, green, blue
and alpha. The page tones them (exposure, gamma) itself.
"""

import argparse
import asyncio
import json
import os
import re
import secrets
import struct
import sys

from aiohttp import WSMsgType, web

from . import _tessera

_STATIC = os.path.join(os.path.dirname(__file__), "viewer_page")
_HEADER = struct.Struct("<6i")
_WATCH_SECONDS = 0.5
_HITS = re.compile(r'<block name="Speculative Cache">.*?name="Hits" value="(\d+)"', re.S)


def _cache_hits():
    """Tiles served from the tile cache since the process started."""
    found = _HITS.search(_tessera.statistics_xml())
    return int(found.group(1)) if found else 0


def _declarations():
    """Each operation's parameters as the panel builds its controls."""
    ops = {}
    for op in _tessera.list_operations():
        params = []
        for p in op.parameters:
            entry = {"name": p.name, "type": p.type, "meaning": p.description,
                     "choices": list(p.choices)}
            if p.range:
                entry["low"], entry["high"] = p.low, p.high
            params.append(entry)
        ops[op.name] = params
        for alias in op.aliases:
            ops[alias] = params
    return ops


class GraphView:
    """The graph file, the edits not yet saved, and the output's task."""

    def __init__(self, path, frame=None, frames=None):
        self.path = os.path.abspath(path)
        self.folder = os.path.dirname(self.path)
        self.frames = frames  # the frames offered; None: the file's
        self.frame = frame if frame is not None or not frames else frames[0]
        self.edits = {}  # "node.param" -> value
        self.looked_at = None  # the node shown in place of the first output's; None: its own
        self.reload()

    def reload(self):
        with open(self.path) as f:
            text = f.read()
        self.mtime = os.stat(self.path).st_mtime_ns
        try:
            self.rebuild(text)  # the engine's own message for a file it refuses
        except Exception:
            if self.looked_at is None:
                raise
            self.looked_at = None  # the node looked at may be gone: the output's own
            self.rebuild(text)
        self.text = text

    def rebuild(self, text=None):
        overrides = {key: json.dumps(value) for key, value in self.edits.items()}
        if self.looked_at is not None:
            # The first output, pointed at the node: its file and rectangle stay.
            outputs = json.loads(self.text if text is None else text).get("outputs", [])
            name = outputs[0].get("id", "output") if outputs and isinstance(
                outputs[0], dict) else "output"
            overrides[f"{name}.node"] = json.dumps(self.looked_at)
        kwargs = {"set": overrides}
        if self.frame is not None:
            kwargs["frame"] = self.frame
        self.graph = _tessera.load_graph(self.path, **kwargs)
        if not self.graph.outputs:
            raise ValueError(f"{self.path}: the graph has no outputs to view")
        self.output = self.graph.outputs[0]

    def look_at(self, node):
        """Shows `node` (None: the first output's own node); the file is not
        changed."""
        before = self.looked_at
        self.looked_at = node
        try:
            self.rebuild()
        except Exception:
            self.looked_at = before
            raise

    def set(self, node, param, value):
        """Changes one parameter; the graph is rebuilt (refused values leave
        it as it was and raise)."""
        key = f"{node}.{param}"
        before = self.edits.get(key)
        self.edits[key] = value
        try:
            self.rebuild()
        except Exception:
            if before is None:
                del self.edits[key]
            else:
                self.edits[key] = before
            raise

    def edited(self):
        """The file's document with the edits applied."""
        document = json.loads(self.text)
        for node in document.get("nodes", []):
            for key, value in self.edits.items():
                nid, _, param = key.partition(".")
                if nid == node.get("id"):
                    node.setdefault("params", {})[param] = value
        return document

    def nodes(self):
        """The nodes with their values, the edits applied."""
        return [{"id": n.get("id"), "op": n.get("op"), "params": n.get("params", {})}
                for n in self.edited().get("nodes", [])]

    def save(self):
        """Writes the edits into the graph file."""
        document = self.edited()
        text = json.dumps(document, indent=2) + "\n"
        temporary = self.path + ".saving"
        with open(temporary, "w") as f:
            f.write(text)
        os.replace(temporary, self.path)
        self.edits = {}
        self.reload()

    def changed_on_disk(self):
        try:
            return os.stat(self.path).st_mtime_ns != self.mtime
        except FileNotFoundError:
            return False

    def state(self):
        task = self.output.task
        return {"type": "graph", "path": self.path, "nodes": self.nodes(),
                "rect": list(self.output.rect), "bounds": self.bounds(),
                "format": list(task.format), "data_window": list(task.data_window),
                "channels": _tessera.channel_names(task), "looked_at": self.looked_at,
                "frames": list(self.frames or self.graph.frames),
                "frame": self.graph.frame, "edited": bool(self.edits)}

    def bounds(self):
        """What the page may show: the output's rectangle and the data
        around it (overscan), up to the rectangle's own size on each side."""
        x0, y0, x1, y1 = self.output.rect
        w, h = x1 - x0, y1 - y0
        d = self.output.task.data_window
        return [max(min(x0, d[0]), x0 - w), max(min(y0, d[1]), y0 - h),
                min(max(x1, d[2]), x1 + w), min(max(y1, d[3]), y1 + h)]


class Session:
    """One page's view: what it shows, and the render that fills it."""

    def __init__(self, view, socket):
        self.view = view
        self.socket = socket
        self.render = _tessera.ViewRender()
        self.current = 0
        self.hits = 0
        self.level = 0
        self.area = None
        self.shown = []
        self.inspected = None
        self.loop = asyncio.get_running_loop()
        self.loop.add_reader(self.render.fileno(), self._deliver)
        self.sent = []

    def close(self):
        self.loop.remove_reader(self.render.fileno())
        self.render.cancel()

    def show(self, area, level, focus, request=None, shown=()):
        """Renders the part of the output in `area` (full-size pixels) at
        proxy `level`, the tiles nearest `focus` first, the channels `shown`
        as red, green, blue and alpha (none: R, G, B, A); the page's
        `request` (if any) comes back with the render's number."""
        self.area, self.level, self.shown = area, level, list(shown)
        task = self.view.output.task
        scale = 1 << level
        if level > 0:
            task = _tessera._create("proxy", "view_proxy", json.dumps({"level": level}),
                                    {"input": task})
        rect = (area[0] // scale, area[1] // scale, -(-area[2] // scale), -(-area[3] // scale))
        if rect[2] <= rect[0] or rect[3] <= rect[1]:
            return
        self.hits = _cache_hits()
        self.current = self.render.start(task, rect, focus[0] / scale, focus[1] / scale,
                                         self.shown)
        # Ahead of its tiles: the page draws them in this render's place.
        self.sent.append(self.socket.send_str(json.dumps(
            {"type": "render", "render": self.current, "level": level, "rect": list(rect),
             "request": request, "cancelled": self.render.cancelled,
             "channels": self.shown})))
        self._flush()

    def inspect(self, point):
        """Sends every channel's value at full-size pixel `point`, rendered
        in the background queue so that the view's render goes on. Of the
        points asked for while one renders, only the last is rendered next."""
        waiting = self.inspected is not None
        self.inspected = [int(point[0]), int(point[1])]
        if not waiting:
            asyncio.ensure_future(self._inspect())

    async def _inspect(self):
        while self.inspected is not None:
            x, y = self.inspected
            task = self.view.output.task
            names = _tessera.channel_names(task)
            try:
                values = await self.loop.run_in_executor(None, lambda: _tessera.render(
                    task, (x, y, x + 1, y + 1), ",".join(names), queue="background")[0, 0])
                message = {"type": "pixel", "point": [x, y],
                           "channels": [[n, float(v)] for n, v in zip(names, values)]}
            except Exception as error:
                message = {"type": "error", "message": str(error)}
            if self.inspected == [x, y]:
                self.inspected = None
            if not self.socket.closed:
                await self.socket.send_str(json.dumps(message))

    def focus(self, point):
        scale = 1 << self.level
        self.render.reprioritize(point[0] / scale, point[1] / scale)

    def _deliver(self):
        for event in self.render.take():
            if event[1] != self.current:
                continue  # a render the page no longer shows
            if event[0] == "tile":
                _, render, x, y, w, h, pixels = event
                header = _HEADER.pack(render, x, y, w, h, self.level)
                self.sent.append(self.socket.send_bytes(header + pixels))
            else:
                _, render, status, message, rendered = event
                self.sent.append(self.socket.send_str(json.dumps(
                    {"type": "finished", "render": render, "status": status,
                     "message": message, "rendered": rendered,
                     "cached": _cache_hits() - self.hits, "cancelled": self.render.cancelled})))
        self._flush()

    def _flush(self):
        pending, self.sent = self.sent, []
        for send in pending:
            asyncio.ensure_future(send)


def make_app(graph_path, frame=None, token=None, frames=None):
    """The viewer's web application for a graph file."""
    view = GraphView(graph_path, frame, frames)
    token = token or secrets.token_urlsafe(24)
    app = web.Application(middlewares=[_guard])
    app["view"], app["token"], app["port"] = view, token, None
    app["sessions"] = set()
    app.router.add_get("/", _page)
    app.router.add_get("/socket", _socket)
    app.router.add_get("/static/{name}", _static)
    app.router.add_get("/files/{path:.*}", _file)
    app.on_startup.append(_start_watching)
    app.on_cleanup.append(_stop)
    return app


@web.middleware
async def _guard(request, handler):
    """Only this page's requests: the token, this host, this origin."""
    app = request.app
    if not secrets.compare_digest(request.query.get("token", ""), app["token"]):
        raise web.HTTPForbidden(text="tessera view: a token is required")
    host = request.headers.get("Host", "")
    if host.rsplit(":", 1)[0] not in ("127.0.0.1", "localhost"):
        raise web.HTTPForbidden(text=f"tessera view: host '{host}' refused")
    origin = request.headers.get("Origin")
    if origin is not None and origin not in (f"http://{host}",):
        raise web.HTTPForbidden(text=f"tessera view: origin '{origin}' refused")
    return await handler(request)


async def _page(request):
    with open(os.path.join(_STATIC, "index.html")) as f:
        page = f.read().replace("{{TOKEN}}", request.app["token"])
    return web.Response(text=page, content_type="text/html")


async def _static(request):
    name = request.match_info["name"]
    if name not in ("viewer.js", "viewer.css"):
        raise web.HTTPNotFound()
    return web.FileResponse(os.path.join(_STATIC, name))


async def _file(request):
    """A file of the graph's folder (the images it reads), nothing outside."""
    folder = os.path.realpath(request.app["view"].folder)
    path = os.path.realpath(os.path.join(folder, request.match_info["path"]))
    if os.path.commonpath([folder, path]) != folder or not os.path.isfile(path):
        raise web.HTTPForbidden(text="tessera view: only files of the graph's folder")
    return web.FileResponse(path)


async def _socket(request):
    app = request.app
    socket = web.WebSocketResponse(max_msg_size=1 << 20)
    await socket.prepare(request)
    session = Session(app["view"], socket)
    app["sessions"].add(session)
    await socket.send_str(json.dumps({**app["view"].state(), "ops": _declarations()}))
    try:
        async for message in socket:
            if message.type != WSMsgType.TEXT:
                continue
            await _handle(app, session, json.loads(message.data))
    finally:
        app["sessions"].discard(session)
        session.close()
    return socket


async def _handle(app, session, request):
    view = app["view"]
    kind = request.get("type")
    try:
        if kind == "view":
            session.show([int(v) for v in request["area"]], int(request.get("level", 0)),
                         request.get("focus", [0, 0]), request.get("request"),
                         [str(c) for c in request.get("channels", [])])
        elif kind == "inspect":
            session.inspect(request["point"])
        elif kind == "focus":
            session.focus(request["point"])
        elif kind == "set":
            view.set(request["node"], request["param"], request["value"])
            await _refresh(app, edit=True)
        elif kind == "look":
            view.look_at(request.get("node"))
            await _refresh(app)
        elif kind == "frame":
            view.frame = int(request["frame"])
            view.rebuild()
            await _refresh(app)
        elif kind == "save":
            view.save()
            await _refresh(app)
    except Exception as error:  # the page shows it; the server goes on
        await session.socket.send_str(json.dumps({"type": "error", "message": str(error)}))


async def _refresh(app, edit=False):
    """Every page shows the graph as it now is, its view rendered again (an
    edit from the panel leaves the panel as it is)."""
    state = json.dumps({**app["view"].state(), "edit": edit})
    for session in list(app["sessions"]):
        await session.socket.send_str(state)
        if session.area is not None:
            session.show(session.area, session.level, [
                (session.area[0] + session.area[2]) / 2, (session.area[1] + session.area[3]) / 2],
                shown=session.shown)


async def _watch(app):
    view = app["view"]
    while True:
        await asyncio.sleep(_WATCH_SECONDS)
        if view.changed_on_disk():
            try:
                view.edits = {}
                view.reload()
            except Exception as error:
                for session in list(app["sessions"]):
                    await session.socket.send_str(
                        json.dumps({"type": "error", "message": str(error)}))
                continue
            await _refresh(app)


async def _start_watching(app):
    app["watcher"] = asyncio.ensure_future(_watch(app))


async def _stop(app):
    app["watcher"].cancel()
    for session in list(app["sessions"]):
        session.close()


def main(argv=None):
    parser = argparse.ArgumentParser(prog="tessera view",
                                     description="Shows a graph file's output in the browser.")
    parser.add_argument("graph")
    parser.add_argument("--port", type=int, default=0, help="0: any free port")
    parser.add_argument("--frame", type=int, default=None, help="the frame shown first")
    parser.add_argument("--frames", default=None, help="the frames the slider offers")
    args = parser.parse_args(argv)
    try:
        frames = _tessera.parse_frames(args.frames) if args.frames else None
    except ValueError as error:
        print(f"tessera view: --frames: {error}", file=sys.stderr)
        return 2
    try:
        app = make_app(args.graph, args.frame, frames=frames)
    except (_tessera.GraphFileError, ValueError) as error:  # as `tessera render`: a usage error
        print(f"tessera view: {args.graph}: {error}", file=sys.stderr)
        return 2
    except Exception as error:
        print(f"tessera view: {args.graph}: {error}", file=sys.stderr)
        return 1

    async def serve():
        runner = web.AppRunner(app)
        await runner.setup()
        site = web.TCPSite(runner, "127.0.0.1", args.port)
        await site.start()
        port = site._server.sockets[0].getsockname()[1]
        print(f"http://127.0.0.1:{port}/?token={app['token']}", flush=True)
        try:
            await asyncio.Event().wait()
        finally:
            await runner.cleanup()

    try:
        asyncio.run(serve())
    except KeyboardInterrupt:
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""`tessera view`: the server the browser talks to, driven as the page drives
it (HTTP and the WebSocket), through the command itself."""
import asyncio
import json
import os
import re
import select
import struct
import subprocess
import time

import numpy as np
import pytest

import tessera

aiohttp = pytest.importorskip("aiohttp")

HEADER = struct.Struct("<6i")


def graph_file(folder, gain=0.5):
    """A checkerboard under a gain beside a blurred constant, merged."""
    path = folder / "graph.json"
    path.write_text(json.dumps({
        "nodes": [
            {"id": "board", "op": "checkerboard",
             "params": {"size": 16, "area": [0, 0, 600, 300]}},
            {"id": "grade", "op": "gain", "params": {"gain": [gain, gain, gain, 1]},
             "inputs": {"input": "board"}},
            {"id": "soft", "op": "blur", "params": {"size": [9, 9]},
             "inputs": {"input": "grade"}}],
        "outputs": [{"node": "soft"}]}))
    return path


class Viewer:
    """A running `tessera view`: its URL, and requests to it."""

    def __init__(self, cli, graph, *options, one_cpu=False):
        # On one CPU the viewer has one render thread, whose tiles come in
        # the order of their priorities; with two, a worker the machine
        # pauses lets the other deliver a later tile first.
        def pin():
            os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
        self.process = subprocess.Popen([cli, "view", str(graph), *options], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True,
                                        preexec_fn=pin if one_cpu else None)
        ready, _, _ = select.select([self.process.stdout], [], [], 30)
        assert ready, "the viewer printed no URL within 30 s"
        self.url = self.process.stdout.readline().strip()
        assert self.url.startswith("http://127.0.0.1:"), self.url
        self.base, self.token = self.url.split("/?token=")
        self.host = self.base[len("http://"):]

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def status(self, path, token=True, headers=None):
        """The HTTP status of a GET of path (sent as written, dots kept)."""
        async def get():
            query = f"?token={self.token}" if token else ""
            url = aiohttp.client.URL(self.base + path + query, encoded=True)
            async with aiohttp.ClientSession() as session:
                async with session.get(url, headers=headers or {}) as response:
                    return response.status
        return asyncio.run(asyncio.wait_for(get(), 20))

    def talk(self, conversation):
        """Runs conversation(page) against the WebSocket; page has send,
        state (the first graph message) and messages()."""
        async def run():
            async with aiohttp.ClientSession() as session:
                async with session.ws_connect(
                        f"{self.base}/socket?token={self.token}") as socket:
                    page = Page(socket)
                    page.state = await page.text("graph")
                    return await conversation(page)
        return asyncio.run(asyncio.wait_for(run(), 60))


class Page:
    def __init__(self, socket):
        self.socket = socket
        self.requests = 0

    async def send(self, **message):
        await self.socket.send_str(json.dumps(message))

    async def next(self):
        message = await self.socket.receive(timeout=30)
        if message.type == aiohttp.WSMsgType.BINARY:
            number, x, y, w, h, level = HEADER.unpack_from(message.data)
            pixels = np.frombuffer(message.data, np.float32, offset=HEADER.size)
            return {"type": "tile", "render": number, "rect": (x, y, x + w, y + h),
                    "level": level, "pixels": pixels.reshape(h, w, 4)}
        assert message.type == aiohttp.WSMsgType.TEXT, message
        return json.loads(message.data)

    async def text(self, kind):
        while True:
            event = await self.next()
            if event["type"] == kind:
                return event
            assert event["type"] != "error", event

    async def view(self, area, level=0, focus=None, channels=()):
        """Asks for area (the channels shown as red, green, blue and alpha;
        none: RGBA) and gathers the render: (picture, tiles in order);
        `finished` keeps the render's end."""
        focus = focus or [(area[0] + area[2]) / 2, (area[1] + area[3]) / 2]
        self.requests += 1
        await self.send(type="view", area=area, level=level, focus=focus, request=self.requests,
                        channels=list(channels))
        started = await self.text("render")
        while started["request"] != self.requests:  # a render the server began itself
            started = await self.text("render")
        x0, y0, x1, y1 = started["rect"]
        picture = np.full((y1 - y0, x1 - x0, 4), np.nan, np.float32)
        tiles = []
        while True:
            event = await self.next()
            if event["type"] == "tile" and event["render"] == started["render"]:
                tx0, ty0, tx1, ty1 = event["rect"]
                picture[ty0 - y0:ty1 - y0, tx0 - x0:tx1 - x0] = event["pixels"]
                tiles.append(event["rect"])
            elif event["type"] == "finished" and event["render"] == started["render"]:
                assert event["status"] == "success", event
                self.finished = event
                return picture, tiles
            assert event["type"] != "error", event


PLATE_CHANNELS = ["R", "G", "B", "A", "diffuse.R", "diffuse.G", "diffuse.B",
                  "forward.u", "forward.v"]
PLATE_DATA = (-5, 3, 53, 41)     # the data window, x0, y0, x1, y1: off the frame's corner
PLATE_DISPLAY = (0, 0, 64, 48)   # the display window


def plate_pixels():
    """Every channel of the plate a different closed form, at half precision."""
    x0, y0, x1, y1 = PLATE_DATA
    y, x = np.mgrid[y0:y1, x0:x1].astype(np.float32)
    planes = [(c + 1) * 0.1 + x * 0.01 - y * 0.003 for c in range(len(PLATE_CHANNELS))]
    return np.stack(planes, -1).astype(np.float16)


def plate_graph(folder):
    """A graph reading a multi-layer EXR plate written with OpenImageIO."""
    oiio = pytest.importorskip("OpenImageIO")
    plate = str(folder / "plate.exr")
    pixels = plate_pixels()
    spec = oiio.ImageSpec(pixels.shape[1], pixels.shape[0], len(PLATE_CHANNELS), "half")
    spec.x, spec.y = PLATE_DATA[:2]
    spec.full_x, spec.full_y = PLATE_DISPLAY[:2]
    spec.full_width = PLATE_DISPLAY[2] - PLATE_DISPLAY[0]
    spec.full_height = PLATE_DISPLAY[3] - PLATE_DISPLAY[1]
    spec.channelnames = tuple(PLATE_CHANNELS)
    spec.attribute("compression", "zip")
    out = oiio.ImageOutput.create(plate)
    assert out.open(plate, spec), out.geterror()
    assert out.write_image(pixels), out.geterror()
    out.close()
    graph = folder / "plate.json"
    graph.write_text(json.dumps({
        "nodes": [{"id": "plate", "op": "filein", "params": {"path": "plate.exr"}}],
        "outputs": [{"node": "plate"}]}))
    return graph


def plate_over(area, channels):
    """The plate's named channels over area (x0, y0, x1, y1), 0 outside its
    data window."""
    x0, y0, x1, y1 = area
    dx0, dy0, dx1, dy1 = PLATE_DATA
    left, top = min(x0, dx0), min(y0, dy0)
    both = np.zeros((max(y1, dy1) - top, max(x1, dx1) - left, len(channels)), np.float32)
    pixels = plate_pixels().astype(np.float32)
    for i, name in enumerate(channels):
        both[dy0 - top:dy1 - top, dx0 - left:dx1 - left, i] = pixels[..., PLATE_CHANNELS.index(name)]
    return both[y0 - top:y1 - top, x0 - left:x1 - left]


@pytest.fixture
def viewer(cli, tmp_path):
    started = []

    def start(graph, *options, one_cpu=False):
        started.append(Viewer(cli, graph, *options, one_cpu=one_cpu))
        return started[-1]
    yield start
    for v in started:
        v.stop()
        assert v.process.returncode is not None


def rendered(graph, rect):
    task = tessera.load_graph(str(graph)).outputs[0].task
    return tessera.render(task, rect, "RGBA")


def test_the_page_and_its_files_need_the_token_this_host_and_this_origin(viewer, tmp_path):
    v = viewer(graph_file(tmp_path))
    (tmp_path / "plate.txt").write_text("beside the graph")
    (tmp_path.parent / "secret.txt").write_text("outside")
    os.symlink(tmp_path.parent / "secret.txt", tmp_path / "link.txt")
    assert v.status("/") == 200
    assert v.status("/static/viewer.js") == 200
    assert v.status("/files/plate.txt") == 200
    assert v.status("/") == 200
    assert v.status("/", token=False) == 403
    assert v.status("/files/plate.txt", token=False) == 403
    assert v.status("/", headers={"Origin": "http://evil.example"}) == 403
    assert v.status("/", headers={"Origin": f"http://{v.host}"}) == 200
    assert v.status("/", headers={"Host": "evil.example"}) == 403
    for outside in ("/files/../secret.txt", "/files/%2e%2e/secret.txt", "/files/link.txt",
                    "/files//etc/passwd", "/static/../viewer.py"):
        assert v.status(outside) in (403, 404), outside


def test_the_view_is_the_render_of_the_graph_nearest_the_focus_first(viewer, tmp_path):
    graph = graph_file(tmp_path)
    v = viewer(graph, one_cpu=True)

    async def conversation(page):
        assert page.state["rect"] == [0, 0, 600, 300]
        assert [n["id"] for n in page.state["nodes"]] == ["board", "grade", "soft"]
        assert "blur" in page.state["ops"]
        whole = await page.view([0, 0, 600, 300], focus=[590, 290])
        part = await page.view([100, 50, 400, 250])
        half = await page.view([0, 0, 600, 300], level=1)
        return whole, part, half

    (whole, tiles), (part, _), (half, _) = v.talk(conversation)
    want = rendered(graph, (0, 0, 600, 300))
    np.testing.assert_array_equal(whole, want)
    np.testing.assert_array_equal(part, want[50:250, 100:400])
    assert half.shape == (150, 300, 4) and not np.isnan(half).any()
    # The tile holding the focus (590, 290) came first.
    x0, y0, x1, y1 = tiles[0]
    assert x0 <= 590 < x1 and y0 <= 290 < y1, tiles


def test_an_edit_renders_again_and_saving_writes_it(viewer, tmp_path):
    graph = graph_file(tmp_path, gain=0.5)
    v = viewer(graph)
    area = [0, 0, 600, 300]

    async def conversation(page):
        before, _ = await page.view(area)
        first = page.finished
        await page.send(type="set", node="grade", param="gain", value=[0.25, 0.25, 0.25, 1])
        assert (await page.text("graph"))["edited"]
        after, _ = await page.view(area)
        edited = page.finished
        await page.send(type="set", node="grade", param="gain", value=[1e39, 0, 0, 1])
        refused = await page.text("error")
        await page.send(type="save")
        saved = await page.text("graph")
        return before, after, refused, saved, first, edited

    before, after, refused, saved, first, edited = v.talk(conversation)
    # Only the edited node and what reads it are rendered again: the
    # checkerboard's tiles come from the cache.
    assert first["cached"] == 0 and edited["cached"] > 0, (first, edited)
    # Three nodes with a tile each per output tile at first; at most the
    # gain's and the blur's after (fewer when the server's own render of
    # the edit, cancelled by the next view, left some in the cache).
    assert edited["rendered"] <= first["rendered"] * 2 // 3, (first, edited)
    np.testing.assert_allclose(after[..., :3], before[..., :3] / 2, rtol=1e-6, atol=1e-7)
    assert "gain" in refused["message"]
    assert not saved["edited"]
    written = json.loads(graph.read_text())
    assert written["nodes"][1]["params"]["gain"] == [0.25, 0.25, 0.25, 1]
    np.testing.assert_array_equal(rendered(graph, tuple(area)), after)


def test_any_node_can_be_looked_at_without_changing_the_file(viewer, tmp_path):
    graph = graph_file(tmp_path)
    v = viewer(graph)

    async def conversation(page):
        await page.send(type="look", node="board")
        looked = await page.text("graph")
        board, _ = await page.view([0, 0, 600, 300])
        await page.send(type="look", node="nowhere")
        refused = await page.text("error")
        await page.send(type="set", node="grade", param="gain", value=[0.2, 0.2, 0.2, 1])
        await page.text("graph")
        await page.send(type="save")
        await page.text("graph")
        await page.send(type="look", node=None)
        back = await page.text("graph")
        output, _ = await page.view([0, 0, 600, 300])
        return looked, board, refused, back, output

    looked, board, refused, back, output = v.talk(conversation)
    assert looked["looked_at"] == "board" and back["looked_at"] is None
    board_task = tessera.load_graph(str(graph), set={"output.node": '"board"'}).outputs[0].task
    np.testing.assert_array_equal(board, tessera.render(board_task, (0, 0, 600, 300), "RGBA"))
    assert "nowhere" in refused["message"]
    # Saved with the edit, and still showing the blur.
    written = json.loads(graph.read_text())
    assert written["outputs"] == [{"node": "soft"}]
    assert written["nodes"][1]["params"]["gain"] == [0.2, 0.2, 0.2, 1]
    np.testing.assert_array_equal(output, rendered(graph, (0, 0, 600, 300)))


def test_a_graph_changed_on_disk_is_shown_as_it_now_is(viewer, tmp_path):
    graph = graph_file(tmp_path, gain=0.5)
    v = viewer(graph)

    async def conversation(page):
        first, _ = await page.view([0, 0, 600, 300])
        time.sleep(0.05)  # a later modification time
        graph_file(tmp_path, gain=1.0)
        await page.text("graph")
        await page.text("render")
        again, _ = await page.view([0, 0, 600, 300])
        return first, again

    first, again = v.talk(conversation)
    np.testing.assert_allclose(again[..., :3], first[..., :3] * 2, rtol=1e-6, atol=1e-7)


def test_a_new_view_cancels_the_render_before_it(viewer, tmp_path):
    graph = tmp_path / "slow.json"
    graph.write_text(json.dumps({
        "nodes": [{"id": "noise", "op": "randomnoise", "params": {"area": [0, 0, 4096, 4096]}},
                  {"id": "soft", "op": "blur", "params": {"size": [400, 400]},
                   "inputs": {"input": "noise"}}],
        "outputs": [{"node": "soft"}]}))
    v = viewer(graph)

    async def conversation(page):
        await page.send(type="view", area=[0, 0, 4096, 4096], focus=[0, 0])
        slow = await page.text("render")
        small, _ = await page.view([0, 0, 64, 64])
        return slow, small

    slow, small = v.talk(conversation)
    assert small.shape == (64, 64, 4) and not np.isnan(small).any()


def test_any_channel_of_any_layer_is_shown_and_inspected_by_name(viewer, tmp_path):
    v = viewer(plate_graph(tmp_path))
    bounds = [-5, 0, 64, 48]

    async def conversation(page):
        diffuse, _ = await page.view(bounds, channels=["diffuse.R", "diffuse.G", "diffuse.B", ""])
        vectors, _ = await page.view(bounds, channels=["forward.v", "", "", ""])
        await page.send(type="inspect", point=[10, 20])
        pixel = await page.text("pixel")
        await page.send(type="view", area=bounds, channels=["diffuse.X", "", "", ""])
        refused = await page.text("error")
        return page.state, diffuse, vectors, pixel, refused

    state, diffuse, vectors, pixel, refused = v.talk(conversation)
    assert sorted(state["channels"]) == sorted(PLATE_CHANNELS)
    assert state["format"] == list(PLATE_DISPLAY) == state["rect"]
    assert state["data_window"] == list(PLATE_DATA)
    # The overscan left of the frame is shown too.
    assert state["bounds"] == bounds
    np.testing.assert_array_equal(
        diffuse[..., :3], plate_over(bounds, ["diffuse.R", "diffuse.G", "diffuse.B"]))
    np.testing.assert_array_equal(vectors[..., :1], plate_over(bounds, ["forward.v"]))
    # Slots the page leaves empty: 0, alpha 1.
    assert (diffuse[..., 3] == 1).all() and (vectors[..., 1:3] == 0).all()
    assert pixel["point"] == [10, 20]
    assert dict(pixel["channels"]) == {
        name: float(plate_over((10, 20, 11, 21), [name])[0, 0, 0]) for name in PLATE_CHANNELS}
    assert "diffuse.X" in refused["message"]


EXAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "examples")


@pytest.mark.parametrize("example", ["demo.json", "motion.json", "slate.json",
                                     "sequence/shot.json"])
def test_every_example_graph_opens_and_its_view_is_its_render(viewer, example):
    graph = os.path.realpath(os.path.join(EXAMPLES, example))
    v = viewer(graph)

    async def conversation(page):
        x0, y0, x1, y1 = page.state["rect"]
        cx, cy = (x0 + x1) // 2, (y0 + y1) // 2
        area = [cx - 48, cy - 32, cx + 48, cy + 32]
        picture, _ = await page.view(area)
        return page.state, area, picture

    state, area, picture = v.talk(conversation)
    assert state["nodes"] and not state["edited"]
    frame = {"frame": state["frame"]} if state["frames"] else {}
    task = tessera.load_graph(graph, **frame).outputs[0].task
    np.testing.assert_array_equal(picture, tessera.render(task, tuple(area), "RGBA"))


def browser():
    """Headless Chromium driven by Selenium, or a skip when they are absent."""
    webdriver = pytest.importorskip("selenium.webdriver")
    from selenium.webdriver.chrome.service import Service
    if not os.path.exists("/usr/bin/chromedriver"):
        pytest.skip("chromium-driver is not installed")
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu",
                 "--disable-dev-shm-usage", "--window-size=1200,800",
                 "--force-device-scale-factor=1"):
        options.add_argument(flag)
    # Not the sanitizer runtime a sanitized build's tests preload.
    env = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}
    service = Service(executable_path="/usr/bin/chromedriver", env=env)
    driver = webdriver.Chrome(service=service, options=options)
    driver.set_page_load_timeout(30)
    driver.set_script_timeout(30)
    return driver


def wait_for(driver, condition, seconds=30):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = driver.execute_script(condition)
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError(f"not true within {seconds} s: {condition}")


def shown(driver, area, zoom=1):
    """The canvas pixels over the image area, one per image pixel (the
    centre of each when zoomed in; the view must be at `zoom`)."""
    data = driver.execute_script("""
        const [x0, y0, x1, y1] = arguments[0];
        const c = document.getElementById('view');
        const x = x0 * view.zoom + view.panX, y = y0 * view.zoom + view.panY;
        const w = (x1 - x0) * view.zoom, h = (y1 - y0) * view.zoom;
        return [view.zoom, Array.from(c.getContext('2d').getImageData(x, y, w, h).data)];
    """, area)
    got_zoom, pixels = data
    assert got_zoom == zoom
    w, h = area[2] - area[0], area[3] - area[1]
    screen = np.array(pixels, np.uint8).reshape(round(h * zoom), round(w * zoom), 4)
    if zoom <= 1:
        return screen
    step = int(zoom)
    return screen[step // 2::step, step // 2::step]


def toned(pixels, exposure=0.0, gamma=2.2):
    """As the page tones floats to 8 bits."""
    return np.rint(255 * np.clip(pixels * 2.0 ** exposure, 0, 1) ** (1 / gamma))


def close_to(got, want):
    """8-bit pictures equal within the rounding of the browser's canvas."""
    assert got.shape == want.shape, (got.shape, want.shape)
    assert np.abs(got.astype(int) - want).max() <= 1

def test_the_page_draws_the_render_and_redraws_an_edit(viewer, tmp_path):
    graph = graph_file(tmp_path, gain=0.5)
    v = viewer(graph)
    driver = browser()
    try:
        driver.get(v.url)
        wait_for(driver, "return document.body.dataset.finished === 'success'")
        status = driver.find_element("id", "status").text
        assert "first tile" in status and "from the cache" in status, status
        # The page tones with exposure 0 and gamma 2.2, to 8 bits.
        want = rendered(graph, (0, 0, 600, 300))
        got = shown(driver, [0, 0, 600, 300])
        close_to(got[..., :3], toned(want[..., :3]))
        # A change in the panel renders again and the picture follows.
        before = int(driver.execute_script("return document.body.dataset.render"))
        driver.execute_script("""
            const row = document.querySelector('[data-node=grade][data-param=gain] input');
            row.value = '#404040';
            row.dispatchEvent(new Event('input'));
        """)
        wait_for(driver, f"return Number(document.body.dataset.render) > {before} && "
                         "document.body.dataset.finished === 'success'")
        edited = shown(driver, [0, 0, 600, 300])
        assert edited[..., :3].mean() < got[..., :3].mean()
        # The board under the gain came from the cache.
        status = driver.find_element("id", "status").text
        cached = int(re.search(r"(\d+) from the cache", status).group(1))
        assert cached > 0, status
        assert "Save" in driver.find_element("id", "save").text
        assert driver.find_element("id", "save").is_enabled()
        # Any node can be looked at: the checkerboard before the gain.
        edited_render = int(driver.execute_script("return document.body.dataset.render"))
        driver.execute_script("""
            const select = document.getElementById('node');
            select.value = 'board';
            select.dispatchEvent(new Event('change'));
        """)
        finished_after(driver, edited_render)
        board = tessera.load_graph(str(graph), set={"output.node": '"board"'}).outputs[0].task
        want = tessera.render(board, (0, 0, 600, 300), "RGBA")
        close_to(shown(driver, [0, 0, 600, 300])[..., :3], toned(want[..., :3]))
    finally:
        driver.quit()


def test_a_graph_the_engine_refuses_is_one_line_naming_the_file(cli, tmp_path):
    graph = tmp_path / "typo.json"
    graph.write_text(json.dumps({"nodes": [{"id": "a", "op": "blurx"}],
                                 "outputs": [{"node": "a"}]}))
    done = subprocess.run([cli, "view", str(graph)], capture_output=True, text=True, timeout=30)
    assert done.returncode == 2
    assert done.stderr.strip().splitlines() == [
        f"tessera view: {graph}: node 'a', field 'op': unknown operation 'blurx' "
        "(tessera ops lists them)"]


def test_a_view_render_is_cancelled_and_restarted_from_other_threads():
    """cancel and start wait for the render they replace; from threads other
    than the one taking the tiles they neither deadlock nor lose the end."""
    import threading
    slow = tessera.blur(tessera.randomnoise(area=[0, 0, 4096, 4096]), size=[300, 300])
    view = tessera._tessera.ViewRender()
    first = view.start(slow, (0, 0, 4096, 4096), 0.0, 0.0)
    done = []
    workers = [threading.Thread(target=view.cancel),
               threading.Thread(target=lambda: done.append(
                   view.start(slow, (0, 0, 64, 64), 0.0, 0.0)))]
    for w in workers:
        w.start()
    for w in workers:
        w.join(timeout=60)
        assert not w.is_alive(), "a blocking call from another thread did not return"
    ends = {}
    deadline = time.monotonic() + 60
    while done[0] not in ends and time.monotonic() < deadline:
        select.select([view.fileno()], [], [], 1)
        for event in view.take():
            if event[0] == "finished":
                ends[event[1]] = event[2]
    assert ends.get(first) == "cancelled", ends
    assert ends.get(done[0]) in ("success", "cancelled"), ends


def pointer(driver, *steps):
    """Real pointer input at viewport points: ("move", x, y), ("down",), ("up",)."""
    from selenium.webdriver.common.actions.action_builder import ActionBuilder
    actions = ActionBuilder(driver)
    for step in steps:
        if step[0] == "move":
            actions.pointer_action.move_to_location(int(step[1]), int(step[2]))
        elif step[0] == "down":
            actions.pointer_action.pointer_down()
        else:
            actions.pointer_action.pointer_up()
    actions.perform()


def finished_after(driver, render):
    """Waits for a render after `render` to finish; returns its number."""
    wait_for(driver, f"return Number(document.body.dataset.render) > {render} && "
                     "document.body.dataset.finished === 'success'")
    return int(driver.execute_script("return document.body.dataset.render"))


def test_the_page_offers_each_layer_draws_both_windows_and_inspects_every_channel(
        viewer, tmp_path):
    v = viewer(plate_graph(tmp_path))
    driver = browser()
    try:
        driver.get(v.url)
        first = finished_after(driver, 0)
        labels = driver.execute_script(
            "return Array.from(document.getElementById('channel').options, o => o.text)")
        assert {"RGBA: colour", "RGBA: luminance", "diffuse: colour", "diffuse: luminance",
                "forward: forward.u, forward.v"} | set(PLATE_CHANNELS) == set(labels), labels
        driver.execute_script("""
            const select = document.getElementById('channel');
            select.value = Array.from(select.options).find(o => o.text === arguments[0]).value;
            select.dispatchEvent(new Event('change'));
        """, "diffuse: colour")
        finished_after(driver, first)
        zoom = driver.execute_script("return view.zoom")
        bounds = [-5, 0, 64, 48]
        want = plate_over(bounds, ["diffuse.R", "diffuse.G", "diffuse.B"])
        close_to(shown(driver, bounds, zoom)[..., :3], toned(want))

        # The display window solid, the data window dashed, in their colours.
        display, data = driver.execute_script("""
            const c = document.getElementById('view').getContext('2d');
            const sx = (x) => x * view.zoom + view.panX, sy = (y) => y * view.zoom + view.panY;
            const column = (x) => Array.from(c.getImageData(sx(x) - 1, sy(10), 1, sy(40) - sy(10)).data);
            return [column(0), column(-5)];
        """)
        display = np.array(display).reshape(-1, 4)[:, :3]
        data = np.array(data).reshape(-1, 4)[:, :3]
        assert (display == [0xe8, 0xa3, 0x3d]).all()
        dashed = (data == [0x4f, 0xb3, 0xd9]).all(axis=1)
        assert 0.3 < dashed.mean() < 0.9, dashed.mean()

        # Every channel of the plate under the cursor, at full size.
        x, y = driver.execute_script(
            "return [10.5 * view.zoom + view.panX, 20.5 * view.zoom + view.panY]")
        pointer(driver, ("move", x, y))
        wait_for(driver, "return document.getElementById('pixel').rows.length === 9")
        rows = driver.execute_script("""return Array.from(document.getElementById('pixel').rows,
                                                           r => [r.cells[0].textContent, r.cells[1].textContent])""")
        want = {name: plate_over((10, 20, 11, 21), [name])[0, 0, 0] for name in PLATE_CHANNELS}
        assert {name: float(value) for name, value in rows} == pytest.approx(want, rel=1e-4)
        assert driver.find_element("id", "inspector").text == "(10, 20)"
    finally:
        driver.quit()


def test_panning_cancels_the_render_no_longer_seen_and_draws_only_the_new_one(viewer, tmp_path):
    # A slow patch at the left of a wide, cheap board.
    graph = tmp_path / "wide.json"
    graph.write_text(json.dumps({
        "nodes": [
            {"id": "noise", "op": "randomnoise", "params": {"area": [0, 0, 600, 600]}},
            {"id": "slow", "op": "bilateral", "params": {"radius": [20, 20]},
             "inputs": {"input": "noise"}},
            {"id": "board", "op": "checkerboard", "params": {"size": 32, "area": [0, 0, 4096, 1024]}},
            {"id": "comp", "op": "composite", "inputs": {"a": "slow", "b": "board"}}],
        "outputs": [{"node": "comp", "rect": [0, 0, 4096, 1024]}]}))
    v = viewer(graph)
    driver = browser()
    try:
        driver.get(v.url)
        wait_for(driver, "return render !== null")
        # Full size at the slow patch: the fitted view's render is cancelled.
        driver.execute_script(
            "view.zoom = 1; view.panX = 0; view.panY = 0; draw(); requestView();")
        wait_for(driver, "return render.level === 0")
        slow = driver.execute_script("return {number: render.number, cancelled: render.cancelled}")
        pointer(driver, ("move", 820, 400), ("down",), ("move", 20, 380), ("up",))
        finished_after(driver, slow["number"])
        state = driver.execute_script("""return {
            cancelled: render.cancelled, panX: view.panX, panY: view.panY,
            rect: render.rect, previous: render.previous,
            inside: render.tiles.every(t => t.x >= render.rect[0] && t.y >= render.rect[1] &&
                                            t.x + t.w <= render.rect[2] && t.y + t.h <= render.rect[3])}""")
        # The engine ended the slow render cancelled.
        assert state["cancelled"] > slow["cancelled"], (slow, state)
        assert state["inside"] and state["previous"] is None, state
        assert (state["panX"], state["panY"]) == (-800, -20), state
        assert state["rect"][0] >= 700, state  # the slow patch is out of sight
        # What is drawn is the graph there, with nothing of the render before.
        x0 = state["rect"][0] + 8
        area = [x0, 100, x0 + 400, 300]
        want = rendered(graph, tuple(area))
        close_to(shown(driver, area)[..., :3], toned(want[..., :3]))
    finally:
        driver.quit()


def test_zooming_out_shows_the_proxy(viewer, tmp_path):
    graph = graph_file(tmp_path)
    v = viewer(graph)
    driver = browser()
    try:
        from selenium.webdriver.common.action_chains import ActionChains
        from selenium.webdriver.common.actions.wheel_input import ScrollOrigin
        driver.get(v.url)
        first = finished_after(driver, 0)
        # Zoomed about a point an even number of pixels from the corner: the
        # image stays on whole screen pixels.
        x, y = driver.execute_script("return [view.panX + 300, view.panY + 150]")
        ActionChains(driver).scroll_from_origin(ScrollOrigin.from_viewport(x, y), 0, 100).perform()
        finished_after(driver, first)
        assert driver.execute_script("return render.level") == 1
        task = tessera.load_graph(str(graph)).outputs[0].task
        proxy = tessera._tessera._create("proxy", "proxy", json.dumps({"level": 1}),
                                         {"input": task})
        want = tessera.render(proxy, (0, 0, 300, 150), "RGBA")
        close_to(shown(driver, [0, 0, 600, 300], zoom=0.5)[..., :3], toned(want[..., :3]))
    finally:
        driver.quit()


def shot_file(folder):
    """Three frames of a board under a gain keyed from 0.25 to 0.75."""
    graph = folder / "shot.json"
    graph.write_text(json.dumps({
        "frames": "1-3",
        "nodes": [
            {"id": "board", "op": "checkerboard", "params": {"size": 16, "area": [0, 0, 200, 100]}},
            {"id": "grade", "op": "gain", "inputs": {"input": "board"},
             "params": {"gain": [{"frame": 1, "value": [0.25, 0.25, 0.25, 1]},
                                 {"frame": 3, "value": [0.75, 0.75, 0.75, 1]}]}}],
        "outputs": [{"node": "grade"}]}))
    return graph


def test_frames_limits_the_frames_offered(viewer, cli, tmp_path):
    graph = shot_file(tmp_path)
    v = viewer(graph, "--frames", "2-3")

    async def conversation(page):
        return page.state

    state = v.talk(conversation)
    assert state["frames"] == [2, 3] and state["frame"] == 2
    done = subprocess.run([cli, "view", str(graph), "--frames", "3-x"], capture_output=True,
                          text=True, timeout=30)
    assert done.returncode == 2
    assert len(done.stderr.strip().splitlines()) == 1
    assert done.stderr.startswith("tessera view: --frames: "), done.stderr


def test_the_frame_slider_shows_each_frame(viewer, tmp_path):
    graph = shot_file(tmp_path)
    v = viewer(graph)
    driver = browser()
    try:
        driver.get(v.url)
        first = finished_after(driver, 0)
        assert driver.find_element("id", "framenumber").text == "1"
        shots = {}
        for index, frame in ((2, 3), (1, 2)):
            driver.execute_script("""
                const slider = document.getElementById('frame');
                slider.value = arguments[0];
                slider.dispatchEvent(new Event('input'));
            """, index)
            first = finished_after(driver, first)
            wait_for(driver, f"return document.getElementById('framenumber').textContent === '{frame}'")
            task = tessera.load_graph(str(graph), frame=frame).outputs[0].task
            want = tessera.render(task, (0, 0, 200, 100), "RGBA")
            shots[frame] = shown(driver, [0, 0, 200, 100], driver.execute_script("return view.zoom"))
            close_to(shots[frame][..., :3], toned(want[..., :3]))
        assert shots[3][..., :3].mean() > shots[2][..., :3].mean()
    finally:
        driver.quit()

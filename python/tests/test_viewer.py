"""`tessera view`: the server the browser talks to, driven as the page drives
it (HTTP and the WebSocket), through the command itself."""
import asyncio
import json
import os
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

    def __init__(self, cli, graph):
        self.process = subprocess.Popen([cli, "view", str(graph)], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
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

    async def view(self, area, level=0, focus=None):
        """Asks for area and gathers the render: (picture, tiles in order);
        `finished` keeps the render's end."""
        focus = focus or [(area[0] + area[2]) / 2, (area[1] + area[3]) / 2]
        self.requests += 1
        await self.send(type="view", area=area, level=level, focus=focus, request=self.requests)
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


@pytest.fixture
def viewer(cli, tmp_path):
    started = []

    def start(graph):
        started.append(Viewer(cli, graph))
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
    v = viewer(graph)

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


def shown(driver, area):
    """The canvas pixels over the image area (image pixels at zoom 1)."""
    data = driver.execute_script("""
        const [x0, y0, x1, y1] = arguments[0];
        const c = document.getElementById('view');
        const x = x0 * view.zoom + view.panX, y = y0 * view.zoom + view.panY;
        return [view.zoom, Array.from(c.getContext('2d').getImageData(x, y, x1 - x0, y1 - y0).data)];
    """, area)
    zoom, pixels = data
    assert zoom == 1
    return np.array(pixels, np.uint8).reshape(area[3] - area[1], area[2] - area[0], 4)


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
        toned = np.rint(255 * np.clip(want[..., :3], 0, 1) ** (1 / 2.2))
        got = shown(driver, [0, 0, 600, 300])
        assert np.abs(got[..., :3].astype(int) - toned).max() <= 1
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
        assert "Save" in driver.find_element("id", "save").text
        assert driver.find_element("id", "save").is_enabled()
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

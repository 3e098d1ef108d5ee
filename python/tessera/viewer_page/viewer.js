// The page of `tessera view`: draws tiles as they arrive, asks for what the
// view shows (the tiles under the cursor first), and edits the graph.
"use strict";

const token = new URLSearchParams(location.search).get("token");
const canvas = document.getElementById("view");
const context = canvas.getContext("2d");
const $ = (id) => document.getElementById(id);

// The view: image pixel (x, y) appears at canvas (x * zoom + panX, y * zoom + panY).
const view = { zoom: 1, panX: 0, panY: 0 };
let graph = null;        // the server's last description of the graph
let ops = {};            // operation -> declared parameters
let render = null;       // {number, level, rect, layer, tiles, started, firstTile, count}
let cursor = null;       // image pixel under the cursor
const stats = { renders: 0 };

const socket = new WebSocket(
  `ws://${location.host}/socket?token=${encodeURIComponent(token)}`);
socket.binaryType = "arraybuffer";
socket.onmessage = (message) => {
  if (message.data instanceof ArrayBuffer) return tileArrived(message.data);
  const event = JSON.parse(message.data);
  if (event.type === "graph") graphArrived(event);
  else if (event.type === "render") renderStarted(event);
  else if (event.type === "finished") renderFinished(event);
  else if (event.type === "error") $("error").textContent = event.message;
};
socket.onclose = () => { $("status").textContent = "the server has stopped"; };
const send = (message) => socket.send(JSON.stringify(message));

// ---- What the view shows ----

function level() {
  // Proxy levels for zoomed-out views: one full-size pixel per screen pixel or fewer.
  return Math.max(0, Math.min(3, Math.floor(-Math.log2(view.zoom) + 1e-9)));
}

function visibleArea() {
  const [x0, y0, x1, y1] = graph.rect;
  const left = Math.floor(-view.panX / view.zoom), top = Math.floor(-view.panY / view.zoom);
  const right = Math.ceil((canvas.width - view.panX) / view.zoom);
  const bottom = Math.ceil((canvas.height - view.panY) / view.zoom);
  return [Math.max(x0, left), Math.max(y0, top), Math.min(x1, right), Math.min(y1, bottom)];
}

let viewTimer = null;
function requestView() {
  // Panning and zooming ask once they pause: the render before is cancelled.
  clearTimeout(viewTimer);
  viewTimer = setTimeout(() => {
    const area = visibleArea();
    if (area[2] <= area[0] || area[3] <= area[1]) return;
    const focus = cursor || [(area[0] + area[2]) / 2, (area[1] + area[3]) / 2];
    send({ type: "view", area, level: level(), focus });
  }, 60);
}

// The server's render for the view: its tiles are drawn in a layer of
// their own, over the render before until they cover it.
function renderStarted(event) {
  const layer = document.createElement("canvas");
  layer.width = event.rect[2] - event.rect[0];
  layer.height = event.rect[3] - event.rect[1];
  const previous = render && (render.finished !== undefined ? render : render.previous);
  render = { number: event.render, level: event.level, rect: event.rect, layer, tiles: [],
             started: performance.now(), firstTile: null, count: 0, previous };
  showStatus();
}

function fit() {
  const [x0, y0, x1, y1] = graph.rect;
  const w = x1 - x0, h = y1 - y0;
  view.zoom = Math.pow(2, Math.floor(Math.log2(Math.min(canvas.width / w, canvas.height / h))));
  // Whole screen pixels: at zoom 1 an image pixel is a screen pixel.
  view.panX = Math.round((canvas.width - w * view.zoom) / 2 - x0 * view.zoom);
  view.panY = Math.round((canvas.height - h * view.zoom) / 2 - y0 * view.zoom);
}

// ---- Tiles ----

function tileArrived(buffer) {
  const header = new Int32Array(buffer, 0, 6);
  const [number, x, y, w, h, lv] = header;
  if (!render || number !== render.number) return;  // a render the view no longer shows
  const pixels = new Float32Array(buffer, 24, w * h * 4);
  const tile = { x, y, w, h, pixels };
  render.tiles.push(tile);
  render.count += 1;
  if (render.firstTile === null) render.firstTile = performance.now() - render.started;
  tone(tile);
  draw();
  showStatus();
}

function tone(tile) {
  const exposure = Math.pow(2, parseFloat($("exposure").value));
  const gamma = 1 / parseFloat($("gamma").value);
  const channel = $("channel").value;
  const image = new ImageData(tile.w, tile.h);
  const p = tile.pixels, out = image.data;
  const to8 = (v) => 255 * Math.pow(Math.min(1, Math.max(0, v * exposure)), gamma);
  for (let i = 0; i < tile.w * tile.h; i++) {
    let r = p[4 * i], g = p[4 * i + 1], b = p[4 * i + 2];
    const a = p[4 * i + 3];
    if (channel === "r") g = b = r;
    else if (channel === "g") r = b = g;
    else if (channel === "b") r = g = b;
    else if (channel === "a") r = g = b = a;
    else if (channel === "luminance") r = g = b = 0.2126 * r + 0.7152 * g + 0.0722 * b;
    out[4 * i] = to8(r);
    out[4 * i + 1] = to8(g);
    out[4 * i + 2] = to8(b);
    out[4 * i + 3] = 255;
  }
  render.layer.getContext("2d").putImageData(image, tile.x - render.rect[0], tile.y - render.rect[1]);
}

function retone() {
  if (!render) return;
  for (const tile of render.tiles) tone(tile);
  draw();
}

function draw() {
  context.setTransform(1, 0, 0, 1, 0, 0);
  context.clearRect(0, 0, canvas.width, canvas.height);
  if (!graph) return;
  context.imageSmoothingEnabled = false;
  // The render before stays under the new one until its tiles cover it.
  for (const r of [render && render.previous, render]) {
    if (!r) continue;
    const scale = (1 << r.level) * view.zoom;
    context.setTransform(scale, 0, 0, scale, view.panX, view.panY);
    context.drawImage(r.layer, r.rect[0], r.rect[1]);
  }
  // The output's area.
  context.setTransform(1, 0, 0, 1, 0, 0);
  const [x0, y0, x1, y1] = graph.rect;
  context.strokeStyle = "#e8a33d";
  context.strokeRect(x0 * view.zoom + view.panX - 0.5, y0 * view.zoom + view.panY - 0.5,
                     (x1 - x0) * view.zoom + 1, (y1 - y0) * view.zoom + 1);
}

function renderFinished(event) {
  if (!render || event.render !== render.number) return;
  render.finished = performance.now() - render.started;
  render.status = event.status;
  render.rendered = event.rendered;
  render.cached = event.cached;
  render.previous = null;
  showStatus();
}

function showStatus() {
  if (!render) return;
  const parts = [`render ${render.number}: ${render.count} tiles`, `level ${render.level}`];
  if (render.firstTile !== null) parts.push(`first tile ${render.firstTile.toFixed(0)} ms`);
  if (render.finished !== undefined)
    parts.push(`${render.status} in ${render.finished.toFixed(0)} ms`,
               `${render.rendered} tiles rendered, ${render.cached} from the cache`);
  $("status").textContent = parts.join(" · ");
  document.body.dataset.render = render.number;
  document.body.dataset.finished = render.status || "";
}

// The value of every channel under the cursor, from the tiles received.
function inspect() {
  if (!render || !cursor) return;
  const scale = 1 << render.level;
  const px = Math.floor(cursor[0] / scale), py = Math.floor(cursor[1] / scale);
  for (const t of render.tiles) {
    if (px < t.x || py < t.y || px >= t.x + t.w || py >= t.y + t.h) continue;
    const i = 4 * ((py - t.y) * t.w + (px - t.x));
    const v = Array.from(t.pixels.slice(i, i + 4), (x) => x.toPrecision(4));
    $("inspector").textContent = `(${cursor[0]}, ${cursor[1]}) R ${v[0]} G ${v[1]} B ${v[2]} A ${v[3]}`;
    return;
  }
  $("inspector").textContent = `(${cursor[0]}, ${cursor[1]})`;
}

// ---- The panel, made from the operations' declarations ----

function graphArrived(event) {
  const first = graph === null;
  if (event.ops) ops = event.ops;
  graph = event;
  $("file").textContent = event.path;
  $("save").disabled = !event.edited;
  $("error").textContent = "";
  if (event.frames.length > 1) {
    $("framebox").hidden = false;
    $("frame").min = 0;
    $("frame").max = event.frames.length - 1;
    $("frame").value = event.frames.indexOf(event.frame);
    $("framenumber").textContent = event.frame;
  }
  if (!event.edit) buildPanel();
  if (first) {
    resize();
    fit();
    requestView();
  }
}

function buildPanel() {
  const nodes = $("nodes");
  nodes.textContent = "";
  for (const node of graph.nodes) {
    const set = document.createElement("fieldset");
    const legend = document.createElement("legend");
    legend.textContent = `${node.id} (${node.op})`;
    set.appendChild(legend);
    for (const param of ops[node.op] || []) set.appendChild(control(node, param));
    nodes.appendChild(set);
  }
}

function control(node, param) {
  const row = document.createElement("label");
  row.className = "param";
  row.title = param.meaning;
  row.dataset.node = node.id;
  row.dataset.param = param.name;
  const name = document.createElement("span");
  name.textContent = param.name;
  row.appendChild(name);
  const value = node.params[param.name];
  const change = (v) => send({ type: "set", node: node.id, param: param.name, value: v });
  let input;
  if (param.choices.length) {
    input = document.createElement("select");
    for (const choice of param.choices) input.add(new Option(choice, choice));
    if (value !== undefined) input.value = value;
    input.onchange = () => change(input.value);
  } else if (param.type === "bool") {
    input = document.createElement("input");
    input.type = "checkbox";
    input.checked = value === true;
    input.onchange = () => change(input.checked);
  } else if ((param.type === "number" || param.type === "integer") && param.low !== undefined &&
             isFinite(param.low) && isFinite(param.high) && param.high - param.low <= 1e4) {
    input = document.createElement("input");
    input.type = "range";
    input.min = param.low;
    input.max = param.high;
    input.step = param.type === "integer" ? 1 : (param.high - param.low) / 1000;
    if (value !== undefined) input.value = value;
    input.oninput = () => change(Number(input.value));
  } else if ((param.type === "[r, g, b, a]" || param.type === "[r, g, b]") &&
             Array.isArray(value) && value.slice(0, 3).every((c) => c >= 0 && c <= 1)) {
    input = document.createElement("input");
    input.type = "color";
    const hex = (c) => Math.round(c * 255).toString(16).padStart(2, "0");
    input.value = "#" + value.slice(0, 3).map(hex).join("");
    input.oninput = () => {
      const rgb = [1, 3, 5].map((i) => parseInt(input.value.slice(i, i + 2), 16) / 255);
      change(value.length === 4 ? [...rgb, value[3]] : rgb);
    };
  } else {
    input = document.createElement("input");
    input.type = "text";
    input.value = value === undefined ? "" : JSON.stringify(value);
    input.placeholder = param.type;
    input.onchange = () => {
      try {
        change(JSON.parse(input.value));
      } catch (e) {
        change(input.value);
      }
    };
  }
  row.appendChild(input);
  return row;
}

// ---- Input ----

function resize() {
  canvas.width = canvas.clientWidth;
  canvas.height = canvas.clientHeight;
}

window.addEventListener("resize", () => { resize(); draw(); if (graph) requestView(); });

let drag = null, focusTimer = null;
canvas.addEventListener("mousedown", (e) => { drag = [e.offsetX, e.offsetY]; });
window.addEventListener("mouseup", () => { drag = null; });
canvas.addEventListener("mousemove", (e) => {
  cursor = [Math.floor((e.offsetX - view.panX) / view.zoom),
            Math.floor((e.offsetY - view.panY) / view.zoom)];
  inspect();
  if (drag) {
    view.panX += e.offsetX - drag[0];
    view.panY += e.offsetY - drag[1];
    drag = [e.offsetX, e.offsetY];
    draw();
    requestView();
    return;
  }
  // The tiles under the cursor first.
  clearTimeout(focusTimer);
  focusTimer = setTimeout(() => send({ type: "focus", point: cursor }), 30);
});
canvas.addEventListener("wheel", (e) => {
  e.preventDefault();
  const factor = e.deltaY < 0 ? 2 : 0.5;
  const zoom = Math.min(16, Math.max(1 / 16, view.zoom * factor));
  const f = zoom / view.zoom;
  view.panX = e.offsetX - (e.offsetX - view.panX) * f;
  view.panY = e.offsetY - (e.offsetY - view.panY) * f;
  view.zoom = zoom;
  draw();
  requestView();
}, { passive: false });

for (const id of ["exposure", "gamma", "channel"]) $(id).addEventListener("input", retone);
$("save").onclick = () => send({ type: "save" });
$("frame").oninput = () => send({ type: "frame", frame: graph.frames[Number($("frame").value)] });

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
let shown = { channels: [], mode: "rgb" };  // the channels rendered, and how they are toned
const stats = { stale: 0 };  // tiles of renders no longer shown, dropped

const socket = new WebSocket(
  `ws://${location.host}/socket?token=${encodeURIComponent(token)}`);
socket.binaryType = "arraybuffer";
socket.onmessage = (message) => {
  if (message.data instanceof ArrayBuffer) return tileArrived(message.data);
  const event = JSON.parse(message.data);
  if (event.type === "graph") graphArrived(event);
  else if (event.type === "render") renderStarted(event);
  else if (event.type === "finished") renderFinished(event);
  else if (event.type === "pixel") pixelArrived(event);
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
  const [x0, y0, x1, y1] = graph.bounds;
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
    send({ type: "view", area, level: level(), focus, channels: shown.channels });
  }, 60);
}

// The server's render for the view: its tiles are drawn in a layer of
// their own, over the render before until they cover it.
function renderStarted(event) {
  const layer = document.createElement("canvas");
  layer.width = event.rect[2] - event.rect[0];
  layer.height = event.rect[3] - event.rect[1];
  const previous = render && (render.finished !== undefined ? render : render.previous);
  // The channels its tiles hold (none named: R, G, B, A).
  const channels = event.channels.length ? event.channels : ["R", "G", "B", "A"];
  render = { number: event.render, level: event.level, rect: event.rect, layer, tiles: [], channels,
             cancelled: event.cancelled,
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
  if (!render || number !== render.number) {  // a render the view no longer shows
    stats.stale += 1;
    return;
  }
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
  const mode = shown.mode;
  const image = new ImageData(tile.w, tile.h);
  const p = tile.pixels, out = image.data;
  const to8 = (v) => 255 * Math.pow(Math.min(1, Math.max(0, v * exposure)), gamma);
  for (let i = 0; i < tile.w * tile.h; i++) {
    let r = p[4 * i], g = p[4 * i + 1], b = p[4 * i + 2];
    if (mode === "grey") g = b = r;
    else if (mode === "luminance") r = g = b = 0.2126 * r + 0.7152 * g + 0.0722 * b;
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
  // The display window (the frame the picture fills), and the data window
  // where it differs: the pixels the output has outside its frame or the
  // part of the frame it leaves empty.
  context.setTransform(1, 0, 0, 1, 0, 0);
  outline(graph.format, "#e8a33d", []);
  if (graph.data_window.some((v, i) => v !== graph.format[i]))
    outline(graph.data_window, "#4fb3d9", [6, 4]);
}

function outline(rect, colour, dash) {
  // Clamped: a generator's data window may be far larger than the canvas.
  const clamp = (v, size) => Math.max(-10, Math.min(size + 10, v));
  const x0 = clamp(rect[0] * view.zoom + view.panX, canvas.width) - 0.5;
  const y0 = clamp(rect[1] * view.zoom + view.panY, canvas.height) - 0.5;
  const x1 = clamp(rect[2] * view.zoom + view.panX, canvas.width) + 0.5;
  const y1 = clamp(rect[3] * view.zoom + view.panY, canvas.height) + 0.5;
  context.setLineDash(dash);
  context.strokeStyle = colour;
  context.strokeRect(x0, y0, x1 - x0, y1 - y0);
  context.setLineDash([]);
}

function renderFinished(event) {
  if (!render || event.render !== render.number) return;
  render.finished = performance.now() - render.started;
  render.status = event.status;
  render.rendered = event.rendered;
  render.cached = event.cached;
  render.cancelled = event.cancelled;
  render.previous = null;
  showStatus();
}

function showStatus() {
  if (!render) return;
  const parts = [`render ${render.number}: ${render.count} tiles`, `level ${render.level}`];
  if (render.firstTile !== null) parts.push(`first tile ${render.firstTile.toFixed(0)} ms`);
  if (render.finished !== undefined)
    parts.push(`${render.status} in ${render.finished.toFixed(0)} ms`,
               `${render.rendered} tiles rendered, ${render.cached} from the cache`,
               `${render.cancelled} renders cancelled, ${stats.stale} late tiles dropped`);
  $("status").textContent = parts.join(" · ");
  document.body.dataset.render = render.number;
  document.body.dataset.finished = render.status || "";
  document.body.dataset.cancelled = render.cancelled || 0;
  document.body.dataset.stale = stats.stale;
}

// The pixel inspector: the shown channels under the cursor at once, from
// the tiles received, then every channel of the output at full size, as
// the server renders that pixel.
function inspect() {
  if (!render || !cursor) return;
  const scale = 1 << render.level;
  const px = Math.floor(cursor[0] / scale), py = Math.floor(cursor[1] / scale);
  const rows = [];
  for (const t of render.tiles) {
    if (px < t.x || py < t.y || px >= t.x + t.w || py >= t.y + t.h) continue;
    const i = 4 * ((py - t.y) * t.w + (px - t.x));
    render.channels.forEach((name, c) => { if (name) rows.push([name, t.pixels[i + c]]); });
    break;
  }
  showPixel(cursor, rows);
}

function pixelArrived(event) {
  if (cursor && event.point[0] === cursor[0] && event.point[1] === cursor[1])
    showPixel(event.point, event.channels);
}

function showPixel(point, rows) {
  $("inspector").textContent = `(${point[0]}, ${point[1]})`;
  const table = $("pixel");
  table.textContent = "";
  for (const [name, value] of rows) {
    const row = table.insertRow();
    row.insertCell().textContent = name;
    row.insertCell().textContent = value.toPrecision(5);
  }
}

// ---- Channels and layers ----

// The choices of what to show, from the output's channel names: each layer
// with red, green and blue channels in colour and as luminance, a layer of
// other channels (forward.u, forward.v) as colour, and every channel alone.
function channelChoices(names) {
  const layers = new Map();
  for (const name of names) {
    const dot = name.lastIndexOf(".");
    const layer = dot < 0 ? "" : name.slice(0, dot);
    if (!layers.has(layer)) layers.set(layer, []);
    layers.get(layer).push(name);
  }
  const choices = [];
  for (const [layer, members] of layers) {
    const find = (suffix) => members.find((n) => n.slice(n.lastIndexOf(".") + 1).toUpperCase() === suffix);
    const [r, g, b, a] = ["R", "G", "B", "A"].map(find);
    const label = layer || "RGBA";
    if (r && g && b) {
      const slots = [r, g, b, a || ""];
      choices.push({ label: `${label}: colour`, channels: slots, mode: "rgb" });
      choices.push({ label: `${label}: luminance`, channels: slots, mode: "luminance" });
    } else if (members.length > 1) {
      const slots = [0, 1, 2].map((i) => members[i] || "").concat([""]);
      choices.push({ label: `${label}: ${members.slice(0, 3).join(", ")}`, channels: slots, mode: "rgb" });
    }
    for (const name of members) choices.push({ label: name, channels: [name, "", "", ""], mode: "grey" });
  }
  return choices;
}

function buildChannelChoice() {
  const select = $("channel");
  const before = select.value;
  select.textContent = "";
  for (const choice of channelChoices(graph.channels)) {
    const option = new Option(choice.label, JSON.stringify({ channels: choice.channels, mode: choice.mode }));
    select.add(option);
  }
  if ([...select.options].some((o) => o.value === before)) select.value = before;
  // A graph that no longer has the channels shown (reloaded from disk)
  // shows its first choice.
  if (select.value && select.value !== before && before) chooseChannels();
  else if (select.value) shown = JSON.parse(select.value);
}

function chooseChannels() {
  const next = JSON.parse($("channel").value);
  const same = JSON.stringify(next.channels) === JSON.stringify(shown.channels);
  shown = next;
  if (same) retone();
  else requestView();
  inspect();
}

// ---- The panel, made from the operations' declarations ----

function graphArrived(event) {
  const first = graph === null;
  const moved = !first && JSON.stringify(graph.bounds) !== JSON.stringify(event.bounds);
  if (event.ops) ops = event.ops;
  graph = event;
  buildNodeChoice();
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
  buildChannelChoice();
  if (first) {
    resize();
    fit();
  }
  // The server renders the view again itself, unless its area changed.
  if (first || moved) requestView();
}

// The node shown: the first output's, or any other to look at.
function buildNodeChoice() {
  const select = $("node");
  const ids = ["", ...graph.nodes.map((n) => n.id)];
  if ([...select.options].map((o) => o.value).join("\n") !== ids.join("\n")) {
    select.textContent = "";
    for (const id of ids) select.add(new Option(id || "(the output)", id));
  }
  select.value = graph.looked_at || "";
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
  focusTimer = setTimeout(() => {
    send({ type: "focus", point: cursor });
    send({ type: "inspect", point: cursor });
  }, 30);
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

for (const id of ["exposure", "gamma"]) $(id).addEventListener("input", retone);
$("channel").addEventListener("change", chooseChannels);
$("save").onclick = () => send({ type: "save" });
$("node").onchange = () => send({ type: "look", node: $("node").value || null });
$("frame").oninput = () => send({ type: "frame", frame: graph.frames[Number($("frame").value)] });

// The viewer's page: connects the stream and the API to the panels. Frames are decoded
// by a worker; each panel in sight draws the newest decoded frame once per animation
// frame (older undrawn ones are skipped and counted); a panel that fails shows its
// error and the others go on.
import * as api from './net/api.js';
import { FrameStream } from './net/stream.js';
import { describePoint } from './geometry.js';
import { colourBarTexture, gpuSurface, raysTexture } from './gpu.js';
import { DepthPanel } from './panels/depth.js';
import { IrPanel } from './panels/ir.js';
import { ColourPanel } from './panels/colour.js';
import { RegisteredPanel } from './panels/registered.js';
import { CloudPanel } from './panels/cloud.js';
import { StatsPanel } from './panels/stats.js';
import { ControlsPanel } from './panels/controls.js';
import { PlaybackPanel } from './panels/playback.js';
import { RecordPanel } from './panels/record.js';
import { NoisePanel } from './panels/noise.js';
import { ValidityPanel } from './panels/validity.js';
import { RoiPanel } from './panels/roi.js';
import { AbPanel } from './panels/ab.js';

// What the panels share: the newest frame, the colour bar, the settings, the rays (as
// arrays for the read-outs and as textures for the shaders).
const view = {
  frame: null,
  colors: null,
  colourBar: null,
  settings: null,
  depthRays: null,
  colourRays: null,
  depthRaysTexture: null,
  colourRaysTexture: null,
  range() {
    return this.settings?.range || [0, 65535];
  },
  depthAt(u, v) {
    const depth = this.frame?.images.depth;
    return depth ? describePoint(this.depthRays, depth, u, v) : null;
  },
  registeredAt(u, v) {
    const reg = this.frame?.images.registered;
    return reg ? describePoint(this.colourRays, reg, u, v) : null;
  },
};

const side = document.getElementById('side');
const grid = document.getElementById('panels');
const connection = document.getElementById('connection');
const sourceName = document.getElementById('source-name');

const controls = new ControlsPanel(side, {
  onSettings: (s) => {
    view.settings = s;
    if (view.colors) depth.legend(view.colors, s.range);
    ab.show(s);
  },
  onDecimate: (f) => stream.setOptions({ decimate: f }),
});
const playback = new PlaybackPanel(side);
const record = new RecordPanel(side);
const stats = new StatsPanel(side);

const depth = new DepthPanel(grid, view);
const ir = new IrPanel(grid, view);
const colour = new ColourPanel(grid, view);
const registered = new RegisteredPanel(grid, view);
const cloud = new CloudPanel(grid, view);
const noise = new NoisePanel(grid, view, { onWindow: (frames) => stream.setDecoding({ noiseFrames: frames }) });
const validity = new ValidityPanel(grid, view);
const roi = new RoiPanel(grid, depth);
const ab = new AbPanel(grid, view, { onSettings: (s) => controls.show(s) });
// The cloud and the overlay upload the pictures before the picture panels take them.
const framePanels = [cloud, registered, depth, ir, colour, noise, validity, roi, ab];

// The blobs each frame panel draws from (besides depth, which every frame brings: the
// read-outs, the cloud, the validity and noise maps and the region read it).
function needs(panel) {
  if (panel === depth) return [];
  if (panel === ir) return ['ir'];
  if (panel === colour) return ['colour'];
  if (panel === registered) return ['registered', 'colour'];
  if (panel === cloud) return { ir: ['ir'], colour: ['registered', 'colour'] }[cloud.mode.value] || [];
  if (panel === ab) return ['depth_b'];
  return [];
}
// What the panels in sight draw: the server sends only these blobs, and the worker
// decodes only these (and the noise window only while its panel is in sight).
function decoding() {
  const blobs = new Set(['depth']);
  for (const panel of framePanels) if (panel.visible) for (const b of needs(panel)) blobs.add(b);
  return { blobs: [...blobs], noise: noise.visible, validity: validity.visible, drawn: { colour: colourWidth() } };
}
// The colour grid's pictures are sent (colour and registered depth: the server picks
// 1920, 960 or 480 pixels wide) and decoded no wider than the widest panel in sight
// draws them (in device pixels, in steps of 128 so that small changes of layout
// change nothing): the 1920 x 1080 pictures drawn 400 pixels wide cost a fraction to
// encode, send, inflate, decode and upload. The cloud coloured by them shows no finer
// colour than its own width holds.
function colourWidth() {
  let widest = 0;
  for (const panel of [colour, registered, cloud]) {
    if (!panel.visible || !needs(panel).some((b) => b === 'colour' || b === 'registered')) continue;
    widest = Math.max(widest, panel.picture.getBoundingClientRect().width);
  }
  return widest ? 128 * Math.ceil((widest * window.devicePixelRatio) / 128) : 0;
}
window.addEventListener('resize', () => ask(false));

// A blob newly asked for comes with the server's next frame. Frames sent before the
// server heard of it lack it: a panel drawing from it keeps its picture for the
// messages received up to LATE after the asking (the one on its way, the one waiting
// in the server's slot, the one being encoded), and only then says the frame has
// none. A paused source sends its frame again when the blobs change.
const LATE = 3;
const askedAt = new Map(); // blob -> messages received when it was asked for
let asked = { blobs: new Set(), colourWidth: -1 }; // what the server was last told
function ask(again) {
  const d = decoding();
  stream.setDecoding({ ...d, again });
  const sameBlobs = d.blobs.length === asked.blobs.size && d.blobs.every((b) => asked.blobs.has(b));
  if (sameBlobs && d.drawn.colour === asked.colourWidth) return;
  for (const b of d.blobs) if (!asked.blobs.has(b)) askedAt.set(b, stream.received);
  asked = { blobs: new Set(d.blobs), colourWidth: d.drawn.colour };
  stream.setOptions({ blobs: d.blobs, colour_width: d.drawn.colour });
}
function late(panel, frame) {
  if (panel === ab) return false; // it draws what it has: frames carry B only with A/B on
  return needs(panel).some((b) => !frame.images[b] && !frame.errors[b] && frame.seq <= (askedAt.get(b) ?? -Infinity) + LATE);
}
// A picture panel drawn from a frame of this index, settings, calibration and grid is
// not drawn again from another message of the same (a paused source sends its frame
// again when the blobs asked for change, a panel come into sight has the newest frame
// decoded again): coming into sight or a new cloud colouring draws it anew.
const still = new Set([depth, ir, colour, registered, cloud, noise, validity]);
function pictureKey(panel, frame) {
  if (!still.has(panel)) return null;
  const h = frame.head;
  return [h.index, h.settings_version, h.calibration_id, frame.images.depth?.width,
    ...needs(panel).map((b) => !!frame.images[b])].join('/');
}
// A panel come into sight gets the newest frame decoded again, with what it draws (a
// paused source sends no other unless the blobs change).
for (const panel of framePanels) {
  panel.onVisibility = (visible) => {
    panel.shownKey = null;
    ask(visible);
  };
}
cloud.mode.addEventListener('change', () => {
  cloud.shownKey = null;
  ask(true);
});

// The rays, fetched once per calibration; the colour grid's are optional.
let raysFor = null;
async function loadRays(calibrationId) {
  if (raysFor === calibrationId) return;
  raysFor = calibrationId;
  try {
    view.depthRays = await api.getRays('depth');
    view.depthRaysTexture?.dispose();
    view.depthRaysTexture = raysTexture(view.depthRays);
  } catch (e) {
    raysFor = null;
    depth.showError(`rays: ${e.message}`);
  }
  try {
    view.colourRays = await api.getRays('colour');
    view.colourRaysTexture?.dispose();
    view.colourRaysTexture = raysTexture(view.colourRays);
  } catch {
    view.colourRays = null; // the colour panels then show millimetres without X and Y
    view.colourRaysTexture = null;
  }
}

let status = null;
function onStatus(s) {
  status = s;
  sourceName.textContent = `${s.source?.name || s.source?.kind || ''}${s.read_only ? ' · read-only' : ''}`;
  stats.status(s);
  playback.status(s);
  record.status(s);
  controls.readOnly(!!s.read_only);
  ab.status(s);
  cloud.setPlaying(!!s.source?.playing);
  const changed = JSON.stringify(s.settings) !== JSON.stringify(view.settings);
  if (s.settings && changed) controls.show(s.settings);
}

// Frames: the worker hands over decoded frames; the newest is drawn at the next
// animation frame, older undrawn ones are skipped (counted, their pictures freed).
let pending = null;
let displayed = 0;
const counters = {
  get received() { return stream.received; }, // frame messages from the link
  get bytes() { return stream.bytes; },
  decoded: 0,
  displayed: 0,
  skippedInPage: 0,
  skippedInWorker: 0,
  pictureUpdates: 0, // picture panels updated from a frame
};
window.qvViewerCounters = counters; // for benchmarks and tests
const drawMs = new Map(); // panel id -> smoothed time of its update
const traffic = { bytes: 0, frames: 0 }; // at the last second's end
function release(frame) {
  for (const image of Object.values(frame.images)) image.bitmap?.close();
}
function onFrame(frame) {
  if (pending) {
    counters.skippedInPage++;
    release(pending); // (only when a decoding again overtakes it)
  }
  pending = frame;
  counters.decoded++;
  counters.skippedInWorker = frame.skippedInWorker ?? 0;
  counters.workerMs = frame.workerMs;
  loadRays(frame.head.calibration_id);
  if (!drawAsked) {
    drawAsked = true;
    requestAnimationFrame(draw);
  }
}

// Draws the newest frame at the next animation frame (asked for only when one came).
let drawAsked = false;
function draw() {
  drawAsked = false;
  if (!pending) return;
  const frame = pending;
  pending = null;
  stream.more();
  // (The pictures of frames drawn are left to the collector: a texture not yet
  // uploaded, of a panel whose picture is out of sight, may still hold one.)
  view.frame = frame;
  for (const panel of framePanels) {
    if (!panel.visible || late(panel, frame)) continue;
    const key = pictureKey(panel, frame);
    if (key && key === panel.shownKey) continue;
    const start = performance.now();
    panel.guard(() => panel.update(frame));
    panel.shownKey = panel.root.classList.contains('failed') ? null : key;
    if (key) counters.pictureUpdates++;
    panel.root.dataset.frameIndex = String(frame.head.index); // the frame it shows (for tests)
    const ms = performance.now() - start;
    drawMs.set(panel.root.id, 0.9 * (drawMs.get(panel.root.id) ?? ms) + 0.1 * ms);
  }
  stats.frame(frame.head, status?.source?.frames);
  if (frame.images.depth) stats.decimation(Math.round(frame.head.width / frame.images.depth.width), stream.options.decimate === 'auto');
  playback.frame(frame.head);
  gpuSurface().draw();
  document.body.dataset.frameIndex = String(frame.head.index);
  displayed++;
  counters.displayed++;
}

// Once a second: the rates of the last second; the link's figures count every frame
// message, decoded or not.
let last = performance.now();
setInterval(() => {
  const now = performance.now();
  const seconds = (now - last) / 1000;
  last = now;
  const bytes = stream.bytes - traffic.bytes;
  const frames = stream.received - traffic.frames;
  traffic.bytes = stream.bytes;
  traffic.frames = stream.received;
  stats.rates(displayed / seconds, bytes / seconds, frames ? bytes / frames : 0);
  stats.skipped(counters.skippedInWorker + counters.skippedInPage);
  stats.drawTimes(drawMs);
  displayed = 0;
}, 1000);

const stream = new FrameStream({
  onFrame,
  onStatus,
  onState: (state, detail) => {
    connection.dataset.state = state;
    connection.textContent = detail ? `${state}, ${detail}` : state;
  },
  onError: (message) => stats.showError(`stream: ${message}`),
});
ask(false);

// The colour bar and the settings, once at the start.
(async () => {
  try {
    view.colors = await api.getColormap();
    view.colourBar = colourBarTexture(view.colors);
  } catch (e) {
    depth.showError(`colour bar: ${e.message}`);
  }
  await controls.guard(async () => controls.show(await api.getSettings()));
})();

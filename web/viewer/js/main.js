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

// The worker decodes only what the panels in sight draw (depth always: the read-outs);
// the cloud's colouring names its own.
function decoding() {
  const blobs = new Set(['depth']);
  if (depth.visible) blobs.add('false_colour');
  if (ir.visible) blobs.add('ir');
  if (colour.visible) blobs.add('colour');
  if (registered.visible) blobs.add('registered').add('colour');
  if (cloud.visible && cloud.mode.value === 'ir') blobs.add('ir');
  if (cloud.visible && cloud.mode.value === 'colour') blobs.add('registered').add('colour');
  if (ab.visible) blobs.add('depth_b');
  return { blobs: [...blobs], noise: noise.visible };
}
// A panel come into sight gets the newest frame decoded again, with what it draws (a
// paused source sends no other).
for (const panel of framePanels) {
  panel.onVisibility = (visible) => stream.setDecoding({ ...decoding(), again: visible });
}
cloud.mode.addEventListener('change', () => stream.setDecoding({ ...decoding(), again: true }));

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
}

function draw() {
  requestAnimationFrame(draw);
  if (!pending) return;
  const frame = pending;
  pending = null;
  stream.more();
  // (The pictures of frames drawn are left to the collector: a texture not yet
  // uploaded, of a panel whose picture is out of sight, may still hold one.)
  view.frame = frame;
  for (const panel of framePanels) {
    if (!panel.visible) continue;
    const start = performance.now();
    panel.guard(() => panel.update(frame));
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
requestAnimationFrame(draw);

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
stream.setDecoding(decoding());

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

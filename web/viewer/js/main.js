// The viewer's page: connects the stream and the API to the panels. Each panel draws
// the newest decoded frame once per animation frame; a panel that fails shows its
// error and the others go on.
import * as api from './net/api.js';
import { FrameStream } from './net/stream.js';
import { describePoint } from './geometry.js';
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

// What the panels share: the newest frame, the colour bar, the settings, the rays.
const view = {
  frame: null,
  colors: null,
  settings: null,
  depthRays: null,
  colourRays: null,
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
  },
  onDecimate: (f) => stream.setOptions({ decimate: f }),
});
const playback = new PlaybackPanel(side);
const record = new RecordPanel(side);
const stats = new StatsPanel(side);

const depth = new DepthPanel(grid, view);
const framePanels = [
  depth,
  new IrPanel(grid, view),
  new ColourPanel(grid, view),
  new RegisteredPanel(grid, view),
  new CloudPanel(grid, view),
  new NoisePanel(grid, view),
  new ValidityPanel(grid, view),
];
framePanels.push(new RoiPanel(grid, depth));
for (const panel of framePanels) {
  panel.onShown = () => view.frame && panel.guard(() => panel.update(view.frame));
}

// The rays, fetched once per calibration; the colour grid's are optional.
let raysFor = null;
async function loadRays(calibrationId) {
  if (raysFor === calibrationId) return;
  raysFor = calibrationId;
  try {
    view.depthRays = await api.getRays('depth');
  } catch (e) {
    raysFor = null;
    depth.showError(`rays: ${e.message}`);
  }
  try {
    view.colourRays = await api.getRays('colour');
  } catch {
    view.colourRays = null; // the colour panels then show millimetres without X and Y
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
  const changed = JSON.stringify(s.settings) !== JSON.stringify(view.settings);
  if (s.settings && changed) controls.show(s.settings);
}

// Frames: the stream hands over decoded frames; the newest is drawn at the next
// animation frame, older undrawn ones are skipped.
let pending = null;
let displayed = 0;
const drawMs = new Map(); // panel id -> smoothed time of its update
const traffic = { bytes: 0, frames: 0 };
function onFrame(frame) {
  pending = frame;
  traffic.bytes += frame.bytes;
  traffic.frames++;
  loadRays(frame.head.calibration_id);
}

function draw() {
  requestAnimationFrame(draw);
  if (!pending) return;
  const frame = pending;
  pending = null;
  view.frame = frame;
  for (const panel of framePanels) {
    if (!panel.visible) continue;
    const start = performance.now();
    panel.guard(() => panel.update(frame));
    const ms = performance.now() - start;
    drawMs.set(panel.root.id, 0.9 * (drawMs.get(panel.root.id) ?? ms) + 0.1 * ms);
  }
  stats.frame(frame.head, status?.source?.frames);
  playback.frame(frame.head);
  document.body.dataset.frameIndex = String(frame.head.index);
  displayed++;
}
requestAnimationFrame(draw);

let last = performance.now();
setInterval(() => {
  const now = performance.now();
  const seconds = (now - last) / 1000;
  last = now;
  stats.rates(displayed / seconds, traffic.bytes / seconds, traffic.frames ? traffic.bytes / traffic.frames : 0);
  stats.drawTimes(drawMs);
  displayed = 0;
  traffic.bytes = 0;
  traffic.frames = 0;
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

// The colour bar and the settings, once at the start.
(async () => {
  try {
    view.colors = await api.getColormap();
  } catch (e) {
    depth.showError(`colour bar: ${e.message}`);
  }
  await controls.guard(async () => controls.show(await api.getSettings()));
})();

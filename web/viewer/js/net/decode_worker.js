// The decoding worker: inflates depth, decodes pictures and computes the per-pixel
// figures of the depth (pixels without depth and saturated, the temporal noise) off the
// page's thread. Only the newest message waits: one arriving while another waits
// replaces it (counted as skipped), so a slow page shows fewer frames, never late ones.
// The page hands out credit, one each time it takes a frame to draw: a frame is decoded
// only when the page has none waiting (the next is decoded while the page draws), so no
// time goes on frames nobody sees. Each time it starts on a new message it says so
// ('taken'): the page then asks the server for one more frame, which comes while this
// one is decoded and drawn.
import { decodeFrame } from './frame_decode.js';
import { NoiseWindow } from '../noise_window.js';

let waiting = null;
let busy = false;
let credit = 1;
let skipped = 0;
let wanted = null; // blob names to decode, null for all
let drawn = {}; // blob name -> the width its picture is drawn at
const noise = new NoiseWindow();
let noiseOn = true;
let validityOn = true;

self.onmessage = (event) => {
  const m = event.data;
  if (m.type === 'options') {
    const before = wanted;
    if (m.blobs !== undefined) wanted = m.blobs ? new Set(m.blobs) : null;
    if (m.noiseFrames) noise.setWindow(m.noiseFrames);
    if (m.drawn) drawn = m.drawn;
    const noiseCame = m.noise && !noiseOn;
    if (noiseCame) noise.restart(); // frames went by unseen: a new window
    if (m.noise !== undefined) noiseOn = m.noise;
    const validityCame = m.validity && !validityOn;
    if (m.validity !== undefined) validityOn = m.validity;
    // A panel come into sight: the newest frame again, with what it draws (a paused
    // source sends no other unless the blobs asked of the server change).
    const grew = before && (!wanted || [...wanted].some((b) => !before.has(b)));
    if ((grew || noiseCame || validityCame || m.again) && last && !waiting) {
      waiting = last;
      if (!busy) run();
    }
    return;
  }
  if (m.type === 'more') {
    credit++;
    if (!busy) run();
    return;
  }
  if (m.type !== 'frame') return;
  if (waiting) skipped++;
  waiting = { buffer: m.buffer, seq: m.seq };
  if (!busy) run();
};
let last = null; // the newest message ({buffer, seq}), kept for a decoding again

async function run() {
  busy = true;
  while (waiting && credit > 0) {
    credit--;
    const message = waiting;
    waiting = null;
    if (message !== last) self.postMessage({ type: 'taken' });
    last = message;
    try {
      const start = performance.now();
      const frame = await decodeFrame(message.buffer, wanted, drawn);
      frame.seq = message.seq; // the message's number on the link
      const decoded = performance.now();
      const transfer = [];
      for (const image of Object.values(frame.images)) {
        if (image.bitmap) transfer.push(image.bitmap);
      }
      const depth = frame.images.depth;
      if (depth) {
        if (validityOn) frame.validity = validity(depth.data);
        if (noiseOn) {
          const sigma = noise.add(depth, frame.head.index);
          frame.noise = sigma;
          transfer.push(sigma.sigma.buffer);
        }
        transfer.push(depth.data.buffer);
      }
      frame.skippedInWorker = skipped;
      frame.workerMs = { decode: decoded - start, figures: performance.now() - decoded };
      self.postMessage({ type: 'frame', frame }, transfer);
    } catch (e) {
      credit++; // nothing for the page to take
      self.postMessage({ type: 'error', message: e.message });
    }
  }
  busy = false;
}

// Shares of pixels without depth (0) and saturated (1).
function validity(data) {
  let none = 0;
  let saturated = 0;
  for (let i = 0; i < data.length; i++) {
    const d = data[i];
    if (d <= 1) {
      if (d === 0) none++;
      else saturated++;
    }
  }
  return { none, saturated, pixels: data.length };
}

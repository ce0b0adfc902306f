// A stand-in for `qvrecon view`, for the page's development and its browser tests:
// serves the assembled asset folder and the viewer's HTTP API and WebSocket stream with
// synthetic frames, using only Node's standard library.
//
//   node mock_server.mjs --assets DIR [--listen HOST:PORT] [--token T] [--fps F]
//
// Prints "qvrecon view: http://HOST:PORT/" (with ?token=T when a token is required),
// like the real server. The source is a 24-frame "recording" of a depth ramp with a
// noise that grows from left to right (for the temporal-noise map):
//   depth(r, c) = 600 + 4c + 2r + (hash(r, c, k) mod (1 + c / 32))   (frame k, before the flip),
// 0 in the top-left corner (r + c < 50) and 1 (saturated) in a 16x16 block at (200, 300).
import http from 'node:http';
import fs from 'node:fs';
import path from 'node:path';
import crypto from 'node:crypto';
import zlib from 'node:zlib';
import { encodePng } from './png.mjs';

const args = parseArgs(process.argv.slice(2));
const ASSETS = fs.realpathSync(args.assets);
const TOKEN = args.token || null;
const FPS = Number(args.fps || 30);
const W = 640, H = 480, CW = 960, CH = 540, FRAMES = 24;
const RAY_F = 520, RAY_CX = 319.5, RAY_CY = 239.5;

function mockDepth(k, r, c) {
  if (r + c < 50) return 0;
  if (r >= 200 && r < 216 && c >= 300 && c < 316) return 1;
  const hash = Math.imul(r * 7919 + c * 104729 + k * 15485863, 2654435761) >>> 16;
  return 600 + 4 * c + 2 * r + (hash % (1 + (c >> 5)));
}

// ------------------------------------------------------------------ state
const state = {
  settings: { filter: true, flip: 'none', range: [200, 5000], ab: false, b: { filter: false, range: [200, 5000], calibration: 'a' } },
  settingsVersion: 1,
  playing: true,
  speed: 1,
  index: 0,
  timeNs: 0,
  dropped: 0,
  recording: { active: false, path: null, frames: 0 },
  clients: new Set(),
};
const colormap = Array.from({ length: 360 }, (_, i) => hueColour(i));

function hueColour(i) {
  // Blue (near) to red (far) through green: a plain hue ramp over 240 degrees.
  const h = (240 - (240 * i) / 359) / 60;
  const x = Math.round(255 * (1 - Math.abs((h % 2) - 1)));
  const table = [[255, x, 0], [x, 255, 0], [0, 255, x], [0, x, 255], [x, 0, 255]];
  return table[Math.min(4, Math.floor(h))];
}

function status() {
  return {
    source: { kind: 'recording', name: 'mock.mcap', frames: FRAMES, playing: state.playing, speed: state.speed },
    stream: 'dual', width: W, height: H,
    frame: { index: state.index, time_ns: state.timeNs, temperature_c: temperature(state.index) },
    rates: { sensor_fps: FPS, processed_fps: FPS, encoded_fps: FPS },
    stages_ms: { depth: 4.2, ir: 0.6, register: 7.5, colour: 3.1, encode: 2.0, depth_b: state.settings.ab ? 4.4 : 0 },
    clients: state.clients.size, dropped: state.dropped,
    settings: state.settings,
    recording: state.recording,
    read_only: false, calibration_id: 1, calibration_b: true,
  };
}
const temperature = (k) => 38 + 0.05 * k;

// ------------------------------------------------------------------ frames
function flipIndex(r, c, w, h) {
  const f = state.settings.flip;
  const rr = f === 'vertical' || f === 'both' ? h - 1 - r : r;
  const cc = f === 'horizontal' || f === 'both' ? w - 1 - c : c;
  return [rr, cc];
}

function depthImage(k) {
  const d = new Uint16Array(W * H);
  for (let r = 0; r < H; r++) {
    for (let c = 0; c < W; c++) {
      const [sr, sc] = flipIndex(r, c, W, H);
      d[r * W + c] = mockDepth(k, sr, sc);
    }
  }
  return d;
}

function falseColour(d, w, h) {
  const [lo, hi] = state.settings.range;
  const rgb = Buffer.alloc(w * h * 3);
  for (let i = 0; i < w * h; i++) {
    const v = d[i];
    if (v <= 1 || v < lo || v > hi) continue;
    const col = colormap[Math.round(((v - lo) * 359) / (hi - lo))];
    rgb[3 * i] = col[0]; rgb[3 * i + 1] = col[1]; rgb[3 * i + 2] = col[2];
  }
  return encodePng(rgb, w, h, 'rgb8');
}

function decimate(d, w, h, f) {
  if (f === 1) return d;
  const out = new Uint16Array((w / f) * (h / f));
  for (let r = 0; r < h / f; r++) for (let c = 0; c < w / f; c++) out[r * (w / f) + c] = d[r * f * w + c * f];
  return out;
}

function irImage(k) {
  const g = Buffer.alloc(W * H);
  for (let r = 0; r < H; r++) for (let c = 0; c < W; c++) g[r * W + c] = 40 + ((c + 3 * k) % 160) + (r >> 4);
  return g;
}

function colourImage(k) {
  const rgb = Buffer.alloc(CW * CH * 3);
  for (let r = 0; r < CH; r++) {
    for (let c = 0; c < CW; c++) {
      const i = 3 * (r * CW + c);
      rgb[i] = (c * 255) / CW; rgb[i + 1] = (r * 255) / CH; rgb[i + 2] = (k * 10) & 255;
    }
  }
  return rgb;
}

function registeredImage(d) {
  // The depth image stretched over the colour grid, with an empty border.
  const out = new Uint16Array(CW * CH);
  for (let r = 30; r < CH - 30; r++) {
    for (let c = 60; c < CW - 60; c++) {
      out[r * CW + c] = d[Math.floor(((r - 30) * H) / (CH - 60)) * W + Math.floor(((c - 60) * W) / (CW - 120))];
    }
  }
  return out;
}

// B of A/B: A's depth (after the flip) with the filter off (a deterministic -3..+3 mm
// jitter), 30 mm farther on calibration "b", and no depth in a 20x10 block at (400, 500).
function depthB(d) {
  const b = state.settings.b;
  const out = new Uint16Array(d.length);
  for (let i = 0; i < d.length; i++) {
    const r = Math.floor(i / W), c = i % W;
    if (d[i] <= 1 || (r >= 400 && r < 410 && c >= 500 && c < 520)) continue;
    const jitter = b.filter ? 0 : (Math.imul(i, 2654435761) >>> 29) - 3;
    out[i] = d[i] + jitter + (b.calibration === 'b' ? 30 : 0);
  }
  return out;
}

const u16Deflate = (a) => zlib.deflateSync(Buffer.from(a.buffer, a.byteOffset, a.byteLength));

// The mock's colour grid is 960 x 540 at most; a client that says how wide it draws
// it (colour_width) gets it halved while it stays as wide, down to a quarter.
function colourScale(width) {
  let s = 1;
  while (width > 0 && s < 4 && CW / (2 * s) >= width) s *= 2;
  return s;
}

// Every s-th pixel of every s-th row of an interleaved picture of `channels` bytes a pixel.
function decimateBytes(b, w, h, s, channels) {
  if (s === 1) return b;
  const out = Buffer.alloc((w / s) * (h / s) * channels);
  for (let r = 0; r < h / s; r++) {
    for (let c = 0; c < w / s; c++) b.copy(out, (r * (w / s) + c) * channels, (r * s * w + c * s) * channels, (r * s * w + c * s + 1) * channels);
  }
  return out;
}

// Encoded frames are cached per frame, settings version, decimation and colour scale:
// the loop is short.
const cache = new Map();
function encodedFrame(k, dec, cs = 1) {
  const key = `${k}/${state.settingsVersion}/${dec}/${cs}`;
  let m = cache.get(key);
  if (m) return m;
  if (cache.size > 200) cache.clear();
  const d = depthImage(k);
  const dd = decimate(d, W, H, dec);
  const w = W / dec, h = H / dec;
  const blobs = [
    ['depth', 'u16-deflate', w, h, u16Deflate(dd)],
    ['false_colour', 'png', w, h, falseColour(dd, w, h)],
    ['ir', 'png', W, H, encodePng(irImage(k), W, H, 'grey8')],
    ['colour', 'png', CW / cs, CH / cs, encodePng(decimateBytes(colourImage(k), CW, CH, cs, 3), CW / cs, CH / cs, 'rgb8')],
    ['registered', 'u16-deflate', CW / cs, CH / cs, u16Deflate(decimate(registeredImage(d), CW, CH, cs))],
  ];
  const db = state.settings.ab ? depthB(d) : null;
  if (db) blobs.push(['depth_b', 'u16-deflate', w, h, u16Deflate(decimate(db, W, H, dec))]);
  let offset = 0;
  const head = {
    index: k, time_ns: k * Math.round(1e9 / 30), stream: 'dual', width: W, height: H,
    temperature_c: temperature(k), calibration_id: 1, settings_version: state.settingsVersion,
    range: [...state.settings.range],
    blobs: blobs.map(([name, encoding, bw, bh, data]) => {
      const b = { name, encoding, width: bw, height: bh, offset, length: data.length };
      offset += data.length;
      return b;
    }),
  };
  m = { head, blobs: Object.fromEntries(blobs.map((b) => [b[0], b[4]])), depth: d, depthB: db };
  cache.set(key, m);
  return m;
}

function frameMessage(m, wanted) {
  const blobs = m.head.blobs.filter((b) => !wanted || wanted.includes(b.name));
  let offset = 0;
  const head = { ...m.head, blobs: blobs.map((b) => { const o = { ...b, offset }; offset += b.length; return o; }) };
  const json = Buffer.from(JSON.stringify(head));
  const pre = Buffer.alloc(8);
  pre.write('QVF1', 0, 'latin1');
  pre.writeUInt32LE(json.length, 4);
  return Buffer.concat([pre, json, ...blobs.map((b) => m.blobs[b.name])]);
}

// ------------------------------------------------------------------ HTTP
const MIME = { '.html': 'text/html; charset=utf-8', '.js': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8', '.png': 'image/png', '.json': 'application/json', '.svg': 'image/svg+xml' };

function send(res, code, body, type = 'application/json', headers = {}) {
  res.writeHead(code, { 'Content-Type': type, 'Cache-Control': 'no-store', ...headers });
  res.end(body);
}
const sendJson = (res, code, obj, headers) => send(res, code, JSON.stringify(obj), 'application/json', headers);
const fail = (res, code, msg) => sendJson(res, code, { error: msg });

function authorised(req, url) {
  if (!TOKEN) return true;
  if (url.searchParams.get('token') === TOKEN) return true;
  if ((req.headers.cookie || '').split(/;\s*/).includes(`qv_token=${TOKEN}`)) return true;
  return req.headers.authorization === `Bearer ${TOKEN}`;
}

function readBody(req) {
  return new Promise((resolve, reject) => {
    const parts = [];
    let n = 0;
    req.on('data', (p) => { n += p.length; if (n > 65536) reject(new Error('too large')); else parts.push(p); });
    req.on('end', () => resolve(Buffer.concat(parts).toString('utf8')));
    req.on('error', reject);
  });
}

function applyB(old, body) {
  const b = { ...old };
  for (const [key, v] of Object.entries(body)) {
    if (key === 'filter' && typeof v === 'boolean') b.filter = v;
    else if (key === 'calibration' && ['a', 'b'].includes(v)) b.calibration = v;
    else if (key === 'range' && Array.isArray(v) && v.length === 2 && v.every(Number.isInteger) &&
             v[0] >= 0 && v[0] < v[1] && v[1] <= 65535) b.range = v;
    else throw new Error(`bad setting b.${key}`);
  }
  return b;
}

function applySettings(body) {
  const next = { ...state.settings };
  for (const [key, v] of Object.entries(body)) {
    if (key === 'filter' && typeof v === 'boolean') next.filter = v;
    else if (key === 'flip' && ['none', 'horizontal', 'vertical', 'both'].includes(v)) next.flip = v;
    else if (key === 'range' && Array.isArray(v) && v.length === 2 && v.every(Number.isInteger) &&
             v[0] >= 0 && v[0] < v[1] && v[1] <= 65535) next.range = v;
    else if (key === 'ab' && typeof v === 'boolean') next.ab = v;
    else if (key === 'b' && v && typeof v === 'object' && !Array.isArray(v)) next.b = applyB(next.b, v);
    else throw new Error(`bad setting ${key}`);
  }
  state.settings = next;
  state.settingsVersion++;
}

async function api(req, res, url) {
  const p = url.pathname;
  const post = req.method === 'POST';
  let body = null;
  if (post) {
    try { body = JSON.parse(await readBody(req)); } catch (e) { return fail(res, 400, `bad JSON body: ${e.message}`); }
    if (typeof body !== 'object' || body === null || Array.isArray(body)) return fail(res, 400, 'body must be a JSON object');
  }
  if (p === '/api/status' && !post) return sendJson(res, 200, status());
  if (p === '/api/settings') {
    if (post) {
      try { applySettings(body); } catch (e) { return fail(res, 400, e.message); }
      broadcastFrame(); // a paused source shows its frame again, with the new settings
    }
    return sendJson(res, 200, state.settings);
  }
  if (p === '/api/colormap' && !post) return sendJson(res, 200, { colors: colormap });
  if (p === '/api/rays' && !post) {
    // The depth grid's rays, or (?grid=colour) the colour camera's full grid.
    const colour = url.searchParams.get('grid') === 'colour';
    if (!colour && url.searchParams.has('grid')) return fail(res, 400, 'grid must be depth or colour');
    const [w, h, f, cx, cy] = colour ? [1920, 1080, 1400, 959.5, 539.5] : [W, H, RAY_F, RAY_CX, RAY_CY];
    const rays = new Float32Array(2 * w * h);
    for (let r = 0; r < h; r++) {
      for (let c = 0; c < w; c++) {
        const cut = !colour && r + c < 50;
        rays[r * w + c] = cut ? 0 : (c - cx) / f;
        rays[w * h + r * w + c] = cut ? 0 : (r - cy) / f;
      }
    }
    return send(res, 200, Buffer.from(rays.buffer), 'application/octet-stream',
      { 'X-Width': w, 'X-Height': h, 'X-Calibration-Id': 1 });
  }
  if (p === '/api/playback' && post) {
    const a = body.action;
    if (body.speed !== undefined) {
      if (typeof body.speed !== 'number' || body.speed < 0.25 || body.speed > 4) return fail(res, 400, 'speed out of range');
      state.speed = body.speed;
    }
    if (a === 'play') state.playing = true;
    else if (a === 'pause') state.playing = false;
    else if (a === 'step') { state.playing = false; state.index = (state.index + FRAMES + (body.delta === -1 ? -1 : 1)) % FRAMES; }
    else if (a === 'seek') {
      if (!Number.isInteger(body.frame) || body.frame < 0 || body.frame >= FRAMES) return fail(res, 400, 'frame out of range');
      state.index = body.frame;
    } else if (a !== undefined || body.speed === undefined) return fail(res, 400, 'unknown action');
    broadcastFrame();
    return sendJson(res, 200, status());
  }
  if (p === '/api/record' && post) {
    if (body.action === 'start') state.recording = { active: true, path: 'viewer-mock.mcap', frames: 0 };
    else if (body.action === 'stop') state.recording = { ...state.recording, active: false };
    else return fail(res, 400, 'unknown action');
    return sendJson(res, 200, { active: state.recording.active, path: state.recording.path });
  }
  const part = p.match(/^\/api\/frame\/([a-z_]+\.(png|ply|json))$/);
  if (part && !post) {
    const m = encodedFrame(state.index, 1);
    const headers = { 'X-Frame-Index': state.index };
    const d = m.depth;
    switch (part[1]) {
      case 'depth.png': return send(res, 200, encodePng(Buffer.from(d.buffer), W, H, 'grey16'), 'image/png', headers);
      case 'depth_b.png':
        if (!m.depthB) return fail(res, 404, 'A/B is off');
        return send(res, 200, encodePng(Buffer.from(m.depthB.buffer), W, H, 'grey16'), 'image/png', headers);
      case 'ir.png': return send(res, 200, encodePng(irImage(state.index), W, H, 'grey8'), 'image/png', headers);
      case 'colour.png': return send(res, 200, m.blobs.colour, 'image/png', headers);
      case 'registered.png': return send(res, 200, encodePng(Buffer.from(registeredImage(d).buffer), CW, CH, 'grey16'), 'image/png', headers);
      case 'meta.json': return sendJson(res, 200, { index: state.index, time_ns: m.head.time_ns, temperature_c: m.head.temperature_c,
        settings: state.settings, stream: 'dual', width: W, height: H }, headers);
      case 'cloud.ply': return send(res, 200, `ply\nformat ascii 1.0\nelement vertex 0\nend_header\n`, 'application/octet-stream', headers);
    }
  }
  return fail(res, 404, `no such resource: ${p}`);
}

function serveStatic(res, url) {
  let rel = decodeURIComponent(url.pathname);
  if (rel.endsWith('/')) rel += 'index.html';
  if (rel.includes('..') || rel.includes('\\') || rel.includes('\0')) return fail(res, 404, 'not found');
  const file = path.join(ASSETS, rel);
  let st;
  try { st = fs.lstatSync(file); } catch { return fail(res, 404, 'not found'); }
  if (!st.isFile()) return fail(res, 404, 'not found');
  send(res, 200, fs.readFileSync(file), MIME[path.extname(file)] || 'application/octet-stream');
}

const server = http.createServer(async (req, res) => {
  const url = new URL(req.url, 'http://x');
  if (!authorised(req, url)) return fail(res, 401, 'a token is needed');
  const cookie = TOKEN && url.searchParams.get('token') === TOKEN
    ? { 'Set-Cookie': `qv_token=${TOKEN}; HttpOnly; SameSite=Strict; Path=/` } : {};
  for (const [k, v] of Object.entries(cookie)) res.setHeader(k, v);
  try {
    if (url.pathname.startsWith('/api/')) await api(req, res, url);
    else if (req.method === 'GET') serveStatic(res, url);
    else fail(res, 405, 'method not allowed');
  } catch (e) {
    fail(res, 500, e.message);
  }
});

// ------------------------------------------------------------------ WebSocket
// The handshake and the framing of RFC 6455, as much as the viewer uses: text and
// binary messages out, unfragmented masked text messages, pings and closes in.
server.on('upgrade', (req, socket) => {
  const url = new URL(req.url, 'http://x');
  if (url.pathname !== '/api/stream' || !authorised(req, url) || !req.headers['sec-websocket-key']) {
    socket.end('HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n');
    return;
  }
  const credit = url.searchParams.get('credit');
  if (credit !== null && !/^([1-9]|1[0-6])$/.test(credit)) {
    socket.end('HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n');
    return;
  }
  const accept = crypto.createHash('sha1')
    .update(req.headers['sec-websocket-key'] + '258EAFA5-E914-47DA-95CA-C5AB0DC85B11').digest('base64');
  socket.write('HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n' +
    `Sec-WebSocket-Accept: ${accept}\r\n\r\n`);
  socket.setNoDelay(true);
  const client = { socket, decimate: 1, blobs: null, dropped: 0, pending: null, buf: Buffer.alloc(0),
    sent: 0, bytes: 0, credit: credit === null ? null : Number(credit), auto: null };
  state.clients.add(client);
  wsSend(client, 1, Buffer.from(JSON.stringify({ type: 'status', ...status() })));
  socket.on('data', (chunk) => { client.buf = Buffer.concat([client.buf, chunk]); readMessages(client); });
  socket.on('drain', () => flush(client));
  const gone = () => state.clients.delete(client);
  socket.on('close', gone);
  socket.on('error', gone);
  sendFrame(client);
});

function wsSend(client, opcode, payload) {
  const n = payload.length;
  const head = n < 126 ? Buffer.from([0x80 | opcode, n])
    : n < 65536 ? Buffer.from([0x80 | opcode, 126, n >> 8, n & 255])
    : Buffer.concat([Buffer.from([0x80 | opcode, 127]), bigLength(n)]);
  return client.socket.write(Buffer.concat([head, payload]));
}
function bigLength(n) { const b = Buffer.alloc(8); b.writeBigUInt64BE(BigInt(n)); return b; }

function readMessages(client) {
  for (;;) {
    const b = client.buf;
    if (b.length < 2) return;
    const opcode = b[0] & 15;
    let n = b[1] & 127, at = 2;
    if (n === 126) { if (b.length < 4) return; n = b.readUInt16BE(2); at = 4; }
    else if (n === 127) { if (b.length < 10) return; n = Number(b.readBigUInt64BE(2)); at = 10; }
    if (n > 65536) { client.socket.destroy(); return; }
    const masked = b[1] & 128;
    const end = at + (masked ? 4 : 0) + n;
    if (b.length < end) return;
    const payload = Buffer.from(b.subarray(end - n, end));
    if (masked) for (let i = 0; i < n; i++) payload[i] ^= b[at + (i & 3)];
    client.buf = b.subarray(end);
    if (opcode === 8) { wsSend(client, 8, Buffer.alloc(0)); client.socket.end(); return; }
    if (opcode === 9) wsSend(client, 10, payload);
    if (opcode === 1) {
      const error = applyMessage(client, payload.toString('utf8'));
      if (error) wsSend(client, 1, Buffer.from(JSON.stringify({ type: 'error', error })));
    }
  }
}

// {"type": "options", "decimate": 1|2|4|"auto", "blobs": [...], "colour_width": N} or {"type": "credit",
// "frames": 1..16}, checked as the real server checks them; "" when applied.
function applyMessage(client, text) {
  let o;
  try { o = JSON.parse(text); } catch { return 'a message is a JSON object'; }
  if (typeof o !== 'object' || o === null || Array.isArray(o)) return 'a message is a JSON object';
  if (o.type === 'credit') {
    if (Object.keys(o).some((k) => k !== 'type' && k !== 'frames')) return 'unknown key in credit (frames)';
    if (!Number.isInteger(o.frames) || o.frames < 1 || o.frames > 16) return 'credit takes frames: 1 to 16';
    client.credit = Math.min((client.credit ?? 0) + o.frames, 16);
    flush(client);
    return '';
  }
  if (o.type !== 'options') return 'unknown message type (options, credit)';
  if (o.decimate !== undefined && o.decimate !== 'auto' && ![1, 2, 4].includes(o.decimate)) return 'decimate takes 1, 2, 4 or "auto"';
  if (o.blobs !== undefined && !Array.isArray(o.blobs)) return 'blobs takes a list of names';
  if (o.colour_width !== undefined && !(Number.isInteger(o.colour_width) && o.colour_width >= 0 && o.colour_width <= 65535)) {
    return 'colour_width takes whole pixels, 0 to 65535';
  }
  if (o.colour_width !== undefined) client.colourWidth = o.colour_width;
  if (o.decimate === 'auto') client.auto ||= { history: 0, observed: 0, finerAfter: 0 };
  else if (o.decimate !== undefined) { client.auto = null; client.decimate = o.decimate; }
  if (o.blobs) client.blobs = o.blobs;
  sendFrame(client);
  return '';
}

// Automatic decimation, as the server does it: coarser when half of the last eight
// frames found the previous one still unsent, finer after 32 frames that did not and
// 4 s since the last move coarser.
function observeLink(client) {
  const a = client.auto;
  a.history = ((a.history << 1) | (client.socket.writableLength > 0 ? 1 : 0)) >>> 0;
  a.observed++;
  const steps = [1, 2, 4];
  const at = steps.indexOf(client.decimate);
  let late = 0;
  for (let i = 0; i < 8; i++) late += (a.history >> i) & 1;
  if (a.observed >= 8 && late >= 4 && at < 2) {
    Object.assign(a, { history: 0, observed: 0, finerAfter: Date.now() + 4000 });
    client.decimate = steps[at + 1];
  } else if (a.observed >= 32 && a.history === 0 && at > 0 && Date.now() >= a.finerAfter) {
    Object.assign(a, { history: 0, observed: 0 });
    client.decimate = steps[at - 1];
  }
}

// One pending slot per client: a frame that finds the previous one still unsent, or
// the client without credit (once it gives credit), replaces it and counts as dropped.
function sendFrame(client) {
  if (client.pending !== null) { client.dropped++; state.dropped++; }
  client.pending = state.index;
  flush(client);
}
function flush(client) {
  if (client.pending === null || client.socket.writableLength > 0 || client.credit === 0) return;
  const k = client.pending;
  client.pending = null;
  if (client.credit !== null) client.credit--;
  const message = frameMessage(encodedFrame(k, client.decimate, colourScale(client.colourWidth ?? 0)), client.blobs);
  client.sent++;
  client.bytes += message.length;
  wsSend(client, 2, message);
}
function broadcastFrame() {
  for (const c of state.clients) {
    if (c.auto) observeLink(c);
    sendFrame(c);
  }
}

let carry = 0;
setInterval(() => {
  if (!state.playing) return;
  carry += state.speed;
  while (carry >= 1) { carry -= 1; state.index = (state.index + 1) % FRAMES; state.timeNs = state.index * Math.round(1e9 / 30); }
  broadcastFrame();
  if (state.recording.active) state.recording.frames++;
}, 1000 / FPS).unref();
setInterval(() => {
  for (const c of state.clients) {
    const client = { sent: c.sent, dropped: c.dropped, bytes: c.bytes, pending: c.pending !== null,
      decimate: c.decimate, auto: !!c.auto, credit: c.credit };
    wsSend(c, 1, Buffer.from(JSON.stringify({ type: 'status', ...status(), client_dropped: c.dropped, client })));
  }
}, 1000).unref();

const [host, port] = (args.listen || '127.0.0.1:0').split(':');
server.listen(Number(port), host, () => {
  const a = server.address();
  process.stdout.write(`qvrecon view: http://${a.address}:${a.port}/${TOKEN ? `?token=${TOKEN}` : ''}\n`);
});
for (const s of ['SIGINT', 'SIGTERM']) process.on(s, () => process.exit(0));

function parseArgs(list) {
  const out = {};
  for (let i = 0; i < list.length; i += 2) out[list[i].replace(/^--/, '')] = list[i + 1];
  if (!out.assets) { console.error('usage: mock_server.mjs --assets DIR [--listen HOST:PORT] [--token T] [--fps F]'); process.exit(2); }
  return out;
}

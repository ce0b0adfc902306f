// What the browser tests share: the server under test, headless Chromium, a page that
// records every console error and page error, and the library's own outputs of a frame.
//
// The server is the mock (mock_server.mjs, serving QV_VIEWER_ASSETS); or, when QVRECON
// and QV_VIEWER_RECORDING are set (run.sh sets the recording), the real `qvrecon view`
// playing that recording with the same page; or the command QV_VIEWER_SERVER gives, e.g.
//   QV_VIEWER_SERVER="build/bin/qvrecon view rec.mcap --listen 127.0.0.1:0"
// Each prints "qvrecon view: URL" as its first line naming the address.
import { execFile, spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';
import { chromium } from 'playwright-core';
import { decodePng } from './png.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const recording = process.env.QVRECON && process.env.QV_VIEWER_RECORDING ? process.env.QV_VIEWER_RECORDING : null;

// 'mock', 'real' (qvrecon view of the test recording, whose frames the library's tool
// can convert too) or 'other' (QV_VIEWER_SERVER).
export const serverKind = process.env.QV_VIEWER_SERVER ? 'other' : recording ? 'real' : 'mock';

// How long a wait for a condition of the page or the server may last before the test
// fails. It only keeps a broken page from hanging the suite, so it is generous: the
// real server under a sanitizer, beside other tests on two cores, takes seconds a frame.
const WAIT_LIMIT_MS = 180000;

export function serverCommand() {
  // (exec: the shell becomes the server, which then gets the stop's SIGTERM itself.)
  if (process.env.QV_VIEWER_SERVER) return `exec ${process.env.QV_VIEWER_SERVER}`;
  const assets = process.env.QV_VIEWER_ASSETS;
  if (!assets) throw new Error('QV_VIEWER_ASSETS (the assembled page) or QV_VIEWER_SERVER must be set');
  const q = JSON.stringify;
  if (recording) {
    // The page's recordings go beside the test recording, into run.sh's temporary folder.
    return `exec ${q(process.env.QVRECON)} view ${q(recording)} --listen 127.0.0.1:0 --assets ${q(assets)} ` +
      `--record-dir ${q(path.dirname(recording))}`;
  }
  return `exec node ${q(path.join(here, 'mock_server.mjs'))} --assets ${q(assets)} --listen 127.0.0.1:0`;
}

// The library's outputs of frame k of the recording the real server plays, made by
// `qvrecon depth REC --start k --end k`: {bytes, png} of the 16-bit depth PNG and
// points (x, y, z of every pixel, row by row, NaN without depth, from the organised
// PLY). Null against any other server: the mock's frames are not the library's.
export async function toolFrame(k) {
  if (serverKind !== 'real') return null;
  const out = fs.mkdtempSync(path.join(os.tmpdir(), 'qv-tool-'));
  try {
    await promisify(execFile)(process.env.QVRECON, ['depth', recording, '--start', String(k), '--end', String(k),
      '--outputs', 'depth', 'ply', '--ply-layout', 'organised', '--out', out]);
    const stem = `${path.basename(recording, '.mcap')}_${String(k).padStart(6, '0')}`;
    const bytes = fs.readFileSync(path.join(out, `${stem}_depth.png`));
    const png = decodePng(bytes);
    return { bytes, png, points: readOrganisedPly(fs.readFileSync(path.join(out, `${stem}.ply`)), png.width * png.height) };
  } finally {
    fs.rmSync(out, { recursive: true, force: true });
  }
}

// The library's false colour of frame k for a range [lo, hi] mm, with the depth it
// colours: {depth, colour} as decoded PNGs, from `qvrecon depth REC --start k --end k
// --outputs depth colour --range lo hi`. Null against any other server.
export async function toolFalseColour(k, [lo, hi]) {
  if (serverKind !== 'real') return null;
  const out = fs.mkdtempSync(path.join(os.tmpdir(), 'qv-tool-'));
  try {
    await promisify(execFile)(process.env.QVRECON, ['depth', recording, '--start', String(k), '--end', String(k),
      '--outputs', 'depth', 'colour', '--range', String(lo), String(hi), '--out', out]);
    const stem = `${path.basename(recording, '.mcap')}_${String(k).padStart(6, '0')}`;
    const read = (name) => decodePng(fs.readFileSync(path.join(out, `${stem}_${name}.png`)));
    return { depth: read('depth'), colour: read('colour') };
  } finally {
    fs.rmSync(out, { recursive: true, force: true });
  }
}

// The x, y, z of every vertex of an organised binary little-endian PLY of n vertices
// (float x, y, z first, then perhaps red, green and blue bytes).
function readOrganisedPly(buf, n) {
  const end = buf.indexOf('end_header\n');
  const header = buf.subarray(0, end).toString('latin1');
  const properties = [...header.matchAll(/^property (\w+) (\w+)$/gm)].map((m) => [m[1], m[2]]);
  const sizes = { float: 4, uchar: 1 };
  const stride = properties.reduce((a, [type]) => a + (sizes[type] ?? NaN), 0);
  if (!header.startsWith('ply\nformat binary_little_endian 1.0\n') || !header.includes(`\nelement vertex ${n}\n`) ||
      properties.slice(0, 3).join() !== 'float,x,float,y,float,z' || !stride) {
    throw new Error(`not an organised PLY of ${n} points: ${header}`);
  }
  const body = buf.subarray(end + 'end_header\n'.length);
  if (body.length !== stride * n) throw new Error(`PLY body of ${body.length} bytes for ${n} points`);
  const points = new Float32Array(3 * n);
  for (let i = 0; i < n; i++) for (let k = 0; k < 3; k++) points[3 * i + k] = body.readFloatLE(i * stride + 4 * k);
  return points;
}

// Starts the server; resolves to {url, origin, token, stop()} once it prints its address.
export function startServer(command = serverCommand()) {
  const child = spawn('/bin/sh', ['-c', command], { stdio: ['ignore', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    let out = '';
    const onData = (chunk) => {
      out += chunk;
      const m = out.match(/^qvrecon view: (\S+)$/m);
      if (!m) return;
      child.stdout.off('data', onData);
      child.stdout.resume();
      const url = new URL(m[1]);
      resolve({
        url: m[1],
        origin: url.origin,
        token: url.searchParams.get('token'),
        // Stops the server; fails unless it ends cleanly (status 0), e.g. when a
        // sanitizer found a fault or a leak in the real server.
        stop: () => new Promise((done, fail) => {
          const ended = () => (child.exitCode === 0 ? done()
            : fail(new Error(`the server ended with ${child.exitCode ?? child.signalCode}`)));
          if (child.exitCode !== null || child.signalCode !== null) return ended();
          child.once('exit', ended);
          child.kill('SIGTERM');
        }),
      });
    };
    child.stdout.setEncoding('utf8');
    child.stdout.on('data', onData);
    child.once('exit', (code) => reject(new Error(`the server ended (${code}) before printing its address: ${out}`)));
  });
}

// QV_CHROMIUM_ARGS adds switches (space-separated), e.g. --disable-gpu-compositing for
// the benchmark's figures with the page composited in software.
export async function launchBrowser() {
  const extra = (process.env.QV_CHROMIUM_ARGS || '').split(/\s+/).filter(Boolean);
  return chromium.launch({
    executablePath: process.env.QV_CHROMIUM || '/usr/bin/chromium',
    // WebGL without a GPU: SwiftShader. (The sandbox cannot start as root in containers.)
    args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader', ...extra],
  });
}

// A page of the viewer; problems collects console errors and uncaught page errors.
export async function openViewer(browser, server, viewport = { width: 1600, height: 1000 }) {
  const page = await browser.newPage({ viewport });
  // Clicks and loads wait for the page as long as until() waits for a condition.
  page.setDefaultTimeout(WAIT_LIMIT_MS);
  const problems = [];
  page.on('console', (m) => { if (m.type() === 'error') problems.push(`console: ${m.text()}`); });
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  await page.goto(server.url);
  return { page, problems };
}

// The API from the test's side, with the server's token.
export async function api(server, pathName, body) {
  const headers = server.token ? { Authorization: `Bearer ${server.token}` } : {};
  const init = body === undefined ? { headers }
    : { method: 'POST', headers: { ...headers, 'Content-Type': 'application/json' }, body: JSON.stringify(body) };
  const response = await fetch(server.origin + pathName, init);
  if (!response.ok) throw new Error(`${pathName}: ${response.status} ${await response.text()}`);
  return response;
}

// Moves a paused recording to frame k with the page's seek control, and waits until
// the page shows that frame.
export async function seekWithPage(page, k) {
  await page.$eval('#seek', (e, to) => { e.value = String(to); e.dispatchEvent(new Event('change')); }, k);
  await until(() => page.evaluate((to) => document.body.dataset.frameIndex === String(to), k), `frame ${k} after a seek`);
}

// Polls until check() gives a truthy value (a condition, not a measured time).
export async function until(check, what, limitMs = WAIT_LIMIT_MS) {
  const end = Date.now() + limitMs;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > end) throw new Error(`gave up waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

// Pixel statistics of a panel's picture: a canvas, or a placeholder in whose rectangle
// the page's WebGL surface (#gpu-surface) draws (scrolled into sight by the caller):
// the share of pixels unlike the first pixel, the number of distinct colours (in steps
// of 8 a channel) and a checksum of the pixels.
export function canvasStatistics(page, selector) {
  return page.evaluate((sel) => {
    const target = document.querySelector(sel);
    if (!target) return null;
    let source = target;
    let [sx, sy, sw, sh] = [0, 0, target.width, target.height];
    if (!(target instanceof HTMLCanvasElement)) {
      source = document.getElementById('gpu-surface');
      const r = target.getBoundingClientRect();
      const at = source.getBoundingClientRect();
      const k = source.width / at.width;
      [sx, sy, sw, sh] = [(r.left - at.left) * k, (r.top - at.top) * k, r.width * k, r.height * k].map(Math.round);
      if (sx < 0 || sy < 0 || sx + sw > source.width || sy + sh > source.height) return null; // not in sight
    }
    if (!sw || !sh) return null;
    const c = document.createElement('canvas');
    c.width = sw;
    c.height = sh;
    const ctx = c.getContext('2d');
    ctx.drawImage(source, sx, sy, sw, sh, 0, 0, sw, sh);
    const d = ctx.getImageData(0, 0, sw, sh).data;
    const colours = new Set();
    let unlike = 0;
    let sum = 0;
    for (let i = 0; i < d.length; i += 4) {
      if (d[i] !== d[0] || d[i + 1] !== d[1] || d[i + 2] !== d[2]) unlike++;
      colours.add(((d[i] >> 3) << 10) | ((d[i + 1] >> 3) << 5) | (d[i + 2] >> 3));
      sum = (Math.imul(sum, 31) + ((d[i] << 16) | (d[i + 1] << 8) | d[i + 2])) | 0;
    }
    return { width: sw, height: sh, unlike: unlike / (d.length / 4), colours: colours.size, sum };
  }, selector);
}

// What the browser tests share: the server under test, headless Chromium, and a page
// that records every console error and page error.
//
// The server is the mock (mock_server.mjs, serving QV_VIEWER_ASSETS) unless
// QV_VIEWER_SERVER gives a command, e.g.
//   QV_VIEWER_SERVER="build/bin/qvrecon view rec.mcap --listen 127.0.0.1:0"
// Either prints "qvrecon view: URL" as its first line naming the address.
import { spawn } from 'node:child_process';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const here = path.dirname(fileURLToPath(import.meta.url));

export function serverCommand() {
  if (process.env.QV_VIEWER_SERVER) return process.env.QV_VIEWER_SERVER;
  const assets = process.env.QV_VIEWER_ASSETS;
  if (!assets) throw new Error('QV_VIEWER_ASSETS (the assembled page) or QV_VIEWER_SERVER must be set');
  return `exec node ${JSON.stringify(path.join(here, 'mock_server.mjs'))} --assets ${JSON.stringify(assets)} ` +
    '--listen 127.0.0.1:0';
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
        stop: () => new Promise((done) => {
          if (child.exitCode !== null) return done();
          child.once('exit', done);
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

// Polls until check() gives a truthy value (a condition, not a measured time; the
// limit only keeps a broken page from hanging the suite).
export async function until(check, what, limitMs = 30000) {
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

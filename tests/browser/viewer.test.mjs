// The viewer's page in headless Chromium against a server (the mock, or the real
// `qvrecon view` of a recording): it loads cleanly, every panel draws, the read-out
// under the cursor is the server's depth (and, against the real server, the depth and
// points `qvrecon depth` makes of that frame), the range control reaches the server
// and changes the picture, and playback moves from the page.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import path from 'node:path';
import { pathToFileURL } from 'node:url';
import { api, canvasStatistics, launchBrowser, openViewer, seekWithPage, startServer, toolFalseColour, toolFrame, until } from './harness.mjs';
import { decodePng } from './png.mjs';

let server;
let browser;
let viewer;

before(async () => {
  server = await startServer();
  browser = await launchBrowser();
  viewer = await openViewer(browser, server);
  // The read-outs are compared pixel by pixel: full size, not what auto picks for the link.
  await viewer.page.selectOption('#set-decimate', '1');
});
after(async () => {
  await browser?.close();
  await server?.stop();
});

const PICTURES = ['depth', 'ir', 'colour', 'registered', 'noise', 'validity', 'cloud'];
const frameShown = () => viewer.page.evaluate(() => document.body.dataset.frameIndex);

test('the page loads without errors and every panel and the 3-D view draw', async () => {
  const { page, problems } = viewer;
  await until(frameShown, 'a first frame on the page');
  // Drawn: not one fill, at least four colours (in steps of 8 a channel). The real
  // server's scene (a wall and two boxes, each nearly flat) gives the 3-D view only
  // four to six; the mock's ramp gives every picture many more.
  for (const name of PICTURES) {
    await page.locator(`#panel-${name}`).scrollIntoViewIfNeeded(); // hidden panels skip their work
    const stats = await until(async () => {
      const s = await canvasStatistics(page, `#panel-${name} .picture`);
      return s && s.width > 4 && s.unlike > 0.05 && s.colours >= 4 ? s : null;
    }, `a picture in the ${name} panel`);
    assert.ok(stats.colours >= 4, `${name}: ${JSON.stringify(stats)}`);
  }
  const legend = await page.textContent('#panel-depth .legend');
  assert.match(legend, /\d+ mm.*\d+ mm/);
  // No panel reports a failure, and nothing went to the console as an error.
  const failed = await page.$$eval('.panel.failed', (ps) => ps.map((p) => `${p.id}: ${p.querySelector('.panel-error').textContent}`));
  assert.deepEqual(failed, []);
  assert.deepEqual(problems, []);
});

// Pauses the recording and waits until the page shows the paused frame; returns it.
async function pausedFrame() {
  const status = await (await api(server, '/api/playback', { action: 'pause' })).json();
  const index = status.frame.index;
  await until(async () => (await frameShown()) === String(index), `frame ${index} on the page`);
  return index;
}

// Moves the mouse over pixel (row, col) of a panel whose picture is width x height
// pixels of the depth grid, and returns the read-out's data.
async function readoutAt(panel, row, col, width, height) {
  const { page } = viewer;
  await page.locator(`#panel-${panel} .picture`).scrollIntoViewIfNeeded();
  const box = await page.locator(`#panel-${panel} .picture`).boundingBox();
  await page.mouse.move(box.x + ((col + 0.5) * box.width) / width, box.y + ((row + 0.5) * box.height) / height);
  return page.$eval(`#panel-${panel} .readout`, (e) => ({ ...e.dataset, text: e.textContent }));
}

test('the depth under the cursor is the server\'s depth at that pixel, with its X, Y, Z', async () => {
  const index = await pausedFrame();
  const response = await api(server, '/api/frame/depth.png');
  assert.equal(response.headers.get('X-Frame-Index'), String(index));
  const served = Buffer.from(await response.arrayBuffer());
  const png = decodePng(served);
  assert.equal(png.bitDepth, 16);
  const rays = await api(server, '/api/rays');
  const n = png.width * png.height;
  const table = new Float32Array(await rays.arrayBuffer());
  assert.equal(table.length, 2 * n);
  // Against the real server, the library's own depth and points of that frame.
  const tool = await toolFrame(index);
  if (tool) assert.ok(served.equals(tool.bytes), `the served depth of frame ${index} is qvrecon depth's`);

  // Pixels over the picture, without depth and saturated where the picture has them.
  const wanted = [];
  for (const fr of [0.2, 0.5, 0.8]) for (const fc of [0.15, 0.4, 0.6, 0.85]) wanted.push([Math.floor(fr * png.height), Math.floor(fc * png.width)]);
  const firstOf = (v) => png.data.findIndex((d) => d === v);
  for (const v of [0, 1]) {
    const i = firstOf(v);
    if (i >= 0) wanted.push([Math.floor(i / png.width), i % png.width]);
  }
  for (const panel of ['depth', 'ir']) {
    for (const [row, col] of wanted) {
      const got = await readoutAt(panel, row, col, png.width, png.height);
      const i = row * png.width + col;
      const d = png.data[i];
      const where = `${panel} (${row}, ${col}): ${got.text}`;
      assert.equal(Number(got.row), row, where);
      assert.equal(Number(got.col), col, where);
      assert.equal(Number(got.mm), d, where);
      if (d > 1) {
        assert.equal(Number(got.x), Math.fround(table[i] * d), where);
        assert.equal(Number(got.y), Math.fround(table[n + i] * d), where);
        assert.equal(Number(got.z), d, where);
      } else {
        assert.equal(got.x, undefined, where);
      }
      if (tool && d > 1) {
        assert.deepEqual([got.x, got.y, got.z].map(Number), [...tool.points.subarray(3 * i, 3 * i + 3)], `${where}: the library's point`);
      } else if (tool) {
        assert.ok(Number.isNaN(tool.points[3 * i]), `${where}: the library has no point`);
      }
    }
  }
  assert.deepEqual(viewer.problems, []);
});

// The page paints depth with its own table of the library's false colour.
const { falseColourTable } = await import(pathToFileURL(path.join(process.env.QV_VIEWER_ASSETS, 'js/false_colour.js')));

test('the depth picture is the library\'s false colour of the frame\'s depth', async () => {
  const { page } = viewer;
  const index = await pausedFrame();
  const response = await api(server, '/api/frame/depth.png');
  assert.equal(response.headers.get('X-Frame-Index'), String(index));
  const png = decodePng(Buffer.from(await response.arrayBuffer()));
  const range = (await (await api(server, '/api/settings')).json()).range;

  // Against the real server: the table is, byte for byte, what the library paints of
  // this frame (`qvrecon depth`'s false colour), for the range in use, a range of a millimetre a level around the
  // median depth, a range two millimetres wide (nearly everything clamped) and the
  // widest.
  const sorted = png.data.filter((d) => d > 1).sort();
  const median = sorted[sorted.length >> 1];
  for (const r of [range, [Math.max(0, median - 500), Math.max(0, median - 500) + 1021], [median - 1, median + 1], [0, 65535]]) {
    const tool = await toolFalseColour(index, r);
    if (!tool) break;
    const table = falseColourTable(r[0], r[1]);
    // (The tool's picture has its legend to the right of the depth's columns.)
    const { width, height, data } = tool.depth;
    let differ = 0;
    let first = '';
    for (let i = 0; i < width * height; i++) {
      const d = data[i];
      const at = 3 * (Math.floor(i / width) * tool.colour.width + (i % width));
      const painted = tool.colour.data.subarray(at, at + 3);
      if (table[4 * d] !== painted[0] || table[4 * d + 1] !== painted[1] || table[4 * d + 2] !== painted[2]) {
        if (!differ++) first = `pixel ${i}, depth ${d}: ${[...table.subarray(4 * d, 4 * d + 3)]} against ${[...painted]}`;
      }
    }
    assert.equal(differ, 0, `range ${r}: ${differ} pixels unlike the library's, the first ${first}`);
  }

  // The picture drawn: at points over it, the table's colour of the depth under the
  // point (or of a neighbour: a point on a pixel's edge may be drawn from either side).
  await page.locator('#panel-depth').scrollIntoViewIfNeeded();
  await until(async () => (await canvasStatistics(page, '#panel-depth .picture'))?.unlike > 0.05, 'the depth picture');
  const table = falseColourTable(range[0], range[1]);
  const points = [];
  for (let fy = 0.03; fy < 1; fy += 0.09) for (let fx = 0.03; fx < 1; fx += 0.09) points.push([fx, fy]);
  const drawn = await page.evaluate((at) => {
    const target = document.querySelector('#panel-depth .picture');
    const surface = document.getElementById('gpu-surface');
    const r = target.getBoundingClientRect();
    const s = surface.getBoundingClientRect();
    const k = surface.width / s.width;
    const c = document.createElement('canvas');
    [c.width, c.height] = [surface.width, surface.height];
    const ctx = c.getContext('2d');
    ctx.drawImage(surface, 0, 0);
    return at.map(([fx, fy]) => {
      const x = Math.floor((r.left - s.left + fx * r.width) * k);
      const y = Math.floor((r.top - s.top + fy * r.height) * k);
      const u = (x + 0.5) / k - (r.left - s.left);
      const v = (y + 0.5) / k - (r.top - s.top);
      return { rgb: [...ctx.getImageData(x, y, 1, 1).data.subarray(0, 3)], u: u / r.width, v: v / r.height };
    });
  }, points);
  for (const { rgb, u, v } of drawn) {
    const col = Math.floor(u * png.width);
    const row = Math.floor(v * png.height);
    const near = [];
    for (let dr = -1; dr <= 1; dr++) {
      for (let dc = -1; dc <= 1; dc++) {
        const rr = Math.min(png.height - 1, Math.max(0, row + dr));
        const cc = Math.min(png.width - 1, Math.max(0, col + dc));
        near.push([...table.subarray(4 * png.data[rr * png.width + cc], 4 * png.data[rr * png.width + cc] + 3)].join());
      }
    }
    assert.ok(near.includes(rgb.join()), `(${row}, ${col}) drawn ${rgb}, the depth's colours there ${[...new Set(near)].join(' / ')}`);
  }
  assert.deepEqual(viewer.problems, []);
});

test('the range control changes the server\'s settings and the picture', async () => {
  const { page } = viewer;
  await pausedFrame();
  const before = await (await api(server, '/api/settings')).json();
  await page.locator('#panel-depth').scrollIntoViewIfNeeded();
  const picture = async () => (await canvasStatistics(page, '#panel-depth .picture'))?.sum;
  const shown = await picture();
  const range = [before.range[0] + 100, Math.max(before.range[0] + 300, Math.floor(before.range[1] / 2))];
  await page.fill('#set-range-min', String(range[0]));
  await page.fill('#set-range-max', String(range[1]));
  await page.click('#set-range-apply');
  await until(async () => {
    const now = await (await api(server, '/api/settings')).json();
    return now.range[0] === range[0] && now.range[1] === range[1];
  }, 'the new range on the server');
  await until(async () => (await picture()) !== shown, 'the depth picture coloured for the new range');
  // (The page takes the new range from the server's answer, which may come after the
  // frame coloured with it.)
  await until(async () => {
    const legend = await page.textContent('#panel-depth .legend');
    return legend.includes(`${range[0]} mm`) && legend.includes(`${range[1]} mm`);
  }, `the legend of ${range[0]}–${range[1]} mm`);
  // The server's other settings are as they were.
  const after = await (await api(server, '/api/settings')).json();
  assert.equal(after.filter, before.filter);
  assert.equal(after.flip, before.flip);
  await api(server, '/api/settings', { range: before.range });
  assert.deepEqual(viewer.problems, []);
});

test('playback: a seek and a step from the page move the recording and the picture', async () => {
  const { page } = viewer;
  await pausedFrame();
  const frames = (await (await api(server, '/api/status')).json()).source.frames;
  assert.ok(frames >= 4, `a recording of ${frames} frames`);
  const shown = Number(await frameShown());
  const target = shown === 2 ? 1 : 2;
  await seekWithPage(page, target);
  await page.click('#step-forward');
  await until(async () => (await frameShown()) === String(target + 1), `frame ${target + 1} after a step`);
  const status = await (await api(server, '/api/status')).json();
  assert.equal(status.frame.index, target + 1);
  assert.equal(status.source.playing, false);
  assert.equal(await page.textContent('#panel-playback .position'), `${target + 1} / ${frames - 1}`);
  assert.deepEqual(viewer.problems, []);
});

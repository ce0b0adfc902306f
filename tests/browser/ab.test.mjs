// The A/B panel in headless Chromium: switched on from the page, it draws A, B and
// their difference, its read-out under the cursor is B − A of the server's two depth
// snapshots at that pixel, its figures count the pixels that differ, and its controls
// reach the server's B settings.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { api, canvasStatistics, launchBrowser, openViewer, startServer, until } from './harness.mjs';
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

const settings = async () => (await api(server, '/api/settings')).json();
const frameShown = () => viewer.page.evaluate(() => document.body.dataset.frameIndex);

async function snapshot(name, index) {
  const response = await api(server, `/api/frame/${name}`);
  assert.equal(response.headers.get('X-Frame-Index'), String(index));
  return decodePng(Buffer.from(await response.arrayBuffer()));
}

test('A/B switched on from the page: A, B and B − A drawn, the read-out is B − A of the served depths', async () => {
  const { page, problems } = viewer;
  await until(frameShown, 'a first frame on the page');
  const status = await (await api(server, '/api/playback', { action: 'pause' })).json();
  const index = status.frame.index;
  await page.locator('#panel-ab').scrollIntoViewIfNeeded(); // a panel out of sight does no work
  await until(async () => (await page.textContent('#ab-message')) === 'A/B is off: switch it on to compare',
    'the panel saying that A/B is off');
  await page.click('#ab-on');
  await until(async () => (await settings()).ab, 'A/B on at the server');
  await until(async () => (await frameShown()) === String(index) &&
    (await page.$('#ab-figures dd[data-key=differ]')), `frame ${index} with B on the page`);

  for (const [key, colours] of [['a', 4], ['b', 4], ['diff', 3]]) {
    const stats = await until(async () => {
      const s = await canvasStatistics(page, `#ab-picture-${key}`);
      return s && s.width > 4 && s.unlike > 0.05 && s.colours >= colours ? s : null;
    }, `a picture of ${key}`);
    assert.ok(stats.colours >= colours, `${key}: ${JSON.stringify(stats)}`);
  }

  const a = await snapshot('depth.png', index);
  const b = await snapshot('depth_b.png', index);
  assert.equal(b.width, a.width);
  const n = a.width * a.height;
  const find = (test) => { for (let i = 0; i < n; i++) if (test(a.data[i], b.data[i])) return i; return -1; };
  const picks = [
    find((x, y) => x > 1 && y > 1 && y > x), find((x, y) => x > 1 && y > 1 && y < x),
    find((x, y) => x > 1 && y > 1 && x === y), find((x, y) => x > 1 && y <= 1), find((x, y) => x <= 1),
  ].filter((i) => i >= 0);
  assert.ok(picks.length >= 3, 'pixels where B is farther, nearer and equal');
  for (const [k, i] of picks.entries()) {
    const row = Math.floor(i / a.width);
    const col = i % a.width;
    const key = ['diff', 'a', 'b'][k % 3];
    const box = await page.locator(`#ab-picture-${key}`).boundingBox();
    await page.mouse.move(box.x + ((col + 0.5) * box.width) / a.width, box.y + ((row + 0.5) * box.height) / a.height);
    const got = await page.$eval('#ab-readout', (e) => ({ ...e.dataset, text: e.textContent }));
    const [da, db] = [a.data[i], b.data[i]];
    assert.equal(Number(got.row), row, got.text);
    assert.equal(Number(got.col), col, got.text);
    assert.equal(Number(got.a), da, got.text);
    assert.equal(Number(got.b), db, got.text);
    assert.equal(got.diff, da > 1 && db > 1 ? String(db - da) : '', got.text);
  }

  // The figures are of the same 16-bit data.
  let differ = 0;
  for (let i = 0; i < n; i++) differ += a.data[i] > 1 && b.data[i] > 1 && a.data[i] !== b.data[i];
  const text = await page.textContent('#ab-figures dd[data-key=differ]');
  assert.match(text, new RegExp(`\\(${differ} pixels\\)`));

  // B's filter from the page reaches the server; the flip stays shared.
  const was = (await settings()).b.filter;
  await page.click('#ab-filter');
  await until(async () => (await settings()).b.filter === !was, "B's filter changed at the server");
  await page.click('#ab-on');
  await until(async () => !(await settings()).ab, 'A/B off again');
  await api(server, '/api/settings', { b: { filter: was } });
  const failed = await page.$$eval('.panel.failed', (ps) => ps.map((p) => `${p.id}: ${p.querySelector('.panel-error').textContent}`));
  assert.deepEqual(failed, []);
  assert.deepEqual(problems, []);
});

// What the page asks of the server and draws follows what is in sight and what changed:
// the stream's options name only the blobs of the panels in sight, frames then carry
// only those, and a panel scrolled into sight while the source is paused draws the
// frame shown (not the picture it held before) without an error; paused, the same
// frame again updates no picture, and a change to the cloud redraws it while the other
// pictures stay as they were, and the page left alone asks for no animation frames;
// without a GPU the cloud draws fewer points while the source plays. Against the mock
// or the real server.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { api, canvasStatistics, launchBrowser, openViewer, serverKind, startServer, until } from './harness.mjs';

let server;
let browser;

before(async () => {
  server = await startServer();
  browser = await launchBrowser();
});
after(async () => {
  await browser?.close();
  await server?.stop();
});

// A frame message's blobs.
function blobsOf(payload) {
  const n = payload.readUInt32LE(4);
  return JSON.parse(payload.subarray(8, 8 + n).toString('utf8')).blobs;
}

test('the server is asked for the blobs in sight; a panel scrolled into sight while paused draws the frame shown', async () => {
  const { page, problems } = await openViewer(browser, server, { width: 1280, height: 720 });
  const options = [];
  const received = []; // blob names of each frame message
  const widths = []; // and their widths, by name
  page.on('websocket', (ws) => {
    ws.on('framesent', ({ payload }) => {
      const m = typeof payload === 'string' ? JSON.parse(payload) : null;
      if (m?.type === 'options') options.push(m);
    });
    ws.on('framereceived', ({ payload }) => {
      if (typeof payload === 'string') return;
      const blobs = blobsOf(payload);
      received.push(blobs.map((b) => b.name).sort());
      widths.push(Object.fromEntries(blobs.map((b) => [b.name, b.width])));
    });
  });
  await page.reload();
  await api(server, '/api/playback', { action: 'play' });
  const shown = () => page.evaluate(() => document.body.dataset.frameIndex);
  const panelFrame = (id) => page.$eval(`#${id}`, (p) => p.dataset.frameIndex);
  const lastBlobs = () => options.filter((m) => m.blobs).at(-1)?.blobs.slice().sort().join(' ');

  // At the top: depth, IR, colour and registered depth on colour are in sight.
  await until(async () => lastBlobs() === 'colour depth ir registered', 'the blobs of the panels at the top');
  // The colour grid's pictures asked for no wider than they are drawn (in steps of 128
  // device pixels); the real server then sends them at the coarsest of its sizes (1920,
  // 960 or 480 wide) still as wide.
  const drawn = await page.evaluate(() => Math.max(...['#panel-colour', '#panel-registered'].map(
    (id) => document.querySelector(`${id} .picture`).getBoundingClientRect().width * window.devicePixelRatio)));
  const asked = 128 * Math.ceil(drawn / 128);
  await until(() => options.filter((m) => m.blobs).at(-1)?.colour_width === asked, `colour_width ${asked}`);
  if (serverKind === 'real') {
    const sent = [1920, 960, 480].filter((w) => w >= asked).at(-1);
    assert.ok(sent < 1920, `${asked} pixels drawn: a smaller colour grid`);
    await until(() => widths.at(-1)?.registered === sent && widths.at(-1)?.colour === sent, `the colour grid ${sent} wide`);
  }
  // Paused at K, IR drawn; then out of sight (the bottom of the page: no picture of
  // the top panels) and the source stepped to K + 1.
  const paused = await (await api(server, '/api/playback', { action: 'pause' })).json();
  const k = paused.frame.index;
  await until(async () => (await shown()) === String(k) && (await panelFrame('panel-ir')) === String(k), `frame ${k} in the IR panel`);
  const irAtK = await until(() => canvasStatistics(page, '#panel-ir .picture'), 'the IR picture of frame K');
  await page.evaluate(() => window.scrollTo(0, document.documentElement.scrollHeight));
  await until(async () => lastBlobs() === 'depth depth_b', 'only the blobs of the panels at the bottom');
  const stepped = await (await api(server, '/api/playback', { action: 'step', delta: 1 })).json();
  const next = stepped.frame.index;
  await until(async () => (await shown()) === String(next), `frame ${next} on the page`);
  // Frames sent after the options carry only what was asked for (A/B is off: no B).
  // (The step may reach the server before the options do: the frame comes again.)
  await until(() => received.at(-1)?.join(' ') === 'depth', 'the frame with depth alone');
  assert.equal(await panelFrame('panel-ir'), String(k)); // out of sight: not drawn

  // Back at the top: the paused frame comes again with the pictures, and IR shows it.
  const before = received.length;
  await page.evaluate(() => window.scrollTo(0, 0));
  await until(async () => lastBlobs() === 'colour depth ir registered', 'the blobs of the top panels again');
  await until(async () => (await panelFrame('panel-ir')) === String(next), `frame ${next} in the IR panel`);
  assert.ok(received.slice(before).some((names) => names.includes('ir')), 'a frame with IR came');
  const irAtNext = await until(() => canvasStatistics(page, '#panel-ir .picture'), 'the IR picture of frame K + 1');
  assert.ok(irAtNext.unlike > 0.05, JSON.stringify(irAtNext));
  assert.notEqual(irAtNext.sum, irAtK.sum, 'the IR panel shows frame K + 1, not the picture of K');
  for (const id of ['panel-depth', 'panel-colour', 'panel-registered']) {
    await until(async () => (await panelFrame(id)) === String(next), `frame ${next} in ${id}`);
  }
  const failed = await page.$$eval('.panel.failed', (ps) => ps.map((p) => `${p.id}: ${p.querySelector('.panel-error').textContent}`));
  assert.deepEqual(failed, []);
  await page.close();
  assert.deepEqual(problems, []);
});

test('paused, the same frame again redraws no picture, a change to the cloud redraws it alone, and nothing runs left alone', async () => {
  const { page, problems } = await openViewer(browser, server, { width: 1600, height: 1000 });
  await until(() => page.evaluate(() => document.body.dataset.frameIndex), 'a first frame');
  await page.selectOption('#set-decimate', '1');
  const paused = await (await api(server, '/api/playback', { action: 'pause' })).json();
  const k = String(paused.frame.index);
  const panels = ['panel-depth', 'panel-ir', 'panel-colour', 'panel-registered', 'panel-cloud'];
  await until(async () => {
    const shown = await page.$$eval(panels.map((id) => `#${id}`).join(','), (ps) => ps.map((p) => p.dataset.frameIndex));
    const width = await page.$eval('#panel-depth .picture', (e) => Number(e.dataset.width));
    return shown.every((i) => i === k) && width === paused.width && !(await page.$('.panel.failed'));
  }, `frame ${k} at full size in every picture panel`);
  const counters = () => page.evaluate(() => ({ ...window.qvViewerCounters }));
  const pictures = () => Promise.all(panels.map((id) => canvasStatistics(page, `#${id} .picture`)));

  // The same frame again (options sent: the server sends the paused frame again): it
  // is taken, and no picture panel is updated (the frames still on their way are of
  // this frame too).
  const start = await counters();
  await page.selectOption('#set-decimate', 'auto');
  await until(async () => (await counters()).displayed > start.displayed, 'the paused frame again');
  const again = await counters();
  assert.equal(again.pictureUpdates, start.pictureUpdates, JSON.stringify([start, again]));
  assert.equal(await page.evaluate(() => document.body.dataset.frameIndex), k);

  // A new density, then turning the cloud with the mouse, redraw the cloud; the other
  // pictures stay as drawn (the surface keeps its drawing and redraws the cloud's
  // rectangle alone).
  const before = await pictures();
  await page.selectOption('#cloud-density', '4');
  const thinned = await until(async () => {
    const now = await pictures();
    return now.at(-1).sum !== before.at(-1).sum ? now : null;
  }, 'the cloud drawn at its new density');
  const box = await page.locator('#panel-cloud .picture').boundingBox();
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width / 2 + 60, box.y + box.height / 2 + 10, { steps: 4 });
  await page.mouse.up();
  const turned = await until(async () => {
    const now = await pictures();
    return now.at(-1).sum !== thinned.at(-1).sum ? now : null;
  }, 'the cloud turned');
  for (let i = 0; i < panels.length - 1; i++) {
    assert.equal(thinned[i].sum, before[i].sum, `${panels[i]} unchanged by the density`);
    assert.equal(turned[i].sum, before[i].sum, `${panels[i]} unchanged by the turn`);
  }
  assert.equal((await counters()).pictureUpdates, again.pictureUpdates, 'no picture updated from a frame');

  // Paused and left alone, the page asks for no animation frames (each one makes the
  // browser produce and composite a frame: without a GPU a tenth of a core for nothing).
  const asked = await page.evaluate(async () => {
    let n = 0;
    const ask = window.requestAnimationFrame;
    window.requestAnimationFrame = (f) => { n++; return ask.call(window, f); };
    await new Promise((r) => setTimeout(r, 1500));
    window.requestAnimationFrame = ask;
    return n;
  });
  assert.ok(asked <= 3, `${asked} animation frames asked for in 1.5 s, paused`);
  await page.close();
  assert.deepEqual(problems, []);
});

test('without a GPU the cloud draws fewer points while the source plays, all it is asked for when paused', async () => {
  const { page, problems } = await openViewer(browser, server, { width: 1600, height: 1000 });
  await page.selectOption('#set-decimate', '1');
  await page.selectOption('#cloud-density', '2'); // every second pixel each way
  await api(server, '/api/playback', { action: 'play' });
  const cloud = () => page.$eval('#panel-cloud .picture', (e) => ({ points: Number(e.dataset.points), step: Number(e.dataset.step) }));
  const status = await (await api(server, '/api/status')).json();
  const points = (step) => Math.ceil(status.width / step) * Math.ceil(status.height / step);
  let thin = 2;
  while (points(thin) > 20000) thin *= 2;
  // (The harness runs Chromium's WebGL in software.) Full-size depth, playing:
  await until(async () => (await page.$eval('#panel-depth .picture', (e) => Number(e.dataset.width))) === status.width &&
    (await cloud()).step === thin, 'the cloud thinned while playing');
  assert.equal((await cloud()).points, points(thin));
  await api(server, '/api/playback', { action: 'pause' });
  // The status tells the page within a second; then the frame shown is drawn again.
  const full = await until(async () => ((await cloud()).step === 2 ? cloud() : null), 'the cloud at its density, paused');
  assert.equal(full.points, points(2));
  // Turning it keeps every point.
  const box = await page.locator('#panel-cloud .picture').boundingBox();
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width / 2 - 40, box.y + box.height / 2, { steps: 3 });
  await page.mouse.up();
  assert.deepEqual(await cloud(), full);
  await page.close();
  assert.deepEqual(problems, []);
});

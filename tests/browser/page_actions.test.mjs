// What the page's controls do, in headless Chromium against the server (the mock, or
// the real `qvrecon view` of a recording): a snapshot of a frame sought with the page's
// control gives four files naming that frame and holding its data (against the real
// server, the depth PNG of `qvrecon depth` of that frame, byte for byte), record start
// and stop post to the server and show its state, a dragged region of interest gives
// the depth's figures and draws its plots, the cloud's colourings draw, and the
// decimation reaches the server and keeps the read-out exact. Any console error fails.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { api, canvasStatistics, launchBrowser, openViewer, seekWithPage, startServer, toolFrame, until } from './harness.mjs';
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
  await until(() => viewer.page.evaluate(() => document.body.dataset.frameIndex), 'a first frame on the page');
});
after(async () => {
  await browser?.close();
  await server?.stop();
});

const frameShown = () => viewer.page.evaluate(() => document.body.dataset.frameIndex);

async function pausedFrame() {
  const status = await (await api(server, '/api/playback', { action: 'pause' })).json();
  const index = status.frame.index;
  await until(async () => (await frameShown()) === String(index), `frame ${index} on the page`);
  return index;
}

async function depthOfServer() {
  const response = await api(server, '/api/frame/depth.png');
  const bytes = Buffer.from(await response.arrayBuffer());
  return { index: response.headers.get('X-Frame-Index'), bytes, png: decodePng(bytes) };
}

test('a snapshot of a frame sought from the page downloads its depth, colour, points and metadata', async () => {
  const { page, problems } = viewer;
  const shown = await pausedFrame();
  const index = shown === 3 ? 4 : 3;
  await seekWithPage(page, index);
  const downloads = [];
  const onDownload = (d) => downloads.push(d);
  page.on('download', onDownload);
  await page.click('#snapshot');
  await until(() => downloads.length >= 4, 'four downloads');
  page.off('download', onDownload);
  const names = downloads.map((d) => d.suggestedFilename()).sort();
  assert.deepEqual(names, ['cloud.ply', 'colour.png', 'depth.png', 'meta.json'].map((n) => `frame-${index}-${n}`));
  const file = async (suffix) => {
    const d = downloads.find((x) => x.suggestedFilename().endsWith(suffix));
    const chunks = [];
    for await (const c of await d.createReadStream()) chunks.push(c);
    return Buffer.concat(chunks);
  };
  // The files are the server's parts of that frame; against the real server, the
  // depth is the library's, as `qvrecon depth` writes it.
  const server16 = await depthOfServer();
  assert.equal(server16.index, String(index));
  const savedBytes = await file('depth.png');
  const saved = decodePng(savedBytes);
  assert.equal(saved.bitDepth, 16);
  assert.deepEqual([saved.width, saved.height], [server16.png.width, server16.png.height]);
  assert.ok(savedBytes.equals(server16.bytes), 'the depth PNG is the server\'s');
  const tool = await toolFrame(index);
  if (tool) assert.ok(savedBytes.equals(tool.bytes), `the depth PNG is qvrecon depth's of frame ${index}`);
  const meta = JSON.parse((await file('meta.json')).toString('utf8'));
  assert.equal(meta.index, index);
  assert.match((await file('cloud.ply')).subarray(0, 4).toString('latin1'), /^ply/);
  assert.match(await page.textContent('#panel-record .note'), new RegExp(`snapshot of frame ${index}:`));
  assert.deepEqual(problems, []);
});

test('record start and stop post to the server and the button shows its state', async () => {
  const { page, problems } = viewer;
  const posted = [];
  const onRequest = (r) => { if (r.url().endsWith('/api/record') && r.method() === 'POST') posted.push(r.postDataJSON()); };
  page.on('request', onRequest);
  await page.click('#record');
  await until(async () => (await (await api(server, '/api/status')).json()).recording.active, 'a recording on the server');
  await until(async () => (await page.textContent('#record')).includes('stop'), 'the stop button');
  assert.ok(await page.$eval('#record', (b) => b.classList.contains('recording')));
  assert.match(await page.textContent('#panel-record .note'), /recording to \S+\.mcap/);
  await page.click('#record');
  await until(async () => !(await (await api(server, '/api/status')).json()).recording.active, 'the recording stopped');
  await until(async () => (await page.textContent('#record')).includes('record'), 'the record button again');
  assert.ok(!(await page.$eval('#record', (b) => b.classList.contains('recording'))));
  page.off('request', onRequest);
  assert.deepEqual(posted, [{ action: 'start' }, { action: 'stop' }]);
  assert.deepEqual(problems, []);
});

test('a region dragged on the depth picture gives its depth figures, histogram and plot', async () => {
  const { page, problems } = viewer;
  await pausedFrame();
  const { png } = await depthOfServer();
  const picture = page.locator('#panel-depth .picture');
  await picture.scrollIntoViewIfNeeded();
  const box = await picture.boundingBox();
  const at = (col, row) => [box.x + ((col + 0.5) * box.width) / png.width, box.y + ((row + 0.5) * box.height) / png.height];
  await page.mouse.move(...at(100, 100));
  await page.mouse.down();
  await page.mouse.move(...at(150, 130), { steps: 4 });
  await page.mouse.move(...at(200, 150), { steps: 4 });
  await page.mouse.up();
  await page.locator('#panel-roi').scrollIntoViewIfNeeded();
  // A frame after the drag brings the figures; two frames make a line of the plot.
  await api(server, '/api/playback', { action: 'step' });
  const last = (await (await api(server, '/api/playback', { action: 'step' })).json()).frame.index;
  const figures = await until(async () => {
    const d = await page.$eval('#panel-roi .note', (e) => ({ ...e.dataset }));
    return d.index === String(last) ? d : null;
  }, `the region's figures of frame ${last}`);
  const [c0, r0, c1, r1] = [figures.c0, figures.r0, figures.c1, figures.r1].map(Number);
  for (const [got, want] of [[c0, 100], [r0, 100], [c1, 201], [r1, 151]]) assert.ok(Math.abs(got - want) <= 2, JSON.stringify(figures));
  // The figures are those of the frame shown, computed here the same way.
  const shown = await depthOfServer();
  const values = [];
  for (let r = r0; r < r1; r++) for (let c = c0; c < c1; c++) { const d = shown.png.data[r * png.width + c]; if (d > 1) values.push(d); }
  assert.equal(Number(figures.count), values.length);
  assert.equal(Number(figures.mean), values.reduce((a, b) => a + b, 0) / values.length);
  assert.equal(Number(figures.lo), Math.min(...values));
  assert.equal(Number(figures.hi), Math.max(...values));
  const [histogram, trend] = await Promise.all([0, 1].map((i) => until(async () => {
    const s = await canvasStatistics(page, `#panel-roi canvas.plot:nth-of-type(${i + 1})`);
    return s && s.unlike > 0.01 ? s : null;
  }, `the region's ${i ? 'plot' : 'histogram'}`)));
  assert.ok(histogram.colours >= 2 && trend.colours >= 2);
  // A click without dragging clears the region.
  await picture.scrollIntoViewIfNeeded();
  const now = await picture.boundingBox();
  await page.mouse.click(now.x + now.width / 2, now.y + now.height / 2);
  assert.ok(await page.$eval('#panel-depth .roi-box', (b) => b.hidden));
  assert.deepEqual(problems, []);
});

test('the cloud draws coloured by depth, by IR and by the registered colour', async () => {
  const { page, problems } = viewer;
  await pausedFrame();
  await page.locator('#panel-cloud').scrollIntoViewIfNeeded();
  const sums = new Set();
  for (const mode of ['depth', 'ir', 'colour']) {
    await page.selectOption('#cloud-colour', mode);
    const s = await until(async () => {
      const st = await canvasStatistics(page, '#panel-cloud .picture');
      return st && st.unlike > 0.05 && st.colours >= 4 && !sums.has(st.sum) ? st : null;
    }, `the cloud coloured by ${mode}`);
    sums.add(s.sum);
    assert.equal(await page.$eval('#panel-cloud', (p) => p.classList.contains('failed')), false, mode);
  }
  await page.selectOption('#cloud-colour', 'depth');
  assert.deepEqual(problems, []);
});

test('decimation is asked of the server and the read-out stays exact', async () => {
  const { page, problems } = viewer;
  const sent = [];
  const widths = [];
  const listen = (ws) => {
    ws.on('framesent', ({ payload }) => { if (typeof payload === 'string') sent.push(JSON.parse(payload)); });
    ws.on('framereceived', ({ payload }) => {
      if (typeof payload === 'string' || payload.length < 8) return;
      const n = payload.readUInt32LE(4);
      const head = JSON.parse(payload.subarray(8, 8 + n).toString('utf8'));
      const depth = head.blobs.find((b) => b.name === 'depth');
      if (depth) widths.push(depth.width);
    });
  };
  // The page's socket is open already: a new page opens its own while listened to.
  const second = await openViewer(browser, server);
  second.page.on('websocket', listen);
  await second.page.reload();
  await until(() => second.page.evaluate(() => document.body.dataset.frameIndex), 'frames on the second page');
  await second.page.selectOption('#set-decimate', '2');
  await until(() => sent.some((m) => m.type === 'options' && m.decimate === 2), 'the options sent');
  await api(server, '/api/playback', { action: 'step' });
  await until(() => widths.at(-1) === 320, 'depth of half the width');
  const index = await (async () => {
    const status = await (await api(server, '/api/status')).json();
    await until(async () => (await second.page.evaluate(() => document.body.dataset.frameIndex)) === String(status.frame.index), 'the frame on the page');
    return status.frame.index;
  })();
  const { index: served, png } = await depthOfServer();
  assert.equal(served, String(index));
  const picture = second.page.locator('#panel-depth .picture');
  await picture.scrollIntoViewIfNeeded();
  const box = await picture.boundingBox();
  // Over the decimated pixel (r, c) the read-out names full-grid pixel (2r, 2c) and its depth.
  for (const [r, c] of [[60, 80], [150, 200]]) {
    await second.page.mouse.move(box.x + ((c + 0.5) * box.width) / 320, box.y + ((r + 0.5) * box.height) / 240);
    const got = await second.page.$eval('#panel-depth .readout', (e) => ({ ...e.dataset }));
    assert.equal(Number(got.row), 2 * r);
    assert.equal(Number(got.col), 2 * c);
    assert.equal(Number(got.mm), png.data[2 * r * png.width + 2 * c]);
  }
  await second.page.close();
  assert.deepEqual(second.problems, []);
  assert.deepEqual(problems, []);
});

test('the page takes frames against credit, with the decimation its link allows', async () => {
  const second = await openViewer(browser, server);
  const sent = [];
  const urls = [];
  second.page.on('websocket', (ws) => {
    urls.push(ws.url());
    ws.on('framesent', ({ payload }) => {
      if (typeof payload === 'string') sent.push(JSON.parse(payload));
    });
  });
  await second.page.reload();
  await api(server, '/api/playback', { action: 'play' });
  await until(() => second.page.evaluate(() => window.qvViewerCounters?.displayed > 5), 'frames on the page');
  assert.equal(sent[0].type, 'options');
  assert.equal(sent[0].decimate, 'auto');
  assert.ok(sent.some((m) => m.type === 'credit' && m.frames === 1), JSON.stringify(sent));
  assert.equal(await second.page.inputValue('#set-decimate'), 'auto');
  // The first credit comes with the address: no frame is sent before it.
  assert.match(urls.at(-1), /[?&]credit=1(&|$)/);
  // Frames come as fast as the page takes them, not as the server makes them: the
  // worker skips none.
  const count = () => second.page.evaluate(() => ({ ...window.qvViewerCounters }));
  const credits = () => sent.filter((m) => m.type === 'credit').reduce((n, m) => n + m.frames, 0);
  const start = { ...(await count()), credits: credits() };
  await until(async () => (await count()).received >= start.received + 10, 'ten more frames');
  const end = { ...(await count()), credits: credits() };
  assert.equal(end.skippedInWorker, start.skippedInWorker, JSON.stringify([start, end]));
  // Each frame paid for: one credit may be outstanding at the start, and the report of
  // one sent before the end may come after it.
  assert.ok(end.received - start.received <= end.credits - start.credits + 2, JSON.stringify([start, end]));
  // The statistics tell what the link carries.
  await until(async () => /\(auto\)/.test(await second.page.textContent('#panel-stats [data-key=decimate]')), 'the decimation in use');
  assert.match(await second.page.textContent('#panel-stats [data-key=bytes]'), /MB\/s, [\d.]+ frames\/s/);
  await second.page.close();
  assert.deepEqual(second.problems, []);
});

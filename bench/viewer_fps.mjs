// The viewer's page in headless Chromium: displayed frames a second, frames dropped and
// bytes a second over the WebSocket, for N seconds. Run by hand (a benchmark, not a test):
//
//   node bench/viewer_fps.mjs [--browser-dir build/browser] [--seconds 10]
//        [--viewport 1600x1000] [--decimate 1|2|4] [--all] [--devtools]
//
// --browser-dir is where the build put the browser tests' harness and their npm packages
// (ctest -R viewer_page_browser installs them). The server is the tests' mock serving
// QV_VIEWER_ASSETS (default <browser-dir>/../share/qvreconstruction/viewer), or the
// command in QV_VIEWER_SERVER, e.g.
//   QV_VIEWER_SERVER="build/bin/qvrecon view --simulate SCENE --listen 127.0.0.1:0"
// --all makes the viewport as tall as the page, so that every panel is in sight.
// QV_CHROMIUM_ARGS adds Chromium switches: without a GPU, SwiftShader composites the
// page, which costs more than the page's own drawing; --disable-gpu-compositing
// composites in software instead (what a board's or laptop's GPU would spare).
//
// Displayed frames are counted as changes of the page's data-frame-index (set once a
// frame is drawn).
import path from 'node:path';
import { pathToFileURL } from 'node:url';

const args = Object.fromEntries(process.argv.slice(2).reduce((pairs, a, i, all) => {
  if (a.startsWith('--')) pairs.push([a.slice(2), all[i + 1]?.startsWith('--') || all[i + 1] === undefined ? 'yes' : all[i + 1]]);
  return pairs;
}, []));
const browserDir = path.resolve(args['browser-dir'] || 'build/browser');
const seconds = Number(args.seconds || 10);
const [vw, vh] = (args.viewport || '1600x1000').split('x').map(Number);
process.env.QV_VIEWER_ASSETS ||= path.resolve(browserDir, '../share/qvreconstruction/viewer');

const harness = await import(pathToFileURL(path.join(browserDir, 'harness.mjs')).href);
const server = await harness.startServer();
const browser = await harness.launchBrowser();
try {
  const page = await browser.newPage({ viewport: { width: vw, height: vh } });
  const errors = [];
  page.on('console', (m) => { if (m.type() === 'error') errors.push(m.text()); });
  page.on('pageerror', (e) => errors.push(e.message));
  // The page's own counters (window.qvViewerCounters: frames and bytes received, frames
  // displayed and skipped); the server's count of frames dropped for this client comes
  // from the statistics panel. --devtools counts frames and bytes through Chromium's
  // DevTools instead (for pages without the counters; it costs the browser a lot).
  const link = { frames: 0, bytes: 0 };
  if (args.devtools) {
    page.on('websocket', (ws) => ws.on('framereceived', ({ payload }) => {
      if (typeof payload === 'string') return;
      link.frames++;
      link.bytes += payload.length;
    }));
  }
  const sample = async () => {
    const page_ = await page.evaluate(() => ({
      shown: window.qvBenchShown,
      counters: window.qvViewerCounters ? { ...window.qvViewerCounters } : null,
      dropped: document.querySelector('#panel-stats [data-key=dropped]')?.textContent,
    }));
    const c = page_.counters;
    return {
      shown: page_.shown,
      frames: c && !args.devtools ? c.received : link.frames,
      bytes: c && !args.devtools ? c.bytes : link.bytes,
      dropped: Number((page_.dropped || '').split(' ')[0]) || 0,
      at: Date.now(),
    };
  };
  await page.goto(server.url);
  // Counts every frame the page shows (it sets data-frame-index once a frame is drawn).
  await page.evaluate(() => {
    window.qvBenchShown = 0;
    new MutationObserver((records) => { window.qvBenchShown += records.length; })
      .observe(document.body, { attributes: true, attributeFilter: ['data-frame-index'] });
  });
  if (args.decimate) {
    await page.selectOption('#set-decimate', String(args.decimate));
  }
  if (args.all) {
    const height = await page.evaluate(() => document.documentElement.scrollHeight);
    await page.setViewportSize({ width: vw, height: Math.max(vh, height) });
  }
  // Warm up until frames flow, then measure.
  await harness.until(() => page.evaluate(() => window.qvBenchShown > 3), 'frames on the page', 60000);
  await new Promise((r) => setTimeout(r, 2000));
  const start = await sample();
  await new Promise((r) => setTimeout(r, seconds * 1000));
  const end = await sample();
  const span = (end.at - start.at) / 1000;
  const received = end.frames - start.frames;
  const shown = end.shown - start.shown;
  const panelTimes = await page.evaluate(() => document.querySelector('#panel-stats [data-key=draw]')?.textContent);
  const out = {
    seconds: Number(span.toFixed(1)),
    viewport: `${vw}x${args.all ? 'all' : vh}`,
    displayed_fps: Number((shown / span).toFixed(1)),
    received_fps: Number((received / span).toFixed(1)),
    skipped_in_page: received - shown,
    dropped_by_server: end.dropped - start.dropped,
    megabytes_per_second: Number(((end.bytes - start.bytes) / span / 1e6).toFixed(2)),
    kilobytes_per_frame: received ? Number(((end.bytes - start.bytes) / received / 1e3).toFixed(0)) : null,
    slowest_panels_ms: panelTimes,
    errors,
  };
  console.log(JSON.stringify(out, null, 2));
} finally {
  await browser.close();
  await server.stop();
}

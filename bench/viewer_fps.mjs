// The viewer's page in headless Chromium: displayed frames a second, frames dropped and
// bytes a second over the WebSocket, for N seconds. Run by hand (a benchmark, not a test):
//
//   node bench/viewer_fps.mjs [--browser-dir build/browser] [--seconds 10]
//        [--viewport 1600x1000] [--decimate 1|2|4] [--all] [--scroll SELECTOR]
//        [--select SELECTOR=VALUE] [--devtools]
//
// --browser-dir is where the build put the browser tests' harness and their npm packages
// (ctest -R viewer_page_browser installs them). The server is the tests' mock serving
// QV_VIEWER_ASSETS (default <browser-dir>/../share/qvreconstruction/viewer), or the
// command in QV_VIEWER_SERVER, e.g.
//   QV_VIEWER_SERVER="build/bin/qvrecon view --simulate SCENE --listen 127.0.0.1:0"
// (measured once the simulated loop is complete: simulating it takes a core for a while)
// --all makes the viewport as tall as the page, so that every panel is in sight;
// --scroll '#panel-noise' scrolls that panel to the top of the window; --select
// '#cloud-density=4' sets a control first.
// QV_CHROMIUM_ARGS adds Chromium switches: without a GPU, SwiftShader composites the
// page, which costs more than the page's own drawing; --disable-gpu-compositing
// composites in software instead (what a board's or laptop's GPU would spare).
//
// Displayed frames are counted as changes of the page's data-frame-index (set once a
// frame is drawn). CPU time (user + system, from /proc) of Chromium's processes and of
// the server's is reported per displayed frame: on a loaded machine it moves much less
// than the rates do. --trace FILE writes a Chromium trace of the measured seconds, and
// prints the busiest threads' time per displayed frame.
import fs from 'node:fs';
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

// CPU seconds of every thread of Chromium's processes: "process-type/thread-name" -> s.
function browserThreads() {
  const out = {};
  for (const pid of fs.readdirSync('/proc').filter((d) => /^\d+$/.test(d))) {
    try {
      const cmd = fs.readFileSync(`/proc/${pid}/cmdline`, 'utf8');
      if (!/chrom/.test(cmd.split('\0')[0])) continue;
      const type = (cmd.match(/--type=([a-z-]+)/) || [null, 'browser'])[1];
      for (const tid of fs.readdirSync(`/proc/${pid}/task`)) {
        const stat = fs.readFileSync(`/proc/${pid}/task/${tid}/stat`, 'utf8');
        const name = stat.slice(stat.indexOf('(') + 1, stat.lastIndexOf(')')).replace(/\d+$/, 'N');
        const f = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
        const key = `${type}/${name}`;
        out[key] = (out[key] || 0) + (Number(f[11]) + Number(f[12])) / 100;
      }
    } catch { /* gone meanwhile */ }
  }
  return out;
}

// CPU seconds of this process's descendants, Chromium's and the server's apart.
function cpuSeconds() {
  const tick = 100; // USER_HZ on Linux
  const procs = new Map();
  for (const pid of fs.readdirSync('/proc').filter((d) => /^\d+$/.test(d))) {
    try {
      const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
      const f = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
      const cmd = fs.readFileSync(`/proc/${pid}/cmdline`, 'utf8');
      procs.set(Number(pid), { ppid: Number(f[1]), cpu: (Number(f[11]) + Number(f[12])) / tick, cmd });
    } catch { /* gone meanwhile */ }
  }
  const out = { browser: 0, server: 0 };
  for (const [pid, p] of procs) {
    let up = p.ppid;
    while (up > 1 && up !== process.pid) up = procs.get(up)?.ppid ?? 0;
    if (up !== process.pid || pid === process.pid) continue;
    if (/chrom/.test(p.cmd)) out.browser += p.cpu;
    else if (!/^\/bin\/sh/.test(p.cmd)) out.server += p.cpu;
  }
  return out;
}

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
  if (args.select) {
    // A control set before measuring, e.g. --select '#cloud-density=4'.
    const [selector, value] = args.select.split('=');
    await page.selectOption(selector, value);
  }
  if (args.scroll) {
    // The page scrolled so that this panel's top is at the window's top.
    await page.$eval(args.scroll, (e) => window.scrollTo(0, window.scrollY + e.getBoundingClientRect().top));
  }
  // Warm up until frames flow, then measure. A simulated source (qvrecon view --simulate)
  // first simulates its loop, a core's work for a minute or so: measured only after that.
  await harness.until(async () => {
    const source = (await (await fetch(new URL('/api/status', server.url))).json()).source || {};
    return source.kind !== 'simulate' || source.available === source.frames;
  }, 'the simulated loop', 600000);
  await harness.until(() => page.evaluate(() => window.qvBenchShown > 3), 'frames on the page', 60000);
  await new Promise((r) => setTimeout(r, 2000));
  if (args.trace) {
    await browser.startTracing(page, { path: args.trace, categories: ['toplevel', 'disabled-by-default-devtools.timeline', 'devtools.timeline', 'v8', 'gpu', 'cc', 'viz', 'blink'] });
  }
  const start = await sample();
  const cpuStart = cpuSeconds();
  const threadsStart = browserThreads();
  await new Promise((r) => setTimeout(r, seconds * 1000));
  const end = await sample();
  const cpuEnd = cpuSeconds();
  const threadsEnd = browserThreads();
  if (args.trace) await browser.stopTracing();
  const span = (end.at - start.at) / 1000;
  const received = end.frames - start.frames;
  const shown = end.shown - start.shown;
  const panelTimes = await page.evaluate(() => document.querySelector('#panel-stats [data-key=draw]')?.textContent);
  const out = {
    seconds: Number(span.toFixed(1)),
    viewport: `${vw}x${args.all ? 'all' : vh}${args.scroll ? ` at ${args.scroll}` : ''}`,
    displayed_fps: Number((shown / span).toFixed(1)),
    received_fps: Number((received / span).toFixed(1)),
    skipped_in_page: received - shown,
    dropped_by_server: end.dropped - start.dropped,
    megabytes_per_second: Number(((end.bytes - start.bytes) / span / 1e6).toFixed(2)),
    kilobytes_per_frame: received ? Number(((end.bytes - start.bytes) / received / 1e3).toFixed(0)) : null,
    slowest_panels_ms: panelTimes,
    browser_cpu_ms_per_displayed: shown ? Math.round((1000 * (cpuEnd.browser - cpuStart.browser)) / shown) : null,
    server_cpu_ms_per_displayed: shown ? Math.round((1000 * (cpuEnd.server - cpuStart.server)) / shown) : null,
    browser_cpu_share: Number(((cpuEnd.browser - cpuStart.browser) / span).toFixed(2)),
    worker_ms: await page.evaluate(() => window.qvViewerCounters?.workerMs),
    // Chromium's busiest threads (from /proc), CPU ms per displayed frame.
    browser_threads_ms_per_displayed: Object.fromEntries(Object.entries(threadsEnd)
      .map(([k, v]) => [k, v - (threadsStart[k] || 0)]).sort((a, b) => b[1] - a[1]).slice(0, 8)
      .map(([k, v]) => [k, shown ? Math.round((1000 * v) / shown) : null])),
    errors,
  };
  if (args.trace) out.threads_ms_per_displayed = busiestThreads(args.trace, shown);
  console.log(JSON.stringify(out, null, 2));
} finally {
  await browser.close();
  await server.stop();
}

// Thread CPU time (the trace's top-level slices) per displayed frame, busiest first.
function busiestThreads(file, shown) {
  const events = JSON.parse(fs.readFileSync(file, 'utf8')).traceEvents;
  const names = new Map();
  const busy = new Map();
  for (const e of events) {
    const key = `${e.pid}/${e.tid}`;
    if (e.ph === 'M' && e.name === 'thread_name') names.set(key, e.args.name);
    if (e.ph === 'M' && e.name === 'process_name') names.set(`${e.pid}`, e.args.name);
  }
  // Only the outermost complete slices of each thread, so that nested ones do not count twice.
  const byThread = new Map();
  for (const e of events) {
    if (e.ph !== 'X' || !e.dur) continue;
    const key = `${e.pid}/${e.tid}`;
    if (!byThread.has(key)) byThread.set(key, []);
    byThread.get(key).push(e);
  }
  const top = {};
  for (const [key, list] of byThread) {
    list.sort((a, b) => a.ts - b.ts || b.dur - a.dur);
    let end = -Infinity;
    let total = 0;
    const slices = new Map();
    for (const e of list) {
      if (e.ts >= end) {
        total += e.tdur ?? e.dur;
        slices.set(e.name, (slices.get(e.name) || 0) + (e.tdur ?? e.dur));
        end = e.ts + e.dur;
      }
    }
    busy.set(key, total);
    const biggest = [...slices].sort((a, b) => b[1] - a[1]).slice(0, 3)
      .map(([n, us]) => `${n} ${(us / 1000 / shown).toFixed(1)}`).join(', ');
    top[key] = biggest;
  }
  return Object.fromEntries([...busy].sort((a, b) => b[1] - a[1]).slice(0, 8).map(([key, us]) => [
    `${names.get(key.split('/')[0]) || key.split('/')[0]}/${names.get(key) || key.split('/')[1]}`,
    `${(us / 1000 / shown).toFixed(1)} ms (${top[key]})`]));
}

// Figures of the stream: the server's rates and per-stage times, the page's own
// displayed rate, what this client's link carries and drops, temperature, frame time.
import { Panel, element } from './panel.js';

const fixed = (v, digits = 1) => (Number.isFinite(v) ? v.toFixed(digits) : '–');

export class StatsPanel extends Panel {
  constructor(parent) {
    super(parent, 'panel-stats', 'Statistics');
    this.table = element('dl', { class: 'figures' });
    this.body.append(this.table);
    this.rows = {};
    for (const [key, label] of [
      ['source', 'source'], ['frame', 'frame'], ['time', 'frame time'], ['temperature', 'temperature'],
      ['sensor', 'sensor fps'], ['processed', 'processed fps'], ['displayed', 'displayed fps'],
      ['stages', 'stage times (ms)'], ['draw', 'page drawing (ms)'], ['dropped', 'frames dropped (this page)'],
      ['skipped', 'frames skipped in the page'], ['bytes', 'link'], ['decimate', 'depth on the link'],
      ['clients', 'clients'],
    ]) {
      const value = element('dd', { 'data-key': key, text: '–' });
      this.table.append(element('dt', { text: label }), value);
      this.rows[key] = value;
    }
  }

  set(key, text) {
    if (this.rows[key].textContent !== text) this.rows[key].textContent = text;
  }

  status(s) {
    const src = s.source || {};
    this.set('source', `${src.kind || '?'} ${src.name || ''} (${s.stream}, ${s.width}x${s.height})`);
    this.set('sensor', fixed(s.rates?.sensor_fps));
    this.set('processed', `${fixed(s.rates?.processed_fps)} (encoded ${fixed(s.rates?.encoded_fps)})`);
    const st = s.stages_ms || {};
    this.set('stages', Object.entries(st).map(([k, v]) => `${k} ${fixed(v)}`).join(' · ') || '–');
    this.set('clients', String(s.clients ?? '–'));
    const mine = s.client?.dropped ?? s.client_dropped;
    if (mine !== undefined) this.set('dropped', `${mine} (all clients: ${s.dropped})`);
    else this.set('dropped', `all clients: ${s.dropped ?? '–'}`);
  }

  frame(head, total) {
    this.set('frame', total ? `${head.index} of ${total}` : String(head.index));
    this.set('time', `${fixed(head.time_ns / 1e9, 3)} s`);
    this.set('temperature', `${fixed(head.temperature_c)} °C`);
  }

  // The page's own cost per frame: the three slowest panels.
  drawTimes(msById) {
    const slowest = [...msById].sort((a, b) => b[1] - a[1]).slice(0, 3);
    this.set('draw', slowest.map(([id, ms]) => `${id.replace('panel-', '')} ${fixed(ms)}`).join(' · ') || '–');
  }

  // Frames that reached the page but were replaced by newer ones before being drawn.
  skipped(n) {
    this.set('skipped', String(n));
  }

  rates(displayedFps, bytesPerSecond, bytesPerFrame) {
    this.set('displayed', fixed(displayedFps));
    const frames = bytesPerFrame ? bytesPerSecond / bytesPerFrame : 0;
    this.set('bytes', `${fixed(bytesPerSecond / 1e6, 2)} MB/s, ${fixed(frames)} frames/s, ${fixed(bytesPerFrame / 1e3, 0)} kB a frame`);
  }

  // The decimation of the depth the link carries (told by the frames), and whether the
  // server chooses it for this page's link (auto).
  decimation(decimate, auto) {
    const f = decimate === 1 ? 'full' : `1/${decimate}`;
    this.set('decimate', auto ? `${f} (auto)` : f);
  }
}

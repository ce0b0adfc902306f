// A region of interest, dragged as a rectangle on the depth picture: its depth
// histogram, and its mean depth with the sensor temperature over time.
import { Panel, element } from './panel.js';

const HISTORY = 300;

export class RoiPanel extends Panel {
  constructor(parent, depthPanel) {
    super(parent, 'panel-roi', 'Region of interest');
    this.summary = element('div', { class: 'note', text: 'drag a rectangle on the depth picture' });
    this.histogram = element('canvas', { class: 'plot', width: 360, height: 120 });
    this.trend = element('canvas', { class: 'plot', width: 360, height: 120 });
    this.body.append(this.summary, element('div', { class: 'caption', text: 'depth histogram' }), this.histogram,
      element('div', { class: 'caption', text: 'mean depth (blue) and temperature (orange) over time' }), this.trend);
    this.rect = null;
    this.series = [];
    this.attach(depthPanel);
  }

  // Dragging on the depth panel's canvas draws the selection as an outline above it.
  attach(panel) {
    const box = element('div', { class: 'roi-box', hidden: '' });
    panel.stage.append(box);
    const canvas = panel.picture;
    let start = null;
    const at = (e) => {
      const r = canvas.getBoundingClientRect();
      return [Math.min(1, Math.max(0, (e.clientX - r.left) / r.width)), Math.min(1, Math.max(0, (e.clientY - r.top) / r.height))];
    };
    const show = (a, b) => {
      const [u0, u1] = [Math.min(a[0], b[0]), Math.max(a[0], b[0])];
      const [v0, v1] = [Math.min(a[1], b[1]), Math.max(a[1], b[1])];
      Object.assign(box.style, { left: `${u0 * 100}%`, top: `${v0 * 100}%`, width: `${(u1 - u0) * 100}%`, height: `${(v1 - v0) * 100}%` });
      box.hidden = false;
      return [u0, v0, u1, v1];
    };
    canvas.addEventListener('pointerdown', (e) => { start = at(e); canvas.setPointerCapture(e.pointerId); });
    canvas.addEventListener('pointermove', (e) => { if (start) show(start, at(e)); });
    canvas.addEventListener('pointerup', (e) => {
      if (!start) return;
      const r = show(start, at(e));
      start = null;
      if (r[2] - r[0] < 0.01 || r[3] - r[1] < 0.01) { box.hidden = true; this.rect = null; return; }
      this.rect = r;
      this.series = [];
    });
  }

  update(frame) {
    const depth = frame.images.depth;
    if (!this.rect || !depth) return;
    const [u0, v0, u1, v1] = this.rect;
    const c0 = Math.floor(u0 * depth.width), c1 = Math.max(c0 + 1, Math.ceil(u1 * depth.width));
    const r0 = Math.floor(v0 * depth.height), r1 = Math.max(r0 + 1, Math.ceil(v1 * depth.height));
    const values = [];
    for (let r = r0; r < r1; r++) {
      for (let c = c0; c < c1; c++) {
        const d = depth.data[r * depth.width + c];
        if (d > 1) values.push(d);
      }
    }
    const total = (r1 - r0) * (c1 - c0);
    if (!values.length) {
      this.summary.textContent = `${total} pixels, none with depth`;
      return;
    }
    let lo = Infinity, hi = -Infinity, sum = 0;
    for (const d of values) { lo = Math.min(lo, d); hi = Math.max(hi, d); sum += d; }
    const mean = sum / values.length;
    let v2 = 0;
    for (const d of values) v2 += (d - mean) ** 2;
    this.summary.textContent = `${c1 - c0}x${r1 - r0} pixels, ${values.length} with depth: mean ${mean.toFixed(1)} mm, ` +
      `σ ${Math.sqrt(v2 / values.length).toFixed(1)}, ${lo}–${hi} mm`;
    // The region in pixels of the depth image (end exclusive) and the figures, exact.
    Object.assign(this.summary.dataset, { index: frame.head.index, c0, r0, c1, r1, count: values.length, mean, lo, hi });
    this.drawHistogram(values, lo, hi);
    if (this.series.at(-1)?.index !== frame.head.index) {
      this.series.push({ index: frame.head.index, mean, temperature: frame.head.temperature_c });
      if (this.series.length > HISTORY) this.series.shift();
    }
    this.drawTrend();
  }

  drawHistogram(values, lo, hi) {
    const ctx = this.histogram.getContext('2d');
    const { width, height } = this.histogram;
    const bins = new Uint32Array(60);
    const span = Math.max(1, hi - lo + 1);
    for (const d of values) bins[Math.min(59, Math.floor(((d - lo) * 60) / span))]++;
    const top = Math.max(...bins);
    ctx.clearRect(0, 0, width, height);
    ctx.fillStyle = '#5aa0ff';
    bins.forEach((b, i) => {
      const h = ((height - 14) * b) / top;
      ctx.fillRect((i * width) / 60, height - 14 - h, width / 60 - 1, h);
    });
    ctx.fillStyle = '#aab';
    ctx.font = '10px sans-serif';
    ctx.fillText(`${lo} mm`, 2, height - 2);
    const right = `${hi} mm`;
    ctx.fillText(right, width - ctx.measureText(right).width - 2, height - 2);
  }

  drawTrend() {
    const ctx = this.trend.getContext('2d');
    const { width, height } = this.trend;
    ctx.clearRect(0, 0, width, height);
    const line = (key, colour) => {
      const vs = this.series.map((s) => s[key]).filter(Number.isFinite);
      if (vs.length < 2) return;
      const lo = Math.min(...vs), hi = Math.max(...vs), span = Math.max(1e-6, hi - lo);
      ctx.strokeStyle = colour;
      ctx.beginPath();
      this.series.forEach((s, i) => {
        const x = (i * width) / Math.max(1, this.series.length - 1); // the series fills the width
        const y = height - 4 - ((height - 8) * (s[key] - lo)) / span;
        if (i) ctx.lineTo(x, y); else ctx.moveTo(x, y);
      });
      ctx.stroke();
    };
    line('mean', '#5aa0ff');
    line('temperature', '#ffa040');
  }
}

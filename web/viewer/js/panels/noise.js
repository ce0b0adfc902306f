// Temporal noise: the standard deviation of each pixel's depth over the last N frames,
// computed here from the frames the page received (pixels without depth in any of them
// are left out). Grey from 0 to the scale's top; the scale follows the data.
import { ImagePanel, element } from './panel.js';

export class NoisePanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-noise', 'Temporal noise (σ)', (u, v) => this.describe(u, v));
    this.view = view;
    this.frames = element('select', { 'aria-label': 'frames' },
      ...[4, 8, 16, 32].map((n) => element('option', { value: n, text: `${n} frames` })));
    this.frames.value = '16';
    this.tools.append(this.frames);
    this.frames.addEventListener('change', () => { this.history = []; });
    this.scaleText = element('div', { class: 'note' });
    this.body.append(this.scaleText);
    this.history = [];
    this.sigma = null;
  }

  update(frame) {
    const depth = frame.images.depth;
    if (!depth) throw new Error('the frame carries no depth');
    const last = this.history[this.history.length - 1];
    if (last && (last.width !== depth.width || last.height !== depth.height)) this.history = [];
    if (last && last.index === frame.head.index) return; // a repeated frame (paused) adds nothing
    this.history.push({ data: depth.data, width: depth.width, height: depth.height, index: frame.head.index });
    while (this.history.length > Number(this.frames.value)) this.history.shift();

    const n = depth.width * depth.height;
    const k = this.history.length;
    if (!this.sigma || this.sigma.length !== n) this.sigma = new Float32Array(n);
    let top = 0;
    for (let i = 0; i < n; i++) {
      let sum = 0, sum2 = 0, valid = true;
      for (let j = 0; j < k; j++) {
        const d = this.history[j].data[i];
        if (d <= 1) { valid = false; break; }
        sum += d; sum2 += d * d;
      }
      const s = valid && k > 1 ? Math.sqrt(Math.max(0, sum2 / k - (sum / k) ** 2)) : -1;
      this.sigma[i] = s;
      if (s > top) top = s;
    }
    const scale = Math.max(1, top);
    const rgba = new Uint8ClampedArray(4 * n);
    for (let i = 0; i < n; i++) {
      const s = this.sigma[i];
      const o = 4 * i;
      if (s < 0) { rgba[o] = 60; rgba[o + 1] = 20; rgba[o + 2] = 30; } // no depth, or one frame
      else rgba[o] = rgba[o + 1] = rgba[o + 2] = 255 * Math.min(1, s / scale);
      rgba[o + 3] = 255;
    }
    this.drawRgba(rgba, depth.width, depth.height);
    this.scaleText.textContent = `black 0 – white ${scale.toFixed(1)} mm over ${k} frames; dark red: no depth`;
    this.showReadout();
  }

  describe(u, v) {
    const base = this.view.depthAt(u, v);
    const depth = this.view.frame?.images.depth;
    if (!base || !depth || !this.sigma) return base;
    const s = this.sigma[Math.floor(v * depth.height) * depth.width + Math.floor(u * depth.width)];
    return { text: `${base.text}   σ ${s < 0 ? '–' : s.toFixed(2)} mm`, data: { ...base.data, sigma: s } };
  }
}

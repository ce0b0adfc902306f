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
    this.frames.addEventListener('change', () => { this.sum = null; });
    this.scaleText = element('div', { class: 'note' });
    this.body.append(this.scaleText);
    this.history = [];
    this.sum = null;
    this.sigma = null;
  }

  // Running sums over the window: each frame adds its depths and removes the oldest's,
  // so the cost is two passes a frame whatever the window.
  update(frame) {
    const depth = frame.images.depth;
    if (!depth) throw new Error('the frame carries no depth');
    const n = depth.width * depth.height;
    const last = this.history[this.history.length - 1];
    if (!this.sum || this.sum.length !== n || (last && last.width !== depth.width)) this.reset(n);
    else if (last && last.index === frame.head.index) return; // a repeated frame (paused) adds nothing
    this.history.push({ data: depth.data, width: depth.width, index: frame.head.index });
    this.account(depth.data, 1);
    while (this.history.length > Number(this.frames.value)) this.account(this.history.shift().data, -1);

    const k = this.history.length;
    let top = 0;
    for (let i = 0; i < n; i++) {
      const mean = this.sum[i] / k;
      const s = this.invalid[i] === 0 && k > 1 ? Math.sqrt(Math.max(0, this.sum2[i] / k - mean * mean)) : -1;
      this.sigma[i] = s;
      if (s > top) top = s;
    }
    const scale = Math.max(1, top);
    const rgba = new Uint8ClampedArray(4 * n);
    const pixels = new Uint32Array(rgba.buffer);
    for (let i = 0; i < n; i++) {
      const s = this.sigma[i];
      const g = (255 * Math.min(1, s / scale)) | 0;
      pixels[i] = s < 0 ? 0xff1e143c : 0xff000000 | (g << 16) | (g << 8) | g; // dark red: no depth
    }
    this.drawRgba(rgba, depth.width, depth.height);
    this.scaleText.textContent = `black 0 – white ${scale.toFixed(1)} mm over ${k} frames; dark red: no depth`;
    this.showReadout();
  }

  reset(n) {
    this.history = [];
    this.sum = new Float64Array(n);
    this.sum2 = new Float64Array(n);
    this.invalid = new Uint16Array(n);
    this.sigma = new Float32Array(n);
  }

  account(data, sign) {
    for (let i = 0; i < data.length; i++) {
      const d = data[i];
      if (d <= 1) this.invalid[i] += sign;
      else { this.sum[i] += sign * d; this.sum2[i] += sign * d * d; }
    }
  }

  describe(u, v) {
    const base = this.view.depthAt(u, v);
    const depth = this.view.frame?.images.depth;
    if (!base || !depth || !this.sigma) return base;
    const s = this.sigma[Math.floor(v * depth.height) * depth.width + Math.floor(u * depth.width)];
    return { text: `${base.text}   σ ${s < 0 ? '–' : s.toFixed(2)} mm`, data: { ...base.data, sigma: s } };
  }
}

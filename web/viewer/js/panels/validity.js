// Where depth is missing (0) and where the sensor saturated (1), over a dim copy of the
// depth picture, with the share of each.
import { ImagePanel, element } from './panel.js';

export class ValidityPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-validity', 'No depth and saturated', (u, v) => view.depthAt(u, v));
    this.view = view;
    this.counts = element('div', { class: 'note' },
      element('span', { class: 'swatch none' }), ' no depth ', element('b', { 'data-key': 'none' }),
      element('span', { class: 'swatch saturated' }), ' saturated ', element('b', { 'data-key': 'saturated' }));
    this.body.append(this.counts);
  }

  update(frame) {
    const depth = frame.images.depth;
    if (!depth) throw new Error('the frame carries no depth');
    const n = depth.width * depth.height;
    const rgba = new Uint8ClampedArray(4 * n);
    const pixels = new Uint32Array(rgba.buffer); // one write a pixel (little-endian RGBA)
    const [lo, hi] = this.view.range();
    const shade = 80 / Math.max(1, hi - lo);
    const NONE = 0xffff6e28, SATURATED = 0xffc828ff;
    let none = 0, saturated = 0;
    for (let i = 0; i < n; i++) {
      const d = depth.data[i];
      if (d === 0) { pixels[i] = NONE; none++; }
      else if (d === 1) { pixels[i] = SATURATED; saturated++; }
      else {
        const g = 20 + (d <= lo ? 0 : d >= hi ? 80 : ((d - lo) * shade) | 0);
        pixels[i] = 0xff000000 | (g << 16) | (g << 8) | g;
      }
    }
    this.drawRgba(rgba, depth.width, depth.height);
    const share = (k) => `${((100 * k) / n).toFixed(2)} %`;
    this.counts.querySelector('[data-key=none]').textContent = share(none);
    this.counts.querySelector('[data-key=saturated]').textContent = share(saturated);
    this.showReadout();
  }
}

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
    const [lo, hi] = this.view.range();
    const shade = 80 / Math.max(1, hi - lo);
    let none = 0, saturated = 0;
    for (let i = 0; i < n; i++) {
      const d = depth.data[i];
      const o = 4 * i;
      if (d === 0) { rgba[o] = 40; rgba[o + 1] = 110; rgba[o + 2] = 255; none++; }
      else if (d === 1) { rgba[o] = 255; rgba[o + 1] = 40; rgba[o + 2] = 200; saturated++; }
      else { rgba[o] = rgba[o + 1] = rgba[o + 2] = 20 + Math.min(80, Math.max(0, (d - lo) * shade)); }
      rgba[o + 3] = 255;
    }
    this.drawRgba(rgba, depth.width, depth.height);
    const share = (k) => `${((100 * k) / n).toFixed(2)} %`;
    this.counts.querySelector('[data-key=none]').textContent = share(none);
    this.counts.querySelector('[data-key=saturated]').textContent = share(saturated);
    this.showReadout();
  }
}

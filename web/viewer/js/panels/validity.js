// Where depth is missing (0) and where the sensor saturated (1), over a dim copy of the
// depth picture, with the share of each (counted by the decoding worker).
import { ImagePanel, element } from './panel.js';
import { frameTextures } from '../gpu.js';

const FRAGMENT = `
uniform highp usampler2D depth;
uniform vec2 range;
void main() {
  uint d = texelFetch(depth, texelUnder(textureSize(depth, 0)), 0).r;
  if (d == 0u) fragColor = vec4(40.0, 110.0, 255.0, 255.0) / 255.0;
  else if (d == 1u) fragColor = vec4(255.0, 40.0, 200.0, 255.0) / 255.0;
  else {
    float t = clamp((float(d) - range.x) / max(1.0, range.y - range.x), 0.0, 1.0);
    fragColor = vec4(vec3((20.0 + floor(80.0 * t)) / 255.0), 1.0);
  }
}
`;

export class ValidityPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-validity', 'No depth and saturated', (u, v) => view.depthAt(u, v), {
      shader: { fragment: FRAGMENT, uniforms: { depth: { value: null }, range: { value: [0, 1] } } },
    });
    this.view = view;
    this.counts = element('div', { class: 'note' },
      element('span', { class: 'swatch none' }), ' no depth ', element('b', { 'data-key': 'none' }),
      element('span', { class: 'swatch saturated' }), ' saturated ', element('b', { 'data-key': 'saturated' }));
    this.body.append(this.counts);
  }

  update(frame) {
    const depth = frame.images.depth;
    if (!depth) throw new Error('the frame carries no depth');
    this.gpu.uniforms.depth.value = frameTextures.of('depth', depth);
    this.gpu.uniforms.range.value = this.view.range();
    this.gpu.draw(depth.width, depth.height);
    const v = frame.validity;
    if (v) {
      const share = (k) => `${((100 * k) / v.pixels).toFixed(2)} %`;
      this.counts.querySelector('[data-key=none]').textContent = share(v.none);
      this.counts.querySelector('[data-key=saturated]').textContent = share(v.saturated);
    }
    this.showReadout();
  }
}

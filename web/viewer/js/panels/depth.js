// False-colour depth with its legend (the colour bar and the range of the settings):
// painted on the GPU from the 16-bit depth with the library's colouring (a table of
// every depth for the frame's range), so no picture of it crosses the link.
import { ImagePanel, element } from './panel.js';
import { describePoint } from '../geometry.js';
import { FalseColourTexture, frameTextures } from '../gpu.js';

const FRAGMENT = `
uniform highp usampler2D depth;
uniform sampler2D table;
void main() {
  uint d = texelFetch(depth, texelUnder(textureSize(depth, 0)), 0).r;
  fragColor = vec4(texelFetch(table, ivec2(int(d & 255u), int(d >> 8u)), 0).rgb, 1.0);
}
`;

export class DepthPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-depth', 'Depth', (u, v) => view.depthAt(u, v), {
      shader: { fragment: FRAGMENT, uniforms: { depth: { value: null }, table: { value: null } } },
    });
    this.view = view;
    this.table = new FalseColourTexture();
    this.legendBar = element('canvas', { class: 'legend-bar', width: 360, height: 1 });
    this.legendMin = element('span');
    this.legendMax = element('span');
    this.body.append(element('div', { class: 'legend' }, this.legendMin, this.legendBar, this.legendMax));
  }

  update(frame) {
    const depth = frame.images.depth;
    if (!depth) throw new Error(frame.errors.depth || 'the frame carries no depth');
    // The range the frame was coloured with (a server that does not say: the settings').
    const range = frame.head.range || this.view.range();
    this.gpu.uniforms.depth.value = frameTextures.of('depth', depth);
    this.gpu.uniforms.table.value = this.table.of(range);
    this.gpu.draw(depth.width, depth.height);
    this.showReadout();
  }

  legend(colors, range) {
    const ctx = this.legendBar.getContext('2d');
    const image = ctx.createImageData(colors.length, 1);
    colors.forEach((c, i) => image.data.set([c[0], c[1], c[2], 255], 4 * i));
    this.legendBar.width = colors.length;
    ctx.putImageData(image, 0, 0);
    this.legendMin.textContent = `${range[0]} mm`;
    this.legendMax.textContent = `${range[1]} mm`;
  }
}

// Used by every panel on the depth grid.
export function depthReadout(view, u, v) {
  const depth = view.frame?.images.depth;
  if (!depth) return null;
  return describePoint(view.depthRays, depth, u, v);
}

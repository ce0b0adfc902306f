// Depth registered onto the colour camera, coloured with the colour bar and laid over
// the undistorted colour picture; the slider sets the overlay's opacity. Coloured and
// blended in a shader from the 16-bit registered depth.
import { ImagePanel, element } from './panel.js';
import { DEPTH_COLOUR_GLSL, frameTextures } from '../gpu.js';

const FRAGMENT = `
uniform highp usampler2D depth;
uniform sampler2D colour;
uniform bool hasColour;
uniform float opacity;
${DEPTH_COLOUR_GLSL}
void main() {
  ivec2 p = texelUnder(textureSize(depth, 0));
  vec3 under = hasColour ? texture(colour, vUv).rgb : vec3(0.0);
  vec4 over = depthColour(texelFetch(depth, p, 0).r);
  fragColor = vec4(mix(under, over.rgb, over.a * opacity), 1.0);
}
`;

export class RegisteredPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-registered', 'Registered depth on colour', (u, v) => view.registeredAt(u, v), {
      shader: {
        fragment: FRAGMENT,
        uniforms: {
          depth: { value: null }, colour: { value: null }, hasColour: { value: false }, opacity: { value: 0.6 },
          colourBar: { value: null }, range: { value: [0, 1] },
        },
      },
    });
    this.view = view;
    this.opacity = element('input', { type: 'range', min: 0, max: 100, value: 60, 'aria-label': 'overlay opacity' });
    this.tools.append(element('label', { class: 'inline' }, 'opacity ', this.opacity));
    this.opacity.addEventListener('input', () => { if (this.size) this.redraw(); });
  }

  update(frame) {
    const reg = frame.images.registered;
    const colour = frame.images.colour;
    if (!reg) throw new Error(frame.errors.registered || 'this source has no registered depth');
    if (!this.view.colourBar) throw new Error('no colour bar yet');
    const u = this.gpu.uniforms;
    u.depth.value = frameTextures.of('registered', reg);
    u.hasColour.value = !!colour;
    if (colour) u.colour.value = frameTextures.of('colour', colour);
    this.size = [reg.width, reg.height];
    this.redraw();
    this.showReadout();
  }

  redraw() {
    const u = this.gpu.uniforms;
    u.opacity.value = Number(this.opacity.value) / 100;
    u.colourBar.value = this.view.colourBar;
    u.range.value = this.view.range();
    this.gpu.draw(...this.size);
  }
}

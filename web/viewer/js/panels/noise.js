// Temporal noise: the standard deviation of each pixel's depth over the last N frames
// the page received, computed by the decoding worker (pixels without depth in any of
// them are left out) and shaded here on the GPU: grey from 0 to the scale's top, which
// follows the data.
import * as THREE from 'three';
import { ImagePanel, element } from './panel.js';

const FRAGMENT = `
uniform highp sampler2D sigma;
uniform float top;
void main() {
  float s = texelFetch(sigma, texelUnder(textureSize(sigma, 0)), 0).r;
  if (s < 0.0) fragColor = vec4(60.0, 20.0, 30.0, 255.0) / 255.0; // dark red: no depth
  else fragColor = vec4(vec3(floor(255.0 * min(1.0, s / top)) / 255.0), 1.0);
}
`;

export class NoisePanel extends ImagePanel {
  constructor(parent, view, { onWindow }) {
    super(parent, 'panel-noise', 'Temporal noise (σ)', (u, v) => this.describe(u, v), {
      shader: { fragment: FRAGMENT, uniforms: { sigma: { value: null }, top: { value: 1 } } },
    });
    this.view = view;
    this.frames = element('select', { 'aria-label': 'frames' },
      ...[4, 8, 16, 32].map((n) => element('option', { value: n, text: `${n} frames` })));
    this.frames.value = '16';
    this.tools.append(this.frames);
    this.frames.addEventListener('change', () => onWindow(Number(this.frames.value)));
    this.scaleText = element('div', { class: 'note' });
    this.body.append(this.scaleText);
    this.noise = null;
    this.texture = null;
  }

  update(frame) {
    const noise = frame.noise;
    if (!frame.images.depth) throw new Error('the frame carries no depth');
    if (!noise) return; // figured only while the panel is in sight: the next frame brings them
    this.noise = noise;
    const { width, height, sigma } = noise;
    if (!this.texture || this.texture.image.width !== width || this.texture.image.height !== height) {
      this.texture?.dispose();
      this.texture = new THREE.DataTexture(sigma, width, height, THREE.RedFormat, THREE.FloatType);
      this.texture.minFilter = this.texture.magFilter = THREE.NearestFilter;
    } else {
      this.texture.image.data = sigma;
    }
    this.texture.needsUpdate = true;
    const scale = Math.max(1, noise.top);
    this.gpu.uniforms.sigma.value = this.texture;
    this.gpu.uniforms.top.value = scale;
    this.gpu.draw(width, height);
    this.scaleText.textContent = `black 0 – white ${scale.toFixed(1)} mm over ${noise.frames} frames; dark red: no depth`;
    this.showReadout();
  }

  describe(u, v) {
    const base = this.view.depthAt(u, v);
    const noise = this.noise;
    if (!base || !noise) return base;
    const s = noise.sigma[Math.floor(v * noise.height) * noise.width + Math.floor(u * noise.width)];
    return { text: `${base.text}   σ ${s < 0 ? '–' : s.toFixed(2)} mm`, data: { ...base.data, sigma: s } };
  }
}

// The 3-D point cloud, built on the GPU from the 16-bit depth and the table of rays
// (never floats per point on the wire, nor per point in the page): a vertex shader
// places point i at (rayX*d, rayY*d, d) of pixel i. Orbit with the mouse, zoom with the
// wheel; point size, density and colouring (depth, IR or the registered colour) in the
// tools. Without a GPU, fewer points are drawn while the source plays.
import * as THREE from 'three';
import { OrbitControls } from 'three/addons/controls/OrbitControls.js';
import { Panel, element } from './panel.js';
import { DEPTH_COLOUR_GLSL, frameTextures, gpuSurface } from '../gpu.js';

// Camera coordinates (X right, Y down, Z ahead, mm) to the scene's (metres, Y up,
// looking down -Z). Pixels without depth (0) or saturated (1) are put outside the view.
const VERTEX = `
precision highp float;
precision highp usampler2D;
uniform highp usampler2D depth;
uniform highp sampler2D rays;
uniform sampler2D picture;
uniform int mode; // 0: the colour bar, 1: the picture's colour at the pixel
uniform int step; // one point every step pixels each way
uniform float pointSize;
out vec3 vColour;
${DEPTH_COLOUR_GLSL}
void main() {
  ivec2 size = textureSize(depth, 0);
  int columns = (size.x + step - 1) / step;
  ivec2 p = ivec2(gl_VertexID % columns, gl_VertexID / columns) * step;
  uint d = texelFetch(depth, p, 0).r;
  if (d <= 1u) {
    gl_Position = vec4(2.0, 2.0, 2.0, 1.0);
    gl_PointSize = 0.0;
    return;
  }
  int f = max(1, (textureSize(rays, 0).x + size.x / 2) / size.x); // the depth's decimation
  vec2 ray = texelFetch(rays, p * f, 0).rg;
  float z = float(d);
  gl_Position = projectionMatrix * modelViewMatrix * vec4(vec3(ray.x * z, -ray.y * z, -z) / 1000.0, 1.0);
  gl_PointSize = pointSize;
  if (mode == 0) {
    vec4 c = depthColour(d);
    vColour = c.a > 0.0 ? c.rgb : vec3(90.0 / 255.0);
  } else {
    vColour = texture(picture, (vec2(p) + 0.5) / vec2(size)).rgb;
  }
}
`;

const FRAGMENT = `
precision highp float;
in vec3 vColour;
out vec4 fragColor;
void main() {
  fragColor = vec4(vColour, 1.0);
}
`;

// Where WebGL runs in software, the most points drawn while frames arrive (the source
// plays): drawing them is most of the cloud's cost there. Paused, the cloud is drawn at
// the chosen density.
const PLAYING_POINTS = 20000;

export class CloudPanel extends Panel {
  constructor(parent, view) {
    super(parent, 'panel-cloud', '3-D points');
    this.view = view;
    this.mode = element('select', { 'aria-label': 'point colour', id: 'cloud-colour' },
      ...['depth', 'ir', 'colour'].map((m) => element('option', { value: m, text: m === 'ir' ? 'IR' : m })));
    this.size = element('input', { type: 'range', min: 1, max: 8, value: 2, 'aria-label': 'point size' });
    // Points: every pixel, or one in 4 or 16 (every 2nd or 4th each way). Where WebGL
    // runs in software (a browser without a GPU) it starts at one in 4.
    this.density = element('select', { 'aria-label': 'points', id: 'cloud-density' },
      ...[1, 2, 4].map((k) => element('option', { value: k, text: k === 1 ? 'all' : `1/${k * k}` })));
    this.tools.append(element('label', { class: 'inline' }, 'colour ', this.mode),
      element('label', { class: 'inline' }, 'points ', this.density),
      element('label', { class: 'inline' }, 'size ', this.size));
    // Drawn by the page's GPU surface in the rectangle of this placeholder.
    this.picture = element('div', { class: 'picture cloud' });
    this.body.append(element('div', { class: 'stage' }, this.picture));
    this.scene = new THREE.Scene();
    this.camera = new THREE.PerspectiveCamera(55, 4 / 3, 0.01, 100);
    this.camera.position.set(0, 0, 0.3);
    this.controls = new OrbitControls(this.camera, this.picture);
    this.controls.target.set(0, 0, -1.5);
    this.controls.update();
    this.material = new THREE.ShaderMaterial({
      glslVersion: THREE.GLSL3,
      vertexShader: VERTEX,
      fragmentShader: FRAGMENT,
      uniforms: {
        depth: { value: null }, rays: { value: null }, picture: { value: null }, mode: { value: 0 },
        step: { value: 1 }, pointSize: { value: 2 }, colourBar: { value: null }, range: { value: [0, 1] },
      },
    });
    this.geometry = new THREE.BufferGeometry(); // no attributes: the shader reads textures
    this.points = new THREE.Points(this.geometry, this.material);
    this.points.frustumCulled = false;
    this.scene.add(this.points);
    this.surface = gpuSurface();
    this.element = this.picture;
    this.ready = true; // the background, before the first points
    this.surface.views.add(this);
    if (this.surface.software) this.density.value = '2';
    this.density.addEventListener('change', () => this.view.frame && this.guard(() => this.update(this.view.frame)));
    this.size.addEventListener('input', () => { this.material.uniforms.pointSize.value = Number(this.size.value); this.redraw(); });
    this.controls.addEventListener('change', () => this.redraw());
    this.count = 0;
    this.playing = false;
  }

  // The source plays (frames arrive) or stands: paused, the frame shown is drawn again
  // at the chosen density.
  setPlaying(playing) {
    if (playing === this.playing) return;
    this.playing = playing;
    if (!playing && this.visible && this.view.frame) this.guard(() => this.update(this.view.frame));
  }

  // Called by the surface, in this panel's rectangle.
  render(renderer, rect) {
    const aspect = rect.width / rect.height;
    if (this.camera.aspect !== aspect) {
      this.camera.aspect = aspect;
      this.camera.updateProjectionMatrix();
    }
    renderer.setClearColor(0x11151c, 1);
    renderer.clear();
    renderer.render(this.scene, this.camera);
  }

  redraw() {
    this.surface.touch(this);
  }

  update(frame) {
    const mode = this.mode.value;
    const u = this.material.uniforms;
    let depth = frame.images.depth;
    let rays = this.view.depthRaysTexture;
    let step = 1;
    let picture = null;
    if (mode === 'colour') {
      // Points of the registered depth (on the colour grid), each with its colour.
      depth = frame.images.registered;
      picture = frame.images.colour;
      if (!depth) throw new Error('the frame carries no registered depth');
      if (!picture) throw new Error('the frame carries no colour picture');
      rays = this.view.colourRaysTexture;
      if (!rays) throw new Error('the server offers no rays of the colour grid');
      step = 2;
    } else {
      if (!depth) throw new Error(frame.errors.depth || 'the frame carries no depth');
      if (mode === 'ir') {
        picture = frame.images.ir;
        if (!picture) throw new Error('the frame carries no IR picture');
      }
    }
    if (!rays) throw new Error('waiting for the table of rays');
    u.depth.value = frameTextures.of(mode === 'colour' ? 'registered' : 'depth', depth);
    u.rays.value = rays;
    u.mode.value = picture ? 1 : 0;
    if (picture) u.picture.value = frameTextures.of(mode, picture);
    step *= Number(this.density.value);
    if (this.playing && this.surface.software) {
      while (Math.ceil(depth.width / step) * Math.ceil(depth.height / step) > PLAYING_POINTS) step *= 2;
    }
    u.step.value = step;
    u.colourBar.value = this.view.colourBar;
    u.range.value = this.view.range();
    this.count = Math.ceil(depth.width / step) * Math.ceil(depth.height / step);
    this.geometry.setDrawRange(0, this.count);
    Object.assign(this.picture.dataset, { points: this.count, step }); // for tests
    this.redraw();
  }
}

// Per-pixel work on the GPU through three.js: 16-bit depth as an integer texture
// (R16UI, read with texelFetch), the colour bar as a 360x1 texture, and image panels
// drawn by a fragment shader over one quad. Read-outs never come from these pictures:
// they read the 16-bit data itself.
import * as THREE from 'three';
import { falseColourTable } from './false_colour.js';

// A texture of 16-bit depth, re-uploaded in place while the size stays.
export class DepthTexture {
  constructor() {
    this.texture = null;
  }

  set(image) {
    const { width, height, data } = image;
    let t = this.texture;
    if (!t || t.image.width !== width || t.image.height !== height) {
      t?.dispose();
      t = new THREE.DataTexture(data, width, height, THREE.RedIntegerFormat, THREE.UnsignedShortType);
      t.minFilter = t.magFilter = THREE.NearestFilter;
      t.generateMipmaps = false;
      t.unpackAlignment = 2;
      this.texture = t;
    } else {
      t.image.data = data;
    }
    t.needsUpdate = true;
    return t;
  }
}

// A texture of a decoded picture (an ImageBitmap); row 0 at the top as it is read.
export class BitmapTexture {
  constructor() {
    this.texture = null;
  }

  // A bitmap without size (already handed to a canvas) leaves the texture as it is.
  set(bitmap) {
    if (!bitmap.width) return this.texture;
    const old = this.texture;
    if (!old || old.image.width !== bitmap.width || old.image.height !== bitmap.height) {
      old?.dispose();
      this.texture = new THREE.Texture(bitmap);
      this.texture.minFilter = THREE.LinearFilter;
      this.texture.generateMipmaps = false;
      this.texture.flipY = false;
      this.texture.colorSpace = THREE.NoColorSpace;
    } else {
      this.texture.image = bitmap;
    }
    this.texture.needsUpdate = true;
    return this.texture;
  }
}

// The colour bar ([[r, g, b] x N]) as an N x 1 texture.
export function colourBarTexture(colors) {
  const data = new Uint8Array(4 * colors.length);
  colors.forEach((c, i) => data.set([c[0], c[1], c[2], 255], 4 * i));
  const t = new THREE.DataTexture(data, colors.length, 1, THREE.RGBAFormat, THREE.UnsignedByteType);
  t.minFilter = t.magFilter = THREE.NearestFilter;
  t.needsUpdate = true;
  return t;
}

// The library's false colour of every 16-bit depth for a range, as a 256 x 256 RGBA
// texture (depth d at (d & 255, d >> 8)): made again only when the range changes.
export class FalseColourTexture {
  constructor() {
    this.texture = null;
    this.range = null;
  }

  of(range) {
    if (this.texture && this.range[0] === range[0] && this.range[1] === range[1]) return this.texture;
    this.texture?.dispose();
    const t = new THREE.DataTexture(falseColourTable(range[0], range[1]), 256, 256, THREE.RGBAFormat, THREE.UnsignedByteType);
    t.minFilter = t.magFilter = THREE.NearestFilter;
    t.generateMipmaps = false;
    t.needsUpdate = true;
    this.texture = t;
    this.range = [range[0], range[1]];
    return t;
  }
}

// The table of rays ({width, height, x, y}) as an RG32F texture.
export function raysTexture(rays) {
  const n = rays.width * rays.height;
  const rg = new Float32Array(2 * n);
  for (let i = 0; i < n; i++) {
    rg[2 * i] = rays.x[i];
    rg[2 * i + 1] = rays.y[i];
  }
  const t = new THREE.DataTexture(rg, rays.width, rays.height, THREE.RGFormat, THREE.FloatType);
  t.minFilter = t.magFilter = THREE.NearestFilter;
  t.needsUpdate = true;
  return t;
}

// The textures of the decoded images of a frame, one per image name, shared by every
// panel (one WebGL context draws them all): each image is uploaded once, whoever asks.
class FrameTextures {
  constructor() {
    this.slots = new Map(); // name -> {holder, image}
  }

  of(name, image) {
    let slot = this.slots.get(name);
    if (!slot) {
      slot = { holder: image.bitmap ? new BitmapTexture() : new DepthTexture(), image: null };
      this.slots.set(name, slot);
    }
    if (slot.image !== image) {
      slot.holder.set(image.bitmap || image);
      slot.image = image;
    }
    return slot.holder.texture;
  }
}
export const frameTextures = new FrameTextures();

// GLSL shared by the shaders: the colour of depth d in mm for the range, as the
// library's colour bar maps it (near is colour 0); 0, 1 (saturated) and depths
// outside the range have none (alpha 0).
export const DEPTH_COLOUR_GLSL = `
uniform sampler2D colourBar;
uniform vec2 range;
vec4 depthColour(uint d) {
  float v = float(d);
  if (d <= 1u || v < range.x || v > range.y) return vec4(0.0);
  float last = float(textureSize(colourBar, 0).x - 1);
  int i = int(floor((v - range.x) * (last / max(1.0, range.y - range.x)) + 0.5));
  return vec4(texelFetch(colourBar, ivec2(i, 0), 0).rgb, 1.0);
}
`;

const TEXEL_UNDER_GLSL = `
ivec2 texelUnder(ivec2 size) {
  return min(ivec2(vUv * vec2(size)), size - 1);
}
`;

const QUAD_VERTEX = `
out vec2 vUv;
void main() {
  vUv = vec2(uv.x, 1.0 - uv.y); // row 0 at the top
  gl_Position = vec4(position.xy, 0.0, 1.0);
}
`;

// One WebGL canvas over the window draws every picture of the page, each in the
// rectangle of its panel's placeholder: one context and one layer to composite,
// however many panels (a canvas per panel costs the compositor far more). It draws
// once per animation frame when something changed: only the pictures that changed (a
// view's dirty flag) while the canvas and every picture's rectangle stay where they
// were (the drawing buffer is kept), else all of them (scrolling, resizing, a layout
// change). It takes no pointer events: the placeholders under it do.
class Surface {
  constructor() {
    this.canvas = document.createElement('canvas');
    this.canvas.id = 'gpu-surface';
    document.body.append(this.canvas);
    this.renderer = new THREE.WebGLRenderer({ canvas: this.canvas, alpha: true, antialias: false, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(window.devicePixelRatio);
    this.renderer.autoClear = false;
    // WebGL in software (no GPU): the panels then spare the rasteriser where they can.
    const gl = this.renderer.getContext();
    const info = gl.getExtension('WEBGL_debug_renderer_info');
    const name = info ? gl.getParameter(info.UNMASKED_RENDERER_WEBGL) : gl.getParameter(gl.RENDERER);
    this.software = /swiftshader|llvmpipe|software/i.test(String(name));
    this.views = new Set();
    this.dirty = true; // something to draw
    this.all = true; // everything to draw
    this.layout = ''; // the area and the rectangles of the last drawing
    this.scheduled = false; // an animation frame asked for
    const touch = () => { this.dirty = true; this.all = true; this.schedule(); };
    window.addEventListener('scroll', touch, { passive: true, capture: true });
    window.addEventListener('resize', touch);
    new ResizeObserver(touch).observe(document.body);
    this.schedule();
  }

  // Draws at the next animation frame. Asked for only when something changed: a page
  // that keeps asking for animation frames makes the browser produce and composite a
  // frame each time, which without a GPU costs a tenth of a core while nothing moves.
  schedule() {
    if (this.scheduled) return;
    this.scheduled = true;
    requestAnimationFrame(() => {
      this.scheduled = false;
      this.draw();
    });
  }

  // A view's picture changed: it is drawn at the next animation frame.
  touch(view) {
    view.dirty = true;
    this.dirty = true;
    this.schedule();
  }

  // The canvas covers just the union of the pictures in sight (fewer pixels to clear
  // and to composite than the whole window).
  draw() {
    if (!this.dirty) return;
    this.dirty = false;
    const W = window.innerWidth;
    const H = window.innerHeight;
    const shown = [];
    let [x0, y0, x1, y1] = [W, H, 0, 0];
    for (const view of this.views) {
      if (!view.ready) continue;
      const rect = view.element.getBoundingClientRect();
      if (rect.width < 1 || rect.height < 1 || rect.bottom < 0 || rect.top > H || rect.right < 0 || rect.left > W) continue;
      shown.push([view, rect]);
      x0 = Math.min(x0, rect.left);
      y0 = Math.min(y0, rect.top);
      x1 = Math.max(x1, rect.right);
      y1 = Math.max(y1, rect.bottom);
    }
    const area = {
      left: Math.max(0, Math.floor(x0)), top: Math.max(0, Math.floor(y0)),
      right: Math.min(W, Math.ceil(x1)), bottom: Math.min(H, Math.ceil(y1)),
    };
    const w = Math.max(1, area.right - area.left);
    const h = Math.max(1, area.bottom - area.top);
    this.canvas.hidden = shown.length === 0;
    if (!shown.length) {
      this.layout = '';
      return;
    }
    const layout = JSON.stringify([area, shown.map(([, r]) => [r.left, r.top, r.width, r.height])]);
    // (Every picture changed, as while playing: all drawn after one clear.)
    const all = this.all || layout !== this.layout || shown.every(([view]) => view.dirty);
    this.all = false;
    this.layout = layout;
    const style = this.canvas.style;
    if (style.left !== `${area.left}px` || style.top !== `${area.top}px`) Object.assign(style, { left: `${area.left}px`, top: `${area.top}px` });
    const r = this.renderer;
    const size = r.getSize(new THREE.Vector2());
    if (size.x !== w || size.y !== h) r.setSize(w, h, true);
    if (all) {
      r.setScissorTest(false);
      r.setClearColor(0x000000, 0);
      r.clear();
    }
    r.setScissorTest(true);
    for (const [view, rect] of shown) {
      if (!all && !view.dirty) continue;
      view.dirty = false;
      const x = rect.left - area.left;
      const y = area.bottom - rect.bottom;
      r.setViewport(x, y, rect.width, rect.height);
      r.setScissor(x, y, rect.width, rect.height);
      view.render(r, rect);
    }
  }
}

let surface = null;
export function gpuSurface() {
  surface ||= new Surface();
  return surface;
}

// A picture drawn by one fragment shader in the rectangle of element (whose aspect
// ratio it sets to the picture's). fragment declares its uniforms and writes
// fragColor from vUv (0..1, row 0 at the top); texelUnder(size) is the pixel under vUv
// of a picture of that size, for texelFetch (each drawn pixel shows one of the picture's).
export class ShaderView {
  constructor(element, fragment, uniforms) {
    this.element = element;
    this.material = new THREE.ShaderMaterial({
      glslVersion: THREE.GLSL3,
      uniforms,
      vertexShader: QUAD_VERTEX,
      fragmentShader: `precision highp float;\nprecision highp usampler2D;\nin vec2 vUv;\nout vec4 fragColor;\n${TEXEL_UNDER_GLSL}${fragment}`,
      depthTest: false,
      depthWrite: false,
    });
    this.scene = new THREE.Scene();
    const quad = new THREE.Mesh(new THREE.PlaneGeometry(2, 2), this.material);
    quad.frustumCulled = false;
    this.scene.add(quad);
    this.camera = new THREE.Camera();
    this.uniforms = uniforms;
    this.ready = false;
    this.surface = gpuSurface();
    this.surface.views.add(this);
  }

  render(renderer) {
    renderer.render(this.scene, this.camera);
  }

  // The picture (width x height pixels) changed: drawn at the next animation frame.
  draw(width, height) {
    const ratio = `${width} / ${height}`;
    if (this.element.style.aspectRatio !== ratio) this.element.style.aspectRatio = ratio;
    this.element.dataset.width = String(width);
    this.element.dataset.height = String(height);
    this.ready = true;
    this.surface.touch(this);
  }
}

// A decoded picture as it is.
export const PICTURE_GLSL = `
uniform sampler2D picture;
void main() {
  fragColor = vec4(texture(picture, vUv).rgb, 1.0);
}
`;

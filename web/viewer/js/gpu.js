// Per-pixel work on the GPU through three.js: 16-bit depth as an integer texture
// (R16UI, read with texelFetch), the colour bar as a 360x1 texture, and image panels
// drawn by a fragment shader over one quad. Read-outs never come from these pictures:
// they read the 16-bit data itself.
import * as THREE from 'three';

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

const QUAD_VERTEX = `
out vec2 vUv;
void main() {
  vUv = vec2(uv.x, 1.0 - uv.y); // row 0 at the top
  gl_Position = vec4(position.xy, 0.0, 1.0);
}
`;

// A canvas drawn by one fragment shader over the whole picture. fragment declares its
// uniforms and writes fragColor from vUv (0..1, row 0 at the top).
export class ShaderCanvas {
  constructor(canvas, fragment, uniforms) {
    this.canvas = canvas;
    this.renderer = new THREE.WebGLRenderer({ canvas, antialias: false, preserveDrawingBuffer: true, alpha: false });
    this.renderer.setPixelRatio(1);
    this.material = new THREE.ShaderMaterial({
      glslVersion: THREE.GLSL3,
      uniforms,
      vertexShader: QUAD_VERTEX,
      fragmentShader: `precision highp float;\nprecision highp usampler2D;\nin vec2 vUv;\nout vec4 fragColor;\n${fragment}`,
      depthTest: false,
      depthWrite: false,
    });
    this.scene = new THREE.Scene();
    const quad = new THREE.Mesh(new THREE.PlaneGeometry(2, 2), this.material);
    quad.frustumCulled = false;
    this.scene.add(quad);
    this.camera = new THREE.Camera();
    this.uniforms = uniforms;
  }

  // Draws a picture of width x height pixels at the size the page shows it (never
  // larger than the picture): fewer pixels to shade and to composite.
  draw(width, height) {
    const shown = Math.round(this.canvas.clientWidth * window.devicePixelRatio);
    const w = shown > 0 ? Math.min(width, shown) : width;
    const h = Math.max(1, Math.round((w * height) / width));
    if (this.canvas.width !== w || this.canvas.height !== h) this.renderer.setSize(w, h, false);
    this.renderer.render(this.scene, this.camera);
  }
}

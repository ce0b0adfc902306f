// The 3-D point cloud, built in the page from the 16-bit depth and the table of rays
// (never floats per point on the wire). Orbit with the mouse, zoom with the wheel;
// point size and colouring (depth, IR or the registered colour) in the panel's tools.
import * as THREE from 'three';
import { OrbitControls } from 'three/addons/controls/OrbitControls.js';
import { Panel, element } from './panel.js';
import { colourOf } from '../colour_scale.js';
import { rayIndex } from '../geometry.js';

export class CloudPanel extends Panel {
  constructor(parent, view) {
    super(parent, 'panel-cloud', '3-D points');
    this.view = view;
    this.mode = element('select', { 'aria-label': 'point colour' },
      ...['depth', 'ir', 'colour'].map((m) => element('option', { value: m, text: m === 'ir' ? 'IR' : m })));
    this.size = element('input', { type: 'range', min: 1, max: 8, value: 2, 'aria-label': 'point size' });
    this.tools.append(element('label', { class: 'inline' }, 'colour ', this.mode),
      element('label', { class: 'inline' }, 'size ', this.size));
    this.canvas = element('canvas', { class: 'picture cloud' });
    this.body.append(element('div', { class: 'stage' }, this.canvas));
    this.scratch = document.createElement('canvas');

    this.renderer = new THREE.WebGLRenderer({ canvas: this.canvas, antialias: false, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(1);
    this.scene = new THREE.Scene();
    this.scene.background = new THREE.Color(0x11151c);
    this.camera = new THREE.PerspectiveCamera(55, 4 / 3, 0.01, 100);
    this.camera.position.set(0, 0, 0.3);
    this.controls = new OrbitControls(this.camera, this.canvas);
    this.controls.target.set(0, 0, -1.5);
    this.controls.update();
    this.geometry = new THREE.BufferGeometry();
    this.material = new THREE.PointsMaterial({ size: 2, sizeAttenuation: false, vertexColors: true });
    this.points = new THREE.Points(this.geometry, this.material);
    this.points.frustumCulled = false;
    this.scene.add(this.points);
    this.size.addEventListener('input', () => { this.material.size = Number(this.size.value); this.render(); });
    this.controls.addEventListener('change', () => this.render());
    new ResizeObserver(() => this.fit()).observe(this.canvas);
    this.count = 0;
  }

  fit() {
    const w = this.canvas.clientWidth;
    const h = this.canvas.clientHeight;
    if (!w || !h) return;
    this.renderer.setSize(w, h, false);
    this.camera.aspect = w / h;
    this.camera.updateProjectionMatrix();
    this.render();
  }

  render() {
    this.renderer.render(this.scene, this.camera);
  }

  // The colour of each depth pixel for the chosen mode, as a function of the pixel.
  colouring(frame, depth) {
    const mode = this.mode.value;
    const colors = this.view.colors;
    const range = this.view.range();
    if (mode === 'depth' || !colors) {
      return (i, d) => colourOf(d, colors || [[255, 255, 255]], range) || [90, 90, 90];
    }
    const source = mode === 'ir' ? frame.images.ir : frame.images.colour;
    if (!source) throw new Error(`the frame carries no ${mode} picture`);
    const pixels = this.pixelsOf(source.bitmap);
    if (mode === 'ir') {
      const f = source.width / depth.width;
      return (i) => {
        const r = Math.floor(i / depth.width) * f;
        const c = (i % depth.width) * f;
        const o = 4 * (r * source.width + c);
        return [pixels[o], pixels[o + 1], pixels[o + 2]];
      };
    }
    // Colour: through the registered depth, every colour pixel names the depth it
    // shows; the depth point takes the colour of the colour pixel nearest in depth.
    return this.registeredColouring(frame, depth, pixels, source);
  }

  registeredColouring(frame, depth, pixels, source) {
    const reg = frame.images.registered;
    if (!reg) throw new Error('the frame carries no registered depth');
    const colourRays = this.view.colourRays;
    if (!colourRays) throw new Error('the server offers no rays of the colour grid');
    // Builds the cloud from the registered depth instead: each point has its colour.
    this.fromRegistered = { reg, pixels, source, rays: colourRays };
    return null;
  }

  pixelsOf(bitmap) {
    this.scratch.width = bitmap.width;
    this.scratch.height = bitmap.height;
    const ctx = this.scratch.getContext('2d', { willReadFrequently: true });
    ctx.drawImage(bitmap, 0, 0);
    return ctx.getImageData(0, 0, bitmap.width, bitmap.height).data;
  }

  update(frame) {
    const depth = frame.images.depth;
    const rays = this.view.depthRays;
    if (!depth) throw new Error(frame.errors.depth || 'the frame carries no depth');
    if (!rays) throw new Error('waiting for the table of rays');
    this.fromRegistered = null;
    const colourAt = this.colouring(frame, depth);
    let positions;
    let colours;
    let k = 0;
    if (this.fromRegistered) {
      const { reg, pixels, source, rays: cr } = this.fromRegistered;
      const step = 2;
      const n = Math.ceil(reg.width / step) * Math.ceil(reg.height / step);
      [positions, colours] = this.buffers(n);
      const fx = source.width / reg.width;
      for (let r = 0; r < reg.height; r += step) {
        for (let c = 0; c < reg.width; c += step) {
          const d = reg.data[r * reg.width + c];
          if (d <= 1) continue;
          const i = rayIndex(cr, reg, r, c);
          this.put(positions, k, cr.x[i] * d, cr.y[i] * d, d);
          const o = 4 * (Math.floor(r * fx) * source.width + Math.floor(c * fx));
          colours[3 * k] = pixels[o] / 255;
          colours[3 * k + 1] = pixels[o + 1] / 255;
          colours[3 * k + 2] = pixels[o + 2] / 255;
          k++;
        }
      }
    } else {
      [positions, colours] = this.buffers(depth.width * depth.height);
      for (let r = 0; r < depth.height; r++) {
        for (let c = 0; c < depth.width; c++) {
          const p = r * depth.width + c;
          const d = depth.data[p];
          if (d <= 1) continue;
          const i = rayIndex(rays, depth, r, c);
          this.put(positions, k, rays.x[i] * d, rays.y[i] * d, d);
          const col = colourAt(p, d);
          colours[3 * k] = col[0] / 255;
          colours[3 * k + 1] = col[1] / 255;
          colours[3 * k + 2] = col[2] / 255;
          k++;
        }
      }
    }
    this.geometry.attributes.position.needsUpdate = true;
    this.geometry.attributes.color.needsUpdate = true;
    this.geometry.setDrawRange(0, k);
    this.count = k;
    this.render();
  }

  // The geometry's arrays, kept while the number of pixels stays.
  buffers(n) {
    const position = this.geometry.attributes.position;
    if (!position || position.count !== n) {
      this.geometry.dispose();
      this.geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(3 * n), 3));
      this.geometry.setAttribute('color', new THREE.BufferAttribute(new Float32Array(3 * n), 3));
    }
    return [this.geometry.attributes.position.array, this.geometry.attributes.color.array];
  }

  // Camera coordinates (X right, Y down, Z ahead, mm) to the scene's (metres, Y up,
  // looking down -Z).
  put(positions, k, x, y, z) {
    positions[3 * k] = Math.fround(x) / 1000;
    positions[3 * k + 1] = -Math.fround(y) / 1000;
    positions[3 * k + 2] = -z / 1000;
  }
}

// What every panel has: a titled box, a place for its own error (the other panels
// keep working), and for image panels a picture with the depth under the cursor.
import { frameTextures, PICTURE_GLSL, ShaderView } from '../gpu.js';

export function element(tag, attributes = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attributes)) {
    if (k === 'class') e.className = v;
    else if (k === 'text') e.textContent = v;
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else e.setAttribute(k, v);
  }
  e.append(...children);
  return e;
}

export class Panel {
  constructor(parent, id, title, { wide = false } = {}) {
    this.error = element('div', { class: 'panel-error', hidden: '' });
    this.tools = element('div', { class: 'panel-tools' });
    this.body = element('div', { class: 'panel-body' });
    this.root = element('section', { class: wide ? 'panel wide' : 'panel', id },
      element('header', {}, element('h2', { text: title }), this.tools), this.error, this.body);
    parent.append(this.root);
    // Panels scrolled out of sight skip their per-frame work; onVisibility (set by the
    // page) hears when a panel goes out of sight or comes back.
    this.visible = true;
    this.onVisibility = null;
    new IntersectionObserver((entries) => {
      const visible = entries.at(-1).isIntersecting;
      if (visible === this.visible) return;
      this.visible = visible;
      this.onVisibility?.(visible);
    }).observe(this.root);
  }

  showError(message) {
    this.error.textContent = message;
    this.error.hidden = false;
    this.root.classList.add('failed');
  }

  clearError() {
    if (this.error.hidden) return;
    this.error.hidden = true;
    this.root.classList.remove('failed');
  }

  // Runs a panel's work, showing what goes wrong in the panel itself.
  guard(work) {
    try {
      const result = work();
      if (result instanceof Promise) {
        return result.then((v) => { this.clearError(); return v; }, (e) => this.showError(e.message));
      }
      this.clearError();
      return result;
    } catch (e) {
      this.showError(e.message);
      return undefined;
    }
  }
}

// An image panel: a picture (a placeholder whose rectangle the page's GPU surface draws
// in, at the picture's aspect ratio; CSS sizes it) and a read-out line under it.
// locate(u, v) turns a position in [0, 1) x [0, 1) into the text and data of the
// read-out, or null. The picture is a decoded bitmap shown as it is, unless the panel
// gives its own shader (options.shader: {fragment, uniforms}).
export class ImagePanel extends Panel {
  constructor(parent, id, title, locate, options = {}) {
    super(parent, id, title, options);
    this.picture = element('div', { class: 'picture' });
    this.readout = element('div', { class: 'readout', text: 'point at the picture for the depth' });
    this.stage = element('div', { class: 'stage' }, this.picture);
    this.body.append(this.stage, this.readout);
    const shader = options.shader || { fragment: PICTURE_GLSL, uniforms: { picture: { value: null } } };
    this.gpu = new ShaderView(this.picture, shader.fragment, shader.uniforms);
    this.locate = locate;
    this.pointer = null;
    this.picture.addEventListener('pointermove', (e) => {
      const r = this.picture.getBoundingClientRect();
      this.pointer = [(e.clientX - r.left) / r.width, (e.clientY - r.top) / r.height];
      this.showReadout();
    });
    this.picture.addEventListener('pointerleave', () => { this.pointer = null; });
  }

  // Shows a decoded picture (the frame's image called name) as it is.
  drawPicture(name, image) {
    this.gpu.uniforms.picture.value = frameTextures.of(name, image);
    this.gpu.draw(image.width, image.height);
  }

  // Called after every frame so that the read-out follows a still pointer too.
  showReadout() {
    if (!this.pointer) return;
    const [u, v] = this.pointer;
    if (u < 0 || u >= 1 || v < 0 || v >= 1) return;
    const at = this.locate(u, v);
    if (!at) return;
    this.readout.textContent = at.text;
    // A pixel without depth has no X, Y, Z: none of the last pixel's may stay.
    for (const k of Object.keys(this.readout.dataset)) if (!(k in at.data)) delete this.readout.dataset[k];
    for (const [k, value] of Object.entries(at.data)) this.readout.dataset[k] = String(value);
  }
}

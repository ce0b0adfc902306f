// Depth registered onto the colour camera, coloured with the colour bar and laid over
// the undistorted colour picture; the slider sets the overlay's opacity.
import { ImagePanel, element } from './panel.js';
import { colourDepth } from '../colour_scale.js';

export class RegisteredPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-registered', 'Registered depth on colour', (u, v) => view.registeredAt(u, v));
    this.view = view;
    this.opacity = element('input', { type: 'range', min: 0, max: 100, value: 60, 'aria-label': 'overlay opacity' });
    this.tools.append(element('label', { class: 'inline' }, 'opacity ', this.opacity));
    this.overlay = document.createElement('canvas');
    this.rgba = null;
  }

  update(frame) {
    const reg = frame.images.registered;
    const colour = frame.images.colour;
    if (!reg) throw new Error(frame.errors.registered || 'this source has no registered depth');
    if (!this.view.colors) throw new Error('no colour bar yet');
    const n = reg.width * reg.height;
    if (!this.rgba || this.rgba.length !== 4 * n) this.rgba = new Uint8ClampedArray(4 * n);
    colourDepth(reg.data, this.rgba, this.view.colors, this.view.range());
    this.overlay.width = reg.width;
    this.overlay.height = reg.height;
    this.overlay.getContext('2d').putImageData(new ImageData(this.rgba, reg.width, reg.height), 0, 0);

    this.resize(reg.width, reg.height);
    const ctx = this.context;
    ctx.globalAlpha = 1;
    if (colour) ctx.drawImage(colour.bitmap, 0, 0, reg.width, reg.height);
    else { ctx.fillStyle = '#000'; ctx.fillRect(0, 0, reg.width, reg.height); }
    ctx.globalAlpha = Number(this.opacity.value) / 100;
    ctx.drawImage(this.overlay, 0, 0);
    ctx.globalAlpha = 1;
    this.showReadout();
  }
}

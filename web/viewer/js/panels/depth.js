// False-colour depth (the library's colouring, sent as a picture) with its legend:
// the colour bar and the range of the settings.
import { ImagePanel, element } from './panel.js';
import { colourDepth } from '../colour_scale.js';
import { describePoint } from '../geometry.js';

export class DepthPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-depth', 'Depth', (u, v) => view.depthAt(u, v));
    this.view = view;
    this.legendBar = element('canvas', { class: 'legend-bar', width: 360, height: 1 });
    this.legendMin = element('span');
    this.legendMax = element('span');
    this.body.append(element('div', { class: 'legend' }, this.legendMin, this.legendBar, this.legendMax));
    this.rgba = null;
  }

  update(frame) {
    const picture = frame.images.false_colour;
    const depth = frame.images.depth;
    if (picture) {
      this.drawBitmap(picture.bitmap);
    } else if (depth && this.view.colors) {
      // Not sent (the client asked for depth only): coloured here from the same bar.
      const n = depth.width * depth.height;
      if (!this.rgba || this.rgba.length !== 4 * n) this.rgba = new Uint8ClampedArray(4 * n);
      colourDepth(depth.data, this.rgba, this.view.colors, this.view.range());
      this.drawRgba(this.rgba, depth.width, depth.height);
    } else {
      throw new Error(frame.errors.false_colour || frame.errors.depth || 'the frame carries no depth');
    }
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

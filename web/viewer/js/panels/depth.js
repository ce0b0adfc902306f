// False-colour depth (the library's colouring, sent as a picture) with its legend:
// the colour bar and the range of the settings.
import { ImagePanel, element } from './panel.js';
import { describePoint } from '../geometry.js';

export class DepthPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-depth', 'Depth', (u, v) => view.depthAt(u, v));
    this.view = view;
    this.legendBar = element('canvas', { class: 'legend-bar', width: 360, height: 1 });
    this.legendMin = element('span');
    this.legendMax = element('span');
    this.body.append(element('div', { class: 'legend' }, this.legendMin, this.legendBar, this.legendMax));
  }

  update(frame) {
    const picture = frame.images.false_colour;
    if (!picture) throw new Error(frame.errors.false_colour || frame.errors.depth || 'the frame carries no depth');
    this.drawPicture('false_colour', picture);
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

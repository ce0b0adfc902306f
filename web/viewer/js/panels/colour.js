// The undistorted colour picture, with the registered depth under the cursor.
import { ImagePanel } from './panel.js';

export class ColourPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-colour', 'Colour', (u, v) => view.registeredAt(u, v));
  }

  update(frame) {
    const colour = frame.images.colour;
    if (!colour) throw new Error(frame.errors.colour || 'this source has no colour camera');
    this.drawPicture('colour', colour);
    this.showReadout();
  }
}

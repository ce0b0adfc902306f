// The infrared amplitude picture, with the depth under the cursor (same grid).
import { ImagePanel } from './panel.js';

export class IrPanel extends ImagePanel {
  constructor(parent, view) {
    super(parent, 'panel-ir', 'Infrared', (u, v) => view.depthAt(u, v));
  }

  update(frame) {
    const ir = frame.images.ir;
    if (!ir) throw new Error(frame.errors.ir || 'the frame carries no IR picture');
    this.drawPicture('ir', ir);
    this.showReadout();
  }
}

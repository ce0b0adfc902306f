// The library's settings (filter, flip, range) through POST /api/settings, and what
// this page asks of the stream (decimation).
import { Panel, element } from './panel.js';
import { postSettings } from '../net/api.js';

export class ControlsPanel extends Panel {
  constructor(parent, { onSettings, onDecimate }) {
    super(parent, 'panel-controls', 'Settings');
    this.onSettings = onSettings;
    this.filter = element('input', { type: 'checkbox', id: 'set-filter' });
    this.flip = element('select', { id: 'set-flip' },
      ...['none', 'horizontal', 'vertical', 'both'].map((f) => element('option', { value: f, text: f })));
    this.min = element('input', { type: 'number', id: 'set-range-min', min: 0, max: 65535, step: 1 });
    this.max = element('input', { type: 'number', id: 'set-range-max', min: 0, max: 65535, step: 1 });
    this.apply = element('button', { id: 'set-range-apply', text: 'apply range', type: 'button' });
    // auto: the server decimates as this page's link allows.
    this.decimate = element('select', { id: 'set-decimate' },
      ...['auto', 1, 2, 4].map((f) => element('option', { value: f, text: f === 1 ? 'full' : f === 'auto' ? f : `1/${f}` })));
    this.body.append(
      element('label', { class: 'row' }, this.filter, ' filter (median and edges)'),
      element('label', { class: 'row' }, 'flip ', this.flip),
      element('div', { class: 'row' }, 'range ', this.min, ' – ', this.max, ' mm ', this.apply),
      element('label', { class: 'row' }, 'depth on the link ', this.decimate),
    );
    this.filter.addEventListener('change', () => this.send({ filter: this.filter.checked }));
    this.flip.addEventListener('change', () => this.send({ flip: this.flip.value }));
    this.apply.addEventListener('click', () => this.send({ range: [Number(this.min.value), Number(this.max.value)] }));
    for (const box of [this.min, this.max]) {
      box.addEventListener('keydown', (e) => { if (e.key === 'Enter') this.apply.click(); });
    }
    this.decimate.addEventListener('change', () => {
      const f = this.decimate.value;
      onDecimate(f === 'auto' ? f : Number(f));
    });
    this.editing = false;
  }

  async send(changes) {
    await this.guard(async () => this.show(await postSettings(changes), true));
  }

  // force: also overwrite the range boxes while the user is typing in them.
  show(settings, force = false) {
    if (!settings) return;
    this.filter.checked = !!settings.filter;
    this.flip.value = settings.flip;
    const typing = [this.min, this.max].includes(document.activeElement);
    if (force || !typing) {
      this.min.value = settings.range[0];
      this.max.value = settings.range[1];
    }
    this.onSettings(settings);
  }

  readOnly(on) {
    for (const e of [this.filter, this.flip, this.min, this.max, this.apply]) e.disabled = on;
  }
}

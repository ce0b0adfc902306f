// Playback of a recording: play, pause, a step either way, seek and speed.
import { Panel, element } from './panel.js';
import { postPlayback } from '../net/api.js';

const SPEEDS = [0.25, 0.5, 1, 2, 4];

export class PlaybackPanel extends Panel {
  constructor(parent) {
    super(parent, 'panel-playback', 'Playback');
    const button = (id, text, title, body) => {
      const b = element('button', { id, text, title, type: 'button' });
      b.addEventListener('click', () => this.send(body()));
      return b;
    };
    this.play = button('play', 'play', 'play or pause', () => ({ action: this.playing ? 'pause' : 'play' }));
    this.back = button('step-back', '◀ 1', 'one frame back', () => ({ action: 'step', delta: -1 }));
    this.forward = button('step-forward', '1 ▶', 'one frame forward', () => ({ action: 'step', delta: 1 }));
    this.seek = element('input', { type: 'range', id: 'seek', min: 0, max: 0, value: 0, 'aria-label': 'seek' });
    this.position = element('span', { class: 'position', text: '–' });
    this.speed = element('select', { id: 'speed', 'aria-label': 'speed' },
      ...SPEEDS.map((s) => element('option', { value: s, text: `${s}×` })));
    this.speed.value = '1';
    this.body.append(element('div', { class: 'row' }, this.back, this.play, this.forward, ' ', this.speed),
      element('div', { class: 'row' }, this.seek, this.position));
    this.seek.addEventListener('change', () => this.send({ action: 'seek', frame: Number(this.seek.value) }));
    this.speed.addEventListener('change', () => this.send({ action: this.playing ? 'play' : 'pause', speed: Number(this.speed.value) }));
    this.playing = false;
    this.root.hidden = true;
  }

  async send(body) {
    await this.guard(async () => this.status(await postPlayback(body)));
  }

  status(s) {
    const src = s.source || {};
    const seekable = src.kind === 'recording' || src.kind === 'captures';
    this.root.hidden = !seekable;
    if (!seekable) return;
    this.playing = !!src.playing;
    this.play.textContent = this.playing ? 'pause' : 'play';
    if (src.frames) this.seek.max = String(src.frames - 1);
    if (Number.isFinite(src.speed) && SPEEDS.includes(src.speed)) this.speed.value = String(src.speed);
    for (const e of [this.play, this.back, this.forward, this.seek, this.speed]) e.disabled = !!s.read_only;
    this.total = src.frames;
  }

  frame(head) {
    if (document.activeElement !== this.seek) this.seek.value = String(head.index);
    this.position.textContent = this.total ? `${head.index} / ${this.total - 1}` : String(head.index);
  }
}

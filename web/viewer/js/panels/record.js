// Recording start and stop (an MCAP file written by the server), and a snapshot of one
// frame: 16-bit depth PNG, colour PNG, PLY points and the metadata, downloaded here.
import { Panel, element } from './panel.js';
import { getBinary, postRecord } from '../net/api.js';

const PARTS = ['depth.png', 'colour.png', 'cloud.ply', 'meta.json'];

export class RecordPanel extends Panel {
  constructor(parent) {
    super(parent, 'panel-record', 'Record and snapshot');
    this.record = element('button', { id: 'record', type: 'button', text: '● record' });
    this.snapshot = element('button', { id: 'snapshot', type: 'button', text: 'snapshot' });
    this.note = element('div', { class: 'note', text: '' });
    this.body.append(element('div', { class: 'row' }, this.record, this.snapshot), this.note);
    this.active = false;
    this.record.addEventListener('click', () => this.guard(async () => {
      const r = await postRecord(this.active ? 'stop' : 'start');
      this.showRecording(r.active, r.path);
    }));
    this.snapshot.addEventListener('click', () => this.guard(() => this.takeSnapshot()));
  }

  showRecording(active, path, frames) {
    this.active = active;
    this.record.textContent = active ? '■ stop' : '● record';
    this.record.classList.toggle('recording', active);
    if (active) this.note.textContent = `recording to ${path}${frames !== undefined ? ` (${frames} frames)` : ''}`;
    else if (path) this.note.textContent = `recorded ${path}`;
  }

  status(s) {
    if (s.recording) this.showRecording(s.recording.active, s.recording.path, s.recording.frames);
    this.record.disabled = !!s.read_only;
  }

  // The parts are fetched one after another; a live source may move on between them,
  // so they are fetched again (up to three times) until they name one frame.
  async takeSnapshot() {
    for (let attempt = 0; attempt < 3; attempt++) {
      const parts = [];
      for (const name of PARTS) {
        try {
          parts.push({ name, ...(await getBinary(`/api/frame/${name}`)) });
        } catch (e) {
          if (e.status !== 404) throw e; // a part the frame lacks (no colour) is left out
        }
      }
      const indices = new Set(parts.map((p) => p.headers.get('X-Frame-Index')));
      if (indices.size === 1 || attempt === 2) {
        const index = [...indices][0];
        for (const p of parts) download(p.buffer, `frame-${index}-${p.name}`);
        this.note.textContent = `snapshot of frame ${index}: ${parts.map((p) => p.name).join(', ')}` +
          (indices.size > 1 ? ' (the source moved on between parts: pause it for one frame)' : '');
        return;
      }
    }
  }
}

function download(buffer, name) {
  const url = URL.createObjectURL(new Blob([buffer]));
  const a = element('a', { href: url, download: name });
  document.body.append(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(url), 10000);
}

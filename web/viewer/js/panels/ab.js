// A/B: the same frames through the library with two settings (B's filter, range and
// calibration; the flip is shared so that pixels line up), A and B side by side in
// false colour and their difference B − A in mm on a diverging scale. The read-out and
// the figures come from the 16-bit depths (depth and depth_b), never from the pictures.
import { Panel, element } from './panel.js';
import { postSettings } from '../net/api.js';
import { DEPTH_COLOUR_GLSL, frameTextures, ShaderView } from '../gpu.js';

// A depth in false colour; no depth (0), saturation (1) and depths out of range dark.
const DEPTH_FRAGMENT = `
uniform highp usampler2D depth;
${DEPTH_COLOUR_GLSL}
void main() {
  vec4 c = depthColour(texelFetch(depth, texelUnder(textureSize(depth, 0)), 0).r);
  fragColor = c.a > 0.0 ? c : vec4(vec3(24.0 / 255.0), 1.0);
}
`;

// Diverging: blue where B is nearer (B − A < 0), grey where equal, red where farther,
// saturated at ±span mm. Depth in only one of them: its own colour.
export const DIFF_COLOURS = {
  negative: [59, 76, 192], zero: [221, 221, 221], positive: [180, 4, 38],
  aOnly: [0, 170, 90], bOnly: [255, 170, 0], neither: [24, 24, 24],
};
const rgb = (c) => `vec3(${c.map((v) => (v / 255).toFixed(4)).join(', ')})`;
const DIFF_FRAGMENT = `
uniform highp usampler2D depthA;
uniform highp usampler2D depthB;
uniform float span;
void main() {
  ivec2 p = texelUnder(textureSize(depthA, 0));
  uint a = texelFetch(depthA, p, 0).r;
  uint b = texelFetch(depthB, p, 0).r;
  vec3 c;
  if (a <= 1u && b <= 1u) c = ${rgb(DIFF_COLOURS.neither)};
  else if (b <= 1u) c = ${rgb(DIFF_COLOURS.aOnly)};
  else if (a <= 1u) c = ${rgb(DIFF_COLOURS.bOnly)};
  else {
    float t = clamp((float(b) - float(a)) / span, -1.0, 1.0);
    c = t < 0.0 ? mix(${rgb(DIFF_COLOURS.zero)}, ${rgb(DIFF_COLOURS.negative)}, -t)
                : mix(${rgb(DIFF_COLOURS.zero)}, ${rgb(DIFF_COLOURS.positive)}, t);
  }
  fragColor = vec4(c, 1.0);
}
`;

const SPANS = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000];

// Figures of B − A over two depth images of one size: pixels with depth (> 1) in both,
// in A only, in B only; of those in both, how many differ, the mean and standard
// deviation of B − A, and the 98th percentile of |B − A| (from `histogram`, reused).
export function differenceFigures(a, b, histogram) {
  histogram.fill(0);
  const top = histogram.length - 1;
  let both = 0, aOnly = 0, bOnly = 0, differ = 0, sum = 0, squares = 0;
  for (let i = 0; i < a.length; i++) {
    const da = a[i], db = b[i];
    if (da > 1 && db > 1) {
      const d = db - da;
      both++;
      if (d !== 0) differ++;
      sum += d;
      squares += d * d;
      histogram[Math.min(top, Math.abs(d))]++;
    } else if (da > 1) aOnly++;
    else if (db > 1) bOnly++;
  }
  const mean = both ? sum / both : 0;
  const sd = both ? Math.sqrt(Math.max(0, squares / both - mean * mean)) : 0;
  let p98 = 0;
  for (let seen = 0, k = 0; k <= top && both; k++) {
    seen += histogram[k];
    if (seen >= 0.98 * both) { p98 = k; break; }
  }
  return { pixels: a.length, both, aOnly, bOnly, differ, mean, sd, p98 };
}

export class AbPanel extends Panel {
  constructor(parent, view, { onSettings }) {
    super(parent, 'panel-ab', 'A/B comparison', { wide: true });
    this.view = view;
    this.onSettings = onSettings;
    this.on = element('input', { type: 'checkbox', id: 'ab-on' });
    this.filter = element('input', { type: 'checkbox', id: 'ab-filter' });
    this.calibration = element('select', { id: 'ab-calibration' },
      element('option', { value: 'a', text: "A's" }), element('option', { value: 'b', text: '--calib-b' }));
    this.min = element('input', { type: 'number', id: 'ab-range-min', min: 0, max: 65535, step: 1 });
    this.max = element('input', { type: 'number', id: 'ab-range-max', min: 0, max: 65535, step: 1 });
    this.apply = element('button', { id: 'ab-range-apply', type: 'button', text: 'apply' });
    this.span = element('select', { id: 'ab-span', 'aria-label': 'difference scale' },
      element('option', { value: 'auto', text: '± auto' }), ...SPANS.map((s) => element('option', { value: s, text: `± ${s} mm` })));
    this.tools.append(element('label', { class: 'inline' }, this.on, 'A/B on'));
    this.body.append(element('div', { class: 'row' },
      element('b', { text: 'B:' }), element('label', { class: 'inline' }, this.filter, 'filter'),
      element('label', { class: 'inline' }, 'calibration ', this.calibration),
      'range ', this.min, '–', this.max, ' mm', this.apply));

    this.pictures = {};
    const depthUniforms = () => ({ depth: { value: null }, colourBar: { value: null }, range: { value: [0, 1] } });
    const row = element('div', { class: 'ab-row' });
    for (const [key, title, fragment, uniforms] of [
      ['a', 'A', DEPTH_FRAGMENT, depthUniforms()],
      ['b', 'B', DEPTH_FRAGMENT, depthUniforms()],
      ['diff', 'B − A', DIFF_FRAGMENT, { depthA: { value: null }, depthB: { value: null }, span: { value: 10 } }],
    ]) {
      const picture = element('div', { class: 'picture', id: `ab-picture-${key}` });
      const caption = element('div', { class: 'caption' });
      row.append(element('div', {}, element('div', { class: 'caption', text: title }), picture, caption));
      this.pictures[key] = { picture, caption, gpu: new ShaderView(picture, fragment, uniforms) };
      picture.addEventListener('pointermove', (e) => {
        const r = picture.getBoundingClientRect();
        this.pointer = [(e.clientX - r.left) / r.width, (e.clientY - r.top) / r.height];
        this.showReadout();
      });
      picture.addEventListener('pointerleave', () => { this.pointer = null; });
    }
    this.legendBar = element('canvas', { class: 'legend-bar', width: 256, height: 1 });
    this.legendMin = element('span');
    this.legendMax = element('span');
    this.readout = element('div', { class: 'readout', id: 'ab-readout', text: 'point at a picture for A, B and B − A' });
    this.figures = element('dl', { class: 'figures', id: 'ab-figures' });
    this.message = element('div', { class: 'note', id: 'ab-message' });
    this.cost = element('div', { class: 'note', id: 'ab-cost' });
    const swatch = (c) => element('span', { class: 'swatch', style: `background: rgb(${c.join(',')})` });
    this.body.append(row,
      element('div', { class: 'legend' }, 'B − A', this.legendMin, this.legendBar, this.legendMax, this.span),
      element('div', { class: 'note' }, swatch(DIFF_COLOURS.aOnly), ' depth in A only ', swatch(DIFF_COLOURS.bOnly),
        ' in B only ', swatch(DIFF_COLOURS.neither), ' in neither'),
      this.readout, this.figures, this.message, this.cost);
    this.histogram = new Uint32Array(1024);
    this.pointer = null;
    this.stats = null;
    this.drawLegend(10);

    this.on.addEventListener('change', () => this.send({ ab: this.on.checked }));
    this.filter.addEventListener('change', () => this.send({ b: { filter: this.filter.checked } }));
    this.calibration.addEventListener('change', () => this.send({ b: { calibration: this.calibration.value } }));
    this.apply.addEventListener('click', () => this.send({ b: { range: [Number(this.min.value), Number(this.max.value)] } }));
    for (const box of [this.min, this.max]) box.addEventListener('keydown', (e) => { if (e.key === 'Enter') this.apply.click(); });
    this.span.addEventListener('change', () => { if (this.view.frame) this.update(this.view.frame); });
  }

  async send(changes) {
    await this.guard(async () => this.onSettings(await postSettings(changes)));
  }

  // The server's settings (after any change, from any page).
  show(settings) {
    if (!settings || !settings.b) return;
    this.settings = settings;
    this.on.checked = !!settings.ab;
    this.filter.checked = !!settings.b.filter;
    this.calibration.value = settings.b.calibration;
    if (![this.min, this.max].includes(document.activeElement)) {
      this.min.value = settings.b.range[0];
      this.max.value = settings.b.range[1];
    }
  }

  status(s) {
    this.calibration.querySelector('option[value=b]').disabled = !s.calibration_b;
    this.calibration.title = s.calibration_b ? '' : 'start the viewer with --calib-b FILE for a second calibration';
    for (const e of [this.on, this.filter, this.calibration, this.min, this.max, this.apply]) e.disabled = !!s.read_only;
    const ms = s.stages_ms?.depth_b;
    this.cost.textContent = s.settings?.ab ? `B costs ${ms ? ms.toFixed(1) : '–'} ms a frame on the server` : '';
  }

  drawLegend(span) {
    const ctx = this.legendBar.getContext('2d');
    const image = ctx.createImageData(256, 1);
    const { negative, zero, positive } = DIFF_COLOURS;
    for (let i = 0; i < 256; i++) {
      const t = (i / 255) * 2 - 1;
      const end = t < 0 ? negative : positive;
      const w = Math.abs(t);
      image.data.set([0, 1, 2].map((k) => Math.round(zero[k] + (end[k] - zero[k]) * w)).concat(255), 4 * i);
    }
    ctx.putImageData(image, 0, 0);
    this.legendMin.textContent = `−${span} mm`;
    this.legendMax.textContent = `+${span} mm`;
  }

  update(frame) {
    const a = frame.images.depth;
    const b = frame.images.depth_b;
    if (!a) throw new Error('the frame carries no depth');
    if (!b) {
      this.figures.replaceChildren();
      this.stats = null;
      this.message.textContent = this.settings?.ab ? 'waiting for a frame with B' : 'A/B is off: switch it on to compare';
      return;
    }
    if (b.width !== a.width || b.height !== a.height) throw new Error(`B is ${b.width}x${b.height}, A ${a.width}x${a.height}`);
    const settings = this.settings || this.view.settings;
    const textureA = frameTextures.of('depth', a);
    const textureB = frameTextures.of('depth_b', b);
    const describe = (s, calibration) => (s ? `${s.range[0]}–${s.range[1]} mm, filter ${s.filter ? 'on' : 'off'}${calibration}` : '');
    const sides = [
      ['a', textureA, settings?.range, describe(settings, '')],
      ['b', textureB, settings?.b?.range, describe(settings?.b, settings?.b?.calibration === 'b' ? ', --calib-b' : ", A's calibration")],
    ];
    for (const [key, texture, range, text] of sides) {
      const { gpu, caption } = this.pictures[key];
      gpu.uniforms.depth.value = texture;
      gpu.uniforms.colourBar.value = this.view.colourBar;
      gpu.uniforms.range.value = range || [0, 65535];
      gpu.draw(a.width, a.height);
      caption.textContent = text;
    }

    const stats = differenceFigures(a.data, b.data, this.histogram);
    this.stats = stats;
    const span = this.span.value === 'auto' ? SPANS.find((s) => s >= stats.p98) || SPANS.at(-1) : Number(this.span.value);
    const diff = this.pictures.diff;
    diff.gpu.uniforms.depthA.value = textureA;
    diff.gpu.uniforms.depthB.value = textureB;
    diff.gpu.uniforms.span.value = span;
    diff.gpu.draw(a.width, a.height);
    diff.caption.textContent = `scale ±${span} mm`;
    if (span !== this.legendSpan) {
      this.legendSpan = span;
      this.drawLegend(span);
    }
    this.showFigures(stats);
    this.message.textContent = '';
    this.showReadout();
  }

  showFigures(s) {
    const share = (k, of) => (of ? `${((100 * k) / of).toFixed(2)} %` : '–');
    const rows = [
      ['depth in both', `${share(s.both, s.pixels)} of the pixels`, 'both'],
      ['B ≠ A', `${share(s.differ, s.both)} of those (${s.differ} pixels)`, 'differ'],
      ['mean B − A', `${s.mean >= 0 ? '+' : ''}${s.mean.toFixed(2)} mm`, 'mean'],
      ['spread (σ)', `${s.sd.toFixed(2)} mm`, 'sd'],
      ['depth in A only', `${share(s.aOnly, s.pixels)} (${s.aOnly} pixels)`, 'a-only'],
      ['depth in B only', `${share(s.bOnly, s.pixels)} (${s.bOnly} pixels)`, 'b-only'],
    ];
    this.figures.replaceChildren(...rows.flatMap(([k, v, key]) => [element('dt', { text: k }), element('dd', { text: v, 'data-key': key })]));
  }

  // A, B and B − A at the pixel under the pointer, from the 16-bit depths.
  showReadout() {
    const frame = this.view.frame;
    if (!this.pointer || !frame) return;
    const [u, v] = this.pointer;
    const a = frame.images.depth;
    const b = frame.images.depth_b;
    if (!a || !b || u < 0 || u >= 1 || v < 0 || v >= 1) return;
    const c = Math.floor(u * a.width);
    const r = Math.floor(v * a.height);
    const f = this.view.depthRays ? Math.round(this.view.depthRays.width / a.width) : 1;
    const da = a.data[r * a.width + c];
    const db = b.data[r * b.width + c];
    const name = (d) => (d === 0 ? 'no depth' : d === 1 ? 'saturated' : `${d} mm`);
    const both = da > 1 && db > 1;
    const diff = both ? db - da : null;
    this.readout.textContent = `(${c * f}, ${r * f})  A ${name(da)}   B ${name(db)}   B − A ${both ? `${diff >= 0 ? '+' : ''}${diff} mm` : '–'}`;
    Object.assign(this.readout.dataset, { col: c * f, row: r * f, a: da, b: db, diff: both ? diff : '' });
  }
}

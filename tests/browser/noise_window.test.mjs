// The temporal-noise window of the page (web/viewer/js/noise_window.js, run here in
// Node from the assembled page): the population σ of each pixel over the last N frames,
// -1 where any of them lacks depth, a repeated frame adding nothing, and a new window
// after a change of its length or a restart.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import path from 'node:path';
import { pathToFileURL } from 'node:url';

const assets = process.env.QV_VIEWER_ASSETS;
const { NoiseWindow } = assets
  ? await import(pathToFileURL(path.join(assets, 'js', 'noise_window.js')).href)
  : { NoiseWindow: null };
const skip = assets ? false : 'QV_VIEWER_ASSETS (the assembled page) is not set';

const frame = (values) => ({ width: values.length, height: 1, data: Uint16Array.from(values) });

function sigmaOf(columns) {
  return columns.map((vs) => {
    if (vs.length < 2 || vs.some((v) => v <= 1)) return -1;
    const mean = vs.reduce((a, b) => a + b, 0) / vs.length;
    return Math.fround(Math.sqrt(vs.reduce((a, v) => a + v * v, 0) / vs.length - mean * mean));
  });
}

test('σ over the last N frames, pixels without depth or saturated in any left out', { skip }, () => {
  const w = new NoiseWindow(3);
  const frames = [[1000, 500, 0, 7000], [1004, 500, 800, 7002], [998, 1, 810, 6990], [1010, 520, 820, 7000], [990, 530, 830, 7010]];
  let r;
  frames.forEach((f, k) => {
    r = w.add(frame(f), k);
    const last = frames.slice(Math.max(0, k - 2), k + 1);
    const want = sigmaOf(f.map((_, i) => last.map((g) => g[i])));
    assert.deepEqual([...r.sigma], want, `after frame ${k}`);
    assert.equal(r.frames, last.length);
    assert.equal(Math.fround(r.top), Math.max(0, ...want));
  });
  // A repeated frame (a paused source) changes nothing.
  const again = w.add(frame([1, 1, 1, 1]), frames.length - 1);
  assert.deepEqual([...again.sigma], [...r.sigma]);
  assert.equal(again.frames, 3);
});

test('a new window length or a restart starts again; a new size too', { skip }, () => {
  const w = new NoiseWindow(4);
  w.add(frame([100, 200]), 0);
  w.add(frame([110, 220]), 1);
  w.setWindow(8);
  assert.equal(w.add(frame([120, 240]), 2).frames, 1);
  w.add(frame([130, 260]), 3);
  w.restart();
  const r = w.add(frame([140, 280]), 4);
  assert.equal(r.frames, 1);
  assert.deepEqual([...r.sigma], [-1, -1]);
  const wider = w.add(frame([100, 100, 100]), 5);
  assert.equal(wider.frames, 1);
  assert.equal(wider.sigma.length, 3);
});

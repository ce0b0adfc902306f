// Temporal noise: the standard deviation of each pixel's depth over the last N frames
// (population σ); pixels without depth in any of them get -1. Running sums over the
// window: each frame adds its depths, removes the oldest's and gives every σ in one
// pass, whatever the window. A repeated frame (a paused source) adds nothing.
export class NoiseWindow {
  constructor(frames = 16) {
    this.frames = frames;
    this.history = [];
    this.sum = null;
  }

  setWindow(frames) {
    if (frames === this.frames) return;
    this.frames = frames;
    this.restart();
  }

  // Forgets the frames so far: the next one starts a new window.
  restart() {
    this.sum = null;
  }

  reset(n) {
    this.history = [];
    this.sum = new Float64Array(n);
    this.sum2 = new Float64Array(n);
    this.invalid = new Uint16Array(n);
  }

  // depth: {width, height, data}; returns {sigma: Float32Array, top, frames, width, height},
  // sigma the caller's own (it may be transferred).
  add(depth, index) {
    const n = depth.width * depth.height;
    const last = this.history.at(-1);
    if (!this.sum || this.sum.length !== n || (last && last.width !== depth.width)) this.reset(n);
    else if (last && last.index === index) return this.figures(null, null, depth);
    const data = depth.data.slice();
    this.history.push({ data, width: depth.width, index });
    // (A window made shorter starts again: one frame at most leaves it.)
    const old = this.history.length > this.frames ? this.history.shift().data : null;
    return this.figures(data, old, depth);
  }

  // Adds the frame `data` and removes `old` (each may be null), and gives the σ of
  // every pixel over the window: one pass over the pixels.
  figures(data, old, { width, height }) {
    const n = width * height;
    const k = this.history.length;
    const { sum, sum2, invalid } = this;
    const sigma = new Float32Array(n);
    let top = 0;
    for (let i = 0; i < n; i++) {
      if (data) {
        const d = data[i];
        if (d <= 1) invalid[i]++;
        else {
          sum[i] += d;
          sum2[i] += d * d;
        }
      }
      if (old) {
        const o = old[i];
        if (o <= 1) invalid[i]--;
        else {
          sum[i] -= o;
          sum2[i] -= o * o;
        }
      }
      if (invalid[i] !== 0 || k < 2) {
        sigma[i] = -1;
        continue;
      }
      const mean = sum[i] / k;
      const s = Math.sqrt(Math.max(0, sum2[i] / k - mean * mean));
      sigma[i] = s;
      if (s > top) top = s;
    }
    return { sigma, top, frames: k, width, height };
  }
}

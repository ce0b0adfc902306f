// Temporal noise: the standard deviation of each pixel's depth over the last N frames
// (population σ); pixels without depth in any of them get -1. Running sums over the
// window: each frame adds its depths and removes the oldest's, two passes a frame
// whatever the window. A repeated frame (a paused source) adds nothing.
export class NoiseWindow {
  constructor(frames = 16) {
    this.frames = frames;
    this.history = [];
    this.sum = null;
    this.last = null;
  }

  setWindow(frames) {
    if (frames === this.frames) return;
    this.frames = frames;
    this.restart();
  }

  // Forgets the frames so far: the next one starts a new window.
  restart() {
    this.sum = null;
    this.last = null;
  }

  reset(n) {
    this.history = [];
    this.sum = new Float64Array(n);
    this.sum2 = new Float64Array(n);
    this.invalid = new Uint16Array(n);
  }

  // depth: {width, height, data}; returns {sigma: Float32Array, top, frames, width, height}.
  add(depth, index) {
    const n = depth.width * depth.height;
    const last = this.history.at(-1);
    if (!this.sum || this.sum.length !== n || (last && last.width !== depth.width)) this.reset(n);
    else if (last && last.index === index && this.last) return this.copy(this.last);
    this.history.push({ data: depth.data.slice(), width: depth.width, index });
    this.account(this.history.at(-1).data, 1);
    while (this.history.length > this.frames) this.account(this.history.shift().data, -1);
    const k = this.history.length;
    const sigma = new Float32Array(n);
    let top = 0;
    for (let i = 0; i < n; i++) {
      if (this.invalid[i] !== 0 || k < 2) {
        sigma[i] = -1;
        continue;
      }
      const mean = this.sum[i] / k;
      const s = Math.sqrt(Math.max(0, this.sum2[i] / k - mean * mean));
      sigma[i] = s;
      if (s > top) top = s;
    }
    this.last = { sigma, top, frames: k, width: depth.width, height: depth.height };
    return this.copy(this.last);
  }

  copy(r) {
    return { ...r, sigma: r.sigma.slice() };
  }

  account(data, sign) {
    for (let i = 0; i < data.length; i++) {
      const d = data[i];
      if (d <= 1) this.invalid[i] += sign;
      else {
        this.sum[i] += sign * d;
        this.sum2[i] += sign * d * d;
      }
    }
  }
}

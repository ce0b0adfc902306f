// Points from 16-bit depth and the server's table of rays: (rayX*d, rayY*d, d) in
// single precision, the library's own arithmetic, so the page's numbers are the
// library's cloud exactly.

// depth: {width, height, data}, possibly decimated from the rays' grid by an integer
// factor. Returns the full-grid index of a depth pixel (row r, column c).
export function rayIndex(rays, depth, r, c) {
  const f = Math.round(rays.width / depth.width);
  return r * f * rays.width + c * f;
}

export function pointAt(rays, depth, r, c) {
  const d = depth.data[r * depth.width + c];
  const i = rayIndex(rays, depth, r, c);
  return { d, x: Math.fround(rays.x[i] * d), y: Math.fround(rays.y[i] * d), z: d };
}

// The read-out of one depth pixel; full-grid pixel coordinates.
export function describePoint(rays, depth, u, v) {
  const c = Math.floor(u * depth.width);
  const r = Math.floor(v * depth.height);
  const f = rays ? Math.round(rays.width / depth.width) : 1;
  const data = { row: r * f, col: c * f };
  const d = depth.data[r * depth.width + c];
  data.mm = d;
  let text = `(${c * f}, ${r * f})  `;
  if (d === 0) text += 'no depth';
  else if (d === 1) text += 'saturated';
  else text += `${d} mm`;
  if (rays && d > 1) {
    const p = pointAt(rays, depth, r, c);
    Object.assign(data, { x: p.x, y: p.y, z: p.z });
    text += `   X ${p.x.toFixed(1)}  Y ${p.y.toFixed(1)}  Z ${p.z} mm`;
  }
  return { text, data };
}

// The library's false colour of depth (Convert2RGB) as a table of every 16-bit depth,
// so that the page paints the depth it already has instead of receiving a picture.
// The table is computed with the library's own arithmetic: JavaScript's numbers are the
// doubles the library divides in, so every entry is the byte the library writes.
//
//   0 mm: black; 1 mm (saturated): (127, 0, 170); otherwise the level
//   v = trunc((d - a) / (b - a) * 1021), a = min(d, lo), b = max(d, hi) (0/0: none),
//   painted dark red .. red (0..128), red .. yellow (..383), yellow .. cyan (..638),
//   cyan .. blue (..893), navy beyond and without a level.

// RGBA bytes of every depth 0..65535 for the range [lo, hi] mm (alpha 255), laid out
// as a 256 x 256 texture: depth d at column d & 255 of row d >> 8.
export function falseColourTable(lo, hi) {
  const table = new Uint8Array(4 * 65536);
  for (let d = 0; d < 65536; d++) {
    let r = 0;
    let g = 0;
    let b = 0;
    if (d === 1) [r, b] = [127, 170];
    else if (d > 1) {
      const a = Math.min(d, lo);
      const v = Math.trunc(((d - a) / (Math.max(d, hi) - a)) * 1021); // NaN for 0 / 0
      if (v >= 0 && v <= 128) r = v + 127;
      else if (v > 128 && v <= 383) [r, g] = [255, v - 128];
      else if (v > 383 && v <= 638) [r, g, b] = [638 - v, 255, v - 383];
      else if (v > 638 && v <= 893) [g, b] = [893 - v, 255];
      else b = 128; // beyond 893, negative or none: navy
    }
    table[4 * d] = r;
    table[4 * d + 1] = g;
    table[4 * d + 2] = b;
    table[4 * d + 3] = 255;
  }
  return table;
}

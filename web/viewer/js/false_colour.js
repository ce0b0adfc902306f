// The library's false colour of depth (Convert2RGB) as a table of every 16-bit depth,
// so that the page paints the depth it already has instead of receiving a picture.
// The table is computed with the library's own arithmetic: JavaScript's numbers are the
// doubles the library divides in, so every entry is the byte the library writes.
//
//   0 mm: black; 1 mm (saturated): (127, 0, 170); otherwise the level
//   v = trunc((d - a) / (b - a) * 1021), a = min(d, lo), b = max(d, hi) (0/0: none),
//   painted dark red .. red (0..128), red .. yellow (..383), yellow .. cyan (..638),
//   cyan .. blue (..893), navy beyond and without a level.

// [r, g, b] of level v (an integer, or NaN for none).
function levelColour(v) {
  if (Number.isNaN(v) || v < 0) return [0, 0, 128];
  if (v <= 128) return [v + 127, 0, 0];
  if (v <= 383) return [255, v - 128, 0];
  if (v <= 638) return [638 - v, 255, v - 383];
  if (v <= 893) return [0, 893 - v, 255];
  return [0, 0, 128];
}

// RGBA bytes of every depth 0..65535 for the range [lo, hi] mm (alpha 255), laid out
// as a 256 x 256 texture: depth d at column d & 255 of row d >> 8.
export function falseColourTable(lo, hi) {
  const table = new Uint8Array(4 * 65536);
  for (let d = 0; d < 65536; d++) {
    let rgb;
    if (d === 0) rgb = [0, 0, 0];
    else if (d === 1) rgb = [127, 0, 170];
    else {
      const a = Math.min(d, lo);
      const b = Math.max(d, hi);
      rgb = levelColour(Math.trunc(((d - a) / (b - a)) * 1021));
    }
    table[4 * d] = rgb[0];
    table[4 * d + 1] = rgb[1];
    table[4 * d + 2] = rgb[2];
    table[4 * d + 3] = 255;
  }
  return table;
}

// Colouring of depth in the page (the registered overlay, the 3-D points, the legend)
// with the library's colour bar from /api/colormap and the range of the settings.

// Fills rgba (4 bytes a pixel) from depth in mm: near (min) is colour 0, far (max) the
// last; 0, 1 (saturated) and depths outside the range are transparent.
export function colourDepth(depth, rgba, colors, range, alpha = 255) {
  const [lo, hi] = range;
  const last = colors.length - 1;
  const scale = last / Math.max(1, hi - lo);
  for (let i = 0; i < depth.length; i++) {
    const d = depth[i];
    const o = 4 * i;
    if (d <= 1 || d < lo || d > hi) {
      rgba[o + 3] = 0;
      continue;
    }
    const c = colors[Math.round((d - lo) * scale)];
    rgba[o] = c[0];
    rgba[o + 1] = c[1];
    rgba[o + 2] = c[2];
    rgba[o + 3] = alpha;
  }
  return rgba;
}

export function colourOf(d, colors, range) {
  const [lo, hi] = range;
  if (d <= 1 || d < lo || d > hi) return null;
  return colors[Math.round(((d - lo) * (colors.length - 1)) / Math.max(1, hi - lo))];
}

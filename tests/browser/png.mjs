// Minimal PNG writing and reading (non-interlaced grey and RGB, 8 and 16 bits), with
// Node's zlib: the mock server's pictures and the tests' reading of the server's
// 16-bit depth snapshots.
import zlib from 'node:zlib';

const CRC_TABLE = Array.from({ length: 256 }, (_, n) => {
  let c = n;
  for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
  return c >>> 0;
});
function crc32(buf) {
  let c = 0xffffffff;
  for (const b of buf) c = CRC_TABLE[(c ^ b) & 255] ^ (c >>> 8);
  return (c ^ 0xffffffff) >>> 0;
}
function chunk(type, data) {
  const out = Buffer.alloc(12 + data.length);
  out.writeUInt32BE(data.length, 0);
  out.write(type, 4, 'latin1');
  data.copy(out, 8);
  out.writeUInt32BE(crc32(out.subarray(4, 8 + data.length)), 8 + data.length);
  return out;
}

const KINDS = { grey8: [8, 0, 1], grey16: [16, 0, 2], rgb8: [8, 2, 3] };

// pixels: bytes row by row (grey16: uint16 in the machine's little-endian order).
export function encodePng(pixels, width, height, kind) {
  const [depth, colourType, bpp] = KINDS[kind];
  const stride = width * bpp;
  const raw = Buffer.alloc((stride + 1) * height);
  for (let r = 0; r < height; r++) {
    const row = raw.subarray(r * (stride + 1) + 1, (r + 1) * (stride + 1));
    pixels.copy(row, 0, r * stride, (r + 1) * stride);
    if (depth === 16) row.swap16();
  }
  const ihdr = Buffer.alloc(13);
  ihdr.writeUInt32BE(width, 0);
  ihdr.writeUInt32BE(height, 4);
  ihdr[8] = depth;
  ihdr[9] = colourType;
  return Buffer.concat([Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]), chunk('IHDR', ihdr),
    chunk('IDAT', zlib.deflateSync(raw, { level: 1 })), chunk('IEND', Buffer.alloc(0))]);
}

// Returns {width, height, channels, bitDepth, data}: data a Uint16Array for 16-bit
// pictures, else a Uint8Array, one sample per channel per pixel.
export function decodePng(buf) {
  if (buf.readUInt32BE(0) !== 0x89504e47) throw new Error('not a PNG');
  let at = 8, ihdr = null;
  const idat = [];
  while (at < buf.length) {
    const n = buf.readUInt32BE(at);
    const type = buf.toString('latin1', at + 4, at + 8);
    const data = buf.subarray(at + 8, at + 8 + n);
    if (type === 'IHDR') ihdr = data;
    else if (type === 'IDAT') idat.push(data);
    at += 12 + n;
  }
  const width = ihdr.readUInt32BE(0), height = ihdr.readUInt32BE(4), bitDepth = ihdr[8];
  const channels = { 0: 1, 2: 3, 4: 2, 6: 4 }[ihdr[9]];
  if (!channels || ihdr[12] !== 0 || (bitDepth !== 8 && bitDepth !== 16)) throw new Error('unsupported PNG');
  const bpp = (channels * bitDepth) / 8, stride = width * bpp;
  const raw = zlib.inflateSync(Buffer.concat(idat));
  const out = Buffer.alloc(stride * height);
  for (let r = 0; r < height; r++) {
    const filter = raw[r * (stride + 1)];
    const src = raw.subarray(r * (stride + 1) + 1, (r + 1) * (stride + 1));
    const cur = out.subarray(r * stride, (r + 1) * stride);
    const prev = r ? out.subarray((r - 1) * stride, r * stride) : Buffer.alloc(stride);
    for (let i = 0; i < stride; i++) {
      const a = i >= bpp ? cur[i - bpp] : 0, b = prev[i], c = i >= bpp ? prev[i - bpp] : 0;
      let p = 0;
      if (filter === 1) p = a;
      else if (filter === 2) p = b;
      else if (filter === 3) p = (a + b) >> 1;
      else if (filter === 4) {
        const q = a + b - c, pa = Math.abs(q - a), pb = Math.abs(q - b), pc = Math.abs(q - c);
        p = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
      }
      cur[i] = (src[i] + p) & 255;
    }
  }
  if (bitDepth === 16) {
    out.swap16();
    return { width, height, channels, bitDepth, data: new Uint16Array(out.buffer, out.byteOffset, out.length / 2) };
  }
  return { width, height, channels, bitDepth, data: new Uint8Array(out) };
}

// Decoding of the stream's frame messages ("QVF1", uint32 LE length, that many bytes of
// JSON, then the blobs) into typed arrays (depth as uint16) and bitmaps (PNG, JPEG).
// Free of the page's DOM, so that the decoding worker uses it too.

const MAGIC = 0x31465651; // "QVF1" read as uint32 LE

// Splits a frame message into its header and its blobs' bytes (views, not copies).
export function parseFrameMessage(buffer) {
  if (buffer.byteLength < 8) throw new Error('frame message too short');
  const view = new DataView(buffer);
  if (view.getUint32(0, true) !== MAGIC) throw new Error('frame message without QVF1');
  const n = view.getUint32(4, true);
  if (8 + n > buffer.byteLength) throw new Error('frame header longer than the message');
  const head = JSON.parse(new TextDecoder().decode(new Uint8Array(buffer, 8, n)));
  const base = 8 + n;
  const blobs = {};
  for (const b of head.blobs || []) {
    if (!(b.offset >= 0 && b.length >= 0 && base + b.offset + b.length <= buffer.byteLength)) {
      throw new Error(`blob ${b.name} outside the message`);
    }
    blobs[b.name] = { ...b, bytes: new Uint8Array(buffer, base + b.offset, b.length) };
  }
  return { head, blobs };
}

async function inflateU16(bytes, width, height) {
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate'));
  const buffer = await new Response(stream).arrayBuffer();
  if (buffer.byteLength !== 2 * width * height) {
    throw new Error(`u16 blob: ${buffer.byteLength} bytes for ${width}x${height}`);
  }
  // Little-endian on the wire; every browser's typed arrays are little-endian in practice.
  return new Uint16Array(buffer);
}

// drawnWidth (optional): the widest the picture is drawn, in device pixels; a wider
// picture is decoded at that width (its aspect ratio kept), never a narrower one wider.
export async function decodeBlob(blob, drawnWidth = 0) {
  const { encoding, width, height, bytes } = blob;
  if (encoding === 'u16-deflate') return { width, height, data: await inflateU16(bytes, width, height) };
  if (encoding === 'png' || encoding === 'jpeg') {
    // Opaque pictures, uploaded as they are: no colour-space or alpha conversion.
    const options = { premultiplyAlpha: 'none', colorSpaceConversion: 'none' };
    if (drawnWidth > 0 && drawnWidth < width && width > 0 && height > 0) {
      Object.assign(options, { resizeWidth: drawnWidth, resizeHeight: Math.max(1, Math.round((drawnWidth * height) / width)), resizeQuality: 'medium' });
    }
    const bitmap = await createImageBitmap(new Blob([bytes], { type: `image/${encoding}` }), options);
    return { width: bitmap.width, height: bitmap.height, bitmap };
  }
  throw new Error(`unknown blob encoding ${encoding}`);
}

// Decodes every blob of a message: {head, images: {name: decoded}, errors: {name: message}}.
// wanted (a set of names, or null for all) leaves the other blobs undecoded; drawn
// ({name: width}) gives pictures drawn smaller than they come their width.
export async function decodeFrame(buffer, wanted = null, drawn = {}) {
  const { head, blobs } = parseFrameMessage(buffer);
  const images = {};
  const errors = {};
  await Promise.all(Object.values(blobs).map(async (b) => {
    if (wanted && !wanted.has(b.name)) return;
    try {
      images[b.name] = await decodeBlob(b, drawn[b.name]);
    } catch (e) {
      errors[b.name] = e.message;
    }
  }));
  return { head, images, errors, bytes: buffer.byteLength };
}

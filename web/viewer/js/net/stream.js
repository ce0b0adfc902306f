// The frame stream: a WebSocket to /api/stream, its status messages and its binary
// frame messages ("QVF1", uint32 LE length, that many bytes of JSON, then the blobs),
// decoded into typed arrays (depth as uint16) and bitmaps (PNG, JPEG).
// Only the newest message waits for decoding: a frame arriving while another is
// decoded replaces the waiting one, so a slow page shows fewer frames, never late ones.
import { accessToken } from './api.js';

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

export async function decodeBlob(blob) {
  const { encoding, width, height, bytes } = blob;
  if (encoding === 'u16-deflate') return { width, height, data: await inflateU16(bytes, width, height) };
  if (encoding === 'png' || encoding === 'jpeg') {
    const bitmap = await createImageBitmap(new Blob([bytes], { type: `image/${encoding}` }));
    return { width: bitmap.width, height: bitmap.height, bitmap };
  }
  throw new Error(`unknown blob encoding ${encoding}`);
}

// Decodes every blob of a message: {head, images: {name: decoded}, errors: {name: message}}.
export async function decodeFrame(buffer) {
  const { head, blobs } = parseFrameMessage(buffer);
  const images = {};
  const errors = {};
  await Promise.all(Object.values(blobs).map(async (b) => {
    try {
      images[b.name] = await decodeBlob(b);
    } catch (e) {
      errors[b.name] = e.message;
    }
  }));
  return { head, images, errors, bytes: buffer.byteLength };
}

export class FrameStream {
  // handlers: onFrame(frame), onStatus(status), onState('connecting'|'open'|'closed', detail)
  constructor(handlers) {
    this.handlers = handlers;
    this.options = { type: 'options', decimate: 1 };
    this.bytes = 0;
    this.waiting = null;
    this.decoding = false;
    this.retry = 500;
    this.connect();
  }

  connect() {
    const scheme = window.location.protocol === 'https:' ? 'wss' : 'ws';
    const token = accessToken();
    const query = token ? `?token=${encodeURIComponent(token)}` : '';
    this.handlers.onState?.('connecting');
    const ws = new WebSocket(`${scheme}://${window.location.host}/api/stream${query}`);
    ws.binaryType = 'arraybuffer';
    ws.onopen = () => {
      this.retry = 500;
      this.handlers.onState?.('open');
      ws.send(JSON.stringify(this.options));
    };
    ws.onmessage = (event) => this.receive(event.data);
    ws.onclose = () => {
      this.handlers.onState?.('closed', `reconnecting in ${this.retry / 1000} s`);
      setTimeout(() => this.connect(), this.retry);
      this.retry = Math.min(this.retry * 2, 8000);
    };
    this.ws = ws;
  }

  setOptions(options) {
    Object.assign(this.options, options);
    if (this.ws?.readyState === WebSocket.OPEN) this.ws.send(JSON.stringify(this.options));
  }

  receive(data) {
    if (typeof data === 'string') {
      let message;
      try {
        message = JSON.parse(data);
      } catch {
        this.handlers.onError?.('a status message that is not JSON');
        return;
      }
      if (message.type === 'status') this.handlers.onStatus?.(message);
      return;
    }
    this.bytes += data.byteLength;
    this.waiting = data;
    if (!this.decoding) this.decodeNext();
  }

  async decodeNext() {
    this.decoding = true;
    while (this.waiting) {
      const buffer = this.waiting;
      this.waiting = null;
      try {
        this.handlers.onFrame(await decodeFrame(buffer));
      } catch (e) {
        this.handlers.onError?.(e.message);
      }
    }
    this.decoding = false;
  }
}

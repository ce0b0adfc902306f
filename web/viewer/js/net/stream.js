// The frame stream: a WebSocket to /api/stream, its status messages and its binary
// frame messages, handed (transferred, not copied) to the decoding worker, which sends
// back decoded frames. Only the newest message waits for decoding there: a slow page
// shows fewer frames, never late ones. The server sends a frame only against credit:
// one in the stream's address, then one each time the worker starts decoding a frame, so that one
// frame is on its way or waiting while another is decoded and drawn, and the link
// carries no frame the page would throw away.
import { accessToken } from './api.js';

export class FrameStream {
  // handlers: onFrame(frame), onStatus(status), onState('connecting'|'open'|'closed', detail)
  constructor(handlers) {
    this.handlers = handlers;
    this.options = { type: 'options', decimate: 'auto' };
    this.bytes = 0;
    this.received = 0;
    this.retry = 500;
    this.startWorker();
    this.connect();
  }

  connect() {
    const scheme = window.location.protocol === 'https:' ? 'wss' : 'ws';
    const token = accessToken();
    // Under flow control from the first frame: one credit comes with the address, so
    // the server sends no frame before it (one the page would pay for twice).
    const query = `?credit=1${token ? `&token=${encodeURIComponent(token)}` : ''}`;
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

  // The server may send n more frames.
  credit(n) {
    if (this.ws?.readyState === WebSocket.OPEN) this.ws.send(JSON.stringify({ type: 'credit', frames: n }));
  }

  // Asks the worker to decode only these blobs (null: all), and sets its noise window
  // and which per-pixel figures it computes.
  setDecoding(options) {
    this.worker.postMessage({ type: 'options', ...options });
  }

  // The page took a decoded frame (drew or skipped it): the worker may decode another.
  more() {
    this.worker.postMessage({ type: 'more' });
  }

  startWorker() {
    this.worker = new Worker(new URL('./decode_worker.js', import.meta.url), { type: 'module' });
    this.worker.onmessage = (event) => {
      const m = event.data;
      if (m.type === 'frame') this.handlers.onFrame(m.frame);
      else if (m.type === 'taken') this.credit(1);
      else if (m.type === 'error') this.handlers.onError?.(m.message);
    };
    this.worker.onerror = (event) => this.handlers.onError?.(`decoding worker: ${event.message}`);
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
      else if (message.type === 'error') this.handlers.onError?.(`the server refused a message: ${message.error}`);
      return;
    }
    this.bytes += data.byteLength;
    this.received++;
    this.worker.postMessage({ type: 'frame', buffer: data, seq: this.received }, [data]);
  }
}

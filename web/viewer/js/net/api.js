// The viewer's HTTP API: small fetch wrappers. The access token the page was opened
// with (?token=...) goes with every call as a bearer token, so a page opened through
// a link keeps working even where the server's cookie is not stored.

const token = new URLSearchParams(window.location.search).get('token');

export function accessToken() {
  return token;
}

function headers(extra = {}) {
  return token ? { Authorization: `Bearer ${token}`, ...extra } : extra;
}

// The server's one-line JSON error, else the status line.
async function failure(response) {
  let message = `${response.status} ${response.statusText}`;
  try {
    const body = await response.json();
    if (body && typeof body.error === 'string') message = `${response.status}: ${body.error}`;
  } catch {
    // not JSON: keep the status line
  }
  const error = new Error(message);
  error.status = response.status;
  return error;
}

export async function getJson(path) {
  const response = await fetch(path, { headers: headers(), cache: 'no-store' });
  if (!response.ok) throw await failure(response);
  return response.json();
}

export async function postJson(path, body) {
  const response = await fetch(path, {
    method: 'POST',
    headers: headers({ 'Content-Type': 'application/json' }),
    body: JSON.stringify(body),
  });
  if (!response.ok) throw await failure(response);
  return response.json();
}

// Returns {buffer, headers} of a binary resource.
export async function getBinary(path) {
  const response = await fetch(path, { headers: headers(), cache: 'no-store' });
  if (!response.ok) throw await failure(response);
  return { buffer: await response.arrayBuffer(), headers: response.headers };
}

export const getStatus = () => getJson('/api/status');
export const getSettings = () => getJson('/api/settings');
export const postSettings = (changes) => postJson('/api/settings', changes);
export const postPlayback = (body) => postJson('/api/playback', body);
export const postRecord = (action) => postJson('/api/record', { action });
export const getColormap = async () => (await getJson('/api/colormap')).colors;

// The table of rays of the depth grid (grid "depth") or of the colour grid ("colour"):
// {width, height, calibrationId, x: Float32Array, y: Float32Array}.
export async function getRays(grid = 'depth') {
  const { buffer, headers: h } = await getBinary(grid === 'depth' ? '/api/rays' : `/api/rays?grid=${grid}`);
  const width = Number(h.get('X-Width'));
  const height = Number(h.get('X-Height'));
  const n = width * height;
  if (!(n > 0) || buffer.byteLength !== 8 * n) throw new Error(`rays: ${buffer.byteLength} bytes for ${width}x${height}`);
  return {
    width,
    height,
    calibrationId: Number(h.get('X-Calibration-Id')),
    x: new Float32Array(buffer, 0, n),
    y: new Float32Array(buffer, 4 * n, n),
  };
}

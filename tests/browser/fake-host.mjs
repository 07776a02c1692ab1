/**
 * A host for the viewer page alone: serves the page with the real content security policy, speaks the greeting and the
 * answers of the control protocol, and sends an H.264 stream of a test picture that ffmpeg encodes as it goes.
 * What the page sends is recorded in `received`.
 */

import { spawn } from 'node:child_process';
import { readFile } from 'node:fs/promises';
import { createServer } from 'node:http';
import { fileURLToPath } from 'node:url';
import { WebSocketServer } from 'ws';

const PAGE = fileURLToPath(new URL('../../Resources/Viewer/', import.meta.url));
const POLICY = "default-src 'self'; script-src 'self' 'unsafe-eval' 'wasm-unsafe-eval'; style-src 'self'; " +
  "connect-src 'self' ws: wss:; worker-src 'self'; img-src 'self' data:; media-src blob:; object-src 'none'; " +
  "base-uri 'none'; frame-ancestors 'none'";
const TYPES = { html: 'text/html; charset=utf-8', js: 'text/javascript; charset=utf-8', css: 'text/css; charset=utf-8' };

export const TOKEN = 'AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA';

/** Splits an Annex B byte stream into access units at the access unit delimiters. */
function* accessUnits(state, chunk) {
  state.buffer = Buffer.concat([state.buffer, chunk]);
  const delimiter = Buffer.from([0, 0, 0, 1, 9]);
  for (let next; (next = state.buffer.indexOf(delimiter, 5)) > 0; ) {
    yield state.buffer.subarray(0, next);
    state.buffer = state.buffer.subarray(next);
  }
}

function isKeyframe(unit) {
  for (let i = 0; i + 3 < unit.length; i++) {
    if (unit[i] === 0 && unit[i + 1] === 0 && unit[i + 2] === 1 && (unit[i + 3] & 0x1f) === 5) return true;
  }
  return false;
}

export class FakeHost {
  constructor({ size = '1600x900', rate = 30, source, codec = 'h264', state = 'armed', port = 0 } = {}) {
    Object.assign(this, { size, rate, source, codec, state, port });
    this.received = [];
    this.viewer = null;
    this.controlMode = false;
    this.refuse = null; // [code, reason] for the next authentication
    this.mute = false; // answers nothing, like a link that died silently
  }

  async start() {
    this.http = createServer((request, response) => this.serve(request, response));
    this.sockets = new WebSocketServer({ server: this.http, path: '/stream' });
    this.sockets.on('connection', (socket) => this.connected(socket));
    await new Promise((resolve) => this.http.listen(this.port, '127.0.0.1', resolve));
    this.port = this.http.address().port;
    return this;
  }

  get url() {
    return `http://127.0.0.1:${this.port}/#${TOKEN}`;
  }

  async stop() {
    this.stopEncoder();
    for (const socket of this.sockets.clients) socket.terminate();
    this.http.closeAllConnections();
    await new Promise((resolve) => this.http.close(resolve));
  }

  async serve(request, response) {
    const name = request.url === '/' ? 'index.html' : request.url.slice(1);
    if (!/^[a-z-]+\.(html|js|css)$/.test(name)) {
      response.writeHead(request.url === '/favicon.ico' ? 204 : 404).end();
      return;
    }
    try {
      const body = await readFile(PAGE + name);
      const type = TYPES[name.split('.').pop()];
      const policy = type.startsWith('text/html') ? { 'Content-Security-Policy': POLICY } : {};
      response.writeHead(200, { 'Content-Type': type, 'Cache-Control': 'no-store', ...policy }).end(body);
    } catch {
      response.writeHead(404).end();
    }
  }

  connected(socket) {
    socket.on('message', (data, binary) => {
      if (binary) throw new Error('the page sent a binary message');
      const message = JSON.parse(data.toString());
      this.received.push(message);
      if (socket !== this.viewer) this.authenticate(socket, message);
      else if (!this.mute) this.answer(message);
    });
    socket.on('close', () => {
      if (socket !== this.viewer) return;
      this.viewer = null;
      this.stopEncoder();
    });
  }

  authenticate(socket, message) {
    const refuse = this.refuse;
    this.refuse = null;
    if (refuse) socket.close(...refuse);
    else if (message.type !== 'auth') socket.close(1008, 'Authenticate first');
    else if (message.token !== TOKEN) socket.close(1008, 'Unauthorized');
    else if (this.viewer && message.takeover === false) socket.close(4001, 'Another viewer is active');
    else this.greet(socket);
  }

  greet(socket) {
    if (this.viewer) this.viewer.close(4001, 'Replaced by newer viewer');
    this.viewer = socket;
    this.controlMode = false;
    this.send({ type: 'authenticated', audioSequence: 0 });
    this.sendSettings(false);
    this.send({ type: 'cursorState', visible: true, x: 0.5, y: 0.5 });
    this.sendState(this.state);
    if (this.state === 'streaming') this.startEncoder();
  }

  send(message) {
    if (this.viewer) this.viewer.send(JSON.stringify(message));
  }

  sendSettings(reconfigured) {
    this.send({ type: 'streamSettings', quality: 'balanced', fps: 60, codec: this.codec, reconfigured, audioSequence: 0 });
  }

  sendState(state, message) {
    this.state = state;
    this.send({ type: 'streamState', state, ...(message ? { message } : {}) });
  }

  answer(message) {
    const results = { playPause: 'playPauseResult', fullscreen: 'fullscreenResult', openChrome: 'openChromeResult', resetBrowser: 'resetBrowserResult' };
    switch (message.type) {
      case 'ping': this.send({ type: 'pong' }); break;
      case 'mode':
        this.controlMode = message.mode === 'control';
        this.send({ type: 'mode', mode: message.mode, audioSequence: 0 });
        break;
      case 'startStream':
        this.sendState('starting');
        this.startEncoder();
        this.sendState('streaming');
        break;
      case 'codecFallback':
        this.codec = 'h264';
        this.sendSettings(true);
        break;
      case 'pointer':
        if (this.controlMode) this.send({ type: 'cursorState', visible: true, x: message.x, y: message.y });
        break;
      default:
        if (results[message.type]) this.send({ type: results[message.type], result: 'clicked' });
    }
  }

  startEncoder() {
    this.stopEncoder();
    const source = this.source || `testsrc2=size=${this.size}:rate=${this.rate}`;
    const params = `aud=1:repeat-headers=1:keyint=${this.rate}:scenecut=0:bframes=0:sliced-threads=0`;
    this.encoder = spawn('ffmpeg', ['-loglevel', 'error', '-re', '-f', 'lavfi', '-i', source, '-pix_fmt', 'yuv420p', '-c:v', 'libx264',
      '-profile:v', 'baseline', '-preset', 'ultrafast', '-tune', 'zerolatency', '-x264-params', params, '-f', 'h264', '-'],
    { stdio: ['ignore', 'pipe', 'inherit'] });
    const state = { buffer: Buffer.alloc(0) };
    this.encoder.stdout.on('data', (chunk) => {
      for (const unit of accessUnits(state, chunk)) this.sendFrame(unit, isKeyframe(unit));
    });
  }

  stopEncoder() {
    if (this.encoder) this.encoder.kill('SIGKILL');
    this.encoder = null;
  }

  sendFrame(payload, keyframe) {
    if (!this.viewer || this.mute) return;
    const header = Buffer.alloc(9);
    header[0] = keyframe ? 1 : 0;
    header.writeBigUInt64BE(process.hrtime.bigint() / 1000n, 1);
    this.viewer.send(Buffer.concat([header, payload]));
  }
}

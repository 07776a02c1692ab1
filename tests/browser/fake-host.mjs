/**
 * A host for the viewer page alone: serves the page with the real content security policy, speaks the greeting and the
 * answers of the control protocol, sends an H.264 stream of a test picture that ffmpeg encodes as it goes, and has a
 * tone to be polled. What the page sends is recorded in `received`.
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

const RATE = 48000;
const CHUNK_FRAMES = 960; // 20 ms
const STORED_CHUNKS = 150;
const nowMicroseconds = () => Number(process.hrtime.bigint() / 1000n);
const sleep = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

/** A tone without end, of which chunk n begins n - 1 chunks after the construction. Stereo. */
export class Tone {
  constructor(frequency = 440) {
    this.frequency = frequency;
    this.startedAt = nowMicroseconds();
    this.lost = new Set(); // numbers of chunks that are never given out
  }

  get latest() {
    return Math.floor((nowMicroseconds() - this.startedAt) / (CHUNK_FRAMES * 1e6 / RATE));
  }

  /** Loses the next chunks. */
  lose(count) {
    const { latest } = this;
    for (let i = 1; i <= count; i++) this.lost.add(latest + i);
  }

  chunksAfter(after, limit) {
    const { latest } = this;
    const numbers = [];
    for (let n = Math.max(after + 1, latest - STORED_CHUNKS + 1); n <= latest && numbers.length < limit; n++) {
      if (!this.lost.has(n)) numbers.push(n);
      else if (numbers.length > 0) break;
    }
    return numbers;
  }

  pcm(numbers) {
    const bytes = Buffer.alloc(numbers.length * CHUNK_FRAMES * 4);
    for (let i = 0; i < numbers.length * CHUNK_FRAMES; i++) {
      const time = ((numbers[0] - 1) * CHUNK_FRAMES + i) / RATE;
      const value = Math.round(16000 * Math.sin(2 * Math.PI * this.frequency * time));
      bytes.writeInt16LE(value, i * 4);
      bytes.writeInt16LE(value, i * 4 + 2);
    }
    return bytes;
  }

  ptsOf(number) {
    return this.startedAt + Math.round(((number - 1) * CHUNK_FRAMES * 1e6) / RATE);
  }
}

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
    this.tone = new Tone();
    this.polls = []; // {after, authorized}
    this.audioStatus = null; // answers polls with this instead
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
    const url = new URL(request.url, 'http://localhost');
    if (url.pathname === '/audio') {
      await this.servePoll(request, response, Number(url.searchParams.get('after')));
      return;
    }
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

  /** A long poll as the host answers it: 10 chunks at once, fewer after 0.25 s, nothing after 10 s. */
  async servePoll(request, response, after) {
    const authorized = request.headers.authorization === `Bearer ${TOKEN}`;
    this.polls.push({ after, authorized });
    const refusal = authorized ? this.audioStatus : 401;
    if (refusal) {
      response.writeHead(refusal, { 'Content-Type': 'text/plain', 'Cache-Control': 'no-store', Connection: 'close' }).end('No');
      return;
    }
    const begun = Date.now();
    let numbers = [];
    for (; !response.destroyed; await sleep(20)) {
      numbers = this.tone.chunksAfter(after, 10);
      const waited = Date.now() - begun;
      if (numbers.length === 10 || (numbers.length > 0 && waited >= 250) || waited >= 10000) break;
    }
    const common = { 'Cache-Control': 'no-store', Connection: 'close' };
    if (numbers.length === 0) {
      response.writeHead(204, { ...common, 'X-Audio-Sequence': this.tone.latest }).end();
      return;
    }
    const body = this.tone.pcm(numbers);
    response.writeHead(200, {
      ...common, 'Content-Type': 'application/octet-stream', 'Content-Length': body.length, 'X-Audio-Sequence': numbers[numbers.length - 1],
      'X-Audio-PTS': this.tone.ptsOf(numbers[0]), 'X-Audio-Sample-Rate': RATE, 'X-Audio-Channels': 2,
      'X-Audio-Frames': numbers.length * CHUNK_FRAMES, 'X-Audio-Format': 's16le',
    }).end(body);
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
    else if (this.viewer && message.takeover === false && message.viewer !== this.viewerIdentifier) socket.close(4001, 'Another viewer is active');
    else this.greet(socket, message.viewer);
  }

  greet(socket, viewerIdentifier) {
    if (this.viewer) this.viewer.close(4001, 'Replaced by newer viewer');
    this.viewer = socket;
    this.viewerIdentifier = viewerIdentifier;
    this.controlMode = false;
    this.send({ type: 'authenticated', audioSequence: this.tone.latest });
    this.sendSettings(false);
    this.send({ type: 'cursorState', visible: true, x: 0.5, y: 0.5 });
    this.sendState(this.state);
    if (this.state === 'streaming') this.startEncoder();
  }

  send(message) {
    if (this.viewer) this.viewer.send(JSON.stringify(message));
  }

  sendSettings(reconfigured) {
    this.send({ type: 'streamSettings', quality: 'balanced', fps: 60, codec: this.codec, reconfigured, audioSequence: this.tone.latest });
  }

  sendState(state, message) {
    this.state = state;
    this.send({ type: 'streamState', state, ...(message ? { message } : {}) });
  }

  answer(message) {
    const results = { fullscreen: 'fullscreenResult', openChrome: 'openChromeResult', resetBrowser: 'resetBrowserResult' };
    switch (message.type) {
      case 'ping': this.send({ type: 'pong' }); break;
      case 'mode':
        this.controlMode = message.mode === 'control';
        this.send({ type: 'mode', mode: message.mode, audioSequence: this.tone.latest });
        break;
      case 'startStream':
        this.sendState('starting');
        this.startEncoder();
        this.sendState('streaming');
        break;
      case 'playPause':
        this.send({ type: 'playPauseResult', result: 'clicked', audioSequence: this.tone.latest });
        break;
      case 'streamSettings': this.sendSettings(false); break;
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
    header.writeBigUInt64BE(BigInt(nowMicroseconds()), 1);
    this.viewer.send(Buffer.concat([header, payload]));
  }
}

// What the end-to-end tests and measurements share: a private display, clients on it, the host, and viewers.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync, writeFileSync, mkdirSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import path from 'node:path';
import readline from 'node:readline';

/** The build under test. */
export const build = process.env.KESTRUNE_BUILD ?? 'build';

// The packages stand beside this file.
export const require = createRequire(import.meta.url);

export const sleep = (seconds) => new Promise((resolve) => { setTimeout(resolve, seconds * 1000); });

const children = new Set();
process.on('exit', () => { for (const child of children) child.kill('SIGKILL'); });

export function spawnQuiet(command, args, env = {}, stdio = ['ignore', 'pipe', 'pipe']) {
  const child = spawn(command, args, { env: { ...process.env, ...env }, stdio });
  children.add(child);
  child.on('exit', () => children.delete(child));
  child.on('error', (error) => { console.error(`${command}: ${error.message}`); process.exit(1); });
  return child;
}

/** Calls `onLine` for each line; resolves with the first line for which `test` gives a value, as that value. */
export function waitForLine(stream, test, onLine = () => {}) {
  return new Promise((resolve, reject) => {
    const lines = readline.createInterface({ input: stream });
    lines.on('line', (line) => {
      onLine(line);
      const found = test(line);
      if (found) resolve(found);
    });
    lines.on('close', () => reject(new Error('the program ended early')));
  });
}

export class XServer {
  /** Xvfb, or Xvnc where the size is to be changed later. */
  static async start(width, height, { hasModes = false } = {}) {
    const [program, ...form] = hasModes
      ? ['Xvnc', '-geometry', `${width}x${height}`, '-depth', '24', '-SecurityTypes', 'None', '-rfbport', '-1']
      : ['Xvfb', '-screen', '0', `${width}x${height}x24`];
    const child = spawnQuiet(program, [...form, '-displayfd', '3', '-nolisten', 'tcp', '-noreset'], {},
      ['ignore', 'ignore', 'ignore', 'pipe']);
    const number = await waitForLine(child.stdio[3], (line) => line.trim() || null);
    return Object.assign(new XServer(), { child, display: `:${number}` });
  }
  setMode(mode) { execFileSync('xrandr', ['-display', this.display, '-s', mode]); }
  stop() { this.child.kill('SIGTERM'); }
}

/** A private sound server with one null sink, on which tones can be played. */
export class SoundServer {
  static async start() {
    const folder = mkdtempSync(path.join(tmpdir(), 'kestrune-sound-'));
    const environment = { HOME: folder, PULSE_RUNTIME_PATH: folder, PULSE_STATE_PATH: folder };
    const child = spawnQuiet('pulseaudio', ['-n', '--daemonize=no', '--use-pid-file=no', '--exit-idle-time=-1',
      '--load=module-null-sink rate=48000 format=float32le norewinds=1',
      `--load=module-native-protocol-unix auth-cookie-enabled=0 socket=${folder}/native`],
    { ...environment, DBUS_SESSION_BUS_ADDRESS: 'disabled:' }, 'ignore');
    await waitFor(() => existsSync(`${folder}/native`));
    return Object.assign(new SoundServer(), { child, folder, environment: { ...environment, PULSE_SERVER: `unix:${folder}/native` } });
  }
  /** Plays a sine in stereo until the returned function is called. */
  playTone(frequency, level) {
    const player = spawnQuiet('pacat', ['--raw', '--format=float32le', '--rate=48000', '--channels=2', '--latency-msec=50'],
      this.environment, ['pipe', 'ignore', 'ignore']);
    const second = new Float32Array(2 * 48000); // of a whole frequency: it can be repeated without a seam
    second.forEach((_, index) => { second[index] = level * Math.sin((2 * Math.PI * frequency * (index >> 1)) / 48000); });
    player.stdin.on('error', () => {});
    const feed = () => { while (player.stdin.writable && player.stdin.write(Buffer.from(second.buffer))); };
    player.stdin.on('drain', feed);
    feed();
    return () => player.kill('SIGKILL');
  }
  stop() {
    this.child.kill('SIGTERM');
    this.child.on('exit', () => rmSync(this.folder, { recursive: true, force: true }));
  }
}

/** The loudest frequency, and the loudness, that the analyser of the viewer's page hears now. */
export function listen(page) {
  return page.evaluate(() => {
    const analyser = window.kestruneViewer.audioAnalyser;
    analyser.fftSize = 8192;
    const spectrum = new Float32Array(analyser.frequencyBinCount);
    analyser.getFloatFrequencyData(spectrum);
    const wave = new Float32Array(2048);
    analyser.getFloatTimeDomainData(wave);
    const loudest = spectrum.reduce((best, value, index) => (value > spectrum[best] ? index : best), 0);
    return {
      frequency: (loudest * analyser.context.sampleRate) / analyser.fftSize,
      loudness: Math.sqrt(wave.reduce((sum, value) => sum + value * value, 0) / wave.length),
    };
  });
}

/** The pattern client of the end-to-end tests; its lines are read in order, each once. */
export class Client {
  static async start(build, display) {
    const client = Object.assign(new Client(), { lines: [] });
    client.child = spawnQuiet(path.join(build, 'tests/pattern_client'), [], { DISPLAY: display }, ['pipe', 'pipe', 'inherit']);
    readline.createInterface({ input: client.child.stdout }).on('line', (line) => client.lines.push(line));
    await client.line(/^ready$/);
    return client;
  }
  write(text) { this.child.stdin.write(`${text}\n`); }
  /** The next line that matches; lines before it are forgotten. */
  async line(pattern) {
    const seen = [''];
    await waitFor(() => {
      while (this.lines.length > 0 && !pattern.test(seen.at(-1))) seen.push(this.lines.shift());
      return pattern.test(seen.at(-1));
    }, 10, () => `no line matches ${pattern}; seen: ${seen.slice(-20).join(' | ')}`);
    return seen.at(-1);
  }
  stop() { this.child.kill('SIGTERM'); }
}

export class Host {
  static port = 18080 + (process.pid % 1000) * 4; // of the latest

  /** With a `home` of an earlier host, its settings and token go on. */
  static async start(build, display, preferences, { home = null, environment = {} } = {}) {
    const folder = home ?? mkdtempSync(path.join(tmpdir(), 'kestrune-host-'));
    if (preferences) {
      mkdirSync(path.join(folder, 'config/kestrune'), { recursive: true, mode: 0o700 });
      writeFileSync(path.join(folder, 'config/kestrune/preferences.json'), JSON.stringify(preferences));
    }
    if (!home) Host.port += 1;
    const child = spawnQuiet(path.join(build, 'bin/kestrune-headless'), [], {
      DISPLAY: display, HOME: folder, KESTRUNE_PORT: String(Host.port), XDG_CONFIG_HOME: path.join(folder, 'config'),
      XDG_DATA_HOME: path.join(folder, 'data'), XDG_RUNTIME_DIR: folder, DBUS_SESSION_BUS_ADDRESS: '',
      ...environment,
    });
    let log = '';
    child.stderr.on('data', (data) => { log = (log + data).slice(-20000); });
    const url = await waitForLine(child.stdout, (line) => /^Local viewer: (\S+)/.exec(line)?.[1])
      .catch((error) => { throw new Error(`${error.message}\n${log}`); });
    return Object.assign(new Host(), { child, home: folder, url, pid: child.pid });
  }
  get preferencesFile() { return path.join(this.home, 'config/kestrune/preferences.json'); }
  preferences() { return JSON.parse(readFileSync(this.preferencesFile, 'utf8')); }
  async status() {
    const { origin, hash } = new URL(this.url);
    return (await fetch(`${origin}/status`, { headers: { Authorization: `Bearer ${hash.slice(1)}` } })).json();
  }
  /** Waits without a look into the page, which would count as a gesture of the user and unlock the sound. */
  waitForPictures() { return waitFor(async () => (await this.status()).viewer?.viewerFPS > 0, 20); }
  async stop({ keepHome = false } = {}) {
    if (this.child.exitCode === null && this.child.signalCode === null) {
      const ended = new Promise((resolve) => { this.child.on('exit', resolve); });
      this.child.kill('SIGTERM');
      await ended;
    }
    if (!keepHome) rmSync(this.home, { recursive: true, force: true });
  }
}

/** A display with the pattern on it and the host, until the test `t` is over. */
export async function stage(t, { hasModes, environment } = {}) {
  const made = {};
  t.after(async () => {
    await made.host?.stop(); // the one that runs then
    made.client?.stop();
    made.server?.stop();
  });
  made.server = await XServer.start(1280, 800, { hasModes });
  made.client = await Client.start(build, made.server.display);
  made.host = await Host.start(build, made.server.display, {}, { environment });
  return made;
}

/** A viewer without a decoder: it takes over, starts the stream in this codec, and hands on what arrives. */
export async function connectViewer(host, { codec: wanted = 'h264', onFrame = () => {} } = {}) {
  const { WebSocket } = require('ws');
  const url = new URL(host.url);
  const socket = new WebSocket(`ws://${url.host}/stream`);
  const streaming = new Promise((resolve, reject) => {
    const send = (message) => socket.send(JSON.stringify(message));
    socket.on('open', () => send({ type: 'auth', token: url.hash.slice(1), takeover: true }));
    socket.on('close', (code, reason) => reject(new Error(`closed with ${code} ${reason}`)));
    socket.on('error', reject);
    let codec = null;
    let asked = false;
    socket.on('message', (data, isBinary) => {
      if (isBinary) return onFrame(data);
      const message = JSON.parse(String(data));
      if (message.type === 'streamSettings') {
        codec = message.codec;
        if (codec !== wanted) send({ type: 'codecFallback' });
        else if (!asked) { asked = true; send({ type: 'startStream' }); }
      }
      if (message.type === 'streamState' && message.state === 'streaming') resolve();
      if (message.type === 'streamState' && message.state === 'error') reject(new Error(message.message));
    });
  });
  await streaming;
  return { close: () => socket.terminate() };
}

/** Headless Chromium as the machine has it; no service of its maker is asked for anything. */
export function launchBrowser({ autoplay = 'no-user-gesture-required' } = {}) {
  const { chromium } = require('playwright-core');
  return chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', `--autoplay-policy=${autoplay}`],
  });
}

const faults = [];

/** From now on, errors of the page and violations of its content security policy are faults. */
export function watchFaults(page) {
  page.on('pageerror', (error) => faults.push(error.message));
  page.on('console', (entry) => {
    if (/Content.Security.Policy/i.test(entry.text())) faults.push(entry.text());
  });
  return page;
}

/** Fails if a watched page had a fault since the last call. */
export function assertNoFaults() { assert.deepEqual(faults.splice(0), []); }

/** A page with the viewer, once it shows pictures; `prepare(page)` is called before it loads anything. */
export async function openViewer(browser, url, { prepare = () => {}, ...options } = {}) {
  const page = watchFaults(await browser.newPage({ viewport: { width: 1200, height: 800 }, ...options }));
  await prepare(page);
  await page.goto(url);
  await waitForPictures(page);
  return page;
}

/** Of pages that it is attached to before they load: notes what passes between page and host, and can interfere. */
export class Relay {
  sent = []; // messages of the page, in order
  frames = (body) => body; // what the page gets in place of a video frame; null for nothing
  async attach(page) {
    await page.routeWebSocket('**/stream', (toPage) => {
      this.page = toPage;
      const link = { isSilent: false };
      this.link = link;
      const host = toPage.connectToServer();
      toPage.onMessage((text) => {
        this.sent.push(JSON.parse(text));
        if (!link.isSilent) host.send(text);
      });
      host.onMessage((data) => {
        if (link.isSilent) return;
        const passed = typeof data === 'string' ? data : this.frames(data);
        if (passed !== null) toPage.send(passed);
      });
    });
  }
  of(type) { return this.sent.filter((message) => message.type === type); }
  /** From now on this connection passes nothing, like one that died; the next one does. */
  silence() { this.link.isSilent = true; }
  /** Sends a message to the page in the place of the host. */
  say(message) { this.page.send(JSON.stringify(message)); }
}

export async function takeControl(page) {
  await page.click('#mode-control');
  await page.waitForFunction(() => window.kestruneViewer.stats.mode === 'control');
}

/** Gives a viewport point that lies over the point (x, y), in 0...1, of the picture. */
export async function picturePoints(page) {
  const rect = await page.evaluate(() => ({ ...window.kestruneViewer.pictureRect }));
  return (x, y) => [rect.left + x * rect.width, rect.top + y * rect.height];
}

/** Resolves when the page has shown a picture that it had not before. */
export async function waitForPictures(page, timeout = 20000) {
  const before = await page.evaluate(() => window.kestruneViewer?.stats.framesShown ?? 0);
  await page.waitForFunction((old) => window.kestruneViewer?.stats.framesShown > old, before, { timeout });
}

/** Waits until `test` gives a true value; an assertion that fails counts as not yet, until the time is up. */
export async function waitFor(test, seconds = 10, explain = () => 'it did not happen') {
  const end = Date.now() + seconds * 1000;
  for (;;) {
    try {
      if (await test()) return;
      if (Date.now() > end) throw new Error(explain());
    } catch (error) {
      if (Date.now() > end) throw error;
    }
    await sleep(0.05);
  }
}

/** The pattern client's colours, row by row. */
export const pattern = [
  [[0xC0, 0x20, 0x20], [0x20, 0xA0, 0x40], [0x20, 0x40, 0xC0], [0xFF, 0xFF, 0xFF]],
  [[0xD0, 0xC0, 0x20], [0x20, 0xB0, 0xC0], [0x80, 0x80, 0x80], [0x00, 0x00, 0x00]],
];

export function assertColours(seen, wanted) {
  wanted.flat().forEach((colour, index) => colour.forEach((value, channel) => {
    const got = seen[index][channel];
    assert.ok(Math.abs(got - value) <= 12, `field ${index}, channel ${channel}: ${got} instead of ${value}`);
  }));
}

/** Of a press or release that the pattern client reports: whether it was at (x, y). */
export function near(line, x, y) {
  const [px, py] = line.split(' ').slice(-2).map(Number);
  assert.ok(Math.abs(px - x) <= 2 && Math.abs(py - y) <= 2, `${line}, wanted near ${x} ${y}`);
}

/**
 * The colours [R, G, B] in the middles of the eight fields of the pattern, row by row, as the page's picture has them,
 * or a screenshot of it (PNG in base64).
 */
export function pictureColours(page, screenshot = null) {
  return page.evaluate(async (png) => {
    const video = document.querySelector('#picture-video');
    let source = video.hidden ? document.querySelector('#picture-canvas') : video;
    if (png) {
      source = new Image();
      source.src = `data:image/png;base64,${png}`;
      await source.decode();
    }
    const width = source.videoWidth || source.width;
    const height = source.videoHeight || source.height;
    const canvas = new OffscreenCanvas(width, height);
    const context = canvas.getContext('2d', { willReadFrequently: true });
    context.drawImage(source, 0, 0, width, height);
    const middle = (index, count, size) => Math.round(((index + 0.5) * size) / count);
    return Array.from({ length: 8 }, (_, field) => (
      [...context.getImageData(middle(field % 4, 4, width), middle(field >> 2, 2, height), 1, 1).data.slice(0, 3)]));
  }, screenshot);
}

// What the end-to-end tests and measurements share: a private display, clients on it, the host, and viewers.

import { spawn } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync, mkdirSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import path from 'node:path';
import readline from 'node:readline';

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
function waitForLine(stream, test, onLine = () => {}) {
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
  static async start(width, height) {
    const child = spawnQuiet('Xvfb', ['-displayfd', '3', '-screen', '0', `${width}x${height}x24`, '-nolisten', 'tcp',
      '-noreset'], {}, ['ignore', 'ignore', 'ignore', 'pipe']);
    const number = await waitForLine(child.stdio[3], (line) => line.trim() || null);
    return Object.assign(new XServer(), { child, display: `:${number}` });
  }
  stop() { this.child.kill('SIGTERM'); }
}

export class Scene {
  /** `onToggle(microseconds, colour)` hears of each change of the square. */
  static async start(build, display, name, onToggle = () => {}) {
    const child = spawnQuiet(path.join(build, 'bin/screen_content'), [name], { DISPLAY: display });
    await waitForLine(child.stdout, (line) => line === 'ready', (line) => {
      const match = /^(\d+) ([01])$/.exec(line);
      if (match) onToggle(Number(match[1]), Number(match[2]));
    });
    return Object.assign(new Scene(), { child });
  }
  stop() { this.child.kill('SIGTERM'); }
}

export class Host {
  static async start(build, display, preferences, port = 18080) {
    const home = mkdtempSync(path.join(tmpdir(), 'kestrune-bench-'));
    mkdirSync(path.join(home, 'config/kestrune'), { recursive: true });
    writeFileSync(path.join(home, 'config/kestrune/preferences.json'), JSON.stringify(preferences));
    const child = spawnQuiet(path.join(build, 'bin/kestrune-headless'), [], {
      DISPLAY: display, HOME: home, KESTRUNE_PORT: String(port), XDG_CONFIG_HOME: path.join(home, 'config'),
      XDG_DATA_HOME: path.join(home, 'data'), XDG_RUNTIME_DIR: home, DBUS_SESSION_BUS_ADDRESS: '',
    });
    child.stderr.resume();
    const url = await waitForLine(child.stdout, (line) => /^Local viewer: (\S+)/.exec(line)?.[1]);
    return Object.assign(new Host(), { child, home, url, pid: child.pid });
  }
  async stop() {
    const ended = new Promise((resolve) => { this.child.on('exit', resolve); });
    this.child.kill('SIGTERM');
    await ended;
    rmSync(this.home, { recursive: true, force: true });
  }
}

/** A viewer without a decoder: it takes H.264, starts the stream and counts what arrives. */
export async function connectViewer(host) {
  const { WebSocket } = require('ws');
  const url = new URL(host.url);
  const socket = new WebSocket(`ws://${url.host}/stream`);
  const counts = { frames: 0, bytes: 0, keyframes: 0 };
  const streaming = new Promise((resolve, reject) => {
    const send = (message) => socket.send(JSON.stringify(message));
    socket.on('open', () => send({ type: 'auth', token: url.hash.slice(1), takeover: true }));
    socket.on('close', (code, reason) => reject(new Error(`closed with ${code} ${reason}`)));
    socket.on('error', reject);
    let codec = null;
    let asked = false;
    socket.on('message', (data, isBinary) => {
      if (isBinary) {
        counts.frames += 1;
        counts.bytes += data.length;
        counts.keyframes += data[0];
        return;
      }
      const message = JSON.parse(String(data));
      if (message.type === 'streamSettings') {
        codec = message.codec;
        if (codec === 'hevc') send({ type: 'codecFallback' });
        else if (!asked) { asked = true; send({ type: 'startStream' }); }
      }
      if (message.type === 'streamState' && message.state === 'streaming') resolve();
      if (message.type === 'streamState' && message.state === 'error') reject(new Error(message.message));
    });
  });
  await streaming;
  return { counts: () => ({ ...counts }), close: () => socket.terminate() };
}

/** Processor time of all threads since the start, and resident memory, of a process. */
export function processUse(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').replace(/^.*\) /s, '').split(' ');
  const resident = /VmRSS:\s+(\d+) kB/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'));
  return {
    processorSeconds: (Number(fields[11]) + Number(fields[12])) / 100,
    residentMiB: Number(resident[1]) / 1024,
  };
}

/** Headless Chromium as the machine has it; no service of its maker is asked for anything. */
export function launchBrowser() {
  const { chromium } = require('playwright-core');
  return chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--autoplay-policy=no-user-gesture-required'],
  });
}

/** A page with the viewer, once it shows pictures. */
export async function openViewer(browser, url, size = { width: 1200, height: 800 }) {
  const page = await browser.newPage({ viewport: size });
  await page.goto(url);
  await waitForPictures(page);
  return page;
}

/** Resolves when the page has shown a picture that it had not before. */
export async function waitForPictures(page, timeout = 20000) {
  const before = await page.evaluate(() => window.kestruneViewer?.stats.framesShown ?? 0);
  await page.waitForFunction((old) => window.kestruneViewer?.stats.framesShown > old, before, { timeout });
}

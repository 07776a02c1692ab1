// What changes while a stream runs: the settings by their file, the pointer, and the host's figures.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/live.test.mjs

import assert from 'node:assert/strict';
import { readFileSync, renameSync, writeFileSync } from 'node:fs';
import { after, before, test } from 'node:test';

import { Client, Host, XServer, assertNoFaults, launchBrowser, openViewer, sleep, waitFor } from './lab.mjs';

const build = process.env.KESTRUNE_BUILD;
assert.ok(build, 'KESTRUNE_BUILD names the build folder');

const width = 1600;
const height = 1000;

let server; let client; let host; let browser; let page; let motion;
const sockets = [];

before(async () => {
  server = await XServer.start(width, height);
  client = await Client.start(build, server.display);
  host = await Host.start(build, server.display, { 'stream.profile': 'balanced' });
  browser = await launchBrowser();
  browser.on('disconnected', () => clearInterval(motion));
  const context = await browser.newContext();
  context.on('page', (opened) => opened.on('websocket', (socket) => sockets.push(socket.url())));
  page = await openViewer(context, host.url);
});
after(async () => {
  clearInterval(motion);
  await browser?.close();
  await host?.stop();
  client?.stop();
  server?.stop();
  assertNoFaults();
});

const pictureWidth = () => page.evaluate(() => window.kestruneViewer.stats.width);

test('an edited preferences file changes the running stream, without a new connection', async () => {
  motion = setInterval(() => client.write('invert'), 25);
  await page.evaluate(() => {
    window.gaps = [];
    let last = performance.now();
    window.kestruneViewer.onFrameShown = () => {
      const now = performance.now();
      window.gaps.push(now - last);
      last = now;
    };
  });
  const preferences = host.preferences();
  const report = [];
  /** Saves in place or, as many editors do, by replacing the file; then the stream settles. */
  const edit = async (changes, replacing, wantedWidth) => {
    Object.assign(preferences, changes);
    await page.evaluate(() => { window.gaps = []; });
    const text = JSON.stringify(preferences);
    if (replacing) {
      writeFileSync(`${host.preferencesFile}~`, text);
      renameSync(`${host.preferencesFile}~`, host.preferencesFile);
    } else {
      writeFileSync(host.preferencesFile, text);
    }
    const started = Date.now();
    await waitFor(async () => await pictureWidth() === wantedWidth, 10, () => `the picture is not ${wantedWidth} wide`);
    const settled = Date.now() - started;
    await sleep(0.8);
    const gaps = await page.evaluate(() => window.gaps);
    report.push(`${JSON.stringify(changes)}: ${settled} ms, longest pause of the picture ${Math.max(...gaps).toFixed(0)} ms`);
    assert.ok(gaps.length > 5, 'the picture goes on');
    assert.ok(gaps.filter((gap) => gap > 300).length <= 1, `one hiccup at most: ${gaps.map(Math.round)}`);
  };
  assert.equal(await pictureWidth(), 1280);
  await edit({ 'stream.profile': 'safe' }, false, 960);
  await edit({ 'stream.profile': 'high' }, true, 1600);
  await edit({ 'stream.bitRate': 'low', 'stream.frameRate': 30 }, true, 1600);
  await edit({ 'stream.videoEncoderKind': 'software' }, false, 1600);

  // While somebody is in the middle of it, the file is nobody else's.
  const half = '{"stream.profile": "sa';
  writeFileSync(host.preferencesFile, half);
  await waitFor(() => /no JSON object/.test(host.log()));
  assert.equal(readFileSync(host.preferencesFile, 'utf8'), half);
  assert.equal(await pictureWidth(), 1600);
  await edit({ 'stream.profile': 'balanced', 'stream.frameRate': 24 }, false, 1280);

  // This browser decodes no H.265 and says so; the file tells what is in force.
  await edit({ 'stream.videoCodec': 'hevc' }, true, 1280);
  await waitFor(() => host.preferences()['stream.videoCodec'] === 'h264');

  // A still picture changes as well.
  clearInterval(motion);
  writeFileSync(host.preferencesFile, JSON.stringify({ ...host.preferences(), 'stream.profile': 'safe' }));
  await waitFor(async () => await pictureWidth() === 960);
  motion = setInterval(() => client.write('invert'), 25);

  const { connected, reconnects, decodeErrors } = await page.evaluate(() => window.kestruneViewer.stats);
  assert.deepEqual({ connected, reconnects, decodeErrors, sockets: sockets.length },
    { connected: true, reconnects: 0, decodeErrors: 0, sockets: 1 });
  assert.equal(host.preferences()['stream.bitRate'], 'low');
  console.log(report.join('\n'));
});

test('the statistics show what the host says of itself, with the last minute as curves', async () => {
  await page.evaluate(() => document.querySelector('#show-statistics').click());
  /** The columns of a plot in which a curve can be seen. */
  const columns = (id, name) => page.evaluate(([plot, variable]) => {
    const style = getComputedStyle(document.documentElement).getPropertyValue(variable).trim();
    const canvas = document.getElementById(plot);
    const probe = new OffscreenCanvas(1, 1).getContext('2d');
    probe.fillStyle = style;
    probe.fillRect(0, 0, 1, 1);
    const wanted = probe.getImageData(0, 0, 1, 1).data;
    const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    const found = new Set();
    for (let at = 0; at < data.length; at += 4) {
      if (data[at + 3] > 120 && [0, 1, 2].every((channel) => Math.abs(data[at + channel] - wanted[channel]) < 40)) {
        found.add((at / 4) % canvas.width);
      }
    }
    return found.size;
  }, [id, name]);
  await waitFor(async () => {
    const rows = await page.evaluate(() => Object.fromEntries([...document.querySelectorAll('#figures dt:not(.heading)')]
      .map((term) => [term.textContent, term.nextElementSibling.textContent])));
    const [, capture, target] = /^([\d.]+) of (\d+) \/s$/.exec(rows.Capture);
    assert.ok(Number(capture) > 10 && Number(target) === 24, rows.Capture);
    assert.ok(parseFloat(rows['Bit rate']) > 0.01, rows['Bit rate']);
    assert.ok(parseInt(rows['Captured / encoded'], 10) > 100);
    assert.equal(rows.Display, 'physical');
    assert.ok(await columns('plot-frames', '--line-capture') > 10, 'captured frames');
    assert.ok(await columns('plot-times', '--wait') > 10, 'latency');
    assert.ok(await columns('plot-rates', '--line-encode') > 10, 'encoded bits');
    return true;
  });
  await page.evaluate(() => document.querySelector('#close-statistics').click());
});

test('the pointer is drawn where it is on the display', async () => {
  clearInterval(motion);
  for (const [x, y] of [[400, 250], [1599, 999], [3, 700]]) {
    client.write(`point ${x} ${y}`);
    await waitFor(async () => {
      const seen = await page.evaluate(() => {
        const cursor = document.querySelector('#cursor');
        const box = cursor.getBoundingClientRect();
        const picture = window.kestruneViewer.pictureRect;
        const scale = box.width / cursor.viewBox.baseVal.width;
        // The tip of the arrow in its drawing is at (4, 2).
        return {
          hidden: cursor.hasAttribute('hidden'),
          x: (box.left + 4 * scale - picture.left) / picture.width,
          y: (box.top + 2 * scale - picture.top) / picture.height,
          pixel: 1 / picture.width,
        };
      });
      assert.equal(seen.hidden, false);
      assert.ok(Math.abs(seen.x - x / width) <= 2 * seen.pixel, `${seen.x * width} instead of ${x}`);
      assert.ok(Math.abs(seen.y - y / height) <= 2 * seen.pixel, `${seen.y * height} instead of ${y}`);
      return true;
    }, 5);
  }
});

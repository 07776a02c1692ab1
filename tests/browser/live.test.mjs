// What changes while a stream runs: the settings by their file, the pointer, and the host's figures.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/live.test.mjs

import assert from 'node:assert/strict';
import { renameSync, writeFileSync } from 'node:fs';
import { after, before, test } from 'node:test';

import { Client, Host, XServer, assertNoFaults, build, launchBrowser, openViewer, sleep, waitFor } from './lab.mjs';

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
  /** Saves as many editors do, by replacing the file; then the stream settles. */
  const edit = async (changes, wantedWidth) => {
    await page.evaluate(() => { window.gaps = []; });
    writeFileSync(`${host.preferencesFile}~`, JSON.stringify({ ...host.preferences(), ...changes }));
    renameSync(`${host.preferencesFile}~`, host.preferencesFile);
    await waitFor(async () => await pictureWidth() === wantedWidth, 10, () => `the picture is not ${wantedWidth} wide`);
    await sleep(0.8);
    const gaps = await page.evaluate(() => window.gaps);
    assert.ok(gaps.length > 5, 'the picture goes on');
    assert.ok(gaps.filter((gap) => gap > 300).length <= 1, `one hiccup at most: ${gaps.map(Math.round)}`);
  };
  assert.equal(await pictureWidth(), 1280);
  await edit({ 'stream.profile': 'high' }, 1600);
  await edit({ 'stream.bitRate': 'low', 'stream.videoEncoderKind': 'software' }, 1600);
  await edit({ 'stream.profile': 'balanced', 'stream.frameRate': 24 }, 1280);

  // This browser decodes no H.265 and says so; the file tells what is in force.
  await edit({ 'stream.videoCodec': 'hevc' }, 1280);
  await waitFor(() => host.preferences()['stream.videoCodec'] === 'h264');

  // A still picture changes as well.
  clearInterval(motion);
  writeFileSync(host.preferencesFile, JSON.stringify({ ...host.preferences(), 'stream.profile': 'safe' }));
  await waitFor(async () => await pictureWidth() === 960);
  motion = setInterval(() => client.write('invert'), 25);

  const { connected, reconnects, decodeErrors } = await page.evaluate(() => window.kestruneViewer.stats);
  assert.deepEqual({ connected, reconnects, decodeErrors, sockets: sockets.length },
    { connected: true, reconnects: 0, decodeErrors: 0, sockets: 1 });
});

test('the statistics show what the host says of itself', async () => {
  await page.evaluate(() => document.querySelector('#show-statistics').click());
  await waitFor(async () => {
    const rows = await page.evaluate(() => Object.fromEntries([...document.querySelectorAll('#figures dt:not(.heading)')]
      .map((term) => [term.textContent, term.nextElementSibling.textContent])));
    const [, capture, target] = /^([\d.]+) of (\d+) \/s$/.exec(rows.Capture);
    assert.ok(Number(capture) > 10 && Number(target) === 24, rows.Capture);
    assert.ok(parseFloat(rows['Bit rate']) > 0.01, rows['Bit rate']);
    assert.ok(parseInt(rows['Captured / encoded'], 10) > 100);
    assert.equal(rows.Display, 'physical');
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

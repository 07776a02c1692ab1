// The host's sound in a real Chromium: what the page's own analyser hears of a tone that is played on the host.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/sound.test.mjs

import assert from 'node:assert/strict';
import { after, afterEach, before, beforeEach, test } from 'node:test';

import {
  Host, SoundServer, XServer, assertNoFaults, build, connectViewer, launchBrowser, listen, spawnQuiet, waitFor, watchFaults,
} from './lab.mjs';

const frequency = 1000;
const level = 0.5;

let sound; let server; let host; let browser; let page; let stopTone;
let polls; // for each poll of the page, the chunk that it has

before(async () => {
  sound = await SoundServer.start();
  server = await XServer.start(1280, 800);
  browser = await launchBrowser({ autoplay: 'document-user-activation-required' });
});
after(async () => {
  await browser?.close();
  server?.stop();
  sound?.stop();
});

beforeEach(async () => {
  host = await Host.start(build, server.display, {}, { environment: sound.environment });
  stopTone = sound.playTone(frequency, level);
  polls = [];
  page = watchFaults(await browser.newPage({ viewport: { width: 1200, height: 800 } }));
  page.on('request', (request) => {
    const { pathname, searchParams } = new URL(request.url());
    if (pathname === '/audio') polls.push(Number(searchParams.get('after')));
  });
  await page.goto(host.url);
  await host.waitForPictures();
});
afterEach(async () => {
  stopTone();
  await page.context().close();
  await host.stop();
  assertNoFaults();
});

const state = (wanted) => page.waitForFunction((name) => window.kestruneViewer.audio.state === name, wanted, { timeout: 10000 });

async function hearTone() {
  await state('playing');
  let heard;
  await waitFor(async () => {
    heard = await listen(page);
    return Math.abs(heard.frequency - frequency) < 7 && Math.abs(heard.loudness - level / Math.SQRT2) < 0.02;
  }, 10, () => `heard ${heard.frequency} Hz at ${heard.loudness}`);
}

const hearSilence = () => waitFor(async () => (await listen(page)).loudness < 1e-4, 5, () => 'it is not silent');

async function unlock() {
  await page.click('#sound-prompt');
  await hearTone();
}

test('waits for a gesture and says so; then plays, in step with the picture, and tells the host', async () => {
  assert.equal(polls.length, 0, 'nothing is fetched that cannot be heard');
  await state('locked');
  const box = await page.locator('#sound-prompt').boundingBox();
  assert.ok(box.width >= 44 && box.height >= 44);
  await unlock();
  assert.equal(await page.locator('#sound-prompt').isVisible(), false);
  assert.ok(polls[0] > 0, 'begins at the live edge');
  // Pictures that come often enough for a mean.
  const counter = spawnQuiet('xterm', ['-e', 'sh', '-c', 'while :; do date +%N; sleep 0.03; done'], { DISPLAY: server.display });
  let seen;
  await waitFor(async () => {
    const { audio, lipSyncMilliseconds } = await page.evaluate(() => window.kestruneViewer.stats);
    const { viewer } = await host.status();
    seen = { held: audio.bufferMilliseconds, lipSyncMilliseconds, viewer };
    return audio.bufferMilliseconds > 40 && audio.bufferMilliseconds < 600 && Math.abs(lipSyncMilliseconds) < 40
      && viewer.audioBufferMilliseconds > 40 && Number.isInteger(viewer.audioDriftMilliseconds);
  }, 10, () => JSON.stringify(seen));
  counter.kill();
  stopTone();
  await hearSilence();
});

test('is silent in control mode and when muted, and comes back at the live edge', async () => {
  await unlock();
  await page.click('#mode-control');
  await state('off');
  await hearSilence();
  const { length } = polls;
  await page.waitForTimeout(1500);
  assert.equal(polls.length, length, 'no poll in control mode');
  assert.equal(await page.evaluate(() => window.kestruneViewer.audio.contextState), 'suspended', 'the audio thread rests');
  await page.click('#mode-video');
  await hearTone();
  assert.ok(polls[length] > polls[length - 1] + 50, 'what was missed is not fetched');
  await page.click('#sound');
  await state('muted');
  await hearSilence();
  await page.click('#sound');
  await hearTone();
});

test('goes on after an interruption by the system and a time without the stream', async () => {
  await unlock();
  await page.evaluate(() => window.kestruneViewer.audioAnalyser.context.suspend());
  await state('interrupted');
  assert.match(await page.locator('#sound-prompt').textContent(), /interrupted/);
  await unlock();
  const other = await connectViewer(host);
  await state('off');
  other.close();
  await page.click('#card-primary');
  await hearTone();
});

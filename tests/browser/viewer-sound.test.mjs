// The viewer's sound in a real Chromium: what its own analyser hears of the tone of fake-host.mjs.
import assert from 'node:assert/strict';
import { after, afterEach, before, beforeEach, test } from 'node:test';
import { chromium } from 'playwright-core';
import { FakeHost } from './fake-host.mjs';
import { listen } from './lab.mjs';

let browser;
let host;
let page;
const faults = [];

before(async () => {
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    args: ['--no-sandbox', '--headless=new', '--autoplay-policy=document-user-activation-required'],
  });
});
after(() => browser.close());

beforeEach(async () => {
  host = await new FakeHost({ size: '640x360' }).start();
  const context = await browser.newContext({ viewport: { width: 1200, height: 800 } });
  page = await context.newPage();
  page.on('pageerror', (error) => faults.push(error.message));
  page.on('console', (entry) => {
    if (/Content Security Policy/.test(entry.text())) faults.push(entry.text());
  });
  await page.goto(host.url);
  // Waited for at the host: a look into the page counts as the user's gesture.
  const deadline = Date.now() + 10000;
  while (!host.received.some(({ type, viewerFPS }) => type === 'telemetry' && viewerFPS > 0)) {
    assert.ok(Date.now() < deadline, 'the page shows no picture');
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
});
afterEach(async () => {
  await page.context().close();
  await host.stop();
  assert.deepEqual(faults.splice(0), []);
});

const state = (wanted) => page.waitForFunction((name) => window.kestruneViewer.audio.state === name, wanted, { timeout: 10000 });

async function hearTone() {
  await state('playing');
  await page.waitForTimeout(500);
  const heard = await listen(page);
  assert.ok(Math.abs(heard.frequency - 440) < 7, `${heard.frequency} Hz`);
  assert.ok(Math.abs(heard.loudness - 16000 / 32768 / Math.SQRT2) < 0.02, `loudness ${heard.loudness}`);
}

async function unlock() {
  await page.click('#sound-prompt');
  await hearTone();
}

test('waits for a gesture and says so; then plays, in step with the picture, and tells the host', async () => {
  await state('locked');
  const box = await page.locator('#sound-prompt').boundingBox();
  assert.ok(box.width >= 44 && box.height >= 44);
  assert.equal(host.polls.length, 0, 'nothing is fetched that cannot be heard');
  await unlock();
  assert.equal(await page.locator('#sound-prompt').isVisible(), false);
  assert.ok(host.polls.every(({ authorized }) => authorized));
  assert.ok(host.polls[0].after > 0, 'begins at the live edge');
  await page.waitForTimeout(4000);
  const { audio, lipSyncMilliseconds } = await page.evaluate(() => window.kestruneViewer.stats);
  assert.equal(audio.underruns + audio.gaps, 0);
  assert.ok(audio.bufferMilliseconds > 40 && audio.bufferMilliseconds < 600, `${audio.bufferMilliseconds} ms held`);
  assert.ok(Math.abs(lipSyncMilliseconds) < 40, `picture ${lipSyncMilliseconds} ms behind the sound`);
  const telemetry = host.received.filter(({ type }) => type === 'telemetry').pop();
  assert.ok(telemetry.audioBufferMilliseconds > 40 && Number.isInteger(telemetry.audioDriftMilliseconds));
});

test('is silent in control mode and when muted, and comes back at the live edge', async () => {
  await unlock();
  await page.click('#mode-control');
  await state('off');
  await page.waitForTimeout(400);
  assert.ok((await listen(page)).loudness < 1e-4);
  const { length } = host.polls;
  await page.waitForTimeout(1500);
  assert.equal(host.polls.length, length, 'no poll in control mode');
  assert.equal(await page.evaluate(() => window.kestruneViewer.audio.contextState), 'suspended', 'the audio thread rests');
  await page.click('#mode-video');
  await hearTone();
  assert.ok(host.polls[length].after > host.polls[length - 1].after + 50, 'what was missed is not fetched');
  await page.click('#sound');
  await state('muted');
  await page.waitForTimeout(400);
  assert.ok((await listen(page)).loudness < 1e-4);
  await page.click('#sound');
  await hearTone();
  const before = host.polls.length;
  const edge = host.tone.latest;
  await page.click('#play-pause');
  await page.waitForTimeout(300);
  assert.ok(host.polls.slice(before).some(({ after }) => after >= edge), 'jumps after a pause');
  await hearTone();
});

test('goes on after an interruption by the system, lost chunks, a host without sound for a while, a refusal, and a reconnect', async () => {
  await unlock();
  await page.evaluate(() => window.kestruneViewer.audioAnalyser.context.suspend());
  await state('interrupted');
  assert.match(await page.locator('#sound-prompt').textContent(), /interrupted/);
  await unlock();
  await page.waitForTimeout(500);
  const { gaps } = await page.evaluate(() => window.kestruneViewer.audio);
  host.tone.lose(5);
  await page.waitForFunction((before) => window.kestruneViewer.audio.gaps === before + 1, gaps);
  await hearTone();
  host.audioStatus = 500;
  await state('buffering');
  host.audioStatus = null;
  await hearTone();
  host.viewer.terminate();
  await state('off');
  await hearTone();
  host.audioStatus = 401;
  await page.waitForTimeout(500);
  const { length } = host.polls;
  await page.waitForTimeout(1500);
  assert.equal(host.polls.length, length, 'a refused token is not tried again');
});

// The viewer's page in Firefox, which presents by canvas and decodes H.265 nowhere: picture, sound prompt and input.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/firefox.test.mjs

import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { test } from 'node:test';
import puppeteer from 'puppeteer-core';

import { SoundServer, assertColours, assertNoFaults, near, pattern, pictureColours, picturePoints, stage, takeControl, waitFor, watchFaults } from './lab.mjs';

const width = 1280;
const height = 800;

test('Firefox shows the picture, asks for a tap before the sound, and its clicks arrive', async (t) => {
  const home = mkdtempSync(path.join(tmpdir(), 'kestrune-firefox-'));
  const sound = await SoundServer.start(); // without a sound device Firefox starts no audio
  t.after(() => sound.stop());
  const { host, client } = await stage(t, { environment: sound.environment });
  const firefox = await puppeteer.launch({
    browser: 'firefox', executablePath: '/usr/bin/firefox-esr', headless: true,
    userDataDir: path.join(home, 'profile'), env: { ...process.env, ...sound.environment, HOME: home },
    defaultViewport: { width: 1200, height: 800 },
  });
  try {
    const page = await firefox.newPage();
    watchFaults(page);
    await page.evaluateOnNewDocument(() => document.addEventListener('pointerdown', () => {
      const { left, top, right, bottom } = document.getElementById('sound-prompt').getBoundingClientRect();
      window.firstTap = { sound: window.kestruneViewer.audio.state, prompt: [left, top, right, bottom] };
    }, { capture: true, once: true }));
    await page.goto(host.url);
    await host.waitForPictures();
    const stopTone = sound.playTone(1000, 0.5);
    await page.mouse.click(60, 38);
    const { sound: before, prompt: [left, top, right, bottom] } = await page.evaluate(() => window.firstTap);
    assert.equal(before, 'locked');
    assert.ok(left < 60 && right > 60 && top < 38 && bottom > 38, 'the prompt was where the tap went');
    await page.waitForSelector('#sound-prompt', { hidden: true });
    await page.waitForFunction(() => window.kestruneViewer.audio.state === 'playing');
    stopTone();
    await waitFor(async () => { assertColours(await pictureColours(page, await screenOf(page)), pattern); return true; });

    await takeControl(page);
    await page.mouse.click(...(await picturePoints(page))(0.25, 0.75));
    near(await client.line(/^press 1 /), 0.25 * width, 0.75 * height);
    near(await client.line(/^release 1 /), 0.25 * width, 0.75 * height);
    assertNoFaults();
  } finally {
    await firefox.close();
    rmSync(home, { recursive: true, force: true });
  }
});

/** What Firefox has really drawn where the picture is. */
async function screenOf(page) {
  const { left: x, top: y, width: w, height: h } = await page.evaluate(() => ({ ...window.kestruneViewer.pictureRect }));
  return page.screenshot({ clip: { x, y, width: w, height: h }, encoding: 'base64' });
}

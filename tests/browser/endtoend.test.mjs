// The whole road for real: an X display, the host, and the viewer's page in headless Chromium.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/endtoend.test.mjs

import assert from 'node:assert/strict';
import { existsSync, readFileSync } from 'node:fs';
import path from 'node:path';
import { after, afterEach, before, test } from 'node:test';

import {
  Host, assertColours, assertNoFaults, build, launchBrowser, near, openViewer, pattern, pictureColours, picturePoints, sleep, spawnQuiet,
  stage, takeControl, waitFor, waitForPictures, watchFaults,
} from './lab.mjs';

const width = 1280;
const height = 800;

let browser;
before(async () => { browser = await launchBrowser(); });
after(async () => { await browser?.close(); });

afterEach(async () => {
  await Promise.all(browser.contexts().map((context) => context.close()));
  assertNoFaults();
});

test('a known pattern is found in the decoded picture, and its changes appear', async (t) => {
  const { client, host } = await stage(t);
  const page = await openViewer(browser, host.url);
  // The host begins with H.265, which this browser does not decode: the picture proves the fallback.
  const stats = await page.evaluate(() => window.kestruneViewer.stats);
  assert.match(stats.codec, /^avc1\./);
  assert.deepEqual([stats.width, stats.height], [width, height]);
  await waitFor(async () => { assertColours(await pictureColours(page), pattern); return true; });

  client.write('invert');
  await client.line(/^inverted$/);
  await waitFor(async () => { assertColours(await pictureColours(page), [...pattern].reverse()); return true; });
});

test('a display is clicked, dragged, right-clicked and scrolled at the right points', async (t) => {
  const { client, host } = await stage(t);
  const page = await openViewer(browser, host.url);
  await takeControl(page);

  await page.mouse.click(...(await picturePoints(page))(0.25, 0.75));
  near(await client.line(/^press 1 /), 0.25 * width, 0.75 * height);
  near(await client.line(/^release 1 /), 0.25 * width, 0.75 * height);

  await page.mouse.move(...(await picturePoints(page))(0.3, 0.3));
  await page.mouse.down();
  await page.mouse.move(...(await picturePoints(page))(0.6, 0.4), { steps: 12 });
  await page.mouse.up();
  near(await client.line(/^press 1 /), 0.3 * width, 0.3 * height);
  near(await client.line(/^release 1 /), 0.6 * width, 0.4 * height);

  await page.mouse.click(...(await picturePoints(page))(0.8, 0.2), { button: 'right' });
  near(await client.line(/^press 3 /), 0.8 * width, 0.2 * height);
  await client.line(/^release 3 /);

  await page.mouse.wheel(0, 240);
  await client.line(/^press 5 /);
});

test('a display goes to one viewer at a time, and the second is asked before it takes over', async (t) => {
  const { host } = await stage(t);
  const first = await openViewer(browser, host.url);
  const second = watchFaults(await browser.newPage());
  await second.goto(host.url);
  await second.waitForSelector('#card-primary:visible');
  assert.match(await second.textContent('#card'), /another viewer/i);
  await waitForPictures(first);

  await second.click('#card-primary');
  await waitForPictures(second);
  await first.waitForSelector('#card-primary:visible');
  await sleep(2); // a page that was replaced must not come back by itself
  assert.equal(await second.evaluate(() => window.kestruneViewer.stats.connected), true);
  await waitForPictures(second);
});

test('the picture comes back by itself after a restart of the host', async (t) => {
  const made = await stage(t);
  const { host, server } = made;
  const page = await openViewer(browser, host.url);
  await host.stop({ keepHome: true });
  await page.waitForFunction(() => !window.kestruneViewer.stats.connected);
  made.host = await Host.start(build, server.display, null, { home: host.home });
  await waitForPictures(page, 30000);
  await waitFor(async () => { assertColours(await pictureColours(page), pattern); return true; });
});

test('a display that changes its mode is followed, by the picture and by what is pointed at', async (t) => {
  const { server, client, host } = await stage(t, { hasModes: true });
  const page = await openViewer(browser, host.url);
  await takeControl(page);
  for (const [w, h] of [[1024, 768], [width, 720]]) {
    server.setMode(`${w}x${h}`);
    await page.waitForFunction(([toWidth, toHeight]) => {
      const { width: nowWidth, height: nowHeight } = window.kestruneViewer.stats;
      return nowWidth === toWidth && nowHeight === toHeight;
    }, [w, h]);
    await waitForPictures(page);
    await page.mouse.click(...(await picturePoints(page))(0.03, 0.9));
    near(await client.line(/^press 1 /), 0.03 * w, 0.9 * h);
    await client.line(/^release 1 /);
  }
  const { reconnects, decodeErrors } = await page.evaluate(() => window.kestruneViewer.stats);
  assert.deepEqual([reconnects, decodeErrors], [0, 0]);
});

test('typed text arrives as the same text in a terminal', async (t) => {
  const { server, host } = await stage(t);
  const file = path.join(host.home, 'typed.txt');
  const terminal = spawnQuiet('xterm', ['-u8', '-geometry', '100x40+0+0', '-e', 'sh', '-c', `stty -echo; cat > '${file}'`],
    { DISPLAY: server.display, LC_ALL: 'C.UTF-8' });
  t.after(() => terminal.kill('SIGKILL'));
  const page = await openViewer(browser, host.url);
  await waitFor(() => existsSync(file));
  await takeControl(page);
  await page.mouse.click(...(await picturePoints(page))(0.2, 0.2)); // without a window manager the pointer has the focus

  await page.keyboard.type('Grüße 👋 日本語');
  await page.keyboard.press('Enter');
  await page.click('#keyboard');
  await page.keyboard.insertText('ещё раз: ñandú');
  await page.keyboard.press('Enter');
  const wanted = 'Grüße 👋 日本語\nещё раз: ñandú\n';
  await waitFor(() => readFileSync(file, 'utf8') === wanted, 10, () => `typed: ${JSON.stringify(readFileSync(file, 'utf8'))}`);
});

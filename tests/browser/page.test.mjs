// The viewer's page against the real host, over a relay that notes what the page says and breaks what is to break.
//
// usage: KESTRUNE_BUILD=<build folder> node --test tests/browser/page.test.mjs

import assert from 'node:assert/strict';
import { after, afterEach, before, beforeEach, test } from 'node:test';

import {
  Client, Host, Relay, XServer, assertNoFaults, build, launchBrowser, openViewer, picturePoints, sleep, takeControl, waitFor,
  waitForPictures, watchFaults,
} from './lab.mjs';

let server; let client; let host; let browser; let relay; let page;

before(async () => {
  server = await XServer.start(1280, 800);
  client = await Client.start(build, server.display);
  browser = await launchBrowser();
});
after(async () => {
  await browser?.close();
  client?.stop();
  server?.stop();
});
beforeEach(async () => {
  relay = new Relay();
  host = await Host.start(build, server.display, {});
});
afterEach(async () => {
  await Promise.all(browser.contexts().map((context) => context.close()));
  await host.stop();
  assertNoFaults();
});

const sent = (type) => relay.of(type);
const open = async (options) => {
  page = await openViewer(browser, host.url, { prepare: (opened) => relay.attach(opened), ...options });
};
const card = (text, of = page) => of.waitForFunction((wanted) => {
  const element = document.getElementById('card');
  return !element.hidden && element.textContent.includes(wanted);
}, text);

test('a host that went to standby is left there, and one with an error is started again on demand', async () => {
  await open();
  await waitFor(() => sent('telemetry').length > 0);
  relay.say({ type: 'streamState', state: 'armed' });
  await card('Standing by');
  assert.equal(sent('startStream').length, 1);
  relay.say({ type: 'streamState', state: 'error', message: 'The display went away.' });
  await card('The display went away.');
  await page.click('#card-primary');
  await waitFor(() => sent('startStream').length === 2);
});

test('an entered token opens the stream, is kept over a reload, and gives way to one in the address', async () => {
  page = watchFaults(await browser.newPage());
  const { origin, hash } = new URL(host.url);
  await page.goto(origin);
  const enter = async (text) => {
    await page.fill('#token-input', text);
    await page.press('#token-input', 'Enter');
  };
  await enter('nonsense');
  await page.waitForSelector('#token-problem:visible');
  await enter(host.url);
  await waitForPictures(page);
  await page.reload();
  await waitForPictures(page);
  await page.evaluate(() => { window.location.hash = '#nonsense'; });
  await page.waitForSelector('.toast:has-text("no access token")');
  await page.evaluate((wrong) => { window.location.hash = wrong; }, `#${'A'.repeat(43)}`);
  await card('Unauthorized');
  await page.waitForSelector('#token-form:visible');
  await page.evaluate((right) => { window.location.hash = right; }, hash);
  await waitForPictures(page);
  assert.equal(page.url().includes('#'), false);
  for (const entry of await page.evaluate(() => performance.getEntriesByType('resource').map(({ name }) => name))) {
    assert.ok(!entry.includes('AAAA') && !entry.includes(hash.slice(1)), 'the token must not be part of a request');
  }
});

test('a press draws nothing, each button is released, and all of them when the page loses the focus', async () => {
  await open();
  await takeControl(page);
  const at = await picturePoints(page);
  await page.mouse.move(...at(0.5, 0.75));
  await waitFor(() => sent('pointer').length > 0);
  await sleep(0.3); // the pointer has come to rest
  await page.evaluate(() => {
    window.drawn = [];
    new MutationObserver((records) => window.drawn.push(...records.map(({ target, attributeName }) => `${target.id} ${attributeName}`)))
      .observe(document.getElementById('stage'), { subtree: true, attributes: true, childList: true });
  });
  await page.mouse.down();
  await page.mouse.down({ button: 'right' });
  await page.mouse.up();
  await waitFor(() => sent('pointer').some(({ phase }) => phase === 'up'), 8, () => 'no release below another button');
  await page.mouse.up({ button: 'right' });
  assert.deepEqual(await page.evaluate(() => window.drawn), []);
  await page.mouse.wheel(0, 120);
  await waitFor(() => Math.trunc(sent('scroll').reduce((sum, { dy }) => sum + dy, 0) * 600) === 120);
  await page.mouse.down();
  await page.evaluate(() => window.dispatchEvent(new Event('blur')));
  await waitFor(() => sent('pointer').at(-1).phase === 'cancel');
});

test('a page that was hidden lets go, and asks until a picture comes when it is shown again', async () => {
  await open();
  await takeControl(page);
  await page.mouse.move(...(await picturePoints(page))(0.5, 0.5));
  await page.mouse.down();
  const setHidden = (hidden) => page.evaluate((value) => {
    Object.defineProperty(document, 'hidden', { configurable: true, value });
    document.dispatchEvent(new Event('visibilitychange'));
  }, hidden);
  await setHidden(true);
  await waitFor(() => sent('pointer').at(-1).phase === 'cancel');
  relay.frames = () => null;
  const before = sent('keyframe').length;
  await setHidden(false);
  await waitFor(() => sent('keyframe').length >= before + 2);
  relay.frames = (body) => body;
  await waitForPictures(page);
});

test('fingers tap and press long on a phone, and both keyboards type', async () => {
  await open({ viewport: { width: 360, height: 740 }, hasTouch: true, isMobile: true });
  await takeControl(page);
  const at = await picturePoints(page);
  await page.touchscreen.tap(...at(0.75, 0.25));
  await waitFor(() => sent('tap').length === 1);
  await page.waitForSelector('#touch.shown', { state: 'attached' });
  assert.ok(Math.abs(sent('tap')[0].x - 0.75) < 0.01 && Math.abs(sent('tap')[0].y - 0.25) < 0.01);
  const session = await page.context().newCDPSession(page);
  const typingField = () => page.evaluate(() => document.activeElement.id === 'typing' && document.activeElement.inputMode);
  assert.equal(await typingField(), 'none', 'the on-screen keyboard stays down');
  await session.send('Input.imeSetComposition', { text: '´', selectionStart: 1, selectionEnd: 1 });
  await session.send('Input.insertText', { text: 'é' });
  await waitFor(() => sent('text').length > 0);
  await page.tap('#keyboard');
  assert.equal(await typingField(), 'text', 'the on-screen keyboard comes up');
  for (const text of ['に', 'にほ', '日本']) {
    await session.send('Input.imeSetComposition', { text, selectionStart: text.length, selectionEnd: text.length });
  }
  await session.send('Input.insertText', { text: '日本' });
  await waitFor(() => sent('text').length > 1);
  assert.deepEqual(sent('text').map(({ text }) => text), ['é', '日本'], 'what is being composed is not sent');
  await page.tap('#keyboard');
  const [x, y] = at(0.5, 0.5);
  await session.send('Input.dispatchTouchEvent', { type: 'touchStart', touchPoints: [{ x, y }] });
  await waitFor(() => sent('click').length === 1);
  await session.send('Input.dispatchTouchEvent', { type: 'touchEnd', touchPoints: [] });
  assert.equal(sent('click')[0].button, 'right');
  const small = await page.evaluate(() => [...document.querySelectorAll('button')]
    .map((button) => [button.id, button.getBoundingClientRect()])
    .filter(([, box]) => box.width > 0 && (box.width < 44 || box.height < 44)).map(([id]) => id));
  assert.deepEqual(small, []);
  const bottom = await page.evaluate(async () => {
    const { fitAboveKeyboard } = await import('/viewer-ui.js');
    fitAboveKeyboard(Object.assign(new EventTarget(), { scale: 1, height: 420, offsetTop: 30 }));
    return document.getElementById('dock').getBoundingClientRect().bottom;
  });
  assert.equal(Math.round(bottom), 450, 'the dock stands on a keyboard that lies over the page');
});

test('a browser that cannot decode still shows its statistics and copies the report', async () => {
  const context = await browser.newContext({ permissions: ['clipboard-read'] });
  const old = watchFaults(await context.newPage());
  await old.addInitScript(() => {
    delete window.VideoDecoder;
    Object.defineProperty(Navigator.prototype, 'clipboard', { value: undefined }); // as without a secure connection
  });
  await old.goto(host.url);
  await card('WebCodecs', old);
  await old.click('#show-statistics');
  assert.match(await old.textContent('#figures'), /Decoder.*Reconnects/);
  await old.click('#copy-report');
  await old.waitForSelector('.toast:has-text("Report copied")');
  const reader = await context.newPage();
  await reader.goto(`${new URL(host.url).origin}/health`);
  await reader.bringToFront();
  const { capabilities } = JSON.parse(await reader.evaluate(() => navigator.clipboard.readText()));
  assert.equal(capabilities.webCodecs, false);
});

test('a link that dies silently is replaced, and the mode taken up again', async () => {
  await open();
  await takeControl(page);
  const before = relay.sent.length;
  relay.silence();
  const again = () => relay.sent.slice(before);
  await waitFor(() => again().some(({ type }) => type === 'auth'), 15);
  await waitFor(() => again().some(({ type, mode }) => type === 'mode' && mode === 'control'));
  await waitForPictures(page);
  assert.equal(await page.evaluate(() => window.kestruneViewer.stats.reconnects), 1);
});

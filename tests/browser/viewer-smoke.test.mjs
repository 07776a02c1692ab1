// The viewer page in a real Chromium against the small host of fake-host.mjs: picture, input, takeover, recovery.
import assert from 'node:assert/strict';
import { after, before, beforeEach, afterEach, test } from 'node:test';
import { chromium } from 'playwright-core';
import { FakeHost } from './fake-host.mjs';

let browser;
let host;
let page;
const faults = [];

before(async () => {
  browser = await chromium.launch({ executablePath: process.env.CHROMIUM || '/usr/bin/chromium', args: ['--no-sandbox', '--headless=new'] });
});
after(() => browser.close());

beforeEach(async () => {
  host = await new FakeHost({ size: '640x360' }).start();
  page = await open();
});
afterEach(async () => {
  await page.context().close();
  await host.stop();
  assert.deepEqual(faults.splice(0), []);
});

async function open(options = {}) {
  const context = await browser.newContext({ viewport: { width: 1200, height: 800 }, ...options });
  const opened = await context.newPage();
  opened.on('pageerror', (error) => faults.push(error.message));
  opened.on('console', (entry) => {
    if (/Content Security Policy/.test(entry.text())) faults.push(entry.text());
  });
  await opened.goto(host.url);
  return opened;
}

const decoded = (count, of = page) => of.waitForFunction((wanted) => window.kestruneViewer.stats.framesDecoded >= wanted, count);
const card = (text, of = page) => of.waitForFunction((wanted) => {
  const element = document.getElementById('card');
  return !element.hidden && element.textContent.includes(wanted);
}, text);
const sent = (type) => host.received.filter((message) => message.type === type);

async function until(condition, what) {
  const deadline = Date.now() + 8000;
  while (!condition()) {
    if (Date.now() > deadline) throw new Error(`waited in vain: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

async function control(of = page) {
  await decoded(1, of);
  await of.click('#mode-control');
  await of.waitForFunction(() => window.kestruneViewer.stats.mode === 'control');
}

test('starts the stream by itself, shows it, and keeps the token out of sight', async () => {
  await decoded(10);
  const stats = await page.evaluate(() => window.kestruneViewer.stats);
  assert.equal(stats.width, 640);
  assert.match(stats.codec, /^avc1\.42C0/);
  assert.equal(stats.decodeErrors, 0);
  await page.waitForFunction(() => window.kestruneViewer.stats.framesShown > 5);
  assert.equal(page.url().includes('#'), false);
  await until(() => sent('telemetry').length > 0, 'telemetry');
  host.stopEncoder();
  host.sendState('armed');
  await card('Standing by');
  assert.equal(sent('startStream').length, 1, 'a host that went to standby is left there');
  host.sendState('error', 'The display went away.');
  await card('The display went away.');
  await page.click('#card-primary');
  await until(() => sent('startStream').length === 2, 'start request');
});

test('mouse, wheel and keyboard arrive in order and at the right places', async () => {
  await control();
  const rect = await page.evaluate(() => window.kestruneViewer.pictureRect);
  const at = (x, y) => [rect.left + x * rect.width, rect.top + y * rect.height];
  host.received.length = 0;
  await page.mouse.move(...at(0.25, 0.5));
  await page.mouse.down();
  await page.mouse.move(...at(0.5, 0.75), { steps: 8 });
  await page.mouse.up();
  await until(() => sent('pointer').some((message) => message.phase === 'up'), 'release');
  const drag = sent('pointer');
  const up = drag.findIndex((message) => message.phase === 'up');
  assert.equal(drag[up - 1].phase, 'move');
  for (const message of [drag[up - 1], drag[up]]) {
    assert.ok(Math.abs(message.x - 0.5) < 0.01 && Math.abs(message.y - 0.75) < 0.01);
  }
  await page.waitForTimeout(300); // the pointer has come to rest
  await page.evaluate(() => {
    window.drawn = [];
    new MutationObserver((records) => window.drawn.push(...records.map(({ target, attributeName }) => `${target.id} ${attributeName}`)))
      .observe(document, { subtree: true, attributes: true, childList: true });
  });
  await page.mouse.down();
  await page.mouse.down({ button: 'right' });
  await page.mouse.up();
  await until(() => sent('pointer').filter((message) => message.phase === 'up').length === 2, 'release below another button');
  await page.mouse.up({ button: 'right' });
  assert.deepEqual(await page.evaluate(() => window.drawn), [], 'a press draws nothing that is there already');
  assert.equal(sent('click').length, 0);
  await page.mouse.click(...at(0.1, 0.1), { button: 'right' });
  await until(() => sent('click').length === 1, 'right click');
  await page.mouse.wheel(0, 120);
  await until(() => sent('scroll').length > 0, 'scroll');
  assert.equal(Math.trunc(sent('scroll').reduce((sum, message) => sum + message.dy, 0) * 600), 120);
  await page.keyboard.type('aZ ü');
  await page.keyboard.press('Enter');
  await page.keyboard.insertText('日本語 👋');
  await until(() => sent('text').some((message) => message.text.includes('👋')), 'text');
  const typed = host.received.filter(({ type }) => type === 'text' || type === 'key').map((message) => message.text || `<${message.key}>`);
  assert.equal(typed.join(''), 'aZ<space>ü<return>日本語 👋');
  await page.mouse.move(5, rect.top > 5 ? 2 : 5);
  await page.evaluate(() => window.dispatchEvent(new Event('blur')));
  await until(() => sent('pointer').some((message) => message.phase === 'cancel'), 'buttons let go');
});

test('fingers tap and press long on a phone', async () => {
  const phone = await open({ viewport: { width: 360, height: 740 }, hasTouch: true, isMobile: true });
  await card('Another viewer is active', phone);
  await phone.tap('#card-primary');
  await card('Replaced by newer viewer');
  await control(phone);
  const rect = await phone.evaluate(() => window.kestruneViewer.pictureRect);
  await phone.touchscreen.tap(rect.left + rect.width * 0.75, rect.top + rect.height * 0.25);
  await until(() => sent('tap').length === 1, 'tap');
  await phone.waitForSelector('#touch.shown', { state: 'attached' });
  assert.ok(Math.abs(sent('tap')[0].x - 0.75) < 0.01 && Math.abs(sent('tap')[0].y - 0.25) < 0.01);
  const session = await phone.context().newCDPSession(phone);
  const typingField = () => phone.evaluate(() => document.activeElement.id === 'typing' && document.activeElement.inputMode);
  assert.equal(await typingField(), 'none', 'the on-screen keyboard stays down');
  await session.send('Input.imeSetComposition', { text: '´', selectionStart: 1, selectionEnd: 1 });
  await session.send('Input.insertText', { text: 'é' });
  await until(() => sent('text').some(({ text }) => text === 'é'), 'text composed by a hardware keyboard');
  await phone.tap('#keyboard');
  assert.equal(await typingField(), 'text', 'the on-screen keyboard comes up');
  await phone.tap('#keyboard');
  const point = { x: rect.left + rect.width / 2, y: rect.top + rect.height / 2 };
  await session.send('Input.dispatchTouchEvent', { type: 'touchStart', touchPoints: [point] });
  await until(() => sent('click').length === 1, 'long press');
  await session.send('Input.dispatchTouchEvent', { type: 'touchEnd', touchPoints: [] });
  assert.equal(sent('click')[0].button, 'right');
  const small = await phone.evaluate(() => [...document.querySelectorAll('button')]
    .map((button) => [button.id, button.getBoundingClientRect()])
    .filter(([, box]) => box.width > 0 && (box.width < 44 || box.height < 44)).map(([id]) => id));
  assert.deepEqual(small, []);
  const bottom = await phone.evaluate(async () => {
    const { fitAboveKeyboard } = await import('/viewer-ui.js');
    fitAboveKeyboard(Object.assign(new EventTarget(), { scale: 1, height: 420, offsetTop: 30 }));
    return document.getElementById('dock').getBoundingClientRect().bottom;
  });
  assert.equal(Math.round(bottom), 450, 'the dock stands on a keyboard that lies over the page');
  await phone.context().close();
});

test('a browser that cannot decode still shows its statistics and copies the report', async () => {
  const old = await page.context().newPage();
  await page.context().grantPermissions(['clipboard-read']);
  await old.addInitScript(() => {
    delete window.VideoDecoder;
    Object.defineProperty(Navigator.prototype, 'clipboard', { value: undefined }); // as without a secure connection
  });
  old.on('pageerror', (error) => faults.push(error.message));
  await old.goto(host.url);
  await card('WebCodecs', old);
  await old.click('#show-statistics');
  assert.match(await old.textContent('#figures'), /Decoder.*Reconnects/);
  await old.click('#copy-report');
  await old.waitForSelector('.toast:has-text("Report copied")');
  await page.bringToFront();
  const { capabilities } = JSON.parse(await page.evaluate(() => navigator.clipboard.readText()));
  assert.equal(capabilities.webCodecs, false);
});

test('survives a restart of the host and a link that dies silently', async () => {
  await control();
  await host.stop();
  await card('Connection lost');
  host = await new FakeHost({ size: '640x360', port: host.port, state: 'streaming' }).start();
  const before = await page.evaluate(() => window.kestruneViewer.stats.framesDecoded);
  await decoded(before + 5);
  await until(() => sent('mode').some((message) => message.mode === 'control'), 'mode taken up again');
  host.mute = true;
  await until(() => sent('auth').length === 2, 'a new connection');
  host.mute = false;
  await page.waitForFunction(() => window.kestruneViewer.stats.reconnects === 2);
});

test('recovers from damaged frames with a key frame', async () => {
  await decoded(5);
  const header = Buffer.from('00000001', 'hex');
  for (let i = 0; i < 3; i++) host.sendFrame(Buffer.concat([header, Buffer.from([0x41, 0xff, 0xff, 0xff, 0, 0, 0xff])]), false);
  host.viewer.send(Buffer.from([1, 2, 3]));
  const now = await page.evaluate(() => window.kestruneViewer.stats.framesDecoded);
  await decoded(now + 10);
});

// From fingers and keys to messages: text, places, gestures, and the order and spacing of what goes out.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { GestureRecogniser, InputOutbox, namedKey, normalizedPoint, pictureRect, textMessages } from '../../Resources/Viewer/control-protocol.js';

/** A clock under the test's hand, with the timers that were asked for. */
class ManualTime {
  constructor() {
    this.now = 1000;
    this.timers = [];
  }

  defer(callback, delay) {
    this.timers.push({ at: this.now + delay, callback });
  }

  advance(milliseconds) {
    const end = this.now + milliseconds;
    for (;;) {
      this.timers.sort((a, b) => a.at - b.at);
      if (this.timers.length === 0 || this.timers[0].at > end) break;
      const timer = this.timers.shift();
      this.now = Math.max(this.now, timer.at);
      timer.callback();
    }
    this.now = end;
  }
}

function makeOutbox() {
  const time = new ManualTime();
  const sent = [];
  const outbox = new InputOutbox({
    send: (message) => sent.push({ at: time.now, ...message }),
    now: () => time.now,
    defer: (callback, delay) => time.defer(callback, delay),
  });
  return { time, sent, outbox };
}

test('text is cut between characters, and line breaks and tabs are keys', () => {
  assert.deepEqual(textMessages('Grüße 👋 日本語'), [{ type: 'text', text: 'Grüße 👋 日本語' }]);
  const family = '👨‍👩‍👧‍👦'; // 11 units, one character
  const chunks = textMessages(family.repeat(40)).map((message) => message.text);
  assert.equal(chunks.join(''), family.repeat(40));
  for (const chunk of chunks) {
    assert.ok(chunk.length <= 200);
    assert.equal(chunk.length % family.length, 0);
  }
  assert.deepEqual(textMessages('a\r\nb\tc').map((message) => message.text || message.key), ['a', 'return', 'b', 'tab', 'c']);
  assert.equal(textMessages('x'.repeat(201)).length, 2);
  const stacked = 'a' + '\u0301'.repeat(450); // one character that no message can carry
  assert.ok(textMessages(stacked).every((message) => message.text.length <= 200));
  assert.deepEqual(textMessages(''), []);
  assert.deepEqual(textMessages('a👋'.slice(0, 2)), [{ type: 'text', text: 'a' }], 'half a pair cannot be sent');
  assert.equal(namedKey('Enter'), 'return');
  assert.equal(namedKey('constructor'), null);
});

test('places are those of the picture, not of the element around it', () => {
  const wide = pictureRect({ left: 0, top: 100, width: 1200, height: 800 }, 1600, 900);
  assert.deepEqual(wide, { left: 0, top: 162.5, width: 1200, height: 675, scale: 0.75 });
  assert.deepEqual(normalizedPoint(wide, 600, 500), { x: 0.5, y: 0.5, inside: true });
  assert.deepEqual(normalizedPoint(wide, 300, 120), { x: 0.25, y: 0, inside: false });
  const tall = pictureRect({ left: 10, top: 0, width: 400, height: 100 }, 1600, 900);
  assert.ok(Math.abs(normalizedPoint(tall, 210, 50).x - 0.5) < 1e-9);
  assert.equal(normalizedPoint(tall, 20, 50).inside, false);
  assert.deepEqual([normalizedPoint(tall, 9999, 100).x, normalizedPoint(tall, 9999, 100).y], [1, 1]);
  assert.equal(pictureRect({ left: 0, top: 0, width: 10, height: 10 }, 0, 900), null);
});

test('moves are spaced and merged, and a button waits for the last of them', () => {
  const { time, sent, outbox } = makeOutbox();
  outbox.pointer('down', { x: 0, y: 0 });
  outbox.move({ x: 0.1, y: 0 });
  outbox.move({ x: 0.2, y: 0 });
  outbox.move({ x: 0.3, y: 0 });
  outbox.pointer('up', { x: 0.3, y: 0 });
  assert.deepEqual(sent.map((message) => message.phase), ['down', 'move']);
  time.advance(200);
  assert.deepEqual(sent.map((message) => [message.phase, message.x]), [['down', 0], ['move', 0.1], ['move', 0.3], ['up', 0.3]]);
  assert.ok(sent[2].at - sent[1].at >= 1000 / 45);
});

test('the last place is told again after a rest, but not after anything else was done', () => {
  const { time, sent, outbox } = makeOutbox();
  outbox.move({ x: 0.5, y: 0.5 });
  time.advance(500);
  assert.deepEqual(sent.map((message) => message.x), [0.5, 0.5]);
  outbox.move({ x: 0.6, y: 0.5 });
  outbox.message({ type: 'key', key: 'return' });
  time.advance(500);
  assert.deepEqual(sent.slice(2).map((message) => message.type), ['pointer', 'key']);
});

test('taps and clicks keep the distance that the host asks for', () => {
  const { time, sent, outbox } = makeOutbox();
  outbox.tap({ x: 0, y: 0 });
  outbox.tap({ x: 0, y: 0 });
  outbox.press({ type: 'openChrome' });
  outbox.rightClick({ x: 1, y: 1 });
  time.advance(500);
  assert.deepEqual(sent.map((message) => message.type), ['tap', 'tap', 'openChrome', 'pointer', 'click']);
  assert.ok(sent[1].at - sent[0].at >= 50);
  assert.ok(sent[2].at - sent[1].at >= 250);
  assert.ok(sent[4].at - sent[2].at >= 50);
});

test('scrolling arrives whole, in steps that the host does not clamp', () => {
  const { time, sent, outbox } = makeOutbox();
  const points = () => sent.reduce((sum, message) => sum + Math.trunc(message.dy * 600), 0); // as the host reckons
  outbox.scroll(0, 300);
  time.advance(100);
  assert.equal(points(), 300);
  assert.ok(sent.every((message) => Math.abs(Math.trunc(message.dy * 600)) <= 120));
  sent.length = 0;
  for (let i = 0; i < 10; i++) {
    outbox.scroll(0, -0.75); // a slow finger: fractions add up
    time.advance(20);
  }
  assert.ok(Math.abs(points() - -7) <= 1, String(points()));
});

test('letting go forgets what waits and tells the host', () => {
  const { time, sent, outbox } = makeOutbox();
  outbox.pointer('down', { x: 0, y: 0 });
  outbox.move({ x: 0.1, y: 0 });
  outbox.move({ x: 0.2, y: 0 });
  outbox.release();
  time.advance(500);
  assert.deepEqual(sent.map((message) => message.phase), ['down', 'move', 'cancel']);
  const flooded = makeOutbox();
  flooded.outbox.tap({ x: 0, y: 0 });
  for (let i = 0; i < 2000; i++) flooded.outbox.tap({ x: 0, y: 0 });
  assert.ok(flooded.outbox.waiting.length <= 512);
  const pasted = makeOutbox();
  pasted.outbox.tap({ x: 0, y: 0 });
  pasted.outbox.tap({ x: 0, y: 0 }); // has to wait, and all that is behind it
  for (const message of textMessages('line\n'.repeat(1000))) pasted.outbox.message(message);
  pasted.time.advance(100);
  assert.equal(pasted.sent.filter(({ type }) => type === 'key').length, 1000);
});

function recognise(script) {
  const calls = [];
  const note = (name) => (...values) => calls.push([name, ...values.map((value) => (typeof value === 'object' ? `${value.x},${value.y}` : value))]);
  const names = ['tap', 'dragStart', 'dragMove', 'dragEnd', 'longPress', 'scrollStart', 'scroll', 'cancel'];
  const recogniser = new GestureRecogniser(Object.fromEntries(names.map((name) => [name, note(name)])));
  script(recogniser);
  return calls;
}

test('one finger taps, drags or presses long', () => {
  assert.deepEqual(recognise((g) => {
    g.down(1, 50, 50, 0);
    g.move(1, 55, 53, 80); // a finger is never still
    g.up(1, 55, 53, 120);
  }), [['tap', '50,50']]);
  assert.deepEqual(recognise((g) => {
    g.down(1, 50, 50, 0);
    g.move(1, 80, 50, 50);
    g.move(1, 90, 60, 60);
    g.up(1, 90, 60, 900);
  }), [['dragStart', '50,50'], ['dragMove', '80,50'], ['dragMove', '90,60'], ['dragEnd', '90,60']]);
  assert.deepEqual(recognise((g) => {
    g.down(1, 50, 50, 0);
    assert.equal(g.deadline, 500);
    g.tick(499);
    g.tick(500);
    g.move(1, 90, 90, 600);
    g.up(1, 90, 90, 700);
  }), [['longPress', '50,50']]);
});

test('two fingers scroll, and never click when they leave', () => {
  assert.deepEqual(recognise((g) => {
    g.down(1, 0, 0, 0);
    g.down(2, 100, 0, 10);
    g.move(1, 0, 20, 20);
    g.move(2, 100, 20, 20);
    g.up(1, 0, 20, 30);
    g.move(2, 150, 90, 40);
    g.up(2, 150, 90, 50);
    g.down(3, 5, 5, 60);
    g.up(3, 5, 5, 70);
  }), [['scrollStart', '50,0'], ['scroll', 0, 10], ['scroll', 0, 10], ['tap', '5,5']]);
  assert.deepEqual(recognise((g) => {
    g.down(1, 0, 0, 0);
    g.move(1, 40, 0, 10);
    g.down(2, 100, 0, 20);
    g.cancel();
  }), [['dragStart', '0,0'], ['dragMove', '40,0'], ['cancel'], ['scrollStart', '70,0']]);
});

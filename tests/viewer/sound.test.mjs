// The sound's engine against roads and clocks of every kind, with a made-up clock; the polls that feed it.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { DriftController, PictureHold, SoundReserve } from '../../Resources/Viewer/adaptive-quality.js';
import { PlaybackEngine } from '../../Resources/Viewer/audio-runtime.js';
import { HeardClock } from '../../Resources/Viewer/decoder-clock.js';
import { parseAudioBatch } from '../../Resources/Viewer/wire-protocol.js';
import { AudioPoll, pollRetryDelay } from '../../Resources/Viewer/wire-runtime.js';

const BLOCK = 128;
const TONE = 440;
const AMPLITUDE = 0.5;

/**
 * A host whose sample clock runs `skew` too fast feeds an engine through a road. `batch` is in milliseconds of the
 * host's sound; `late(i)` is how long after its end batch i arrives.
 */
class Listening {
  constructor({ skew = 0, batch = 200, late = () => 20, rate = 48000, channels = 2 } = {}) {
    Object.assign(this, { skew, batch, late, rate, channels });
    this.engine = new PlaybackEngine(48000);
    this.index = 0; // of the next batch
    this.begin = 0; // seconds of sound before this
    this.block = 0;
    this.output = [];
    this.left = new Float32Array(BLOCK);
    this.right = new Float32Array(BLOCK);
    this.road = [];
  }

  get now() {
    return (this.block * BLOCK) / 48000;
  }

  makeBatch(start, milliseconds, pts = 1e9 + (start / (1 + this.skew)) * 1e6) {
    const frames = Math.round((milliseconds * this.rate) / 1000);
    const samples = new Int16Array(frames * this.channels);
    for (let i = 0; i < frames; i++) {
      const value = Math.round(AMPLITUDE * 32767 * Math.sin(2 * Math.PI * TONE * (start + i / this.rate)));
      for (let channel = 0; channel < this.channels; channel++) samples[i * this.channels + channel] = value;
    }
    return { pts: Math.round(pts), rate: this.rate, channels: this.channels, frames, samples };
  }

  /** Lets batches arrive and blocks play for so many seconds; a batch for which `keep` says no is lost. */
  run(seconds, keep = () => true) {
    const end = this.now + seconds;
    while (this.now < end) {
      for (;;) {
        const start = (this.index * this.batch) / 1000;
        const arrival = (start + this.batch / 1000) / (1 + this.skew) + this.late(this.index) / 1000;
        if (arrival > this.now) break;
        if (keep(this.index)) this.engine.append(this.makeBatch(start, this.batch), this.now);
        this.index++;
      }
      this.engine.render(this.left, this.right, this.now);
      this.output.push(...this.left);
      this.block++;
    }
    return this;
  }

  heard(fromSeconds, toSeconds = this.now) {
    return this.output.slice(Math.round(fromSeconds * 48000), Math.round(toSeconds * 48000));
  }
}

const loudness = (samples) => Math.sqrt(samples.reduce((sum, value) => sum + value * value, 0) / samples.length);
/** Largest second difference: a click stands far above that of the tone itself. */
const roughness = (samples) => samples.reduce((most, value, i) => (i < 2 ? 0 : Math.max(most, Math.abs(value - 2 * samples[i - 1] + samples[i - 2]))), 0);
const SMOOTH = AMPLITUDE * ((2 * Math.PI * TONE) / 48000) ** 2 * 1.05;
const FADED = 4 * SMOOTH; // the corner of a fade; a click is a hundred times larger

test('clocks that differ are followed by the speed alone, for an hour', () => {
  for (const skew of [0.0004, -0.0004]) {
    const drift = new DriftController();
    const reserve = new SoundReserve();
    let level = 120;
    let most = 0;
    for (let now = 0; now < 3600; now += 0.2) {
      drift.update(level + (Math.floor(now * 5) % 3) * 4, reserve.targetMs, now);
      level += (skew - drift.correction) * 200;
      most = Math.max(most, Math.abs(level - 120));
    }
    assert.ok(most < 30, `level strayed by ${most} ms`);
    assert.ok(Math.abs(drift.integral - skew) < 0.00005, `learnt ${drift.integral}`);
  }
  const listening = new Listening({ skew: 0.001 }).run(12);
  assert.equal(listening.engine.underruns + listening.engine.gaps, 0);
  assert.ok(roughness(listening.heard(0.5)) < SMOOTH, 'no click while the speed changes');
});

test('a late road makes the reserve grow, a calm one lets it shrink', () => {
  const listening = new Listening({ late: (i) => (i === 10 ? 400 : 20) });
  listening.run(4);
  const { engine } = listening;
  assert.equal(engine.underruns, 1);
  assert.equal(engine.gaps, 0, 'the host left nothing out');
  assert.ok(engine.reserve.targetMs >= 160);
  assert.ok(roughness(listening.heard(0)) < FADED, 'fades instead of clicks');
  listening.run(2);
  assert.ok(engine.levelMs < 600, `what came late is not played late: ${engine.levelMs}`);

  const reserve = new SoundReserve();
  for (let i = 0; i < 5; i++) reserve.underrun(i);
  assert.equal(reserve.targetMs, 600);
  for (let now = 5; now < 400; now += 0.2) reserve.arrived(10, now);
  assert.equal(reserve.targetMs, 40);
  reserve.arrived(90, 400);
  assert.equal(reserve.targetMs, 120, 'it covers what scatters before it runs dry');
  reserve.floorMs = 300;
  assert.equal(reserve.targetMs, 300);
});

test('lost chunks leave silence of their length and no click', () => {
  const listening = new Listening({ batch: 100 });
  listening.run(5, (i) => i !== 20);
  const { engine } = listening;
  assert.equal(engine.gaps, 1);
  assert.equal(engine.underruns, 0, 'the reserve covered it');
  assert.ok(roughness(listening.heard(0)) < FADED);
  const quiet = listening.heard(1, 5).filter((value, i, all) => value === 0 && all[i - 1] === 0).length / 48;
  assert.ok(quiet > 60 && quiet < 120, `${quiet} ms of silence`);
  assert.ok(Math.abs(engine.drift.levelMs - 120) < 30);
});

test('presentation times are those of what is being heard, whatever the stamps do', () => {
  const listening = new Listening().run(3);
  const heardPts = () => listening.engine.report(listening.now).pts / 1e6 - 1000;
  assert.ok(Math.abs(listening.now - heardPts() - 0.34) < 0.02, `${listening.now - heardPts()} s`);
  const { engine } = listening;
  for (const leap of [7200e6, -7200e6, 0]) {
    const start = (listening.index * listening.batch) / 1000;
    const before = engine.levelMs;
    listening.index++;
    engine.append(listening.makeBatch(start, 200, 1e9 + start * 1e6 + leap), listening.now);
    assert.ok(engine.levelMs < before + 330 && engine.levelMs >= before + 199);
    listening.run(0.19, () => false);
  }
  assert.ok(Number.isFinite(heardPts()));
});

test('jumping drops what is held, softly; the next batch begins anew', () => {
  const listening = new Listening().run(2);
  const { engine } = listening;
  engine.jump();
  assert.ok(Number.isNaN(engine.report(listening.now).pts));
  listening.run(0.02, () => false);
  assert.ok(roughness(listening.heard(0)) < FADED);
  assert.equal(engine.playing, false);
  assert.equal(engine.levelMs, 0);
  listening.run(2);
  assert.ok(engine.playing);
  assert.equal(engine.underruns + engine.gaps, 0);
});

test('other rates, one channel, six channels and huge batches are taken', () => {
  for (const shape of [{ rate: 44100, channels: 1 }, { rate: 96000, channels: 6 }]) {
    const listening = new Listening(shape).run(3);
    const samples = listening.heard(1, 3);
    assert.ok(Math.abs(loudness(samples) - AMPLITUDE / Math.SQRT2) < 0.01);
    const crossings = samples.filter((value, i) => i > 0 && value >= 0 && samples[i - 1] < 0).length / 2;
    assert.ok(Math.abs(crossings - TONE) < 3, `${crossings} Hz`);
    assert.ok(roughness(listening.heard(0.5)) < SMOOTH);
    listening.engine.append(new Listening().makeBatch(0, 200), listening.now); // the rate changes
    listening.run(0.5, () => false);
    assert.equal(listening.engine.rate, 48000);
    assert.ok(Number.isFinite(listening.engine.levelMs));
  }
  const huge = new Listening();
  huge.engine.append(huge.makeBatch(0, 16000), 0);
  huge.run(0.1, () => false);
  assert.ok(huge.engine.playing && huge.engine.levelMs < 1000);
  const short = new Listening().run(1, (i) => i === 0);
  assert.ok(loudness(short.heard(0)) > 0.1, 'a single short sound is played');
});

test('the picture waits for the sound gradually, within reason', () => {
  const hold = new PictureHold();
  assert.equal(hold.update(300, 0), 0);
  assert.ok(Math.abs(hold.update(300, 100) - 15) < 1e-9);
  for (let now = 200; now < 3000; now += 16) hold.update(300, now);
  assert.equal(hold.holdMs, 300);
  for (let now = 3000; now < 9000; now += 16) hold.update(7200e3, now);
  assert.equal(hold.holdMs, 0, 'no picture is held for hours');
  const heard = new HeardClock();
  heard.add({ time: 10.3, pts: 5e6 }, { contextTime: 10, performanceTime: 900 });
  assert.ok(Math.abs(heard.offset - (900 + 300 - 5000)) < 1e-6);
  heard.add({ time: 11.31, pts: 6e6 }, { contextTime: 11, performanceTime: 1900 });
  assert.ok(Math.abs(heard.offset - -3798) < 1e-6, 'scatter is smoothed');
  heard.add({ time: 11, pts: NaN }, { contextTime: 11, performanceTime: 1900 });
  assert.equal(heard.offset, null);
});

const headersOf = (changes) => new Headers({
  'X-Audio-Sequence': '12', 'X-Audio-PTS': '1000', 'X-Audio-Sample-Rate': '48000', 'X-Audio-Channels': '2',
  'X-Audio-Frames': '4', 'X-Audio-Format': 's16le', 'Content-Length': '16', ...changes,
});

test('batches that say nonsense are refused', () => {
  const batch = parseAudioBatch(headersOf({}), Int16Array.from([1, -1, 2, -2, 3, -3, 4, -4]).buffer);
  assert.deepEqual([batch.frames, batch.rate, batch.pts, batch.samples[3]], [4, 48000, 1000, -2]);
  assert.equal(parseAudioBatch(headersOf({}), new ArrayBuffer(7)).frames, 1, 'a torn frame is cut off');
  for (const wrong of [{ 'X-Audio-Format': 'f32le' }, { 'X-Audio-Sample-Rate': '0' }, { 'X-Audio-Channels': '-1' },
    { 'X-Audio-PTS': '18446744073709551615' }, { 'X-Audio-Sample-Rate': '4e4' }]) {
    assert.equal(parseAudioBatch(headersOf(wrong), new ArrayBuffer(16)), null, JSON.stringify(wrong));
  }
  assert.equal(parseAudioBatch(headersOf({}), new ArrayBuffer(0)), null);
});

/** A poll whose answers are given by hand and whose clock is moved by hand. */
function polling() {
  const asked = [];
  const timers = new Map();
  const state = { now: 0, batches: [], unauthorized: 0, asked, timers };
  const io = {
    fetch: (url, { signal, headers }) => new Promise((resolve, reject) => {
      signal.addEventListener('abort', () => reject(new Error('aborted')));
      asked.push({ url, headers, signal, answer: (status, changes, body = new ArrayBuffer(16)) => resolve({ status, headers: headersOf(changes), arrayBuffer: async () => body }), fail: reject });
    }),
    now: () => state.now,
    delay: (callback, ms) => {
      const key = {};
      timers.set(key, { callback, ms });
      return key;
    },
    cancel: (key) => timers.delete(key),
  };
  state.poll = new AudioPoll('secret', { onBatch: (batch) => state.batches.push(batch), onUnauthorized: () => state.unauthorized++ }, io);
  state.settle = () => new Promise((resolve) => setImmediate(resolve));
  state.fire = () => {
    const [[key, timer]] = timers;
    timers.delete(key);
    timer.callback();
    return timer.ms;
  };
  return state;
}

test('one poll follows the other, with the token and behind the last chunk', async () => {
  const state = polling();
  state.poll.start(5);
  assert.equal(state.asked[0].url, '/audio?after=5');
  assert.equal(state.asked[0].headers.Authorization, 'Bearer secret');
  state.asked[0].answer(200, {});
  await state.settle();
  assert.equal(state.batches.length, 1);
  assert.equal(state.asked[1].url, '/audio?after=12');
  state.now = 10000;
  state.asked[1].answer(204, { 'X-Audio-Sequence': '30' });
  await state.settle();
  assert.equal(state.asked[2].url, '/audio?after=12', 'nothing is skipped');
  assert.equal(state.poll.edge(40), false, 'a little behind: what is on its way is kept');
  assert.equal(state.poll.edge(100), true);
  assert.equal(state.asked[2].signal.aborted, true);
  assert.equal(state.asked[3].url, '/audio?after=100');
  assert.equal(state.poll.edge(3), true, 'a host that was started anew');
  state.poll.stop();
  await state.settle();
  assert.equal(state.asked.length, 5);
  assert.equal(state.timers.size, 0);
});

test('polls back off when they fail, and end at a refused token', async () => {
  const state = polling();
  state.poll.start(5);
  state.asked[0].fail(new Error('connection refused'));
  await state.settle();
  const first = state.fire();
  assert.ok(first >= 125 && first <= 250);
  state.asked[1].answer(204, { 'X-Audio-Sequence': '5' });
  await state.settle();
  assert.ok(state.fire() > first, 'an empty answer that comes at once is no long poll');
  state.asked[2].answer(200, { 'X-Audio-Format': 'opus' });
  await state.settle();
  assert.ok(state.fire() >= 500, 'nonsense is a failure');
  assert.equal(state.asked[3].url, '/audio?after=12');
  state.asked[3].answer(401, {});
  await state.settle();
  assert.equal(state.unauthorized, 1);
  assert.equal(state.batches.length, 0);
  assert.equal(state.timers.size, 0);
  assert.equal(pollRetryDelay(429, '60', 3), 60000);
  assert.equal(pollRetryDelay(429, null, 3), 60000);
  assert.equal(pollRetryDelay(500, null, 40, () => 1), 8000);
});

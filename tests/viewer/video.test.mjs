// What the page does with a decoder that fails, falls silent, or keeps pictures back.
import assert from 'node:assert/strict';
import { afterEach, beforeEach, test } from 'node:test';
import { VideoPipeline } from '../../Resources/Viewer/video-runtime.js';

const H264_SPS = '6742c028d90064073f9f0110000003001000000303c0f1832480'; // 1600x900
const realPerformance = globalThis.performance;

let now; let decoders; let requests; let unusable; let pictures; let pipeline; let timestamp;

class FakeDecoder {
  static isConfigSupported(config) { return Promise.resolve({ supported: true, config }); }
  state = 'unconfigured';
  decoded = [];
  constructor(callbacks) {
    this.callbacks = callbacks;
    decoders.push(this);
  }
  configure(config) {
    this.config = config;
    this.state = 'configured';
  }
  decode(chunk) { this.decoded.push(chunk); }
  close() { this.state = 'closed'; }
  /** Gives out the picture of the oldest chunk that it has. */
  output() { this.callbacks.output({ timestamp: this.decoded.shift().timestamp, close() {} }); }
}

beforeEach(() => {
  [now, decoders, requests, unusable, pictures, timestamp] = [10000, [], 0, [], 0, 0];
  globalThis.document = { hidden: false };
  globalThis.VideoDecoder = FakeDecoder;
  globalThis.EncodedVideoChunk = class { constructor(init) { Object.assign(this, init); } };
  globalThis.performance = { now: () => now };
  pipeline = new VideoPipeline({ present: () => pictures++ }, {
    requestKeyframe: () => requests++, onPictureSize() {}, onDecoded() {}, onCodecUnusable: (codec) => unusable.push(codec),
  });
  pipeline.setVideoMode(false); // decoded as it comes
});
afterEach(() => {
  pipeline.restart();
  for (const name of ['document', 'VideoDecoder', 'EncodedVideoChunk']) delete globalThis[name];
  globalThis.performance = realPerformance;
});

/** The next frame; resolves when a decoder that it needs is there. */
async function push(isKeyframe) {
  timestamp += 16000;
  const body = Buffer.from(`${isKeyframe ? '01' : '00'}0000000000000000${isKeyframe ? `00000001${H264_SPS}` : ''}0000000165`, 'hex');
  body.writeBigUInt64BE(BigInt(timestamp), 1);
  pipeline.push(Uint8Array.from(body).buffer, now);
  await new Promise(setImmediate);
}

test('a decoder that fails is followed by one in software, then by words and a pause', async () => {
  await push(true);
  assert.equal(decoders[0].config.hardwareAcceleration, 'prefer-hardware');
  decoders[0].callbacks.error(new Error('broken'));
  assert.equal(requests, 1);
  await push(false);
  assert.equal(decoders.length, 1, 'nothing is decoded before a key frame');
  await push(true);
  assert.equal(decoders[1].config.hardwareAcceleration, 'prefer-software');
  decoders[0].callbacks.error(new Error('broken, told late'));
  assert.equal(decoders[1].state, 'configured');
  decoders[1].callbacks.error(new Error('broken too'));
  assert.deepEqual(unusable, ['h264']);
  now += 1900;
  await push(true);
  assert.equal(decoders.length, 2);
  now += 200;
  await push(true);
  decoders[2].output();
  assert.equal(pictures, 1);
  assert.equal(pipeline.counters.decodeErrors, 2);
});

test('a decoder that gives no answer is replaced, one that lags starts over at a key frame', async () => {
  await push(true);
  for (let i = 0; i < 2; i++) await push(false);
  pipeline.watch(now + 2900);
  assert.equal(decoders[0].state, 'configured');
  pipeline.watch(now + 3100);
  assert.equal(decoders[0].state, 'closed');
  now += 3100;
  await push(true);
  decoders[1].output();
  for (let i = 0; i < 9; i++) await push(false);
  now += 300;
  await push(false);
  const { length } = decoders[1].decoded;
  await push(false);
  assert.equal(decoders[1].decoded.length, length, 'what refers to a dropped picture is dropped');
  assert.equal(requests, 2);
});

test('a hardware decoder that keeps a picture back gives way to the next configuration', async () => {
  await push(true);
  for (let i = 0; i < 20; i++) {
    await push(false);
    decoders[0].output();
  }
  assert.equal(decoders[0].state, 'closed');
  await push(true);
  assert.equal(decoders[1].config.hardwareAcceleration, undefined);
});

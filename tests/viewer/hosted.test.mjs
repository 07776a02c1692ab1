// The hosted route: what the relay brings, and how much the host keeps for a broken one.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { RebuildTarget } from '../../Resources/Viewer/adaptive-quality.js';
import { RelayOrder, parseRelayFrame } from '../../Resources/Viewer/hosted-transport.js';

const bytes = (hex) => Uint8Array.from(Buffer.from(hex.replace(/ /g, ''), 'hex')).buffer;

test('an envelope gives its frame, and foreign bytes give nothing', () => {
  const video = '4b535456 00000007 0000 0001 01 0000000000000009 65';
  const audio = '4b535441 ffffffff 0000 0001 0000000100000002 0000bb80 82 000003c0 fc';
  const { kind, identifier, frame } = parseRelayFrame(bytes(video));
  assert.deepEqual([kind, identifier, frame.timestamp, frame.isKeyframe], ['video', 7, 9, true]);
  const sound = parseRelayFrame(bytes(audio));
  assert.equal(sound.identifier, 4294967295);
  assert.deepEqual(sound.frame, { timestamp: 4294967298, rate: 48000, channels: 2, frames: 960, payload: new Uint8Array([0xfc]) });
  for (const [from, to] of [['4b53', '4b54'], ['00000007', '00000000'], ['0000 0001', '0000 0002'], [' 65', '']]) {
    assert.equal(parseRelayFrame(bytes(video.replace(from, to))), null, `${from} as ${to}`);
  }
  for (const [from, to] of [[' 82', ' 02'], [' 82', ' 80'], ['0000bb80', '0000ac44'], ['000003c0', '7fffffff'], [' fc', '']]) {
    assert.equal(parseRelayFrame(bytes(audio.replace(from, to))), null, `${from} as ${to}`);
  }
});

test('repeats are left out, a gap waits for a key frame, and a restarted host is followed', () => {
  const order = new RelayOrder();
  const place = (identifier, seconds, kind = 'video', isKeyframe = false) => (
    order.place({ kind, identifier, frame: { timestamp: seconds * 1e6, isKeyframe } }));
  assert.equal(place(4294967293, 100), 'undecodable', 'the stream began before us');
  assert.equal(place(4294967294, 101, 'video', true), 'play');
  assert.equal(place(4294967295, 101, 'audio'), 'play');
  assert.equal(place(1, 102), 'play', 'the counter goes on at 1');
  for (const [identifier, seconds, kind] of [[4294967294, 101, 'video'], [4294967295, 101, 'audio'], [1, 102, 'video']]) {
    assert.equal(place(identifier, seconds, kind), 'repeated');
  }
  assert.equal(place(2, 103), 'play', 'the replay reached what is new');
  assert.equal(place(4, 105), 'undecodable');
  assert.equal(place(5, 105, 'audio'), 'play', 'sound needs no picture');
  assert.equal(place(6, 106), 'undecodable');
  assert.equal(place(7, 107, 'video', true), 'play');
  assert.equal(place(1, 108), 'undecodable', 'the program of the host began anew');
  assert.equal(place(2, 109, 'video', true), 'play');
  assert.equal(place(1, 3, 'video', true), 'otherClock', 'so did its machine');
  assert.equal(place(2, 4), 'play');
});

test('the host keeps more after repeated breaks and long ones, and less after a calm time', () => {
  const target = new RebuildTarget();
  const minute = 60000;
  const after = (lengthMs, now) => {
    target.ranOut(lengthMs, now);
    return target.milliseconds(now);
  };
  assert.deepEqual([after(900, minute), after(900, 1.5 * minute), after(900, 2 * minute), after(900, 2.5 * minute)], [5000, 10000, 10000, 15000]);
  assert.equal(target.milliseconds(7.4 * minute), 15000);
  assert.equal(target.milliseconds(7.6 * minute), 10000);
  assert.equal(after(16000, 8 * minute), 20000);
  assert.equal(after(90000, 8.1 * minute), 20000);
  assert.equal(target.milliseconds(60 * minute), 5000);
});

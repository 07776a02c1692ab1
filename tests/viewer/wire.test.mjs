// Frame bodies, parameter sets and codec strings, against streams of real encoders.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { describeH264, nalUnits, parseVideoFrame, unescapeNal } from '../../Resources/Viewer/wire-protocol.js';
import { describeHevc, hevcCodecString } from '../../Resources/Viewer/webcodecs-hevc.js';

const bytes = (hex) => Uint8Array.from(Buffer.from(hex.replace(/ /g, ''), 'hex'));

// x264, baseline, 1600x900: cropped from 1600x912, with emulation prevention in its timing
const H264_BASELINE = '6742c028d90064073f9f0110000003001000000303c0f1832480';
// x264, High 4:4:4 Predictive with 4:2:0 pictures, 1600x900
const H264_HIGH = '67f40028aeb200c80e7f3e0220000003002000000781e30649';
// x265, Main, 1280x720
const HEVC_VPS = '40010c01ffff01600000030090000003000003005d959809';
const HEVC_SPS = '42010101600000030090000003000003005da00280802d165959a4932bc05a020000030002000003003c10';
// likewise 1300x838, no multiple of a coding block
const HEVC_CROPPED = '420101016000000300900000030000030078a0028c80349dd65959a4932bc05a020000030002000003003c10';

test('a frame body is flags, time and payload', () => {
  const frame = parseVideoFrame(bytes('01 0000000100000002 0000000165').buffer);
  assert.equal(frame.isKeyframe, true);
  assert.equal(frame.timestamp, 4294967298);
  assert.deepEqual([...frame.payload], [0, 0, 0, 1, 0x65]);
  assert.equal(parseVideoFrame(bytes('00 0000000000000001 41').buffer).isKeyframe, false);
  assert.equal(parseVideoFrame(bytes('01 0000000000000001').buffer), null, 'no payload');
  assert.equal(parseVideoFrame(bytes('0100').buffer), null, 'no whole header');
  assert.equal(parseVideoFrame(bytes('01 ffffffffffffffff 65').buffer), null, 'a time that a double cannot hold');
});

test('units are found behind short and long start codes and at any alignment', () => {
  const units = (hex) => [...nalUnits(bytes(hex))].map((unit) => Buffer.from(unit).toString('hex'));
  assert.deepEqual(units('00000001 6742 000001 68ce 00000001 6588'), ['6742', '68ce', '6588']);
  assert.deepEqual(units('ff 000001 41'), ['41'], 'what stands in front of the first start code is skipped');
  assert.deepEqual(units('000001 6700 000003 01 00000001 65'), ['670000000301', '65'], 'an escaped start code is content');
  assert.deepEqual(units('0102030405'), []);
  assert.deepEqual(units('000001'), []);
  assert.deepEqual([...unescapeNal(bytes('000003000003010003'))], [0, 0, 0, 0, 1, 0, 3]);
});

test('H.264 parameter sets give codec and cropped size', () => {
  assert.deepEqual(describeH264(bytes(`00000001 ${H264_BASELINE} 00000001 68cb83cb20 00000001 6588`)), { codec: 'avc1.42C028', width: 1600, height: 900 });
  assert.deepEqual(describeH264(bytes(`00000001 0910 000001 ${H264_HIGH}`)), { codec: 'avc1.F40028', width: 1600, height: 900 });
});

test('H.265 parameter sets give codec and size', () => {
  assert.deepEqual(describeHevc(bytes(`00000001 ${HEVC_VPS} 00000001 ${HEVC_SPS}`)), { codec: 'hev1.1.6.L93.90', width: 1280, height: 720 });
  assert.deepEqual(describeHevc(bytes(`00000001 ${HEVC_CROPPED}`)), { codec: 'hev1.1.6.L120.90', width: 1300, height: 838 });
  const described = { profileSpace: 2, tier: 1, profile: 2, compatibility: 0x20000000, level: 153, constraints: [0xb0, 0, 0x10, 0, 0, 0] };
  assert.equal(hevcCodecString(described), 'hev1.B2.4.H153.B0.0.10');
});

test('parameter sets that are cut short, or missing, are refused without reading past the end', () => {
  for (const [hex, describe] of [[H264_BASELINE, describeH264], [H264_HIGH, describeH264], [HEVC_SPS, describeHevc]]) {
    const whole = describe(bytes(`00000001 ${hex}`));
    assert.ok(whole);
    for (let length = 1; length <= hex.length / 2; length++) {
      const result = describe(bytes(`00000001 ${hex.slice(0, length * 2)}`));
      if (result !== null) assert.deepEqual(result, whole, 'what is left out is not needed for these');
      if (length < 8) assert.equal(result, null);
    }
  }
  assert.equal(describeH264(bytes('00000001 6588 00000001 ' + H264_BASELINE)), null, 'the picture came first');
  assert.equal(describeH264(new Uint8Array(0)), null);
});

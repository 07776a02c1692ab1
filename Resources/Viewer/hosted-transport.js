/**
 * The hosted route: one WebSocket to the service, which relays what the host sends. Loaded only by a page that the
 * service gave out.
 *
 * A binary message is a relay envelope (big-endian): "KSTV" or "KSTA", 32 bits of frame identifier, 16 bits 0, 16 bits
 * 1, then the body of a video or sound frame. One counter numbers both kinds; behind 4,294,967,295 comes 1.
 */

import { parseVideoFrame } from './wire-protocol.js';

const ENVELOPE_BYTES = 12;
const MAGIC = { 0x4b535456: 'video', 0x4b535441: 'audio' };
const LAST_IDENTIFIER = 0xffffffff;
const AUDIO_HEADER_BYTES = 17;
const OPUS_FLAG = 0x80;
const LARGEST_OPUS_PACKET = 1275 * 48; // RFC 6716 section 3.4: at most 48 frames of at most 1275 bytes
const LONGEST_OPUS_FRAMES = 5760; // 120 ms at 48 kHz
const OPUS_RATE = 48000;

/**
 * The body of a sound frame: 64 bits of capture time in microseconds, 32 bits of sample rate, 8 bits of channels with
 * the highest bit set, 32 bits of frame count, one Opus packet.
 * @param {ArrayBuffer} body
 * @returns {{timestamp: number, rate: number, channels: number, frames: number, payload: Uint8Array} | null}
 */
export function parseAudioFrame(body) {
  if (body.byteLength <= AUDIO_HEADER_BYTES || body.byteLength > AUDIO_HEADER_BYTES + LARGEST_OPUS_PACKET) return null;
  const view = new DataView(body);
  const timestamp = view.getUint32(0) * 4294967296 + view.getUint32(4);
  const rate = view.getUint32(8);
  const form = view.getUint8(12);
  const channels = form & ~OPUS_FLAG;
  const frames = view.getUint32(13);
  if (!Number.isSafeInteger(timestamp) || (form & OPUS_FLAG) === 0 || rate !== OPUS_RATE) return null;
  if (channels < 1 || channels > 2 || frames < 1 || frames > LONGEST_OPUS_FRAMES) return null;
  return { timestamp, rate, channels, frames, payload: new Uint8Array(body, AUDIO_HEADER_BYTES) };
}

/**
 * @param {ArrayBuffer} message one binary message
 * @returns {{kind: 'video' | 'audio', identifier: number, body: ArrayBuffer, frame: object} | null} null for what is no
 *   relay envelope around a whole frame
 */
export function parseRelayFrame(message) {
  if (message.byteLength <= ENVELOPE_BYTES) return null;
  const view = new DataView(message);
  const kind = MAGIC[view.getUint32(0)];
  const identifier = view.getUint32(4);
  if (!kind || identifier === 0 || view.getUint32(8) !== 1) return null;
  const body = message.slice(ENVELOPE_BYTES);
  const frame = kind === 'video' ? parseVideoFrame(body) : parseAudioFrame(body);
  return frame ? { kind, identifier, body, frame } : null;
}

const OTHER_CLOCK_MS = 60000; // far beyond what a host ever keeps for a replay

/**
 * Puts the relay's frames in their place: after a break the host sends again what may have been lost, and a slow viewer
 * is spared frames. Identifiers begin anew with the host's program, times with the host's machine. Pure.
 */
export class RelayOrder {
  constructor() {
    this.forget();
  }

  forget() {
    this.identifier = 0; // of the newest frame, 0 before the first
    this.newest = { video: -Infinity, audio: -Infinity }; // capture times, microseconds
    this.awaitsKeyframe = false;
  }

  /**
   * @param {{kind: string, identifier: number, frame: {timestamp: number, isKeyframe?: boolean}}} relayed
   * @returns {'play' | 'repeated' | 'undecodable' | 'otherClock'} 'undecodable': a frame in front of it is missing, ask
   *   for a key frame; 'otherClock': to be played, and nothing learnt of the host's clock holds any more
   */
  place({ kind, identifier, frame }) {
    const newest = Math.max(this.newest.video, this.newest.audio);
    const isOtherClock = newest - frame.timestamp > OTHER_CLOCK_MS * 1000;
    if (isOtherClock) this.forget();
    const ahead = (identifier - this.identifier) >>> 0; // serial number arithmetic, RFC 1982
    const isNewer = ahead !== 0 && ahead < 0x80000000;
    if (this.identifier !== 0 && !isNewer && frame.timestamp <= this.newest[kind]) return 'repeated';
    const expected = this.identifier === LAST_IDENTIFIER ? 1 : this.identifier + 1;
    if (identifier !== expected) this.awaitsKeyframe = true;
    this.identifier = identifier;
    this.newest[kind] = Math.max(this.newest[kind], frame.timestamp);
    if (kind === 'video') {
      if (this.awaitsKeyframe && !frame.isKeyframe) return 'undecodable';
      this.awaitsKeyframe = false;
    }
    return isOtherClock ? 'otherClock' : 'play';
  }
}

/**
 * The bytes of the media frames and of the H.264 stream inside them, and the headers of a batch of sound.
 *
 * A binary message is one frame body: one byte of flags, eight bytes of presentation time (big-endian microseconds of
 * the host's clock), then one access unit in Annex B form (ITU-T H.264 Annex B) with the parameter sets in front of
 * every key frame.
 *
 * Everything here reads foreign bytes: functions return null rather than throw, and never read past what is there.
 */

export const FRAME_HEADER_BYTES = 9;
const FLAG_KEYFRAME = 0x01;

/**
 * @param {ArrayBuffer} body one binary message
 * @returns {{isKeyframe: boolean, timestamp: number, payload: Uint8Array} | null} null for a body without a whole header
 *   or with an empty payload. `timestamp` is in microseconds; a double holds 285 years of them exactly.
 */
export function parseVideoFrame(body) {
  if (body.byteLength <= FRAME_HEADER_BYTES) return null;
  const view = new DataView(body);
  const timestamp = view.getUint32(1) * 4294967296 + view.getUint32(5);
  if (!Number.isSafeInteger(timestamp)) return null;
  return {
    isKeyframe: (view.getUint8(0) & FLAG_KEYFRAME) !== 0,
    timestamp,
    payload: new Uint8Array(body, FRAME_HEADER_BYTES),
  };
}

/** The bounds of what a batch of sound may say about itself, generous and finite. */
const AUDIO_RATES = [8000, 384000];
const MOST_AUDIO_CHANNELS = 32;
export const LARGEST_AUDIO_BATCH = 4 * 1024 * 1024;

/** A decimal header without sign that a double holds exactly, or null. */
function wholeHeader(headers, name) {
  const text = headers.get(name);
  if (text === null || !/^[0-9]{1,20}$/.test(text.trim())) return null;
  const value = Number(text);
  return Number.isSafeInteger(value) ? value : null;
}

/** The number of the newest chunk in an answer of the audio route, or null. */
export function audioSequenceOf(headers) {
  return wholeHeader(headers, 'X-Audio-Sequence');
}

/**
 * One batch of sound: interleaved samples, 16 bits, low byte first.
 * @param {{get(name: string): string | null}} headers
 * @param {ArrayBuffer} body
 * @returns {{pts: number, rate: number, channels: number, frames: number, samples: Int16Array} | null} null for what
 *   cannot be played; `pts` in microseconds of the host's clock belongs to the first frame
 */
export function parseAudioBatch(headers, body) {
  const pts = wholeHeader(headers, 'X-Audio-PTS');
  const rate = wholeHeader(headers, 'X-Audio-Sample-Rate');
  const channels = wholeHeader(headers, 'X-Audio-Channels');
  if (headers.get('X-Audio-Format') !== 's16le' || pts === null) return null;
  if (!(rate >= AUDIO_RATES[0] && rate <= AUDIO_RATES[1] && channels >= 1 && channels <= MOST_AUDIO_CHANNELS)) return null;
  // The body says best how many frames there are; a torn last frame is cut off.
  const frames = Math.floor(body.byteLength / (2 * channels));
  if (frames === 0 || body.byteLength > LARGEST_AUDIO_BATCH) return null;
  return { pts, rate, channels, frames, samples: new Int16Array(body, 0, frames * channels) };
}

/**
 * Walks the NAL units of an Annex B stream, without their start codes (three- and four-byte ones).
 * Lazy, so that a caller who only wants the parameter sets never scans the picture behind them.
 */
export function* nalUnits(bytes) {
  let start = -1;
  const last = bytes.length - 2;
  for (let i = 0; i < last; i++) {
    // A start code needs a byte below 2 at its third place: step over most of a picture three bytes at a time.
    if (bytes[i + 2] > 1) {
      i += 2;
      continue;
    }
    if (bytes[i] !== 0 || bytes[i + 1] !== 0 || bytes[i + 2] !== 1) continue;
    if (start >= 0) yield bytes.subarray(start, trimTrailingZeros(bytes, start, i));
    start = i + 3;
    i += 2;
  }
  if (start >= 0 && start < bytes.length) yield bytes.subarray(start, bytes.length);
}

/** Zeros in front of a start code belong to it, not to the unit before it. */
function trimTrailingZeros(bytes, start, end) {
  while (end > start && bytes[end - 1] === 0) end--;
  return end;
}

/** Removes the emulation prevention bytes of a NAL unit (00 00 03 becomes 00 00). */
export function unescapeNal(nal) {
  const out = new Uint8Array(nal.length);
  let length = 0;
  let zeros = 0;
  for (const byte of nal) {
    if (zeros >= 2 && byte === 3) {
      zeros = 0;
      continue;
    }
    zeros = byte === 0 ? zeros + 1 : 0;
    out[length++] = byte;
  }
  return out.subarray(0, length);
}

/** Reads bits, most significant first; after the end every read is 0 and `overrun` is set. */
export class BitReader {
  constructor(bytes) {
    this.bytes = bytes;
    this.position = 0; // in bits
    this.overrun = false;
  }

  bit() {
    const index = this.position >> 3;
    if (index >= this.bytes.length) {
      this.overrun = true;
      return 0;
    }
    const value = (this.bytes[index] >> (7 - (this.position & 7))) & 1;
    this.position++;
    return value;
  }

  bits(count) {
    let value = 0;
    for (let i = 0; i < count; i++) value = value * 2 + this.bit();
    return value;
  }

  /** ue(v), H.264 §9.1. */
  unsignedGolomb() {
    let zeros = 0;
    while (this.bit() === 0) {
      if (this.overrun || ++zeros > 31) {
        this.overrun = true;
        return 0;
      }
    }
    return 2 ** zeros - 1 + this.bits(zeros);
  }

  /** se(v), H.264 §9.1.1. */
  signedGolomb() {
    const code = this.unsignedGolomb();
    return code % 2 === 1 ? (code + 1) / 2 : -code / 2;
  }
}

const H264_NAL_SPS = 7;
const PROFILES_WITH_CHROMA_FORMAT = new Set([100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135]);

function skipScalingList(reader, size) {
  let last = 8;
  let next = 8;
  for (let i = 0; i < size && !reader.overrun; i++) {
    if (next !== 0) next = (last + reader.signedGolomb() + 256) % 256;
    if (next !== 0) last = next;
  }
}

function chromaFormatOf(reader) {
  const chromaFormat = reader.unsignedGolomb();
  if (chromaFormat === 3) reader.bit(); // separate_colour_plane_flag
  reader.unsignedGolomb(); // bit_depth_luma_minus8
  reader.unsignedGolomb(); // bit_depth_chroma_minus8
  reader.bit(); // qpprime_y_zero_transform_bypass_flag
  if (reader.bit()) {
    const lists = chromaFormat === 3 ? 12 : 8;
    for (let i = 0; i < lists; i++) if (reader.bit()) skipScalingList(reader, i < 6 ? 16 : 64);
  }
  return chromaFormat;
}

function skipPictureOrder(reader) {
  const type = reader.unsignedGolomb();
  if (type === 0) {
    reader.unsignedGolomb(); // log2_max_pic_order_cnt_lsb_minus4
  } else if (type === 1) {
    reader.bit();
    reader.signedGolomb();
    reader.signedGolomb();
    const count = reader.unsignedGolomb();
    for (let i = 0; i < count && !reader.overrun; i++) reader.signedGolomb();
  }
}

/**
 * Sequence parameter set, H.264 §7.3.2.1.1, as far as the picture's size.
 * @param {Uint8Array} nal the unit with its one-byte header
 * @returns {{codec: string, width: number, height: number} | null}
 */
export function parseH264Sps(nal) {
  if (nal.length < 5 || (nal[0] & 0x1f) !== H264_NAL_SPS) return null;
  const bytes = unescapeNal(nal.subarray(1));
  const profile = bytes[0];
  const reader = new BitReader(bytes);
  reader.bits(24);
  reader.unsignedGolomb(); // seq_parameter_set_id
  const chromaFormat = PROFILES_WITH_CHROMA_FORMAT.has(profile) ? chromaFormatOf(reader) : 1;
  reader.unsignedGolomb(); // log2_max_frame_num_minus4
  skipPictureOrder(reader);
  reader.unsignedGolomb(); // max_num_ref_frames
  reader.bit(); // gaps_in_frame_num_value_allowed_flag
  const widthInBlocks = reader.unsignedGolomb() + 1;
  const heightInUnits = reader.unsignedGolomb() + 1;
  const framesOnly = reader.bit();
  if (!framesOnly) reader.bit(); // mb_adaptive_frame_field_flag
  reader.bit(); // direct_8x8_inference_flag
  const crop = { left: 0, right: 0, top: 0, bottom: 0 };
  if (reader.bit()) {
    for (const side of ['left', 'right', 'top', 'bottom']) crop[side] = reader.unsignedGolomb();
  }
  if (reader.overrun) return null;
  const unitX = chromaFormat === 1 || chromaFormat === 2 ? 2 : 1;
  const unitY = (chromaFormat === 1 ? 2 : 1) * (2 - framesOnly);
  const width = widthInBlocks * 16 - unitX * (crop.left + crop.right);
  const height = heightInUnits * (2 - framesOnly) * 16 - unitY * (crop.top + crop.bottom);
  if (width <= 0 || height <= 0) return null;
  return { codec: h264CodecString(profile, bytes[1], bytes[2]), width, height };
}

/** RFC 6381 §3.3: profile, constraint flags and level as six hexadecimal digits. */
export function h264CodecString(profile, constraints, level) {
  const hex = [profile, constraints, level].map((byte) => byte.toString(16).padStart(2, '0')).join('');
  return `avc1.${hex.toUpperCase()}`;
}

/** What the parameter sets of a key frame say, or null if it has none that can be read. */
export function describeH264(payload) {
  for (const nal of nalUnits(payload)) {
    const type = nal[0] & 0x1f;
    if (type === H264_NAL_SPS) return parseH264Sps(nal);
    if (type >= 1 && type <= 5) return null; // the picture began without a parameter set
  }
  return null;
}

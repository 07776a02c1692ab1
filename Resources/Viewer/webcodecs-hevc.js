/**
 * H.265 in the browser: whether it can be decoded here, and the codec string of a stream's own parameter set
 * (ISO/IEC 14496-15 Annex E.3).
 */

import { BitReader, nalUnits, unescapeNal } from './wire-protocol.js';

const HEVC_NAL_SPS = 33;
const HEVC_FIRST_PARAMETER_SET = 32; // every VCL unit has a lower type

/** Main profile, level 4: what the host sends at most; only used to ask before any frame is there. */
const PROBE_CODECS = ['hev1.1.6.L120.90', 'hvc1.1.6.L120.90'];

/**
 * "hev1", since the parameter sets travel in the stream. The compatibility flags are written in reverse bit order, and
 * trailing zero bytes of the constraint flags are left out.
 */
export function hevcCodecString({ profileSpace, tier, profile, compatibility, level, constraints }) {
  const space = ['', 'A', 'B', 'C'][profileSpace];
  let reversed = 0;
  for (let bit = 0; bit < 32; bit++) {
    if (compatibility & (1 << bit)) reversed |= 1 << (31 - bit);
  }
  const bytes = [...constraints];
  while (bytes.length > 0 && bytes[bytes.length - 1] === 0) bytes.pop();
  const parts = ['hev1', `${space}${profile}`, (reversed >>> 0).toString(16).toUpperCase(), `${tier ? 'H' : 'L'}${level}`];
  return parts.concat(bytes.map((byte) => byte.toString(16).toUpperCase())).join('.');
}

/**
 * Sequence parameter set, H.265 §7.3.2.2, as far as the picture's size.
 * @param {Uint8Array} nal the unit with its two-byte header
 * @returns {{codec: string, width: number, height: number} | null}
 */
export function parseHevcSps(nal) {
  if (nal.length < 16 || ((nal[0] >> 1) & 0x3f) !== HEVC_NAL_SPS) return null;
  const bytes = unescapeNal(nal.subarray(2));
  const reader = new BitReader(bytes);
  reader.bits(4); // sps_video_parameter_set_id
  const subLayers = reader.bits(3);
  reader.bit(); // sps_temporal_id_nesting_flag
  const profileSpace = reader.bits(2);
  const tier = reader.bit();
  const profile = reader.bits(5);
  const compatibility = reader.bits(32);
  const constraints = [];
  for (let i = 0; i < 6; i++) constraints.push(reader.bits(8));
  const level = reader.bits(8);
  skipSubLayers(reader, subLayers);
  reader.unsignedGolomb(); // sps_seq_parameter_set_id
  const chromaFormat = reader.unsignedGolomb();
  if (chromaFormat === 3) reader.bit();
  let width = reader.unsignedGolomb();
  let height = reader.unsignedGolomb();
  if (reader.bit()) {
    const unitX = chromaFormat === 1 || chromaFormat === 2 ? 2 : 1;
    const unitY = chromaFormat === 1 ? 2 : 1;
    width -= unitX * (reader.unsignedGolomb() + reader.unsignedGolomb());
    height -= unitY * (reader.unsignedGolomb() + reader.unsignedGolomb());
  }
  if (reader.overrun || width <= 0 || height <= 0) return null;
  return { codec: hevcCodecString({ profileSpace, tier, profile, compatibility, level, constraints }), width, height };
}

/** The per-layer part of profile_tier_level, H.265 §7.3.3. */
function skipSubLayers(reader, subLayers) {
  const present = [];
  for (let i = 0; i < subLayers; i++) present.push({ profile: reader.bit(), level: reader.bit() });
  if (subLayers > 0) for (let i = subLayers; i < 8; i++) reader.bits(2);
  for (const layer of present) {
    if (layer.profile) reader.bits(88);
    if (layer.level) reader.bits(8);
  }
}

/** What the parameter sets of a key frame say, or null if it has none that can be read. */
export function describeHevc(payload) {
  for (const nal of nalUnits(payload)) {
    const type = (nal[0] >> 1) & 0x3f;
    if (type === HEVC_NAL_SPS) return parseHevcSps(nal);
    if (type < HEVC_FIRST_PARAMETER_SET) return null;
  }
  return null;
}

let support = null;

/** Whether this browser claims to decode H.265 at all; asked once. */
export function canDecodeHevc() {
  if (!support) support = probe();
  return support;
}

async function probe() {
  if (typeof VideoDecoder === 'undefined') return false;
  for (const codec of PROBE_CODECS) {
    try {
      if ((await VideoDecoder.isConfigSupported({ codec, codedWidth: 1280, codedHeight: 720 })).supported) return true;
    } catch (error) {
      // A codec string that the browser cannot parse is a no.
    }
  }
  return false;
}

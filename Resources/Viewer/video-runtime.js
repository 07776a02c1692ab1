/**
 * From frame bodies to a picture: queue, decoder, presentation.
 *
 * In control mode a frame is decoded as it comes and only the newest decoded picture is shown. In video mode encoded
 * frames wait in a short queue whose depth follows the jitter of the road; they wait encoded, because a decoded picture
 * costs megabytes and some decoders have only a few of them. While sound is heard, they wait until its time has come.
 *
 * Decoding runs on the page's thread on purpose: the decoder itself works elsewhere in the browser, and one more hop to
 * a worker and back adds delay to every frame without taking any load that matters from this thread.
 */

import { ClockOffsetFilter, SmoothedValue } from './decoder-clock.js';
import { KeyframeRequests, PictureHold, QueueDepth, decoderIsBehind } from './adaptive-quality.js';
import { describeH264, parseVideoFrame } from './wire-protocol.js';
import { describeHevc } from './webcodecs-hevc.js';

const HELD_LIMIT = 90; // encoded frames, in the queue or waiting for the decoder's configuration
const STALL_MS = 3000; // a decoder that answers nothing for so long is taken for failed
const RETRY_AFTER_FAILURE_MS = 2000;
const DELAY_PROBE_FRAMES = 20;

/** The order in which configurations are tried. Not every browser honours the hints, or admits what it supports. */
const CONFIGURATIONS = [
  { label: 'hardware, low latency', hardwareAcceleration: 'prefer-hardware', optimizeForLatency: true },
  { label: 'low latency', optimizeForLatency: true },
  { label: 'default' },
];
const SOFTWARE_CONFIGURATIONS = [
  { label: 'software, low latency', hardwareAcceleration: 'prefer-software', optimizeForLatency: true },
  { label: 'default' },
];

async function supportedConfigurations(codec, softwareOnly, withoutHardware) {
  const supported = [];
  const usual = withoutHardware ? CONFIGURATIONS.slice(1) : CONFIGURATIONS;
  for (const { label, ...hints } of softwareOnly ? SOFTWARE_CONFIGURATIONS : usual) {
    const config = { codec, ...hints };
    try {
      if ((await VideoDecoder.isConfigSupported(config)).supported) supported.push({ label, config });
    } catch (error) {
      // Older engines throw at a hint that they do not know.
    }
  }
  return supported;
}

/**
 * Callbacks in `events`:
 *   requestKeyframe()               send a request to the host (already spaced out)
 *   onPictureSize(width, height)    the picture's size changed
 *   onCodecUnusable(codec)          'hevc': the host should fall back; 'h264': nothing else is left
 *   onDecoded(frame, receivedAt, decodedAt)  for measuring; must not keep the frame
 */
export class VideoPipeline {
  constructor(presenter, events) {
    this.presenter = presenter;
    this.events = events;
    this.codec = 'h264';
    this.videoMode = true;
    this.clock = new ClockOffsetFilter();
    this.depth = new QueueDepth();
    this.keyframes = new KeyframeRequests(events.requestKeyframe);
    this.decodeTime = new SmoothedValue();
    this.displayTime = new SmoothedValue(); // from the decoder to the screen
    this.hold = new PictureHold();
    this.soundOffset = () => null; // when the sound of a presentation time is heard, in the terms of `clock.offset`
    this.counters = { received: 0, decoded: 0, dropped: 0, bytes: 0, decodeErrors: 0 };
    this.generation = 0; // of the decoder; late callbacks of an older one are ignored
    this.softwareOnly = false;
    this.hardwareKeepsBack = false;
    this.failedAt = -Infinity;
    this.width = 0;
    this.height = 0;
    this.restart();
  }

  /** Forgets everything about the stream; the next frame shown comes from a key frame. */
  restart() {
    this.closeDecoder();
    clearTimeout(this.queueTimer);
    this.held = []; // video mode's queue: {frame, due}
    this.clock.reset();
    this.depth.reset();
  }

  setCodec(codec) {
    if (codec === this.codec) return;
    this.codec = codec;
    this.softwareOnly = false;
    this.failedAt = -Infinity;
    this.restart();
  }

  /** The host has changed its encoder: the next key frame gets a new decoder, the old one goes on until then. */
  reconfigure() {
    this.codecString = '';
  }

  setVideoMode(videoMode) {
    if (videoMode === this.videoMode) return;
    this.videoMode = videoMode;
    this.depth.reset();
    this.releaseHeld(Infinity);
  }

  /** How long a picture of an even road waits, for its queue and for its sound. */
  get waitMilliseconds() {
    return this.depth.depthMs + this.hold.holdMs;
  }

  get queuedMilliseconds() {
    if (this.held.length < 2) return 0;
    return (this.held[this.held.length - 1].frame.timestamp - this.held[0].frame.timestamp) / 1000;
  }

  /** @param {ArrayBuffer} body one binary message */
  push(body, nowMs) {
    const frame = parseVideoFrame(body);
    if (!frame) return;
    frame.receivedAt = nowMs;
    this.counters.received++;
    this.counters.bytes += body.byteLength;
    const lateness = this.clock.add(frame.timestamp, nowMs);
    if (!this.videoMode || document.hidden) {
      this.releaseHeld(Infinity);
      this.feed(frame);
      return;
    }
    const depth = this.depth.add(lateness, nowMs);
    const hold = this.hold.update(this.behindPicture(depth), nowMs);
    const due = this.clock.expectedArrival(frame.timestamp) + depth + hold;
    const previous = this.held.length > 0 ? this.held[this.held.length - 1].due : -Infinity;
    this.held.push({ frame, due: Math.max(due, previous) });
    if (this.held.length > HELD_LIMIT) this.releaseHeld(Infinity);
    else this.releaseHeld(nowMs);
  }

  /** How much later the sound is heard than the picture would be seen by itself; null without sound. */
  behindPicture(depth = this.depth.depthMs) {
    const sound = this.soundOffset();
    if (sound === null || this.clock.offset === null) return null;
    return sound - (this.clock.offset + depth + this.decodeTime.get() + this.displayTime.get());
  }

  releaseHeld(nowMs) {
    clearTimeout(this.queueTimer);
    while (this.held.length > 0 && this.held[0].due <= nowMs + 1) this.feed(this.held.shift().frame);
    if (this.held.length === 0) return;
    this.queueTimer = setTimeout(() => this.releaseHeld(performance.now()), this.held[0].due - nowMs);
  }

  feed(frame) {
    if (frame.isKeyframe && !this.acceptKeyframe(frame)) return;
    if (this.needsKeyframe) {
      this.drop(frame.receivedAt);
    } else if (this.pending) {
      this.pending.push(frame);
      if (this.pending.length > HELD_LIMIT) this.closeDecoder();
    } else {
      this.decode(frame);
    }
  }

  drop(nowMs) {
    this.counters.dropped++;
    this.keyframes.request(nowMs);
  }

  /** @returns {boolean} whether decoding can go on with this key frame */
  acceptKeyframe(frame) {
    const description = (this.codec === 'hevc' ? describeHevc : describeH264)(frame.payload);
    if (!description) {
      if (this.decoder && !this.needsKeyframe) return true; // parameter sets that we cannot read, but it runs
      this.drop(frame.receivedAt);
      return false;
    }
    const { codec, width, height } = description;
    const changed = codec !== this.codecString || width !== this.width || height !== this.height;
    if (changed || (!this.decoder && !this.pending)) {
      if (frame.receivedAt - this.failedAt < RETRY_AFTER_FAILURE_MS) {
        this.counters.dropped++;
        return false;
      }
      this.configure(codec, width, height);
    }
    this.needsKeyframe = false;
    return true;
  }

  configure(codec, width, height) {
    this.closeDecoder();
    this.codecString = codec;
    this.width = width;
    this.height = height;
    this.pending = [];
    this.events.onPictureSize(width, height);
    const generation = this.generation;
    supportedConfigurations(codec, this.softwareOnly, this.hardwareKeepsBack).then((choices) => {
      if (generation !== this.generation) return;
      if (choices.length === 0 && this.codec === 'hevc') {
        this.fail('no configuration supported');
        return;
      }
      // The answer is a hint only: where the browser promises nothing, it is still asked to do it.
      this.choices = choices.length > 0 ? choices : [{ label: 'unpromised', config: { codec } }];
      this.open();
    });
  }

  open() {
    const generation = this.generation;
    const { label, config } = this.choices[0];
    this.label = label;
    this.decoder = new VideoDecoder({
      output: (picture) => {
        if (generation === this.generation) this.output(picture);
        else picture.close();
      },
      error: (error) => {
        if (generation === this.generation) this.fail(error.message);
      },
    });
    try {
      this.decoder.configure(config);
    } catch (error) {
      this.fail(error.message);
      return;
    }
    const pending = this.pending;
    this.pending = null;
    for (const frame of pending) if (generation === this.generation) this.decode(frame);
  }

  decode(frame) {
    const now = performance.now();
    const oldest = this.inFlight.length > 0 ? this.inFlight[0].fedAt : null;
    if (decoderIsBehind({ oldestFedAtMs: oldest, inFlight: this.inFlight.length, nowMs: now, warm: this.outputs > 0 })) {
      if (!frame.isKeyframe) {
        this.needsKeyframe = true;
        this.drop(now);
        return;
      }
      this.counters.dropped += this.inFlight.length;
      this.inFlight = [];
      this.decoder.reset();
      this.decoder.configure(this.choices[0].config);
    }
    // Chunks are told apart by their time, so it must rise; the host's clock may repeat a microsecond.
    const timestamp = Math.max(frame.timestamp, this.lastTimestamp + 1);
    this.lastTimestamp = timestamp;
    this.inFlight.push({ timestamp, receivedAt: frame.receivedAt, fedAt: now });
    try {
      const type = frame.isKeyframe ? 'key' : 'delta';
      this.decoder.decode(new EncodedVideoChunk({ type, timestamp, data: frame.payload }));
    } catch (error) {
      this.fail(error.message);
    }
  }

  output(picture) {
    const now = performance.now();
    let entry = null;
    while (this.inFlight.length > 0 && this.inFlight[0].timestamp <= picture.timestamp) entry = this.inFlight.shift();
    this.counters.decoded++;
    this.failedAt = -Infinity;
    if (entry) this.decodeTime.add(now - entry.fedAt);
    const receivedAt = entry ? entry.receivedAt : now;
    this.probeDelay();
    try {
      this.events.onDecoded(picture, receivedAt, now);
    } finally {
      this.presenter.present(picture, { timestamp: picture.timestamp, receivedAt, decodedAt: now });
    }
  }

  /**
   * Counts how many frames the decoder keeps back. A hardware decoder that never gives one out for one in is left for
   * the next configuration, since every frame kept back is a frame of delay.
   */
  probeDelay() {
    if (this.outputs >= DELAY_PROBE_FRAMES) return;
    this.outputs++;
    this.keptBack = Math.min(this.keptBack, this.inFlight.length);
    if (this.outputs < DELAY_PROBE_FRAMES || this.keptBack === 0) return;
    if (this.label !== CONFIGURATIONS[0].label || this.choices.length === 1) return;
    this.hardwareKeepsBack = true;
    this.closeDecoder();
    this.keyframes.request(performance.now());
  }

  /** One more try with the software decoder, then another codec, then a pause. */
  fail(message) {
    this.counters.decodeErrors++;
    this.lastError = message;
    this.closeDecoder();
    const now = performance.now();
    if (!this.softwareOnly) {
      this.softwareOnly = true;
    } else {
      this.failedAt = now;
      this.events.onCodecUnusable(this.codec);
    }
    this.keyframes.request(now);
  }

  closeDecoder() {
    this.generation++;
    if (this.decoder && this.decoder.state !== 'closed') this.decoder.close();
    this.decoder = null;
    this.pending = null; // frames that wait for the configuration, while there is none
    this.codecString = '';
    this.needsKeyframe = true;
    this.inFlight = []; // what the decoder has and has not answered: {timestamp, receivedAt, fedAt}
    this.lastTimestamp = -1;
    this.outputs = 0;
    this.keptBack = Infinity;
  }

  /** Called once a second. */
  watch(nowMs) {
    if (this.inFlight.length > 2 && nowMs - this.inFlight[0].fedAt > STALL_MS) this.fail('The decoder gave no answer');
  }
}

/** The best presenter that this browser has: a track that feeds the video element, else a canvas. */
export function makePresenter(video, canvas, onShown) {
  const makeTrack = trackFactory();
  if (makeTrack) {
    canvas.hidden = true;
    return new TrackPresenter(video, makeTrack(), onShown);
  }
  video.hidden = true;
  return new CanvasPresenter(canvas, onShown);
}

function trackFactory() {
  if (typeof MediaStreamTrackGenerator !== 'undefined') {
    return () => {
      const track = new MediaStreamTrackGenerator({ kind: 'video' });
      return { track, writable: track.writable };
    };
  }
  if (typeof VideoTrackGenerator !== 'undefined') return () => new VideoTrackGenerator();
  return null;
}

/**
 * Writes pictures into a track. While one write is under way only the newest picture waits behind it; at most three
 * pictures are alive at a time. A written picture belongs to the track.
 */
class TrackPresenter {
  constructor(video, { track, writable }, onShown) {
    this.name = 'track';
    this.element = video;
    this.replaced = 0;
    this.shown = 0;
    this.onShown = onShown;
    this.writer = writable.getWriter();
    this.waiting = null;
    this.writing = false;
    this.newest = null;
    this.track = track;
    if (video.requestVideoFrameCallback) this.watchShown();
  }

  /** Not before the first picture: an element that waits for data holds back the page's load event. */
  attach() {
    this.element.muted = true;
    this.element.srcObject = new MediaStream([this.track]);
    this.track = null;
    const started = this.element.play();
    if (started) started.catch(() => {}); // autoplay of a muted track is only refused while hidden; it resumes by itself
  }

  watchShown() {
    this.element.requestVideoFrameCallback((now, metadata) => {
      this.shown++;
      if (this.newest) this.onShown({ ...this.newest, shownAt: performance.now(), metadata, element: this.element });
      this.watchShown();
    });
  }

  present(picture, info) {
    if (this.waiting) {
      this.waiting.picture.close();
      this.replaced++;
    }
    if (this.track) this.attach();
    this.waiting = { picture, info };
    this.write();
  }

  write() {
    if (this.writing || !this.waiting) return;
    const { picture, info } = this.waiting;
    this.waiting = null;
    this.writing = true;
    this.newest = info;
    if (!this.element.requestVideoFrameCallback) this.shown++;
    const done = () => {
      this.writing = false;
      this.write();
    };
    this.writer.write(picture).then(done, () => {
      picture.close();
      done();
    });
  }
}

/** Draws the newest picture once per display refresh. */
class CanvasPresenter {
  constructor(canvas, onShown) {
    this.name = 'canvas';
    this.element = canvas;
    this.replaced = 0;
    this.shown = 0;
    this.onShown = onShown;
    this.context = canvas.getContext('2d', { alpha: false, desynchronized: true });
    this.waiting = null;
  }

  present(picture, info) {
    if (this.waiting) {
      this.waiting.picture.close();
      this.replaced++;
    } else {
      requestAnimationFrame(() => this.draw());
    }
    this.waiting = { picture, info };
  }

  draw() {
    const { picture, info } = this.waiting;
    this.waiting = null;
    const { element } = this;
    if (element.width !== picture.displayWidth || element.height !== picture.displayHeight) {
      element.width = picture.displayWidth;
      element.height = picture.displayHeight;
    }
    this.context.drawImage(picture, 0, 0);
    picture.close();
    this.shown++;
    this.onShown({ ...info, shownAt: performance.now(), metadata: null, element });
  }
}

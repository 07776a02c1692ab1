/**
 * The sound. This module is loaded twice: by the page, where `Sound` owns the audio graph, and into the audio thread,
 * where `PlaybackEngine` turns batches of samples into a steady stream. What is heard is also the clock that the picture
 * follows in video mode.
 */

import { HeardClock } from './decoder-clock.js';
import { DriftController, SoundReserve } from './adaptive-quality.js';

const RING_FRAMES = 262144; // a power of two; 5.4 s at 48 kHz
const TAPS = 24;
const HALF_TAPS = TAPS / 2;
const PHASES = 256;
const FADE_FRAMES = 240; // 5 ms at 48 kHz
const SEAM_FRAMES = 128;
const GAP_MS = 40; // stamps scatter by less
const EXCESS_MS = 400; // beyond the target: too much to wait until it has been played away
const SETTLING_EXCESS_MS = 100;
const SETTLING_SECONDS = 1;
const FADE_OUT_MS = 250;
const WAKE_UP_MS = 1000;
const LONGEST_BATCH_MS = 300; // the host answers a poll for live sound within 250 ms

/**
 * A windowed sinc (Kaiser, beta 8, cut-off 0.93 of half the sampling rate), one row for each of PHASES + 1 places
 * between two samples. A longer filter than a straight line between samples, because the speed is hardly ever exactly 1
 * and the treble would come and go with the phase.
 */
export function makeSincTable() {
  const bessel = (x) => {
    let sum = 1;
    let term = 1;
    for (let k = 1; k < 32; k++) sum += term *= (x / (2 * k)) ** 2;
    return sum;
  };
  const cutOff = 0.93;
  const table = new Float32Array((PHASES + 1) * TAPS);
  for (let phase = 0; phase <= PHASES; phase++) {
    let sum = 0;
    for (let tap = 0; tap < TAPS; tap++) {
      const distance = tap - (HALF_TAPS - 1) - phase / PHASES;
      const x = Math.PI * cutOff * distance;
      const window = bessel(8 * Math.sqrt(Math.max(0, 1 - (distance / HALF_TAPS) ** 2)));
      table[phase * TAPS + tap] = (Math.abs(x) < 1e-9 ? 1 : Math.sin(x) / x) * window;
      sum += table[phase * TAPS + tap];
    }
    for (let tap = 0; tap < TAPS; tap++) table[phase * TAPS + tap] /= sum;
  }
  return table;
}

/** Two channels of samples at absolute positions, which only grow; the memory behind them goes round. */
export class SampleRing {
  constructor(capacity = RING_FRAMES) {
    this.capacity = capacity;
    this.mask = capacity - 1;
    this.left = new Float32Array(capacity);
    this.right = new Float32Array(capacity);
    this.end = 0; // position behind the newest frame
  }

  /** Writes frames `from` up to `frames` of interleaved samples; one channel goes to both sides, a third is left out. */
  write(samples, channels, from, frames) {
    const second = channels > 1 ? 1 : 0;
    let index = this.end % this.capacity;
    for (let frame = from; frame < frames; frame++) {
      this.left[index] = samples[frame * channels] / 32768;
      this.right[index] = samples[frame * channels + second] / 32768;
      index = (index + 1) & this.mask;
    }
    this.end += frames - from;
  }

  writeSilence(frames) {
    let index = this.end % this.capacity;
    for (let i = 0; i < frames; i++) {
      this.left[index] = this.right[index] = 0;
      index = (index + 1) & this.mask;
    }
    this.end += frames;
  }

  /** Fades `frames` frames from `position` on, linearly between two gains. */
  fade(position, frames, fromGain, toGain) {
    for (let i = 0; i < frames; i++) {
      const index = (position + i) % this.capacity;
      const gain = fromGain + ((toGain - fromGain) * (i + 0.5)) / frames;
      this.left[index] *= gain;
      this.right[index] *= gain;
    }
  }
}

/** Which presentation time belongs to which position: a straight line, and at most one break that lies ahead. */
export class Timeline {
  constructor() {
    this.anchor = { position: 0, pts: NaN };
    this.ahead = { position: 0, pts: NaN };
  }

  /** From `position` on the times are new. */
  rebase(position, pts, readPosition) {
    this.passed(readPosition);
    const target = Number.isNaN(this.anchor.pts) || position <= readPosition ? this.anchor : this.ahead;
    target.position = position;
    target.pts = pts;
  }

  /** Follows the stamps of the newest stretch without repeating their scatter. */
  nudge(microseconds) {
    (Number.isNaN(this.ahead.pts) ? this.anchor : this.ahead).pts += 0.1 * microseconds;
  }

  forget() {
    this.anchor.pts = this.ahead.pts = NaN;
  }

  passed(readPosition) {
    if (Number.isNaN(this.ahead.pts) || readPosition < this.ahead.position) return;
    this.anchor.position = this.ahead.position;
    this.anchor.pts = this.ahead.pts;
    this.ahead.pts = NaN;
  }

  /** Presentation time of a position that is being read; NaN if nothing is known. */
  at(position, rate) {
    this.passed(position);
    return this.anchor.pts + ((position - this.anchor.position) * 1e6) / rate;
  }

  /** Presentation time that a frame written at `end` would have if nothing were missing. */
  atEnd(end, rate) {
    const newest = Number.isNaN(this.ahead.pts) ? this.anchor : this.ahead;
    return newest.pts + ((end - newest.position) * 1e6) / rate;
  }
}

/**
 * Batches in, a steady stream out. Lives on the audio thread and allocates nothing while it renders. `now` is the audio
 * clock in seconds.
 *
 * It starts once the buffer covers the reserve until the next batch, then plays with a speed of 1 and a few parts in a
 * thousand. Every cut (running dry, dropping what came too late, a gap) is faded.
 */
export class PlaybackEngine {
  constructor(outputRate) {
    this.outputRate = outputRate;
    this.table = makeSincTable();
    this.ring = new SampleRing();
    this.timeline = new Timeline();
    this.reserve = new SoundReserve();
    this.drift = new DriftController();
    this.rate = 48000; // of the samples
    this.position = HALF_TAPS; // of the next frame to play, with a fraction
    this.ring.end = HALF_TAPS;
    this.playing = false;
    this.ranDry = false;
    this.gain = 0;
    this.cutTo = NaN; // where to go on once the fade has reached silence
    this.resumeAfterCut = false;
    this.startedAt = 0;
    this.arrivedAt = -Infinity;
    this.batchMs = 0;
    this.underruns = 0;
    this.gaps = 0;
  }

  get levelMs() {
    return (Math.max(0, this.ring.end - HALF_TAPS - this.position) * 1000) / this.rate;
  }

  /** Frames of the samples that pass in one millisecond. */
  frames(milliseconds) {
    return Math.round((milliseconds * this.rate) / 1000);
  }

  append({ pts, rate, channels, frames, samples }, now) {
    if (rate !== this.rate) this.changeRate(rate);
    const left = this.levelMs;
    const missingMs = (pts - this.timeline.atEnd(this.ring.end, this.rate)) / 1000;
    const fresh = Number.isNaN(missingMs);
    const continuous = Math.abs(missingMs) < GAP_MS;
    if (this.ranDry && continuous) {
      // The host went on without a pause, so it was the road that was late.
      this.underruns++;
      this.reserve.underrun(now);
    }
    this.ranDry = false;
    if (!fresh && !continuous) this.bridge(missingMs, left);
    if (continuous) this.timeline.nudge(missingMs * 1000);
    else this.timeline.rebase(this.ring.end, pts, this.position);
    this.store(samples, channels, frames);
    if (!continuous && frames <= this.ring.capacity / 2) this.ring.fade(this.ring.end - frames, Math.min(frames, SEAM_FRAMES), 0, 1);
    this.arrivedAt = now;
    this.batchMs = Math.min(LONGEST_BATCH_MS, (frames * 1000) / this.rate);
    if (this.playing && Number.isNaN(this.cutTo)) this.steer(left, now);
  }

  store(samples, channels, frames) {
    // More than fits is no longer live: of a huge batch the newest part is kept, and of what waits likewise.
    const { ring } = this;
    const most = ring.capacity / 2;
    const from = Math.max(0, frames - most);
    ring.end += from;
    ring.write(samples, channels, from, frames);
    this.position = Math.max(this.position, ring.end - (from > 0 ? most : ring.capacity) + TAPS);
  }

  /** Something is missing in front of a batch: silence takes its place as far as the reserve is short. */
  bridge(missingMs, leftMs) {
    this.gaps++;
    const { ring } = this;
    const tail = Math.min(SEAM_FRAMES, Math.floor(ring.end - HALF_TAPS - this.position));
    if (tail > 0) ring.fade(ring.end - tail, tail, 1, 0);
    if (!this.playing) return;
    const fillMs = Math.max(0, Math.min(missingMs, this.reserve.targetMs - leftMs));
    ring.writeSilence(this.frames(fillMs));
  }

  /** Adapts reserve and speed to what was left when a batch came. */
  steer(leftMs, now) {
    const { drift, reserve } = this;
    const usual = drift.levelMs;
    reserve.arrived(usual === null ? 0 : usual - leftMs, now);
    const excess = leftMs - reserve.targetMs;
    if (excess > (now - this.startedAt < SETTLING_SECONDS ? SETTLING_EXCESS_MS : EXCESS_MS)) {
      this.cut(this.position + this.frames(excess), true);
      drift.restart();
    } else {
      drift.update(leftMs, reserve.targetMs, now);
    }
  }

  cut(position, resume) {
    this.cutTo = position;
    this.resumeAfterCut = resume;
    if (!this.playing) this.finishCut();
  }

  finishCut() {
    this.position = Math.min(Math.max(this.position, this.cutTo), this.ring.end - HALF_TAPS);
    this.cutTo = NaN;
    this.playing = this.playing && this.resumeAfterCut;
  }

  /** Drops what is held; the next batch is a new beginning. */
  jump() {
    this.cut(this.ring.end - HALF_TAPS, false);
    this.timeline.forget();
    this.drift.restart();
    this.ranDry = false;
  }

  changeRate(rate) {
    this.playing = false;
    this.gain = 0;
    this.jump();
    this.rate = rate;
  }

  /** Whether to begin, so that what is left at the next arrival is the reserve. */
  tryStart(now) {
    const level = this.levelMs;
    const wanted = Math.max(0, this.reserve.targetMs + this.batchMs - (now - this.arrivedAt) * 1000);
    if (level <= (2000 * FADE_FRAMES) / this.outputRate || level < wanted) return;
    // At a start more than needed is what came late; what there is of a short sound is played whole.
    const needed = Math.max(wanted, this.reserve.targetMs);
    if (level > needed + SETTLING_EXCESS_MS) this.position += this.frames(level - needed);
    this.playing = true;
    this.startedAt = now;
    this.drift.restart();
  }

  /** Fills two blocks of the same length. */
  render(left, right, now) {
    if (!this.playing) this.tryStart(now);
    let done = 0;
    if (this.playing) done = this.play(left, right, left.length);
    left.fill(0, done);
    right.fill(0, done);
  }

  /** @returns {number} how many frames were played */
  play(left, right, count) {
    const step = (this.rate / this.outputRate) * (1 + this.drift.correction);
    const end = this.ring.end - HALF_TAPS;
    const fade = 1 / FADE_FRAMES;
    for (let i = 0; i < count; i++) {
      const dry = this.position + (FADE_FRAMES + 2) * step > end;
      const silent = dry || !Number.isNaN(this.cutTo);
      this.gain = silent ? Math.max(0, this.gain - fade) : Math.min(1, this.gain + fade);
      if (silent && this.gain === 0) {
        if (!Number.isNaN(this.cutTo)) {
          this.finishCut();
        } else {
          this.playing = false;
          this.ranDry = true;
        }
        if (!this.playing) return i;
      }
      if (this.position >= end) {
        // A fade from the middle of a rise may come to the end a little early.
        this.gain = 0;
        this.playing = false;
        this.ranDry = true;
        return i;
      }
      this.interpolate(left, right, i);
      this.position += step;
    }
    return count;
  }

  interpolate(left, right, i) {
    const { table, ring } = this;
    const base = Math.floor(this.position);
    const phase = (this.position - base) * PHASES;
    const row = Math.floor(phase) * TAPS;
    const weight = phase - Math.floor(phase);
    const first = (base - HALF_TAPS + 1) % ring.capacity;
    let sumLeft = 0;
    let sumRight = 0;
    for (let tap = 0; tap < TAPS; tap++) {
      const near = table[row + tap];
      const coefficient = near + (table[row + TAPS + tap] - near) * weight;
      const index = (first + tap) & ring.mask;
      sumLeft += ring.left[index] * coefficient;
      sumRight += ring.right[index] * coefficient;
    }
    left[i] = sumLeft * this.gain;
    right[i] = sumRight * this.gain;
  }

  report(now) {
    const { reserve, drift } = this;
    return {
      time: now,
      pts: this.playing ? this.timeline.at(this.position, this.rate) : NaN,
      playing: this.playing,
      levelMs: this.levelMs,
      leftMs: drift.levelMs === null ? reserve.targetMs : drift.levelMs,
      targetMs: reserve.targetMs,
      driftMs: drift.errorMs,
      correction: drift.correction,
      underruns: this.underruns,
      gaps: this.gaps,
    };
  }
}

if (typeof AudioWorkletProcessor !== 'undefined') {
  registerProcessor('kestrune-playback', class extends AudioWorkletProcessor {
    constructor() {
      super();
      this.engine = new PlaybackEngine(sampleRate);
      this.port.onmessage = ({ data }) => {
        if (data.batch) this.engine.append(data.batch, currentTime);
        if (data.jump) this.engine.jump();
        if (data.floorMs !== undefined) this.engine.reserve.floorMs = data.floorMs;
        // Reports answer messages and are never sent while rendering, which must not allocate.
        this.port.postMessage(this.engine.report(currentTime));
      };
    }

    process(inputs, outputs) {
      const output = outputs[0];
      this.engine.render(output[0], output[1], currentTime);
      return true;
    }
  });
}

/**
 * The audio graph of the page: engine, mute, analyser, loudspeaker.
 *   state  'off'          nothing to play: no stream, or control mode
 *          'locked'       the browser waits for the user's first gesture
 *          'interrupted'  the system took the sound away
 *          'muted'        by the user
 *          'buffering', 'playing', 'unsupported'
 * `onChange()` is called when the state changed; `onReady(ready)` when sound can be taken in, or no longer.
 */
export class Sound {
  constructor({ onChange, onReady }) {
    this.onChange = onChange;
    this.onReady = onReady;
    this.supported = typeof AudioContext !== 'undefined' && typeof AudioWorkletNode !== 'undefined';
    this.wanted = false;
    this.muted = false;
    this.context = null;
    this.node = null;
    this.wasRunning = false;
    this.isResting = false; // stopped by ourselves, until it runs again
    this.ready = false;
    this.shownState = this.state;
    this.heard = new HeardClock();
    this.last = null;
  }

  get state() {
    if (!this.supported) return 'unsupported';
    if (!this.wanted) return 'off';
    if (this.muted) return 'muted';
    if (!this.context || (this.context.state !== 'running' && !this.isResting)) return this.wasRunning ? 'interrupted' : 'locked';
    return this.last && this.last.playing ? 'playing' : 'buffering';
  }

  setWanted(wanted) {
    if (wanted === this.wanted) return;
    this.wanted = wanted;
    if (wanted) this.open();
    this.restOrWake();
    this.update();
  }

  toggleMute() {
    this.muted = !this.muted;
    if (this.context) this.volume.gain.setTargetAtTime(this.muted ? 0 : 1, this.context.currentTime, 0.01);
    this.restOrWake();
    this.resume();
    this.update();
  }

  get isNeeded() {
    return this.wanted && !this.muted;
  }

  /** The audio thread costs as much for silence as for sound, so it rests while nothing is to be heard. */
  restOrWake() {
    clearTimeout(this.restTimer);
    const { context } = this;
    if (!context || context.state === 'closed') return;
    if (!this.isNeeded) {
      this.restTimer = setTimeout(() => this.rest(), FADE_OUT_MS);
    } else if (this.isResting) {
      this.resume();
      // Where the system does not give the sound back, the user is asked.
      this.restTimer = setTimeout(() => this.nowAwake(), WAKE_UP_MS);
    }
  }

  rest() {
    if (this.context.state !== 'running') return;
    this.jump(); // a report says that nothing plays any more
    this.isResting = true;
    this.context.suspend().catch(() => {}); // closed meanwhile
  }

  nowAwake() {
    this.isResting = false;
    this.update();
  }

  async open() {
    if (!this.supported || this.context) return;
    let context;
    try {
      context = new AudioContext({ sampleRate: 48000, latencyHint: 'interactive' });
    } catch (error) {
      this.supported = false; // no sound device, or too many of its users
      this.update();
      return;
    }
    this.context = context;
    this.volume = context.createGain();
    this.volume.gain.value = this.muted ? 0 : 1;
    this.analyser = context.createAnalyser();
    this.volume.connect(this.analyser).connect(context.destination);
    context.addEventListener('statechange', () => {
      if (context.state === 'running') this.isResting = false;
      this.restOrWake();
      this.update();
    });
    try {
      await context.audioWorklet.addModule(new URL('audio-runtime.js', import.meta.url).href);
    } catch (error) {
      this.supported = false;
      this.update();
      return;
    }
    this.node = new AudioWorkletNode(context, 'kestrune-playback', { numberOfInputs: 0, outputChannelCount: [2] });
    this.node.port.onmessage = ({ data }) => this.reported(data);
    this.node.connect(this.volume);
    this.update();
  }

  /** From a gesture, or when an interruption may be over. */
  resume() {
    if (!this.context || !this.isNeeded || this.context.state === 'closed') return;
    if (this.context.state !== 'running' || this.isResting) {
      this.context.resume().catch(() => {}); // refused without a gesture; the state says so
    }
  }

  update() {
    const running = this.context !== null && this.context.state === 'running';
    if (running) this.wasRunning = true;
    const ready = running && this.node !== null && this.wanted && !this.muted;
    if (ready !== this.ready) {
      this.ready = ready;
      this.jump();
      this.onReady(ready);
    }
    if (this.state === this.shownState) return;
    this.shownState = this.state;
    this.onChange();
  }

  /** @param batch of `parseAudioBatch`; its memory is given away */
  feed(batch) {
    if (this.ready) this.node.port.postMessage({ batch }, [batch.samples.buffer]);
  }

  /** Drops what waits to be heard. */
  jump() {
    this.heard.offset = null;
    if (this.node) this.node.port.postMessage({ jump: true });
  }

  /** Keeps the sound back so that it does not run ahead of a picture that would be later by `lateMs`. */
  waitForPicture(lateMs) {
    if (this.last) this.node.port.postMessage({ floorMs: Math.max(0, this.last.leftMs + lateMs) });
  }

  reported(report) {
    this.last = report;
    this.heard.add(this.ready ? report : { pts: NaN }, this.outputTime());
    this.update();
  }

  outputTime() {
    const { context } = this;
    const stamp = context.getOutputTimestamp ? context.getOutputTimestamp() : null;
    if (stamp && stamp.performanceTime > 0) return stamp;
    const latency = context.outputLatency || context.baseLatency || 0;
    return { contextTime: context.currentTime - latency, performanceTime: performance.now() };
  }

  /** `performance.now()` minus the host's milliseconds of what is heard; null while nothing is. */
  get offset() {
    return this.ready ? this.heard.offset : null;
  }

  get facts() {
    const { last } = this;
    const active = this.ready && last !== null;
    return {
      state: this.state,
      bufferMilliseconds: active ? last.levelMs : 0,
      targetMilliseconds: active ? last.targetMs : 0,
      driftMilliseconds: active ? last.driftMs : 0,
      correction: active ? last.correction : 0,
      underruns: last ? last.underruns : 0,
      gaps: last ? last.gaps : 0,
      contextState: this.context ? this.context.state : 'none',
    };
  }
}

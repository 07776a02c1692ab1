/**
 * Time measures of the stream: how the host's clock stands against ours, how much the network jitters, and averages.
 * All times are milliseconds of `performance.now()` unless a name says otherwise, and are handed in, never read here.
 */

const OFFSET_WINDOW_MS = 10000;
const OFFSET_BUCKETS = 10;

/**
 * Estimates the offset between the host's presentation clock and ours by the smallest (arrival - presentation) of the
 * last ten seconds: the frame with the least delay was on the road for the shortest time. What a later frame has beyond
 * it is queueing. The window lets the estimate follow a drift of the clocks and a change of route.
 *
 * The constant part of the road (encoding and the shortest transit) is invisible from one side, so half of the smallest
 * control round trip stands for it.
 */
export class ClockOffsetFilter {
  constructor() {
    this.reset();
  }

  reset() {
    this.buckets = []; // {start, minimum}, oldest first
    this.roundTripMs = null;
  }

  /** @returns {number} how much later than the best frame this one arrived, in milliseconds, never negative */
  add(presentationMicroseconds, arrivalMs) {
    const sample = arrivalMs - presentationMicroseconds / 1000;
    const width = OFFSET_WINDOW_MS / OFFSET_BUCKETS;
    const newest = this.buckets[this.buckets.length - 1];
    if (newest && arrivalMs - newest.start < width) newest.minimum = Math.min(newest.minimum, sample);
    else this.buckets.push({ start: arrivalMs, minimum: sample });
    while (arrivalMs - this.buckets[0].start > OFFSET_WINDOW_MS) this.buckets.shift();
    return sample - this.offset;
  }

  /** Smallest arrival minus presentation in the window; null before the first frame. */
  get offset() {
    if (this.buckets.length === 0) return null;
    return this.buckets.reduce((least, bucket) => Math.min(least, bucket.minimum), Infinity);
  }

  addRoundTrip(milliseconds) {
    // The smallest seen, leaking upwards by 1 % a sample so that a longer route shows after a while.
    const decayed = this.roundTripMs === null ? Infinity : this.roundTripMs * 1.01;
    this.roundTripMs = Math.min(decayed, milliseconds);
  }

  /** When a frame of this presentation time arrives if nothing delays it. */
  expectedArrival(presentationMicroseconds) {
    return presentationMicroseconds / 1000 + (this.offset || 0);
  }

  /** Estimated age at `nowMs` of a frame since its capture. */
  latency(presentationMicroseconds, nowMs) {
    if (this.offset === null) return 0;
    return Math.max(0, nowMs - this.expectedArrival(presentationMicroseconds)) + (this.roundTripMs || 0) / 2;
  }
}

/** Exponential average that starts at its first sample. */
export class SmoothedValue {
  constructor(weight = 0.1) {
    this.weight = weight;
    this.value = null;
  }

  add(sample) {
    this.value = this.value === null ? sample : this.value + (sample - this.value) * this.weight;
  }

  get() {
    return this.value === null ? 0 : this.value;
  }
}

const HEARD_WEIGHT = 0.2;
const HEARD_JUMP_MS = 60;

/**
 * When a presentation time is heard, as an offset: milliseconds of `performance.now()` minus milliseconds of the host's
 * clock. Pure.
 */
export class HeardClock {
  constructor() {
    this.offset = null;
  }

  /**
   * @param {{time: number, pts: number}} report of the engine
   * @param {{contextTime: number, performanceTime: number}} output which second of the audio clock is heard when
   */
  add(report, output) {
    if (Number.isNaN(report.pts)) {
      this.offset = null;
      return;
    }
    const heardAt = output.performanceTime + (report.time - output.contextTime) * 1000;
    const sample = heardAt - report.pts / 1000;
    const jumped = this.offset === null || Math.abs(sample - this.offset) > HEARD_JUMP_MS;
    this.offset = jumped ? sample : this.offset + (sample - this.offset) * HEARD_WEIGHT;
  }
}

/**
 * The decisions that trade smoothness against delay: how deep the picture queue is in video mode, when the stream must
 * be refreshed by a key frame, how much sound is kept in reserve and how fast it plays. Pure logic, time is handed in.
 */

const MAXIMUM_DEPTH_MS = 250;
const MINIMUM_DEPTH_MS = 4;
const JITTER_WINDOW = 180; // frames: three seconds at 60 frames per second
const SHRINK_MS_PER_SECOND = 12;
const JITTER_PERCENTILE = 0.95;
const HEADROOM_MS = 4;

/**
 * Depth of the picture queue in video mode. It covers the lateness of 95 of 100 recent frames, grows at once when the
 * road gets worse, since a stutter is seen immediately, and shrinks slowly, since a shrinking queue plays faster.
 * In control mode there is no queue, and it is not consulted.
 */
export class QueueDepth {
  constructor() {
    this.reset();
  }

  reset() {
    this.samples = [];
    this.depthMs = MINIMUM_DEPTH_MS;
    this.updatedAt = null;
  }

  /** @param {number} latenessMs how much later than the best frame this one arrived */
  add(latenessMs, nowMs) {
    this.samples.push(Math.max(0, latenessMs));
    if (this.samples.length > JITTER_WINDOW) this.samples.shift();
    const target = this.target();
    const elapsed = this.updatedAt === null ? 0 : nowMs - this.updatedAt;
    this.updatedAt = nowMs;
    const shrunk = this.depthMs - (SHRINK_MS_PER_SECOND * elapsed) / 1000;
    this.depthMs = Math.max(target, shrunk);
    return this.depthMs;
  }

  target() {
    const sorted = [...this.samples].sort((a, b) => a - b);
    const index = Math.min(sorted.length - 1, Math.floor(sorted.length * JITTER_PERCENTILE));
    const jitter = sorted.length === 0 ? 0 : sorted[index];
    return Math.min(MAXIMUM_DEPTH_MS, Math.max(MINIMUM_DEPTH_MS, jitter + HEADROOM_MS));
  }
}

/** A key frame costs the host and the network a lot: at most one request in 0.8 s. */
export class KeyframeRequests {
  constructor(send, minimumSpacingMs = 800) {
    this.send = send;
    this.minimumSpacingMs = minimumSpacingMs;
    this.lastAt = -Infinity;
  }

  /** @returns {boolean} whether the request went out */
  request(nowMs) {
    if (nowMs - this.lastAt < this.minimumSpacingMs) return false;
    this.lastAt = nowMs;
    this.send();
    return true;
  }
}

/** Whether the decoder lags so far behind that waiting is worse than starting over at a key frame. */
export function decoderIsBehind({ oldestFedAtMs, inFlight, nowMs, warm }) {
  if (oldestFedAtMs === null || inFlight < 3) return false;
  return nowMs - oldestFedAtMs > (warm ? 200 : 2000);
}

const FIRST_RESERVE_MS = 120;
const LEAST_RESERVE_MS = 40;
const MOST_RESERVE_MS = 600;
const RESERVE_STEP_MS = 40;
const RESERVE_MARGIN_MS = 30;
const RESERVE_SHRINK_MS_PER_SECOND = 3;
const CALM_SECONDS = 8; // without an underrun before the reserve shrinks
const DIP_SECONDS = 5; // width of one of the buckets below
const DIP_BUCKETS = 6;

/**
 * How much sound should be left when the next batch arrives. Batches come four or five times a second, so what is held
 * right after one of them is larger by its length. The reserve grows by an underrun, and as soon as arrivals scatter
 * more than it covers; it shrinks slowly while the network is calm, to what the last half minute needed.
 */
export class SoundReserve {
  constructor() {
    this.ownMs = FIRST_RESERVE_MS;
    this.floorMs = 0; // asked for from outside, to wait for a slower picture
    this.changedAt = null;
    this.calmSince = null;
    this.dips = new Float64Array(DIP_BUCKETS); // deepest dip below the usual level, milliseconds
    this.bucket = 0;
    this.bucketSince = 0;
  }

  get targetMs() {
    return Math.max(this.ownMs, Math.min(MOST_RESERVE_MS, this.floorMs));
  }

  underrun(now) {
    this.ownMs = Math.min(MOST_RESERVE_MS, Math.max(this.ownMs + RESERVE_STEP_MS, this.ownMs * 1.5));
    this.calmSince = now;
  }

  /**
   * A batch came in time.
   * @param {number} dipMs how much less than usual was left at that moment
   * @param {number} now seconds
   */
  arrived(dipMs, now) {
    if (this.calmSince === null) this.calmSince = this.changedAt = this.bucketSince = now;
    if (now - this.bucketSince >= DIP_SECONDS) {
      this.bucketSince = now;
      this.bucket = (this.bucket + 1) % DIP_BUCKETS;
      this.dips[this.bucket] = 0;
    }
    this.dips[this.bucket] = Math.max(this.dips[this.bucket], dipMs);
    let deepest = 0;
    for (let i = 0; i < DIP_BUCKETS; i++) deepest = Math.max(deepest, this.dips[i]);
    const needed = Math.min(MOST_RESERVE_MS, Math.max(LEAST_RESERVE_MS, deepest + RESERVE_MARGIN_MS));
    const shrink = now - this.calmSince < CALM_SECONDS ? 0 : RESERVE_SHRINK_MS_PER_SECOND * (now - this.changedAt);
    this.changedAt = now;
    this.ownMs = Math.max(needed, this.ownMs - shrink);
  }
}

const MOST_CORRECTION = 0.005; // 9 cents, below what can be heard; it moves 5 ms in a second
const MOST_CLOCK_DRIFT = 0.002; // far beyond any pair of crystals
const PROPORTIONAL_PER_MS = 0.0001; // an error decays with a time constant of 10 s
const INTEGRAL_PER_MS_SECOND = 0.0000025; // critically damped with the above
const LEVEL_WEIGHT_PER_SECOND = 0.45;

/**
 * Speed of playback, as a proportional-integral controller of what is left at arrivals: the proportional part brings the
 * level to its target, the integral learns by how much the two machines' clocks differ.
 */
export class DriftController {
  constructor() {
    this.integral = 0;
    this.restart();
  }

  /** The level is about to jump; what was learnt of the clocks stays. */
  restart() {
    this.levelMs = null; // smoothed
    this.errorMs = 0;
    this.updatedAt = null;
    this.correction = this.integral;
  }

  /** @returns {number} what to add to a speed of 1 */
  update(levelMs, targetMs, now) {
    const elapsed = this.updatedAt === null ? 0 : Math.min(2, now - this.updatedAt);
    this.updatedAt = now;
    if (this.levelMs === null) this.levelMs = levelMs;
    else this.levelMs += (levelMs - this.levelMs) * Math.min(1, elapsed * LEVEL_WEIGHT_PER_SECOND);
    this.errorMs = this.levelMs - targetMs;
    const wanted = this.errorMs * PROPORTIONAL_PER_MS + this.integral;
    // While the limit is hit the integral would only wind up.
    if (Math.abs(wanted) < MOST_CORRECTION) {
      const learnt = this.integral + this.errorMs * INTEGRAL_PER_MS_SECOND * elapsed;
      this.integral = hold(learnt, MOST_CLOCK_DRIFT);
    }
    this.correction = hold(wanted, MOST_CORRECTION);
    return this.correction;
  }
}

function hold(value, limit) {
  return Math.min(limit, Math.max(-limit, value));
}

const FARTHEST_SYNC_MS = 1000;
const SYNC_SLEW = 0.15; // a moving picture that is this much slower or faster for a second or two goes unnoticed

/**
 * How much longer than its own queue the picture waits for the sound. Moves gradually, so that sound that begins or ends
 * does not freeze the picture.
 */
export class PictureHold {
  constructor() {
    this.holdMs = 0;
    this.updatedAt = null;
  }

  /** @param {number | null} wantedMs how much later than the picture the sound would be heard; null without sound */
  update(wantedMs, nowMs) {
    const elapsed = this.updatedAt === null ? 0 : Math.min(200, nowMs - this.updatedAt);
    this.updatedAt = nowMs;
    const possible = wantedMs !== null && Math.abs(wantedMs) <= FARTHEST_SYNC_MS;
    const goal = possible ? Math.max(0, wantedMs) : 0;
    this.holdMs += hold(goal - this.holdMs, SYNC_SLEW * elapsed);
    return this.holdMs;
  }
}

const REBUILD_TARGETS_MS = [5000, 10000, 15000, 20000];
const REPEATED_WITHIN_MS = 120000;
const CALM_BEFORE_SHRINK_MS = 300000;

/**
 * How much of the stream the host keeps for this viewer while the relay is broken, in milliseconds: one of
 * REBUILD_TARGETS_MS. It grows by a step when the picture ran out twice within two minutes, at once to what a longer
 * break would have needed, and shrinks by a step after five minutes without a break. It costs memory at the host and
 * adds no delay here.
 */
export class RebuildTarget {
  constructor() {
    this.step = 0;
    this.ranOutAt = -Infinity; // the break that may be the first of two
    this.changedAt = -Infinity; // by a break or a step
  }

  /** The picture ran out for `lengthMs`, until now. */
  ranOut(lengthMs, nowMs) {
    const repeated = nowMs - this.ranOutAt <= REPEATED_WITHIN_MS;
    const last = REBUILD_TARGETS_MS.length - 1;
    const covering = REBUILD_TARGETS_MS.findIndex((target) => target >= lengthMs);
    const step = Math.max(this.at(nowMs) + (repeated ? 1 : 0), covering < 0 ? last : covering);
    this.ranOutAt = repeated ? -Infinity : nowMs;
    this.step = Math.min(last, step);
    this.changedAt = nowMs;
  }

  milliseconds(nowMs) {
    return REBUILD_TARGETS_MS[this.at(nowMs)];
  }

  at(nowMs) {
    while (this.step > 0 && nowMs - this.changedAt >= CALM_BEFORE_SHRINK_MS) {
      this.step--;
      this.changedAt += CALM_BEFORE_SHRINK_MS;
    }
    return this.step;
  }
}

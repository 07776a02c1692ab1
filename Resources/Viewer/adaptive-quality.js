/**
 * The decisions that trade smoothness against delay: how deep the picture queue is in video mode, and when the stream
 * must be refreshed by a key frame. Pure logic, time is handed in.
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
 * In control mode nobody asks: there is no queue.
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

/** A key frame costs the host and the road a lot: at most one request in 0.8 s, and none while one is under way. */
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

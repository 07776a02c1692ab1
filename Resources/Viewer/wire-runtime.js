/**
 * The connection: one WebSocket after another, authentication, liveness and the policy of reconnecting.
 */

import { control } from './control-protocol.js';

const PING_INTERVAL_MS = 2000;
const MISSED_ANSWERS = 2;
const CONNECT_TIMEOUT_MS = 10000;
/** A ghost of our own lost link may still be held by the host for a while; within this time we may push it aside. */
const GHOST_MS = 15000;

const FIRST_DELAY_MS = 400;
const LONGEST_DELAY_MS = 15000;
const BUSY_DELAY_MS = 20000;

/**
 * What a closed connection means for the next one. Pure: randomness is handed in.
 * The delay doubles with every attempt that failed and is drawn from its upper half, so that viewers of a restarted
 * host do not come back in step.
 */
export class ReconnectPolicy {
  constructor(random = Math.random) {
    this.random = random;
    this.failures = 0;
  }

  /** A connection was authenticated. */
  succeeded() {
    this.failures = 0;
  }

  /**
   * @returns {{action: 'retry' | 'askTakeover' | 'replaced' | 'unauthorized', delayMs?: number, busy?: boolean}}
   */
  closed(code, reason) {
    if (code === 4001) return { action: reason === 'Replaced by newer viewer' ? 'replaced' : 'askTakeover' };
    if (code === 1008 && reason === 'Unauthorized') return { action: 'unauthorized' };
    if (code === 1013) return { action: 'retry', delayMs: this.jittered(BUSY_DELAY_MS), busy: true };
    const delay = Math.min(LONGEST_DELAY_MS, FIRST_DELAY_MS * 2 ** this.failures);
    this.failures = Math.min(this.failures + 1, 16);
    return { action: 'retry', delayMs: this.jittered(delay) };
  }

  jittered(delay) {
    return delay / 2 + (this.random() * delay) / 2;
  }
}

/** Counts unanswered pings. Pure: the owner calls `due` at every interval. */
export class Liveness {
  constructor() {
    this.unanswered = 0;
    this.sentAt = null;
  }

  /** @returns {boolean} false when the link is dead; otherwise a ping goes out now */
  due(nowMs) {
    if (this.unanswered >= MISSED_ANSWERS) return false;
    this.unanswered++;
    this.sentAt = nowMs;
    return true;
  }

  /** @returns {number | null} the round trip in milliseconds, where the answer fits the newest ping */
  answered(nowMs) {
    const roundTrip = this.unanswered === 1 && this.sentAt !== null ? nowMs - this.sentAt : null;
    this.unanswered = 0;
    return roundTrip;
  }
}

/** The address of the stream beside the page. The token never becomes part of it. */
export function streamAddress(location) {
  return `${location.protocol === 'https:' ? 'wss:' : 'ws:'}//${location.host}/stream`;
}

/**
 * Keeps a viewer connected. Events go to `handlers`:
 *   onPhase(phase, details)  'connecting', 'connected', 'waiting' {delayMs, busy}, 'askTakeover', 'replaced',
 *                            'unauthorized', 'stopped'
 *   onMessage(object)        a control message, except pong
 *   onFrame(buffer, nowMs)   a frame body
 *   onRoundTrip(ms)
 */
export class Connection {
  constructor(address, token, handlers) {
    this.address = address;
    this.token = token;
    this.handlers = handlers;
    this.policy = new ReconnectPolicy();
    this.socket = null;
    this.authenticated = false;
    this.reconnects = 0;
    this.everConnected = false;
    this.retryTimer = null;
    this.lostSilentlyAt = -Infinity;
  }

  connect(takeover = false) {
    this.discardSocket();
    clearTimeout(this.retryTimer);
    this.handlers.onPhase('connecting', {});
    const socket = new WebSocket(this.address);
    socket.binaryType = 'arraybuffer';
    this.socket = socket;
    const ghost = performance.now() - this.lostSilentlyAt < GHOST_MS;
    socket.onopen = () => socket.send(JSON.stringify(control.auth(this.token, takeover || ghost)));
    socket.onmessage = (event) => this.received(event.data);
    socket.onclose = (event) => this.closed(event.code, event.reason);
    this.openTimer = setTimeout(() => this.closed(1006, ''), CONNECT_TIMEOUT_MS);
  }

  /** Retries at once where a retry waits, for instance because the network came back. */
  retryNow() {
    if (this.retryTimer !== null) this.connect();
  }

  stop() {
    clearTimeout(this.retryTimer);
    this.retryTimer = null;
    this.discardSocket();
    this.handlers.onPhase('stopped', {});
  }

  /** @returns {boolean} whether the message went out */
  send(message) {
    if (!this.authenticated || this.socket.readyState !== WebSocket.OPEN) return false;
    this.socket.send(JSON.stringify(message));
    return true;
  }

  received(data) {
    const now = performance.now();
    if (typeof data !== 'string') {
      this.handlers.onFrame(data, now);
      return;
    }
    let message;
    try {
      message = JSON.parse(data);
    } catch (error) {
      return; // not from a host that we know; what matters will be said again
    }
    if (message === null || typeof message.type !== 'string') return;
    if (message.type === 'pong') {
      const roundTrip = this.liveness ? this.liveness.answered(now) : null;
      if (roundTrip !== null) this.handlers.onRoundTrip(roundTrip);
      return;
    }
    if (message.type === 'authenticated') this.nowAuthenticated();
    this.handlers.onMessage(message);
  }

  nowAuthenticated() {
    clearTimeout(this.openTimer);
    this.authenticated = true;
    if (this.everConnected) this.reconnects++;
    this.everConnected = true;
    this.lostSilentlyAt = -Infinity;
    this.policy.succeeded();
    this.liveness = new Liveness();
    this.pingTimer = setInterval(() => this.ping(), PING_INTERVAL_MS);
    this.handlers.onPhase('connected', {});
    this.ping();
  }

  ping() {
    if (this.liveness.due(performance.now())) {
      this.send(control.simple('ping'));
      return;
    }
    this.lostSilentlyAt = performance.now();
    this.closed(1006, '');
  }

  closed(code, reason) {
    this.discardSocket();
    const next = this.policy.closed(code, reason);
    if (next.action !== 'retry') {
      this.handlers.onPhase(next.action, {});
      return;
    }
    this.retryTimer = setTimeout(() => this.connect(), next.delayMs);
    this.handlers.onPhase('waiting', { delayMs: next.delayMs, busy: next.busy === true });
  }

  discardSocket() {
    clearTimeout(this.openTimer);
    clearInterval(this.pingTimer);
    clearTimeout(this.retryTimer);
    this.retryTimer = null;
    this.authenticated = false;
    this.liveness = null;
    const socket = this.socket;
    this.socket = null;
    if (!socket) return;
    socket.onopen = socket.onmessage = socket.onclose = null;
    socket.close();
  }
}

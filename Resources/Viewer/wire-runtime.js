/**
 * The connection: the access token, one WebSocket after another, authentication, liveness and the policy of reconnecting;
 * and beside it the long polls that fetch the sound.
 */

import { control } from './control-protocol.js';
import { LARGEST_AUDIO_BATCH, audioSequenceOf, parseAudioBatch } from './wire-protocol.js';

const PING_INTERVAL_MS = 2000;
const SILENT_INTERVALS = 2;
const CONNECT_TIMEOUT_MS = 10000;

const STEADY_MS = 5000; // a connection that breaks sooner is one more failure
const FIRST_DELAY_MS = 400;
const LONGEST_DELAY_MS = 15000;
const BUSY_DELAY_MS = 20000;

const TOKEN_KEY = 'kestrune.token';
const TOKEN_FORM = /^[A-Za-z0-9_-]{43}$/;

/** The token from an address, a fragment or by itself; null if there is none. */
export function tokenFrom(text) {
  const candidate = text.trim().replace(/^.*#/, '').replace(/^token=/, '');
  return TOKEN_FORM.test(candidate) ? candidate : null;
}

/** The token in the address's fragment, or null. It is remembered and taken out of sight. */
export function takeTokenFromAddress() {
  const token = tokenFrom(window.location.hash);
  if (!token) return null;
  rememberToken(token);
  window.history.replaceState(null, '', window.location.pathname);
  return token;
}

/** The token that this tab had before a reload, or null. */
export function rememberedToken() {
  try {
    return tokenFrom(window.sessionStorage.getItem(TOKEN_KEY) || '');
  } catch (error) {
    return null;
  }
}

/** For a reload of this tab; null forgets it. */
export function rememberToken(token) {
  try {
    if (token) window.sessionStorage.setItem(TOKEN_KEY, token);
    else window.sessionStorage.removeItem(TOKEN_KEY);
  } catch (error) {
    // Storage may be forbidden; the token then lives as long as the page.
  }
}

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

  /** A connection has held for a while. */
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

/**
 * Tells a dead link from a slow one: everything that comes from the host is a sign of life, and a ping asks for one.
 * On a slow link the answer waits behind the picture, for seconds. The next ping waits for it: the host may answer
 * several pings at once, and the round trips would be those of other pings. Pure: the owner calls `due` at every
 * interval.
 */
export class Liveness {
  constructor() {
    this.silentIntervals = 0; // since anything was heard
    this.pingSentAt = null; // of the ping without an answer
  }

  /** @returns {'ping' | 'wait' | 'dead'} what to do now */
  due(nowMs) {
    if (this.silentIntervals >= SILENT_INTERVALS) return 'dead';
    this.silentIntervals++;
    if (this.pingSentAt !== null) return 'wait';
    this.pingSentAt = nowMs;
    return 'ping';
  }

  heard() {
    this.silentIntervals = 0;
  }

  /** @returns {number | null} the round trip in milliseconds; null for an answer without a ping */
  answered(nowMs) {
    const sentAt = this.pingSentAt;
    this.pingSentAt = null;
    return sentAt === null ? null : nowMs - sentAt;
  }
}

/** A random name for this page: 16 bytes as 22 characters of base64url. It is no secret. */
export function newViewerIdentifier() {
  const bytes = crypto.getRandomValues(new Uint8Array(16));
  return btoa(String.fromCharCode(...bytes)).replace(/\+/g, '-').replace(/\//g, '_').replace(/=/g, '');
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
    // By it the host knows a connection that we have lost, and it has not, as ours.
    this.viewer = newViewerIdentifier();
    this.handlers = handlers;
    this.policy = new ReconnectPolicy();
    this.socket = null;
    this.authenticated = false;
    this.authenticatedAt = 0;
    this.reconnects = 0;
    this.everConnected = false;
    this.retryTimer = null;
  }

  connect(takeover = false) {
    this.discardSocket();
    clearTimeout(this.retryTimer);
    this.handlers.onPhase('connecting', {});
    const socket = new WebSocket(this.address);
    socket.binaryType = 'arraybuffer';
    this.socket = socket;
    socket.onopen = () => socket.send(JSON.stringify(control.auth(this.token, takeover, this.viewer)));
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
    if (this.liveness) this.liveness.heard();
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
    this.authenticatedAt = performance.now();
    this.liveness = new Liveness();
    this.pingTimer = setInterval(() => this.ping(), PING_INTERVAL_MS);
    this.handlers.onPhase('connected', {});
    this.ping();
  }

  ping() {
    const next = this.liveness.due(performance.now());
    if (next === 'ping') this.send(control.simple('ping'));
    else if (next === 'dead') this.closed(1006, '');
  }

  closed(code, reason) {
    const now = performance.now();
    if (this.authenticated && now - this.authenticatedAt >= STEADY_MS) this.policy.succeeded();
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

const FIRST_POLL_DELAY_MS = 250;
const LONGEST_POLL_DELAY_MS = 8000;
const REFUSED_PAUSE_SECONDS = 60;
const POLL_TIMEOUT_MS = 20000; // the host answers within 10 s, with or without sound
const QUICKEST_EMPTY_ANSWER_MS = 1000;
const FAR_BEHIND_CHUNKS = 40;

/**
 * How long to wait after a poll that failed, in milliseconds; null if there is no use in asking again. Pure.
 * @param {number} status of the answer, 0 without one
 * @param {string | null} retryAfter the header of that name, in seconds
 */
export function pollRetryDelay(status, retryAfter, failures, random = Math.random) {
  if (status === 401 || status === 403) return null;
  if (status === 429) return 1000 * (/^[0-9]{1,4}$/.test(retryAfter || '') ? Number(retryAfter) : REFUSED_PAUSE_SECONDS);
  const delay = Math.min(LONGEST_POLL_DELAY_MS, FIRST_POLL_DELAY_MS * 2 ** Math.min(failures, 16));
  return delay / 2 + (random() * delay) / 2;
}

const browserIO = {
  fetch: (...parameters) => fetch(...parameters),
  now: () => performance.now(),
  delay: (callback, milliseconds) => setTimeout(callback, milliseconds),
  cancel: (timer) => clearTimeout(timer),
};

/**
 * Fetches the sound: one long poll after another, each for what follows the last chunk. Batches go to
 * `handlers.onBatch(batch)`; `handlers.onUnauthorized()` ends it.
 */
export class AudioPoll {
  constructor(token, handlers, io = browserIO) {
    this.token = token;
    this.handlers = handlers;
    this.io = io;
    this.after = 0;
    this.active = false;
    this.refused = false; // the token is not accepted
    this.failures = 0;
    this.abort = null;
    this.timer = null;
  }

  /** Begins behind this chunk; a poll that waits for another place is given up. */
  start(after) {
    this.stop();
    this.active = true;
    this.after = after;
    this.failures = 0;
    this.poll();
  }

  stop() {
    this.active = false;
    this.io.cancel(this.timer);
    if (this.abort) this.abort.abort();
    this.abort = null;
  }

  /**
   * The host says what its newest chunk is. Sound on its way is not thrown away for that.
   * @returns {boolean} whether the poll moved there: far behind it, or beyond it because the numbers began anew
   */
  edge(sequence) {
    if (!this.active || (sequence >= this.after && sequence - this.after <= FAR_BEHIND_CHUNKS)) return false;
    this.start(sequence);
    return true;
  }

  async poll() {
    const abort = new AbortController();
    this.abort = abort;
    const begun = this.io.now();
    const timeout = this.io.delay(() => abort.abort(), POLL_TIMEOUT_MS);
    let status = 0;
    let retryAfter = null;
    let good = false;
    try {
      const response = await this.io.fetch(`/audio?after=${this.after}`, {
        headers: { Authorization: `Bearer ${this.token}` }, cache: 'no-store', credentials: 'omit', redirect: 'error', signal: abort.signal,
      });
      ({ status } = response);
      retryAfter = response.headers.get('Retry-After');
      if (status === 200 && Number(response.headers.get('Content-Length')) <= LARGEST_AUDIO_BATCH) {
        const body = await response.arrayBuffer();
        if (this.abort !== abort) return;
        good = this.take(response.headers, body);
      } else if (status === 204 && this.abort === abort) {
        good = this.io.now() - begun >= QUICKEST_EMPTY_ANSWER_MS;
        const newest = audioSequenceOf(response.headers);
        // Only downwards: a chunk may have come between the host's look and its answer.
        if (newest !== null && newest < this.after) this.after = newest;
      } else {
        abort.abort();
      }
    } catch (error) {
      // Aborted, or the host is not there; the page's connection finds out which.
    } finally {
      this.io.cancel(timeout);
    }
    if (this.abort === abort) this.next(good, status, retryAfter);
  }

  /** @returns {boolean} whether this was sound that follows what we had */
  take(headers, body) {
    const sequence = audioSequenceOf(headers);
    if (sequence === null) return false;
    const forward = sequence > this.after;
    this.after = sequence;
    const batch = parseAudioBatch(headers, body);
    if (!batch || !forward) return false;
    this.handlers.onBatch(batch);
    return this.active;
  }

  next(good, status, retryAfter) {
    if (!this.active) return;
    this.failures = good ? 0 : this.failures + 1;
    const delay = good ? 0 : pollRetryDelay(status, retryAfter, this.failures - 1);
    if (delay === null) {
      this.stop();
      this.refused = true;
      this.handlers.onUnauthorized();
    } else if (good) {
      this.poll();
    } else {
      this.timer = this.io.delay(() => this.poll(), delay);
    }
  }
}

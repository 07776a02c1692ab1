/**
 * The vocabulary of control messages, and the way from a finger or a key to those messages: mapping of places under a
 * letterbox, recognition of gestures, and the order and spacing in which messages may go out.
 * No DOM and no clock in here; times are milliseconds and are handed in.
 */

export const NAMED_KEYS = ['f', 'return', 'tab', 'space', 'delete', 'escape', 'left', 'right', 'down', 'up'];

const PHYSICAL_KEYS = {
  Enter: 'return',
  Tab: 'tab',
  ' ': 'space',
  Backspace: 'delete',
  Escape: 'escape',
  ArrowLeft: 'left',
  ArrowRight: 'right',
  ArrowDown: 'down',
  ArrowUp: 'up',
};

/** The named key of a KeyboardEvent's `key`, or null. */
export function namedKey(key) {
  return Object.prototype.hasOwnProperty.call(PHYSICAL_KEYS, key) ? PHYSICAL_KEYS[key] : null;
}

export const control = {
  auth: (token, takeover, viewer) => ({ type: 'auth', token, takeover, viewer }),
  startStream: () => ({ type: 'startStream' }),
  keyframe: () => ({ type: 'keyframe' }),
  mode: (mode) => ({ type: 'mode', mode }),
  tap: ({ x, y }) => ({ type: 'tap', x, y }),
  pointer: (phase, { x, y }) => ({ type: 'pointer', phase, x, y }),
  click: (button) => ({ type: 'click', button }),
  scroll: (dx, dy) => ({ type: 'scroll', dx, dy }),
  text: (text) => ({ type: 'text', text }),
  key: (key) => ({ type: 'key', key }),
  /** Changes nothing: the host answers with its own settings and its newest number of a chunk of sound. */
  askSettings: (quality, fps) => ({ type: 'streamSettings', quality, fps }),
  simple: (type) => ({ type }),
};

/** The host takes at most this many UTF-16 units in one text message. */
export const MAXIMUM_TEXT_UNITS = 200;

/** User-perceived characters; code points where the browser has no segmenter. */
export function graphemes(text) {
  if (typeof Intl !== 'undefined' && Intl.Segmenter) {
    return Array.from(new Intl.Segmenter(undefined, { granularity: 'grapheme' }).segment(text), (part) => part.segment);
  }
  return Array.from(text);
}

/**
 * Messages that type a text: chunks that end between characters, line breaks and tabs as keys. A single character
 * longer than a message may be is cut between code points. Halves of surrogate pairs, which no message can carry, are
 * left out.
 */
export function textMessages(text) {
  const messages = [];
  let chunk = '';
  const flush = () => {
    if (chunk) messages.push(control.text(chunk));
    chunk = '';
  };
  const append = (piece) => {
    if (chunk.length + piece.length > MAXIMUM_TEXT_UNITS) flush();
    chunk += piece;
  };
  for (const character of graphemes(text.replace(/\p{Surrogate}/gu, ''))) {
    if (character === '\n' || character === '\r\n' || character === '\r') {
      flush();
      messages.push(control.key('return'));
    } else if (character === '\t') {
      flush();
      messages.push(control.key('tab'));
    } else if (character.length > MAXIMUM_TEXT_UNITS) {
      for (const codePoint of character) append(codePoint);
    } else {
      append(character);
    }
  }
  flush();
  return messages;
}

/** The picture's rectangle inside an element that shows it whole and centred. */
export function pictureRect(element, pictureWidth, pictureHeight) {
  if (!(pictureWidth > 0 && pictureHeight > 0 && element.width > 0 && element.height > 0)) return null;
  const scale = Math.min(element.width / pictureWidth, element.height / pictureHeight);
  const width = pictureWidth * scale;
  const height = pictureHeight * scale;
  return { left: element.left + (element.width - width) / 2, top: element.top + (element.height - height) / 2, width, height, scale };
}

/** @returns {{x: number, y: number, inside: boolean}} the place in the picture, 0 to 1, held to its borders */
export function normalizedPoint(rect, clientX, clientY) {
  const x = (clientX - rect.left) / rect.width;
  const y = (clientY - rect.top) / rect.height;
  const hold = (value) => Math.min(1, Math.max(0, value));
  return { x: hold(x), y: hold(y), inside: x >= 0 && x <= 1 && y >= 0 && y <= 1 };
}

const MAXIMUM_WAITING = 512; // of what has to keep a spacing
const MAXIMUM_MESSAGES = 32768; // more than the lines of the longest paste
const POINTS_PER_SCROLL_UNIT = 600; // the host multiplies by this...
const MAXIMUM_SCROLL_POINTS = 120; // ...and clamps to this, in each message

/**
 * Orders what goes out. The host ignores messages that follow one another too closely, so each kind waits here for its
 * spacing, and what stands behind a waiting message waits too: a button is released only after the last move of the
 * drag has been sent. Waiting moves are replaced by newer ones and waiting scrolls add up, so the line stays short.
 */
export class InputOutbox {
  /**
   * @param {{send: (message: object) => void, now: () => number, defer: (callback: () => void, ms: number) => void}} io
   */
  constructor({ send, now, defer }) {
    this.io = { send, now, defer };
    this.waiting = [];
    this.lastSentAt = { tap: -Infinity, move: -Infinity, scroll: -Infinity };
    this.wakeUp = false;
    this.settle = null; // the last move sent, until it is known to have settled
    this.scrollRest = { x: 0, y: 0 }; // what was too small for a whole point
  }

  move(point) {
    const message = control.pointer('move', point);
    const last = this.waiting[this.waiting.length - 1];
    if (last && last.clock === 'move') last.message = message;
    else this.push({ clock: 'move', message });
  }

  pointer(phase, point) {
    this.push({ clock: null, message: control.pointer(phase, point) });
  }

  tap(point) {
    this.push({ clock: 'tap', message: control.tap(point) });
  }

  /** A button of the page that the host acts on; it wants them well apart, and from taps too. */
  press(message) {
    this.push({ clock: 'tap', spacing: PRESS_SPACING_MS, message });
  }

  rightClick(point) {
    this.push({ clock: 'move', message: control.pointer('move', point) });
    this.push({ clock: 'tap', message: control.click('right') });
  }

  /** Distances in the host's points; positive scrolls towards the end of the content. */
  scroll(pointsX, pointsY) {
    const last = this.waiting[this.waiting.length - 1];
    if (last && last.clock === 'scroll') {
      last.x += pointsX;
      last.y += pointsY;
    } else {
      const rest = this.scrollRest;
      this.scrollRest = { x: 0, y: 0 };
      this.push({ clock: 'scroll', x: pointsX + rest.x, y: pointsY + rest.y });
    }
  }

  /** Text, keys and all else that needs order but no spacing. */
  message(message) {
    this.push({ clock: null, message });
  }

  /** Drops what waits and releases a held button. */
  release() {
    this.clear();
    this.io.send(control.pointer('cancel', { x: 0, y: 0 }));
  }

  clear() {
    this.waiting = [];
    this.settle = null;
  }

  push(item) {
    if (this.waiting.length >= (item.clock ? MAXIMUM_WAITING : MAXIMUM_MESSAGES)) this.release();
    this.settle = null;
    this.waiting.push(item);
    this.pump();
  }

  pump() {
    while (this.waiting.length > 0) {
      const item = this.waiting[0];
      const delay = item.clock ? this.lastSentAt[item.clock] + (item.spacing || SPACING_MS[item.clock]) - this.io.now() : 0;
      if (delay > 0) {
        this.sleep(delay);
        return;
      }
      if (item.clock) this.lastSentAt[item.clock] = this.io.now();
      this.settle = null;
      if (item.clock === 'scroll') this.sendScroll(item);
      else {
        this.waiting.shift();
        this.io.send(item.message);
      }
      if (item.clock === 'move') this.settleLater(item.message);
    }
  }

  /** Sends what one message can carry in whole points; a larger rest stays at the head of the line. */
  sendScroll(item) {
    const take = (points) => Math.trunc(Math.min(MAXIMUM_SCROLL_POINTS, Math.max(-MAXIMUM_SCROLL_POINTS, points)));
    const x = take(item.x);
    const y = take(item.y);
    item.x -= x;
    item.y -= y;
    if (Math.abs(item.x) < 1 && Math.abs(item.y) < 1) {
      this.waiting.shift();
      this.scrollRest = { x: item.x, y: item.y };
    }
    // A quarter of a point more, since the host cuts the product off and a double may fall just short of it.
    const units = (points) => (points === 0 ? 0 : (points + Math.sign(points) * 0.25) / POINTS_PER_SCROLL_UNIT);
    if (x !== 0 || y !== 0) this.io.send(control.scroll(units(x), units(y)));
  }

  /**
   * The network may bunch two moves, and the host then ignores the second. If it was the last one, the pointer
   * would stay short of the finger: so the last place is told once more after a rest.
   */
  settleLater(message) {
    this.settle = message;
    this.io.defer(() => {
      if (this.settle !== message) return;
      this.settle = null;
      this.lastSentAt.move = this.io.now();
      this.io.send(message);
    }, 60);
  }

  sleep(delay) {
    if (this.wakeUp) return;
    this.wakeUp = true;
    this.io.defer(() => {
      this.wakeUp = false;
      this.pump();
    }, delay);
  }
}

/** The host's spacings, with a millisecond or two for the jitter of a local road. */
const SPACING_MS = { tap: 52, move: 24, scroll: 16 };
const PRESS_SPACING_MS = 255;

const SLOP_PIXELS = 10;
const LONG_PRESS_MS = 500;

/**
 * Tells fingers apart: a short touch is a tap, a touch that moves is a drag, a touch that stays is a right click, and
 * two fingers scroll. Works on client coordinates; the actions are calls on `out`:
 * tap(p), dragStart(p), dragMove(p), dragEnd(p), longPress(p), scrollStart(p), scroll(dx, dy), cancel()
 * with p = {x, y} in pixels.
 */
export class GestureRecogniser {
  constructor(out) {
    this.out = out;
    this.fingers = new Map(); // id -> {x, y}
    this.phase = 'idle'; // idle, pressed, dragging, scrolling, done (waiting for all fingers to leave)
  }

  down(id, x, y, nowMs) {
    this.fingers.set(id, { x, y });
    if (this.fingers.size === 1) {
      this.phase = 'pressed';
      this.origin = { x, y };
      this.pressedAt = nowMs;
    } else if (this.fingers.size === 2 && (this.phase === 'pressed' || this.phase === 'dragging')) {
      if (this.phase === 'dragging') this.out.cancel();
      this.phase = 'scrolling';
      this.middle = this.centre();
      this.out.scrollStart(this.middle);
    }
  }

  move(id, x, y, nowMs) {
    if (!this.fingers.has(id)) return;
    this.tick(nowMs);
    this.fingers.set(id, { x, y });
    if (this.phase === 'pressed' && Math.hypot(x - this.origin.x, y - this.origin.y) > SLOP_PIXELS) {
      this.phase = 'dragging';
      this.out.dragStart(this.origin);
    }
    if (this.phase === 'dragging') {
      this.out.dragMove({ x, y });
    } else if (this.phase === 'scrolling') {
      const middle = this.centre();
      this.out.scroll(middle.x - this.middle.x, middle.y - this.middle.y);
      this.middle = middle;
    }
  }

  up(id, x, y, nowMs) {
    if (!this.fingers.has(id)) return;
    this.tick(nowMs);
    this.fingers.delete(id);
    if (this.phase === 'pressed') this.out.tap(this.origin);
    else if (this.phase === 'dragging') this.out.dragEnd({ x, y });
    this.phase = this.fingers.size > 0 ? 'done' : 'idle';
  }

  cancel() {
    if (this.phase === 'dragging') this.out.cancel();
    this.fingers.clear();
    this.phase = 'idle';
  }

  /** Called by a timer while a finger rests, and by every event. */
  tick(nowMs) {
    if (this.phase !== 'pressed' || nowMs - this.pressedAt < LONG_PRESS_MS) return;
    this.phase = 'done';
    this.out.longPress(this.origin);
  }

  /** When `tick` is due, or null. */
  get deadline() {
    return this.phase === 'pressed' ? this.pressedAt + LONG_PRESS_MS : null;
  }

  centre() {
    const [a, b] = [...this.fingers.values()];
    return { x: (a.x + b.x) / 2, y: (a.y + b.y) / 2 };
  }
}

const RESULT_WORDS = {
  controlDisabled: 'Remote control is turned off on the computer.',
  permissionRequired: 'The computer does not allow Kestrune to send input. Grant the permission there.',
  displayRequired: 'No display is being shown that could be controlled.',
  invalidCoordinates: 'That place is outside the display.',
  applicationUnavailable: 'The browser is not available on the computer.',
  eventFailed: 'The computer could not do that now.',
};

/** Why the host did not do what it was asked, for the user. */
export function resultWords(result) {
  return Object.prototype.hasOwnProperty.call(RESULT_WORDS, result) ? RESULT_WORDS[result] : RESULT_WORDS.eventFailed;
}

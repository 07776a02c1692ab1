/**
 * The page's elements: what is said in place of a picture, the dock, the remote pointer, and the events of fingers,
 * mouse and keyboard. Decides nothing about the stream; it shows a model and reports actions.
 */

import { GestureRecogniser, NAMED_KEYS, control, graphemes, namedKey, normalizedPoint, pictureRect, textMessages } from './control-protocol.js';

const byId = (id) => document.getElementById(id);

/**
 * The card for a state of the viewer, or null where the picture speaks for itself. Pure.
 * @param {{missing: string[], hasToken: boolean, phase: string, details: object, stream: {state: string, message?: string},
 *   hasPicture: boolean, problem: string | null}} model
 */
export function cardFor(model) {
  if (model.missing.length > 0) {
    return {
      tone: 'bad', icon: 'warning', title: 'This browser cannot show the picture',
      text: `It lacks ${model.missing.join(' and ')}. A current version of a Chromium-based browser or of Firefox has what is needed.`,
    };
  }
  if (!model.hasToken) {
    return {
      tone: 'wait', icon: 'key', title: 'Access token needed', tokenForm: true,
      text: 'Open the viewer address exactly as Kestrune shows it, with everything behind the # sign, or paste it here.',
    };
  }
  return connectionCard(model) || streamCard(model);
}

function connectionCard({ phase, details, everConnected }) {
  switch (phase) {
    case 'connecting':
      return { tone: 'wait', icon: 'standby', busy: true, title: everConnected ? 'Reconnecting…' : 'Connecting…', text: 'Reaching the computer.' };
    case 'waiting':
      return {
        tone: 'wait', icon: 'standby', busy: true, primary: ['retry', 'Try now'],
        title: details.busy ? 'Too many attempts' : 'Connection lost',
        text: details.busy
          ? 'The computer refuses new attempts for a moment. The viewer tries again slowly.'
          : `Trying again in ${Math.max(1, Math.ceil(details.delayMs / 1000))} s.`,
      };
    case 'askTakeover':
      return {
        tone: 'wait', icon: 'people', title: 'Another viewer is active', primary: ['takeover', 'Take over'], secondary: ['stop', 'Not now'],
        text: 'Only one viewer can be connected. Taking over disconnects the other one.',
      };
    case 'replaced':
      return {
        tone: 'wait', icon: 'people', title: 'Replaced by newer viewer', primary: ['takeover', 'Use it here again'],
        text: 'The picture is now shown somewhere else.',
      };
    case 'unauthorized':
      return {
        tone: 'bad', icon: 'key', title: 'Unauthorized', tokenForm: true,
        text: 'The computer does not accept this access token. Open the address that Kestrune shows now, or paste it here.',
      };
    case 'stopped':
      return { tone: 'wait', icon: 'standby', title: 'Not connected', text: 'The viewer is at rest.', primary: ['retry', 'Connect'] };
    default:
      return null;
  }
}

function streamCard({ stream, hasPicture, problem }) {
  switch (stream.state) {
    case 'armed':
      return { tone: 'good', icon: 'standby', title: 'Standing by', text: stream.message || 'Nothing is captured until you start the stream.', primary: ['start', 'Start streaming'] };
    case 'starting':
      return { tone: 'wait', icon: 'standby', busy: true, title: 'Starting…', text: stream.message || 'The computer prepares its picture.' };
    case 'error':
      return { tone: 'bad', icon: 'warning', title: 'The stream could not run', text: stream.message || 'The computer gave no reason.', primary: ['start', 'Try again'] };
    default:
      if (problem) return { tone: 'bad', icon: 'warning', title: 'The picture cannot be decoded', text: problem, primary: ['keyframe', 'Try again'] };
      return hasPicture ? null : { tone: 'wait', icon: 'standby', busy: true, title: 'Waiting for the picture…', text: 'The stream is on; its first frame is on the way.' };
  }
}

/** The dock's word and the tone of its dot. Pure. */
export function statusFor(model) {
  if (model.missing.length > 0) return ['Unsupported', 'bad'];
  if (!model.hasToken) return ['No token', 'bad'];
  if (model.phase === 'unauthorized') return ['Unauthorized', 'bad'];
  if (model.phase === 'connecting' || model.phase === 'waiting') return [model.everConnected ? 'Reconnecting' : 'Connecting', 'wait'];
  if (model.phase !== 'connected') return ['Not connected', 'idle'];
  return { armed: ['Standing by', 'idle'], starting: ['Starting', 'wait'], streaming: ['Live', 'good'], error: ['Error', 'bad'] }[model.stream.state];
}

/** What the dock and the prompt say of the sound. Pure. */
export function soundFor(state) {
  const muted = { icon: 'muted', pressed: true, label: 'Unmute', word: 'Muted', prompt: null };
  const sounding = { icon: 'sound', pressed: false, label: 'Mute', word: 'Sound', prompt: null };
  switch (state) {
    case 'muted': return muted;
    case 'locked': return { ...sounding, icon: 'muted', label: 'Turn the sound on', prompt: 'Tap for sound' };
    case 'interrupted': return { ...sounding, icon: 'muted', label: 'Turn the sound on', prompt: 'Sound was interrupted. Tap to go on' };
    case 'unsupported': return { ...muted, label: 'This browser cannot play the sound', word: 'No sound', disabled: true };
    default: return sounding;
  }
}

const VISIBLE_STEP = 1; // CSS pixels
const TOUCH_ANSWER_MS = 50;

/** Elements that only show. Actions of the user arrive at `act(name)`. */
export class ViewerInterface {
  constructor(act) {
    this.act = act;
    this.stage = byId('stage');
    this.cursor = byId('cursor');
    this.touch = byId('touch');
    this.picture = { width: 0, height: 0 };
    this.cursorState = { visible: false, x: 0.5, y: 0.5 };
    this.localPointerUntil = 0;
    this.stageBox = null; // where the stage lies in the window, until that may have changed
    this.drawnCursor = { visible: null, x: 0, y: 0 };
    this.waitingTouch = null; // draws the answer to a touch
    this.toasts = new Map();
    const buttons = {
      'mode-video': 'modeVideo', 'mode-control': 'modeControl', 'play-pause': 'playPause', 'host-fullscreen': 'fullscreen',
      'open-browser': 'openChrome', 'page-fullscreen': 'pageFullscreen', 'show-statistics': 'statistics',
      'close-statistics': 'statistics', 'copy-report': 'copyReport', 'dock-handle': 'dock', keyboard: 'keyboard',
      sound: 'sound', 'sound-prompt': 'unlockSound',
    };
    for (const [id, action] of Object.entries(buttons)) byId(id).addEventListener('click', () => act(action));
    for (const id of ['card-primary', 'card-secondary']) {
      byId(id).addEventListener('click', (event) => act(event.currentTarget.dataset.action));
    }
    byId('reset-browser').addEventListener('click', () => this.confirmReset());
    byId('confirm').addEventListener('close', (event) => {
      if (event.target.returnValue === 'reset') act('resetBrowser');
    });
    byId('token-form').addEventListener('submit', (event) => {
      event.preventDefault();
      byId('token-problem').hidden = act('token', byId('token-input').value) !== false;
    });
    const relocated = () => {
      this.stageBox = null;
      this.placeCursor();
    };
    new ResizeObserver(relocated).observe(this.stage);
    if (window.visualViewport) {
      for (const type of ['resize', 'scroll']) window.visualViewport.addEventListener(type, relocated);
    }
  }

  render(model) {
    const card = cardFor(model);
    byId('card').hidden = !card;
    if (card) this.renderCard(card);
    const [word, tone] = statusFor(model);
    setText(byId('status-word'), word);
    byId('status-dot').dataset.tone = tone;
    const body = document.body.dataset;
    body.mode = model.mode;
    body.picture = model.hasPicture ? 'yes' : 'no';
    body.stale = card ? 'yes' : 'no';
    byId('mode-video').setAttribute('aria-pressed', String(model.mode === 'video'));
    byId('mode-control').setAttribute('aria-pressed', String(model.mode === 'control'));
    const connected = model.phase === 'connected';
    const live = connected && model.stream.state === 'streaming';
    for (const id of ['mode-video', 'mode-control', 'open-browser', 'reset-browser']) byId(id).disabled = !connected;
    for (const id of ['play-pause', 'host-fullscreen', 'keyboard']) byId(id).disabled = !live;
    this.placeCursor();
  }

  renderSound(state) {
    const { icon, pressed, label, word, prompt, disabled } = soundFor(state);
    const button = byId('sound');
    byId('sound-icon').setAttribute('href', `#i-${icon}`);
    button.setAttribute('aria-pressed', String(pressed));
    button.setAttribute('aria-label', label);
    button.title = label;
    button.disabled = disabled === true;
    setText(byId('sound-word'), word);
    byId('sound-prompt').hidden = prompt === null;
    if (prompt) setText(byId('sound-prompt-text'), prompt);
  }

  renderCard(card) {
    byId('card').dataset.tone = card.tone;
    byId('card-icon').firstElementChild.setAttribute('href', `#i-${card.icon}`);
    byId('card-spinner').hidden = !card.busy;
    setText(byId('card-title'), card.title);
    setText(byId('card-text'), card.text);
    byId('token-form').hidden = !card.tokenForm;
    for (const [id, choice] of [['card-primary', card.primary], ['card-secondary', card.secondary]]) {
      byId(id).hidden = !choice;
      if (!choice) continue;
      byId(id).dataset.action = choice[0];
      setText(byId(id), choice[1]);
    }
  }

  confirmReset() {
    const dialog = byId('confirm');
    dialog.returnValue = '';
    dialog.showModal();
  }

  setPictureSize(width, height) {
    this.picture = { width, height };
    this.placeCursor();
  }

  /** The picture's rectangle in client coordinates, or null while there is none. */
  pictureRect() {
    return pictureRect(this.stageRect(), this.picture.width, this.picture.height);
  }

  /** Measured once, since measuring in an input handler may lay out the page first. */
  stageRect() {
    if (!this.stageBox) this.stageBox = this.stage.getBoundingClientRect();
    return this.stageBox;
  }

  setCursor(state) {
    this.cursorState = state;
    if (performance.now() > this.localPointerUntil) this.placeCursor();
  }

  /** Shows the pointer where the user just put it, ahead of the host's own word. */
  predictCursor(point) {
    this.localPointerUntil = performance.now() + 250;
    this.placeCursor(point);
    clearTimeout(this.predictionTimer);
    this.predictionTimer = setTimeout(() => this.placeCursor(), 260);
  }

  /** Draws only what can be seen to differ: every drawing may hold the next picture back by a turn of the compositor. */
  placeCursor(point = this.cursorState) {
    const rect = this.pictureRect();
    const visible = this.cursorState.visible && rect !== null && document.body.dataset.picture === 'yes' && document.body.dataset.stale === 'no';
    const drawn = this.drawnCursor;
    if (visible !== drawn.visible) {
      this.cursor.toggleAttribute('hidden', !visible);
      document.body.dataset.pointer = visible ? 'remote' : 'own';
    }
    const stage = this.stageRect();
    const x = visible ? rect.left - stage.left + point.x * rect.width : drawn.x;
    const y = visible ? rect.top - stage.top + point.y * rect.height : drawn.y;
    if (Math.abs(x - drawn.x) >= VISIBLE_STEP || Math.abs(y - drawn.y) >= VISIBLE_STEP) {
      this.cursor.style.transform = `translate(${x}px, ${y}px)`;
      this.drawnCursor = { visible, x, y };
    } else {
      drawn.visible = visible;
    }
  }

  /** Answers a touch together with the next picture, or soon without one. */
  answerTouch(clientX, clientY, point) {
    this.pictureShown();
    this.waitingTouch = () => {
      this.predictCursor(point);
      this.showTouch(clientX, clientY);
    };
    this.touchTimer = setTimeout(() => this.pictureShown(), TOUCH_ANSWER_MS);
  }

  pictureShown() {
    if (!this.waitingTouch) return;
    clearTimeout(this.touchTimer);
    const draw = this.waitingTouch;
    this.waitingTouch = null;
    draw();
  }

  showTouch(clientX, clientY) {
    const stage = this.stageRect();
    this.touch.style.left = `${clientX - stage.left}px`;
    this.touch.style.top = `${clientY - stage.top}px`;
    this.touch.hidden = false;
    this.touch.classList.remove('shown');
    void this.touch.offsetWidth; // restarts the animation
    this.touch.classList.add('shown');
  }

  /** A short note; the same note is not stacked. */
  toast(text, tone = 'good') {
    const present = this.toasts.get(text);
    if (present) clearTimeout(present.timer);
    const element = present ? present.element : document.createElement('div');
    if (!present) {
      element.className = 'toast';
      element.textContent = text;
      element.dataset.tone = tone;
      byId('toasts').append(element);
    }
    const timer = setTimeout(() => {
      element.remove();
      this.toasts.delete(text);
    }, tone === 'bad' ? 5000 : 2200);
    this.toasts.set(text, { element, timer });
  }
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/**
 * Puts a text on the clipboard, from within a gesture. A page without a secure connection has no Clipboard API, but may
 * still copy a selection.
 * @returns {Promise<boolean>} whether the browser did it
 */
export async function copyText(text) {
  try {
    await navigator.clipboard.writeText(text);
    return true;
  } catch (error) {
    return copySelection(text);
  }
}

function copySelection(text) {
  const area = document.createElement('textarea');
  area.className = 'typing';
  area.value = text;
  const focused = document.activeElement;
  document.body.append(area);
  area.select();
  const copied = document.execCommand('copy');
  area.remove();
  if (focused) focused.focus({ preventScroll: true });
  return copied;
}

/**
 * Keeps the page above an on-screen keyboard that lies over it and does not shrink it, as in Safari on a phone. A page
 * that is magnified by two fingers is left alone.
 */
export function fitAboveKeyboard(view = window.visualViewport) {
  if (!view) return;
  const fit = () => {
    const isCovered = view.scale === 1 && window.innerHeight - view.height > 1;
    document.body.style.height = isCovered ? `${view.height}px` : '';
    document.body.style.transform = isCovered ? `translateY(${view.offsetTop}px)` : '';
  };
  view.addEventListener('resize', fit);
  view.addEventListener('scroll', fit);
  fit();
}

const PANELS = '.card, .statistics, button'; // on the stage, with presses of their own

/** Fingers, mouse and wheel on the stage. */
export class StageInput {
  /** @param {{stage: Element, outbox: InputOutbox, ui: ViewerInterface, enabled: () => boolean}} parts */
  constructor({ stage, outbox, ui, enabled }) {
    Object.assign(this, { stage, outbox, ui, enabled });
    this.mouseHeld = false;
    this.gestures = new GestureRecogniser(this.gestureActions());
    stage.addEventListener('pointerdown', (event) => this.down(event));
    stage.addEventListener('pointermove', (event) => this.move(event));
    stage.addEventListener('pointerup', (event) => this.up(event));
    stage.addEventListener('pointercancel', () => this.cancel());
    stage.addEventListener('wheel', (event) => this.wheel(event), { passive: false });
    stage.addEventListener('contextmenu', (event) => {
      if (this.enabled()) event.preventDefault();
    });
    // The keyboard's field keeps the focus: a press would move it to the stage and end a composition.
    stage.addEventListener('mousedown', (event) => {
      if (this.enabled() && !event.target.closest(PANELS)) event.preventDefault();
    });
  }

  /** Messages go out before anything is drawn. */
  gestureActions() {
    const { outbox } = this;
    const at = (send) => (p) => {
      const point = this.place(p.x, p.y);
      send(point);
      return point;
    };
    const moveTo = (send) => (p) => this.ui.predictCursor(at(send)(p));
    const touchAt = (send) => (p) => this.ui.answerTouch(p.x, p.y, at(send)(p));
    return {
      tap: touchAt((point) => outbox.tap(point)),
      dragStart: moveTo((point) => outbox.pointer('down', point)),
      dragMove: moveTo((point) => outbox.move(point)),
      dragEnd: moveTo((point) => outbox.pointer('up', point)),
      longPress: touchAt((point) => {
        outbox.rightClick(point);
        if (navigator.vibrate) navigator.vibrate(15);
      }),
      scrollStart: moveTo((point) => outbox.move(point)),
      // The content follows the fingers, so the wheel turns the other way.
      scroll: (dx, dy) => outbox.scroll(-dx / this.rect.scale, -dy / this.rect.scale),
      cancel: () => outbox.release(),
    };
  }

  place(clientX, clientY) {
    return normalizedPoint(this.rect, clientX, clientY);
  }

  /** @returns {boolean} whether an event is ours to send; refreshes the picture's place */
  ready(event) {
    if (!this.enabled() || event.target.closest(PANELS)) return false;
    this.rect = this.ui.pictureRect();
    return this.rect !== null;
  }

  down(event) {
    if (!this.ready(event)) return;
    const inside = normalizedPoint(this.rect, event.clientX, event.clientY).inside;
    if (!inside && this.gestures.phase === 'idle') return;
    this.stage.setPointerCapture(event.pointerId);
    if (event.pointerType !== 'mouse') {
      this.gestures.down(event.pointerId, event.clientX, event.clientY, performance.now());
      this.armLongPress();
    } else if (event.button === 0) {
      this.holdMouse(event, true);
    } else if (event.button === 2 && !this.mouseHeld) {
      this.mouseAt(event, (point) => this.outbox.rightClick(point));
    }
  }

  move(event) {
    if (!this.ready(event)) return;
    if (event.pointerType !== 'mouse') {
      this.gestures.move(event.pointerId, event.clientX, event.clientY, performance.now());
      return;
    }
    const { inside } = normalizedPoint(this.rect, event.clientX, event.clientY);
    // A button that changes while another is down comes as a move (Pointer Events, "chorded button interactions").
    const isDown = (event.buttons & 1) !== 0;
    if (this.mouseHeld ? !isDown : isDown && event.button === 0 && inside) {
      this.holdMouse(event, isDown);
    } else if (this.mouseHeld || inside) {
      this.mouseAt(event, (point) => this.outbox.move(point));
    }
  }

  up(event) {
    if (event.pointerType !== 'mouse') {
      this.gestures.up(event.pointerId, event.clientX, event.clientY, performance.now());
    } else if (this.mouseHeld) {
      this.holdMouse(event, false); // the last button that goes need not be the first
    }
  }

  holdMouse(event, held) {
    this.mouseHeld = held;
    this.mouseAt(event, (point) => this.outbox.pointer(held ? 'down' : 'up', point));
  }

  mouseAt(event, send) {
    const point = this.place(event.clientX, event.clientY);
    send(point);
    this.ui.predictCursor(point);
  }

  wheel(event) {
    if (event.ctrlKey || !this.ready(event)) return;
    event.preventDefault();
    const unit = [1, 40, 400][event.deltaMode] || 1; // pixels, lines, pages
    this.outbox.scroll(event.deltaX * unit, event.deltaY * unit);
  }

  armLongPress() {
    clearTimeout(this.longPressTimer);
    if (this.gestures.deadline === null) return;
    const delay = this.gestures.deadline - performance.now();
    this.longPressTimer = setTimeout(() => this.gestures.tick(performance.now()), delay + 1);
  }

  /** Forgets what is held; the caller tells the host. */
  cancel() {
    clearTimeout(this.longPressTimer);
    const held = this.mouseHeld || this.gestures.phase === 'dragging';
    this.mouseHeld = false;
    this.gestures.phase = 'idle';
    this.gestures.fingers.clear();
    if (held) this.outbox.release();
  }
}

/** A padding that gives a phone's keyboard something to delete, so that a backspace is noticed at all. */
const PADDING = '\u200b\u200b';
const LONGEST_PASTE = 20000;

/**
 * Physical and on-screen keyboard. Text goes through a hidden field, since only a field gets compositions (Chinese,
 * Japanese, accents) and raises the keyboard of a phone or a car.
 */
export class KeyboardInput {
  constructor({ outbox, enabled }) {
    Object.assign(this, { outbox, enabled });
    this.field = byId('typing');
    this.field.value = PADDING;
    this.finePointer = window.matchMedia('(pointer: fine)');
    this.staysLowered = 'inputMode' in this.field; // a field with inputmode "none" raises no on-screen keyboard
    this.allowOnScreenKeyboard(false);
    document.addEventListener('keydown', (event) => this.keyDown(event));
    this.field.addEventListener('input', (event) => {
      if (!event.isComposing) this.takeField();
    });
    this.field.addEventListener('compositionupdate', (event) => this.showComposition(event.data));
    this.field.addEventListener('compositionend', () => {
      this.showComposition('');
      this.takeField();
    });
    this.field.addEventListener('blur', () => this.showComposition(''));
    this.buildKeyRow();
  }

  buildKeyRow() {
    const labels = { return: '↵ Return', tab: '⇥ Tab', space: 'Space', delete: '⌫ Delete', escape: 'Esc', left: '←', right: '→', down: '↓', up: '↑', f: 'F' };
    const order = ['escape', 'tab', 'return', 'delete', 'space', 'left', 'up', 'down', 'right', 'f'];
    for (const key of order.filter((name) => NAMED_KEYS.includes(name))) {
      const button = document.createElement('button');
      button.type = 'button';
      button.textContent = labels[key];
      button.setAttribute('aria-label', `Key ${key}`);
      button.dataset.key = key;
      button.addEventListener('pointerdown', (event) => event.preventDefault()); // the field keeps the focus
      button.addEventListener('click', () => this.outbox.message(control.key(key)));
      byId('key-row').append(button);
    }
  }

  /** Opens or closes the bar of keys, and with it a touch screen's keyboard. */
  toggle(open = byId('keys').hidden) {
    byId('keys').hidden = !open;
    byId('keyboard').setAttribute('aria-expanded', String(open));
    this.field.blur(); // browsers look at the input mode when the field gets the focus
    this.allowOnScreenKeyboard(open);
    if (this.enabled()) this.attend();
  }

  /** Takes the focus for a physical keyboard, without raising the keyboard of a touch screen. */
  attend() {
    if (document.activeElement === this.field) return;
    if (this.staysLowered || this.finePointer.matches || !byId('keys').hidden) this.field.focus({ preventScroll: true });
  }

  allowOnScreenKeyboard(allowed) {
    if (this.staysLowered) this.field.inputMode = allowed ? 'text' : 'none';
  }

  keyDown(event) {
    if (!this.enabled() || event.isComposing || event.keyCode === 229) return;
    const focus = document.activeElement;
    const ours = focus === this.field || focus === document.body || focus === byId('stage');
    if (!ours || byId('confirm').open) return;
    const altGraph = event.getModifierState('AltGraph');
    if ((event.ctrlKey || event.altKey || event.metaKey) && !altGraph) return;
    const key = namedKey(event.key);
    if (key) {
      event.preventDefault();
      this.outbox.message(control.key(key));
    } else if (event.key !== 'Dead' && event.key !== 'Unidentified' && graphemes(event.key).length === 1) {
      event.preventDefault();
      for (const message of textMessages(event.key)) this.outbox.message(message);
    }
  }

  takeField() {
    const value = this.field.value;
    this.field.value = PADDING;
    this.field.setSelectionRange(PADDING.length, PADDING.length);
    const typed = value.replace(/\u200b/g, '');
    const deleted = PADDING.length - (value.match(/\u200b/g) || []).length;
    for (let i = 0; i < deleted; i++) this.outbox.message(control.key('delete'));
    for (const message of textMessages(typed.slice(0, LONGEST_PASTE))) this.outbox.message(message);
  }

  showComposition(text) {
    byId('composition').hidden = !text;
    byId('composition').textContent = text;
  }
}

/** Keeps the device's screen on while the picture is watched, where the browser can. */
export class ScreenWakeLock {
  constructor() {
    this.lock = null;
    this.wanted = false;
    this.busy = false;
  }

  /** To be called again whenever the page is seen again: the browser takes the lock from a hidden page. */
  async hold(wanted) {
    this.wanted = wanted;
    if (!('wakeLock' in navigator) || this.busy) return;
    this.busy = true;
    try {
      // The wish may change while the browser thinks about it.
      while (this.wanted !== (this.lock !== null)) {
        if (this.wanted) await this.request();
        else await this.release();
      }
    } catch (error) {
      // A low battery is a good reason to refuse.
    }
    this.busy = false;
  }

  async request() {
    const lock = await navigator.wakeLock.request('screen');
    this.lock = lock;
    lock.addEventListener('release', () => {
      if (this.lock === lock) this.lock = null;
    });
  }

  async release() {
    const { lock } = this;
    this.lock = null;
    await lock.release();
  }
}

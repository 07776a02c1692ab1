/**
 * The viewer: puts connection, picture, input and panels together and holds the page's state.
 */

import { InputOutbox, control, resultWords } from './control-protocol.js';
import { AudioPoll, Connection, rememberToken, rememberedToken, streamAddress, takeTokenFromAddress, tokenFrom } from './wire-runtime.js';
import { Sound } from './audio-runtime.js';
import { SmoothedValue } from './decoder-clock.js';
import { VideoPipeline, makePresenter } from './video-runtime.js';
import { canDecodeHevc } from './webcodecs-hevc.js';
import { SecondMeter, StatisticsPanel, capabilityReport, missingCapabilities, statisticsRows, telemetryMessage } from './reporting.js';
import { KeyboardInput, ScreenWakeLock, StageInput, ViewerInterface, copyText, fitAboveKeyboard } from './viewer-ui.js';

const FRESH_EDGE_MS = 500;
const SHOWING_MS = 1500; // a still picture is repeated once a second
const FARTHEST_DISPLAY_MS = 40; // from a picture's hand-over to the screen; two turns of a slow one
const byId = (id) => document.getElementById(id);

class Viewer {
  constructor() {
    this.model = {
      missing: missingCapabilities(window),
      hasToken: false,
      phase: 'stopped',
      details: {},
      everConnected: false,
      stream: { state: 'armed' },
      hasPicture: false,
      problem: null,
      mode: 'video',
    };
    this.connection = null;
    this.diagnostics = null;
    this.settings = null;
    this.capabilities = null;
    this.sound = new Sound({
      onChange: () => this.ui.renderSound(this.sound.state),
      onReady: (ready) => this.soundReady(ready),
    });
    this.poll = null;
    this.edge = { sequence: 0, at: -Infinity }; // the newest chunk of sound, as the host said last
    this.edgeAsked = false;
    this.lipSync = new SmoothedValue(); // how much later than its sound a picture is seen, milliseconds
    this.shownAt = -Infinity;
    this.shownLatency = 0;
    this.awaitedFrameSince = null; // when a frame was asked for that has to come
    this.startAsked = false;
    this.wakeLock = new ScreenWakeLock();
    this.meter = new SecondMeter();
    this.hooks = { onFrameDecoded: null, onFrameShown: null };
    this.ui = new ViewerInterface((action, value) => this.act(action, value));
    this.panel = new StatisticsPanel(byId);
    this.outbox = new InputOutbox({
      send: (message) => this.send(message),
      now: () => performance.now(),
      defer: (callback, delay) => setTimeout(callback, delay),
    });
    const enabled = () => this.controlling();
    this.stageInput = new StageInput({ stage: byId('stage'), outbox: this.outbox, ui: this.ui, enabled });
    this.keyboard = new KeyboardInput({ outbox: this.outbox, enabled });
  }

  start() {
    this.render();
    setInterval(() => this.everySecond(), 1000);
    capabilityReport(window, canDecodeHevc).then((report) => {
      this.capabilities = report;
    });
    if (this.model.missing.length > 0) return; // the statistics and the report say what this browser has
    this.presenter = makePresenter(byId('picture-video'), byId('picture-canvas'), (info) => this.shown(info));
    this.video = new VideoPipeline(this.presenter, {
      requestKeyframe: () => this.send(control.keyframe()),
      onPictureSize: (width, height) => this.ui.setPictureSize(width, height),
      onCodecUnusable: (codec) => this.codecUnusable(codec),
      onDecoded: (frame, receivedAt, decodedAt) => this.decoded(frame, receivedAt, decodedAt),
    });
    this.video.soundOffset = () => this.sound.offset;
    this.ui.renderSound(this.sound.state);
    this.watchPage();
    this.useToken(takeTokenFromAddress() || rememberedToken());
  }

  useToken(token) {
    this.model.hasToken = token !== null;
    if (this.connection) this.connection.stop();
    if (this.poll) this.poll.stop();
    if (token) {
      this.poll = new AudioPoll(token, { onBatch: (batch) => this.sound.feed(batch), onUnauthorized: () => this.ui.toast('The computer refuses its sound.', 'bad') });
      this.connection = new Connection(streamAddress(window.location), token, {
        onPhase: (phase, details) => this.phaseChanged(phase, details),
        onMessage: (message) => this.received(message),
        onFrame: (body, now) => this.video.push(body, now),
        onRoundTrip: (milliseconds) => this.video.clock.addRoundTrip(milliseconds),
      });
      this.connection.connect();
    }
    this.render();
  }

  send(message) {
    return this.connection !== null && this.connection.send(message);
  }

  render() {
    this.ui.render(this.model);
  }

  controlling() {
    return this.model.mode === 'control' && this.model.phase === 'connected' && this.model.stream.state === 'streaming';
  }

  // The connection

  phaseChanged(phase, details) {
    this.model.phase = phase;
    this.model.details = details;
    if (phase === 'connected') {
      this.model.everConnected = true;
      this.startAsked = false;
      this.video.restart();
      // A new connection begins in video mode, also after one in control mode.
      if (this.model.mode === 'control') this.send(control.mode('control'));
    } else {
      this.outbox.clear();
      this.stageInput.cancel();
    }
    if (phase === 'unauthorized') rememberToken(null);
    this.updateSound();
    this.updateWakeLock();
    this.render();
  }

  received(message) {
    if (Number.isSafeInteger(message.audioSequence)) this.soundEdge(message);
    const handlers = {
      streamSettings: () => this.settingsChanged(message),
      streamState: () => this.streamStateChanged(message),
      cursorState: () => this.ui.setCursor(message),
      hostDiagnostics: () => {
        this.diagnostics = message;
      },
      mode: () => this.modeChanged(message.mode),
      tapResult: () => this.showResult(message.result, null),
      playPauseResult: () => this.showResult(message.result, 'Play or pause sent'),
      fullscreenResult: () => this.showResult(message.result, 'Full-screen video switched'),
      openChromeResult: () => this.showResult(message.result, 'Browser opened'),
      resetBrowserResult: () => this.showResult(message.result, 'Browser reset'),
    };
    if (Object.prototype.hasOwnProperty.call(handlers, message.type)) handlers[message.type]();
  }

  async settingsChanged(settings) {
    this.settings = settings;
    this.video.setCodec(settings.codec);
    if (settings.reconfigured === true) this.video.reconfigure();
    // Said before any frame comes, so that no time is lost on frames that this browser cannot decode.
    if (settings.codec === 'hevc' && !(await canDecodeHevc())) this.send(control.simple('codecFallback'));
  }

  streamStateChanged({ state, message }) {
    if (!['armed', 'starting', 'streaming', 'error'].includes(state)) return;
    const before = this.model.stream.state;
    this.model.stream = { state, message };
    if (state !== 'streaming') {
      this.model.problem = null;
      if (state !== 'starting' || before === 'armed') this.model.hasPicture = false;
      this.outbox.clear();
    }
    this.startWhenSeen();
    this.updateSound();
    this.updateWakeLock();
    this.render();
  }

  /** Asks for the stream once in a connection. A host that goes back to standby later did so on purpose. */
  startWhenSeen() {
    if (this.startAsked || document.hidden || this.model.stream.state !== 'armed') return;
    this.startAsked = this.send(control.startStream());
  }

  modeChanged(mode) {
    if (mode !== 'video' && mode !== 'control') return;
    this.model.mode = mode;
    this.video.setVideoMode(mode === 'video');
    this.updateSound();
    if (mode === 'video') {
      this.keyboard.toggle(false);
      this.outbox.clear();
    } else {
      this.keyboard.attend();
    }
    this.render();
  }

  showResult(result, success) {
    if (result === 'clicked') {
      if (success) this.ui.toast(success);
    } else {
      this.ui.toast(resultWords(result), 'bad');
    }
  }

  // The sound

  updateSound() {
    const { phase, stream, mode } = this.model;
    this.sound.setWanted(phase === 'connected' && stream.state === 'streaming' && mode === 'video');
  }

  /** Sound can be played from now on: where the live edge is has just been said, or is asked for. */
  soundReady(ready) {
    if (!this.poll) return;
    this.edgeAsked = false;
    if (!ready) {
      this.poll.stop();
    } else if (performance.now() - this.edge.at < FRESH_EDGE_MS) {
      this.poll.start(this.edge.sequence);
    } else {
      this.edgeAsked = this.settings !== null && this.send(control.askSettings(this.settings.quality, this.settings.fps));
    }
  }

  /** The host told the number of its newest chunk. */
  soundEdge({ type, result, audioSequence }) {
    this.edge = { sequence: audioSequence, at: performance.now() };
    if (!this.sound.ready) return;
    const toggled = type === 'playPauseResult' && result === 'clicked';
    if (this.edgeAsked || toggled || type === 'authenticated') {
      // What was on its way belongs to before the pause.
      this.edgeAsked = false;
      this.sound.jump();
      this.poll.start(audioSequence);
    } else if (this.poll.edge(audioSequence)) {
      this.sound.jump();
    }
  }

  // The picture

  decoded(frame, receivedAt, decodedAt) {
    if (!this.model.hasPicture || this.model.problem) {
      this.model.hasPicture = true;
      this.model.problem = null;
      this.render();
    }
    this.awaitedFrameSince = null;
    if (this.hooks.onFrameDecoded) this.hooks.onFrameDecoded(frame, receivedAt, decodedAt);
  }

  shown(info) {
    this.shownAt = info.shownAt;
    this.shownLatency = this.video.clock.latency(info.timestamp, info.shownAt);
    // Browsers without a real display expect times that mean nothing.
    const expectedIn = info.metadata ? info.metadata.expectedDisplayTime - info.shownAt : 0;
    const seenAt = info.shownAt + (expectedIn > 0 && expectedIn < FARTHEST_DISPLAY_MS ? expectedIn : 0);
    this.video.displayTime.add(Math.min(60, Math.max(0, seenAt - info.decodedAt)));
    if (this.sound.offset !== null) this.lipSync.add(seenAt - info.timestamp / 1000 - this.sound.offset);
    if (this.hooks.onFrameShown) this.hooks.onFrameShown(info);
    this.ui.pictureShown();
  }

  codecUnusable(codec) {
    if (codec === 'hevc') {
      this.send(control.simple('codecFallback'));
      return;
    }
    this.model.problem = `The browser's decoder failed: ${this.video.lastError}`;
    this.render();
  }

  // Actions of the user

  act(action, value) {
    const simple = { playPause: 'playPause', fullscreen: 'fullscreen', openChrome: 'openChrome', resetBrowser: 'resetBrowser' };
    if (simple[action]) {
      if (this.model.phase === 'connected') this.outbox.press(control.simple(simple[action]));
      else this.ui.toast('Not connected.', 'bad');
      if (this.model.mode === 'control') this.keyboard.attend();
      return undefined;
    }
    const actions = {
      start: () => this.send(control.startStream()),
      keyframe: () => this.send(control.keyframe()),
      retry: () => this.connection.connect(),
      takeover: () => this.connection.connect(true),
      stop: () => this.connection.stop(),
      modeVideo: () => this.send(control.mode('video')),
      modeControl: () => this.send(control.mode('control')),
      keyboard: () => this.keyboard.toggle(),
      sound: () => this.soundPressed(),
      unlockSound: () => this.sound.resume(),
      statistics: () => this.toggleStatistics(),
      copyReport: () => this.copyReport(),
      pageFullscreen: () => this.togglePageFullscreen(),
      dock: () => this.openDock(),
      token: () => this.tokenEntered(value),
    };
    return actions[action]();
  }

  /** While the browser holds the sound back the button only frees it. */
  soundPressed() {
    if (this.sound.state === 'locked' || this.sound.state === 'interrupted') this.sound.resume();
    else this.sound.toggleMute();
  }

  tokenEntered(text) {
    const token = tokenFrom(text);
    if (!token) return false;
    rememberToken(token);
    this.useToken(token);
    return true;
  }

  toggleStatistics() {
    const panel = byId('statistics');
    panel.hidden = !panel.hidden;
    byId('show-statistics').setAttribute('aria-expanded', String(!panel.hidden));
    if (!panel.hidden) this.showStatistics();
  }

  togglePageFullscreen() {
    const root = document.documentElement;
    if (document.fullscreenElement) document.exitFullscreen().catch(() => {}); // it has just ended by itself
    else if (root.requestFullscreen) root.requestFullscreen().catch(() => this.ui.toast('The browser refuses full screen.', 'bad'));
    else this.ui.toast('This browser has no full screen.', 'bad');
  }

  openDock() {
    document.body.dataset.dock = 'open';
    clearTimeout(this.dockTimer);
    this.dockTimer = setTimeout(() => {
      document.body.dataset.dock = 'closed';
    }, 6000);
  }

  async copyReport() {
    const copied = await copyText(JSON.stringify(this.report(), null, 2));
    if (copied) this.ui.toast('Report copied');
    else this.ui.toast('The browser does not allow copying.', 'bad');
  }

  // The page's surroundings

  watchPage() {
    fitAboveKeyboard();
    const release = () => {
      this.stageInput.cancel();
      if (this.controlling()) this.outbox.release();
    };
    window.addEventListener('blur', release);
    window.addEventListener('pagehide', release);
    // Any of these may count as the gesture that the browser waits for.
    for (const gesture of ['pointerdown', 'pointerup', 'keydown']) {
      document.addEventListener(gesture, () => this.sound.resume(), { capture: true, passive: true });
    }
    window.addEventListener('online', () => this.connection && this.connection.retryNow());
    window.addEventListener('hashchange', () => {
      const token = takeTokenFromAddress();
      if (token) this.useToken(token);
      else if (window.location.hash) this.ui.toast('There is no access token in that address.', 'bad');
    });
    document.addEventListener('visibilitychange', () => {
      if (document.hidden) release();
      else this.cameBack();
      this.updateWakeLock();
    });
    document.addEventListener('fullscreenchange', () => {
      document.body.dataset.fullscreen = document.fullscreenElement ? 'yes' : 'no';
      document.body.dataset.dock = 'closed';
    });
    byId('stage').addEventListener('pointerdown', () => {
      if (document.body.dataset.dock === 'open') document.body.dataset.dock = 'closed';
    });
    byId('stage').addEventListener('pointerup', () => {
      if (this.controlling()) this.keyboard.attend();
    });
  }

  /** A hidden page may have been starved of frames: start from a fresh one, and make sure that it comes. */
  cameBack() {
    this.sound.resume();
    if (!this.connection) return;
    this.connection.retryNow();
    this.startWhenSeen();
    if (this.model.stream.state === 'streaming' && this.send(control.keyframe())) {
      this.awaitedFrameSince = performance.now();
    }
  }

  updateWakeLock() {
    this.wakeLock.hold(!document.hidden && this.model.phase === 'connected' && this.model.stream.state === 'streaming');
  }

  // Every second

  everySecond() {
    if (this.video) this.checkStream(performance.now());
    if (!byId('statistics').hidden) this.showStatistics();
  }

  checkStream(now) {
    const { video } = this;
    video.watch(now);
    if (this.awaitedFrameSince !== null && now - this.awaitedFrameSince > 2500) {
      this.awaitedFrameSince = now;
      video.keyframes.request(now);
    }
    this.syncSound();
    const second = this.meter.measure({
      stats: this.stats(), host: this.diagnostics, bytes: video.counters.bytes, isShowing: now - this.shownAt < SHOWING_MS,
    });
    this.panel.add(second);
    if (this.model.phase === 'connected') {
      const { bufferMilliseconds, driftMilliseconds } = this.sound.facts;
      this.send(telemetryMessage({
        viewerFPS: second.fps,
        decodeMilliseconds: video.decodeTime.get(),
        videoBufferMilliseconds: video.queuedMilliseconds,
        audioBufferMilliseconds: bufferMilliseconds,
        audioDriftMilliseconds: driftMilliseconds,
        reconnects: this.connection.reconnects,
      }));
    }
  }

  /** Keeps sound and picture together, and sound going. */
  syncSound() {
    const { sound, poll, video } = this;
    if (!sound.ready) return;
    const behind = video.behindPicture();
    sound.waitForPicture(behind === null ? 0 : -behind);
    // The answer with the live edge did not come.
    if (!poll.active && !poll.refused && !this.edgeAsked) poll.start(this.edge.sequence);
    this.edgeAsked = false;
  }

  showStatistics() {
    this.panel.show(statisticsRows({
      stats: this.stats(),
      second: this.meter.last,
      roundTripMs: this.video ? this.video.clock.roundTripMs : null,
      host: this.diagnostics,
    }));
  }

  report() {
    return { capabilities: this.capabilities, settings: this.settings, stats: this.stats(), diagnostics: this.diagnostics };
  }

  stats() {
    const { video, presenter } = this;
    return {
      framesReceived: video ? video.counters.received : 0,
      framesDecoded: video ? video.counters.decoded : 0,
      framesShown: presenter ? presenter.shown : 0,
      dropped: video ? video.counters.dropped + presenter.replaced : 0,
      decodeErrors: video ? video.counters.decodeErrors : 0,
      decodeMilliseconds: video ? video.decodeTime.get() : 0,
      keptBackByDecoder: video && Number.isFinite(video.keptBack) ? video.keptBack : null,
      codec: video ? video.codecString : '',
      decoder: video ? video.label || '' : '',
      presenter: presenter ? presenter.name : '',
      width: video ? video.width : 0,
      height: video ? video.height : 0,
      mode: this.model.mode,
      connected: this.model.phase === 'connected',
      reconnects: this.connection ? this.connection.reconnects : 0,
      queueMilliseconds: video ? video.waitMilliseconds : 0,
      latencyMilliseconds: this.shownLatency,
      audio: this.sound.facts,
      lipSyncMilliseconds: this.lipSync.get(),
    };
  }
}

const viewer = new Viewer();

/**
 * A view into the page for diagnostics and measurements. Nothing in the viewer depends on it, and it offers nothing
 * that the token's owner could not do by hand.
 *   state            'armed' | 'starting' | 'streaming' | 'error', as the host said last
 *   phase            of the connection: 'connecting', 'connected', 'waiting', 'askTakeover', 'replaced', 'unauthorized', 'stopped'
 *   stats            counters, see Viewer.stats
 *   onFrameDecoded   (videoFrame, receivedAtMs, decodedAtMs); must not keep or close the frame
 *   onFrameShown     ({timestamp, receivedAt, decodedAt, shownAt, metadata, element}); timestamp in the host's microseconds
 *   audio            {state, bufferMilliseconds, targetMilliseconds, driftMilliseconds, correction, underruns, gaps}
 *   audioAnalyser    the AnalyserNode in front of the loudspeaker, or null before there is sound
 *   audioOffset      performance.now() minus the host's milliseconds of what is heard now; null while nothing is
 *   sendControl(o)   sends one control message; whether it went out
 */
window.kestruneViewer = {
  get state() { return viewer.model.stream.state; },
  get phase() { return viewer.model.phase; },
  get stats() { return viewer.stats(); },
  get report() { return viewer.report(); },
  get pictureRect() { return viewer.ui.pictureRect(); },
  set onFrameDecoded(hook) { viewer.hooks.onFrameDecoded = hook; },
  get onFrameDecoded() { return viewer.hooks.onFrameDecoded; },
  set onFrameShown(hook) { viewer.hooks.onFrameShown = hook; },
  get onFrameShown() { return viewer.hooks.onFrameShown; },
  get audio() { return viewer.sound.facts; },
  get audioAnalyser() { return viewer.sound.analyser || null; },
  get audioOffset() { return viewer.sound.offset; },
  sendControl: (message) => viewer.send(message),
};

viewer.start();

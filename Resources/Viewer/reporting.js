/**
 * What the viewer tells about itself: telemetry for the host, the statistics panel, and a report of what this browser
 * can do. The report never holds the access token.
 */

const PLOT_SECONDS = 60;

/** The host drops telemetry as a whole if a field is missing or a whole number has a fraction. */
export function telemetryMessage({
  viewerFPS, decodeMilliseconds, videoBufferMilliseconds, audioBufferMilliseconds, audioDriftMilliseconds, reconnects,
}) {
  const whole = (value) => (Number.isFinite(value) ? Math.round(value) : 0);
  const real = (value) => (Number.isFinite(value) ? value : 0);
  return {
    type: 'telemetry',
    viewerFPS: real(viewerFPS),
    decodeMilliseconds: real(decodeMilliseconds),
    videoBufferMilliseconds: whole(videoBufferMilliseconds),
    audioBufferMilliseconds: whole(audioBufferMilliseconds),
    audioDriftMilliseconds: whole(audioDriftMilliseconds),
    reconnects: whole(reconnects),
    videoBufferRebuildTargetMilliseconds: 5000,
  };
}

/** What the browser lacks, in words; empty if the viewer can run. */
export function missingCapabilities(scope) {
  const missing = [];
  if (typeof scope.WebSocket === 'undefined') missing.push('WebSocket');
  if (typeof scope.VideoDecoder === 'undefined' || typeof scope.EncodedVideoChunk === 'undefined') {
    missing.push(scope.isSecureContext === false ? 'a secure connection (https, or 127.0.0.1)' : 'WebCodecs video decoding');
  }
  return missing;
}

export async function capabilityReport(scope, canDecodeHevc) {
  const has = (name) => typeof scope[name] !== 'undefined';
  const decodes = async (hardwareAcceleration) => {
    try {
      return (await scope.VideoDecoder.isConfigSupported({ codec: 'avc1.42C028', hardwareAcceleration })).supported === true;
    } catch (error) {
      return false;
    }
  };
  return {
    userAgent: scope.navigator.userAgent,
    screen: `${scope.innerWidth}x${scope.innerHeight} at ${scope.devicePixelRatio}`,
    secureContext: scope.isSecureContext,
    webCodecs: has('VideoDecoder'),
    h264Hardware: await decodes('prefer-hardware'),
    h264Software: await decodes('prefer-software'),
    hevc: await canDecodeHevc(),
    trackGenerator: has('MediaStreamTrackGenerator') || has('VideoTrackGenerator'),
    frameCallback: has('HTMLVideoElement') && 'requestVideoFrameCallback' in scope.HTMLVideoElement.prototype,
    wakeLock: 'wakeLock' in scope.navigator,
    audioWorklet: has('AudioWorkletNode'),
    segmenter: typeof Intl !== 'undefined' && 'Segmenter' in Intl,
    touchPoints: scope.navigator.maxTouchPoints || 0,
  };
}

/** Makes the values of a second out of counters that only grow. Pure. */
export class SecondMeter {
  constructor() {
    this.before = { shown: 0, dropped: 0, bytes: 0, underruns: 0, lost: 0 };
    this.last = { fps: 0, latency: 0, dropped: 0, megabits: 0 };
  }

  /**
   * To be called once a second.
   * @param {object} now `stats` of the viewer, `bytes` received, `host` diagnostics or null, and `isShowing`, whether
   *   the latency of the last picture still says something
   * @returns the second that has just ended, with the fields that PLOTS names
   */
  measure({ stats, bytes, host, isShowing }) {
    const { before } = this;
    const { audio } = stats;
    const now = {
      shown: stats.framesShown,
      dropped: stats.dropped,
      bytes,
      underruns: audio.underruns,
      lost: host ? host.networkDroppedFrames : 0,
    };
    this.before = now;
    this.last = {
      fps: now.shown - before.shown,
      latency: isShowing ? stats.latencyMilliseconds : 0,
      dropped: now.dropped - before.dropped,
      megabits: ((now.bytes - before.bytes) * 8) / 1e6,
      underruns: now.underruns - before.underruns,
      soundBuffer: audio.state === 'playing' ? audio.bufferMilliseconds : NaN,
      captureFPS: host ? host.captureFPS : NaN,
      encodeFPS: host ? host.encodeFPS : NaN,
      hostMegabits: host ? host.bitRateMbps : NaN,
      lost: now.lost - before.lost,
    };
    return this.last;
  }
}

/**
 * The curves of the last minute: what the host says of itself and what is measured here, side by side. `field` names a
 * value of a sample; `marks` are ticks at the bottom for seconds in which that value is not 0.
 */
const PLOTS = [
  { id: 'plot-frames', least: 30, curves: [{ field: 'captureFPS', colour: '--line-capture' }, { field: 'encodeFPS', colour: '--line-encode' }, { field: 'fps', colour: '--accent' }], marks: 'dropped' },
  { id: 'plot-times', least: 40, curves: [{ field: 'soundBuffer', colour: '--good' }, { field: 'latency', colour: '--wait' }], marks: 'underruns' },
  { id: 'plot-rates', least: 2, curves: [{ field: 'hostMegabits', colour: '--line-encode' }, { field: 'megabits', colour: '--accent' }], marks: 'lost' },
];

/** The panel of figures and the plots of the last minute. */
export class StatisticsPanel {
  /** @param {(id: string) => Element} byId */
  constructor(byId) {
    this.figures = byId('figures');
    this.plots = PLOTS.map((plot) => ({ ...plot, canvas: byId(plot.id) }));
    this.samples = []; // one a second, the fields as in PLOTS
    this.rows = new Map();
  }

  /** @param {object} sample the values of the last second; one that is not known is NaN */
  add(sample) {
    this.samples.push(sample);
    if (this.samples.length > PLOT_SECONDS) this.samples.shift();
  }

  /** @param {Array<[string, string | null]>} rows label and value; a null value makes the label a heading */
  show(rows) {
    const signature = rows.map((row) => row[0]).join('|');
    if (signature !== this.signature) this.build(rows, signature);
    for (const [label, value] of rows) {
      const cell = this.rows.get(label);
      if (cell && cell.textContent !== value) cell.textContent = value;
    }
    for (const plot of this.plots) drawPlot(plot, this.samples);
  }

  build(rows, signature) {
    this.signature = signature;
    this.rows.clear();
    this.figures.textContent = '';
    for (const [label, value] of rows) {
      const term = document.createElement('dt');
      term.textContent = label;
      this.figures.append(term);
      if (value === null) {
        term.className = 'heading';
        continue;
      }
      const cell = document.createElement('dd');
      this.figures.append(cell);
      this.rows.set(label, cell);
    }
  }
}

function drawPlot({ canvas, least, curves, marks }, samples) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = canvas.clientHeight;
  if (width === 0) return;
  canvas.width = Math.round(width * ratio);
  canvas.height = Math.round(height * ratio);
  const context = canvas.getContext('2d');
  context.scale(ratio, ratio);
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  const box = { left: 28, right: width - 6, top: 8, bottom: height - 8 };
  const values = curves.flatMap(({ field }) => samples.map((sample) => sample[field]));
  const top = axisTop(values.filter(Number.isFinite), least);
  drawGrid(context, box, { top, line: colour('--line'), text: colour('--quiet') });
  const x = (index) => box.right - ((samples.length - 1 - index) * (box.right - box.left)) / (PLOT_SECONDS - 1);
  context.fillStyle = colour('--bad');
  samples.forEach((sample, index) => {
    if (sample[marks] > 0) context.fillRect(x(index) - 1, box.bottom - 5, 3, 5);
  });
  for (const { field, colour: name } of curves) {
    context.beginPath();
    let drawing = false;
    samples.forEach((sample, index) => {
      const value = sample[field];
      const y = box.bottom - (Math.min(value, top) / top) * (box.bottom - box.top);
      if (!Number.isFinite(value)) drawing = false;
      else if (drawing) context.lineTo(x(index), y);
      else context.moveTo(x(index), y);
      drawing = Number.isFinite(value);
    });
    context.strokeStyle = colour(name);
    context.lineWidth = 1.6;
    context.lineJoin = 'round';
    context.stroke();
  }
}

function drawGrid(context, box, { top, line, text }) {
  context.font = '10px system-ui, sans-serif';
  context.textBaseline = 'middle';
  context.textAlign = 'right';
  context.lineWidth = 1;
  for (const part of [0, 0.5, 1]) {
    const y = Math.round(box.bottom - part * (box.bottom - box.top)) + 0.5;
    context.strokeStyle = line;
    context.beginPath();
    context.moveTo(box.left, y);
    context.lineTo(box.right, y);
    context.stroke();
    context.fillStyle = text;
    context.fillText(String(part * top), box.left - 5, y);
  }
}

const SOUND_WORDS = {
  off: 'off', locked: 'waits for a tap', interrupted: 'interrupted', muted: 'muted', buffering: 'waiting for sound',
  playing: 'playing', unsupported: 'not possible here',
};

/** Rows of the panel about the sound. */
function soundRows(sound, lipSync) {
  const playing = sound.state === 'playing';
  const when = (text) => (playing ? text : '–');
  return [
    ['Sound', null],
    ['State', SOUND_WORDS[sound.state]],
    ['Sound buffer', when(`${sound.bufferMilliseconds.toFixed(0)} ms, reserve ${sound.targetMilliseconds.toFixed(0)}`)],
    ['Sound drift', when(`${sound.driftMilliseconds.toFixed(0)} ms, speed ${(sound.correction * 1000).toFixed(1)} ‰`)],
    ['Picture behind sound', when(`${lipSync.toFixed(0)} ms`)],
    ['Ran dry / gaps', `${sound.underruns} / ${sound.gaps}`],
  ];
}

/** Rows of the panel about what the host says of itself. */
function diagnosticsRows(host) {
  const number = (value, digits) => (Number.isFinite(value) ? value.toFixed(digits) : '–');
  return [
    ['Host', null],
    ['Capture', `${number(host.captureFPS, 1)} of ${number(host.captureTargetFPS, 0)} /s`],
    ['Encode', `${number(host.encodeFPS, 1)} /s`],
    ['Bit rate', `${number(host.bitRateMbps, 2)} Mbit/s`],
    ['Captured / encoded', `${number(host.capturedFrames, 0)} / ${number(host.encodedFrames, 0)}`],
    ['Dropped at capture', number(host.captureDroppedFrames, 0)],
    ['Dropped for the network', number(host.networkDroppedFrames, 0)],
    ['Waiting: encoder / server', `${number(host.encoderPendingFrames, 0)} / ${number(host.serverPendingFrames, 0)}`],
    ['Sound channels', number(host.audioChannels, 0)],
    ['Display', host.captureMode === 'virtualDisplay' ? 'virtual' : 'physical'],
  ];
}

/**
 * All rows of the panel.
 * @param {object} facts `stats` of the viewer, `second` of SecondMeter, `roundTripMs` and `host` or null
 */
export function statisticsRows({ stats, second, roundTripMs, host }) {
  return [
    ['Frames shown', `${second.fps} /s`],
    ['Decode time', `${stats.decodeMilliseconds.toFixed(1)} ms`],
    ['Latency estimate', `${second.latency.toFixed(0)} ms`],
    ['Round trip', roundTripMs === null ? '–' : `${roundTripMs.toFixed(1)} ms`],
    ['Dropped here', String(stats.dropped)],
    ['Received', `${second.megabits.toFixed(2)} Mbit/s`],
    ['Picture', stats.width ? `${stats.width} × ${stats.height}` : '–'],
    ['Codec', stats.codec || '–'],
    ['Decoder', stats.decoder || '–'],
    ['Queue', stats.mode === 'video' ? `${stats.queueMilliseconds.toFixed(0)} ms` : 'none'],
    ['Presented by', stats.presenter],
    ['Reconnects', String(stats.reconnects)],
    ...soundRows(stats.audio, stats.lipSyncMilliseconds),
    ...(host ? diagnosticsRows(host) : []),
  ];
}

/** The first of a few round numbers at or above every value. */
export function axisTop(values, least) {
  const most = Math.max(least, ...values);
  const steps = [2, 4, 10, 20, 30, 40, 60, 80, 100, 150, 200, 300, 500, 1000, 2000, 5000];
  return steps.find((step) => step >= most) || most;
}

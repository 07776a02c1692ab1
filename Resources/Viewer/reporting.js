/**
 * What the viewer tells about itself: telemetry for the host, the statistics panel, and a report of what this browser
 * can do. The report never holds the access token.
 */

const PLOT_SECONDS = 60;

/** The host drops telemetry as a whole if a field is missing or a whole number has a fraction. */
export function telemetryMessage({ viewerFPS, decodeMilliseconds, videoBufferMilliseconds, reconnects }) {
  const whole = (value) => (Number.isFinite(value) ? Math.round(value) : 0);
  const real = (value) => (Number.isFinite(value) ? value : 0);
  return {
    type: 'telemetry',
    viewerFPS: real(viewerFPS),
    decodeMilliseconds: real(decodeMilliseconds),
    videoBufferMilliseconds: whole(videoBufferMilliseconds),
    audioBufferMilliseconds: 0,
    audioDriftMilliseconds: 0,
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
    segmenter: typeof Intl !== 'undefined' && 'Segmenter' in Intl,
    touchPoints: scope.navigator.maxTouchPoints || 0,
  };
}

/** The panel of figures and the plot of the last minute. */
export class StatisticsPanel {
  constructor({ plot, figures }) {
    this.plot = plot;
    this.figures = figures;
    this.samples = []; // one a second: {fps, latency, dropped}
    this.rows = new Map();
  }

  /** @param {{fps: number, latency: number, dropped: number}} sample  `dropped` in this second */
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
    this.draw();
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

  draw() {
    const { plot, samples } = this;
    const ratio = window.devicePixelRatio || 1;
    const width = plot.clientWidth;
    const height = plot.clientHeight;
    if (width === 0) return;
    plot.width = Math.round(width * ratio);
    plot.height = Math.round(height * ratio);
    const context = plot.getContext('2d');
    context.scale(ratio, ratio);
    const style = getComputedStyle(document.documentElement);
    const colour = (name) => style.getPropertyValue(name).trim();
    const box = { left: 24, right: width - 28, top: 8, bottom: height - 8 };
    const fpsTop = axisTop(samples.map((sample) => sample.fps), 30);
    const latencyTop = axisTop(samples.map((sample) => sample.latency), 40);
    this.drawGrid(context, box, { fpsTop, latencyTop, line: colour('--line'), text: colour('--quiet') });
    const x = (index) => box.right - ((samples.length - 1 - index) * (box.right - box.left)) / (PLOT_SECONDS - 1);
    context.fillStyle = colour('--bad');
    samples.forEach((sample, index) => {
      if (sample.dropped > 0) context.fillRect(x(index) - 1, box.bottom - 5, 3, 5);
    });
    const line = (value, top, stroke) => {
      context.beginPath();
      samples.forEach((sample, index) => {
        context.lineTo(x(index), box.bottom - (Math.min(value(sample), top) / top) * (box.bottom - box.top));
      });
      context.strokeStyle = stroke;
      context.lineWidth = 1.6;
      context.lineJoin = 'round';
      context.stroke();
    };
    line((sample) => sample.latency, latencyTop, colour('--wait'));
    line((sample) => sample.fps, fpsTop, colour('--accent'));
  }

  drawGrid(context, box, { fpsTop, latencyTop, line, text }) {
    context.font = '10px system-ui, sans-serif';
    context.textBaseline = 'middle';
    context.lineWidth = 1;
    for (const part of [0, 0.5, 1]) {
      const y = Math.round(box.bottom - part * (box.bottom - box.top)) + 0.5;
      context.strokeStyle = line;
      context.beginPath();
      context.moveTo(box.left, y);
      context.lineTo(box.right, y);
      context.stroke();
      context.fillStyle = text;
      context.textAlign = 'right';
      context.fillText(String(Math.round(part * fpsTop)), box.left - 5, y);
      context.textAlign = 'left';
      context.fillText(String(Math.round(part * latencyTop)), box.right + 5, y);
    }
  }
}

/** The first of a few round numbers at or above every value. */
export function axisTop(values, least) {
  const most = Math.max(least, ...values);
  const steps = [10, 20, 30, 40, 60, 80, 100, 150, 200, 300, 500, 1000, 2000, 5000];
  return steps.find((step) => step >= most) || most;
}

// Measures how far picture and sound are apart at the page: a square turns white on the display at the instant at
// which a beep is heard at the sink, and the page says when it presented the one, and its audio clock when the other was heard.
// Prints median and worst of the distances (positive: the sound came later), and both delays, in milliseconds.
// Needs a sound server: run it under scripts/with-private-sound.
//
// usage: scripts/with-private-sound node bench/endtoend/lipsync.mjs BUILD_FOLDER [COUNT]

import { Host, XServer, launchBrowser, sleep, waitForPictures } from '../../tests/browser/lab.mjs';
import { Scene } from './tools.mjs';

const [build, countText = '50'] = process.argv.slice(2);
if (!build) {
  console.error('usage: scripts/with-private-sound node bench/endtoend/lipsync.mjs BUILD_FOLDER [COUNT]');
  process.exit(2);
}
const count = Number(countText);

/** Runs on the audio thread: tells when a sound begins after silence, in seconds of the audio clock. */
const onsetModule = `registerProcessor('onset', class extends AudioWorkletProcessor {
  constructor() { super(); this.silentSince = 0; }
  process([[samples]]) {
    samples?.forEach((sample, index) => {
      const time = currentTime + index / sampleRate;
      if (Math.abs(sample) < 0.05) return;
      if (time - this.silentSince > 0.2) this.port.postMessage(time);
      this.silentSince = time;
    });
    return true;
  }
});`;

/** Runs in the page: notes when the square is shown white, and when a beep is heard, in milliseconds since 1970. */
async function installProbe(moduleText) {
  const probe = { shown: [], heard: [] };
  window.probe = probe;
  const canvas = document.createElement('canvas');
  canvas.width = canvas.height = 1;
  const context = canvas.getContext('2d', { willReadFrequently: true });
  let wasWhite = false;
  window.kestruneViewer.onFrameShown = ({ shownAt, element }) => {
    context.drawImage(element, (element.videoWidth || element.width) / 2, (element.videoHeight || element.height) / 2, 2, 2, 0, 0, 1, 1);
    const white = context.getImageData(0, 0, 1, 1).data[0] > 128;
    if (white && !wasWhite) probe.shown.push(performance.timeOrigin + shownAt);
    wasWhite = white;
  };
  const analyser = window.kestruneViewer.audioAnalyser;
  const audio = analyser.context;
  await audio.audioWorklet.addModule(URL.createObjectURL(new Blob([moduleText], { type: 'text/javascript' })));
  const onset = new AudioWorkletNode(audio, 'onset');
  onset.port.onmessage = ({ data }) => {
    const { contextTime, performanceTime } = audio.getOutputTimestamp();
    probe.heard.push(performance.timeOrigin + performanceTime + (data - contextTime) * 1000);
  };
  analyser.connect(onset).connect(audio.destination);
}

const nearest = (list, at) => list.reduce((best, each) => (Math.abs(each - at) < Math.abs(best - at) ? each : best), Infinity);
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

const server = await XServer.start(1920, 1080);
const flashes = [];
const scene = await Scene.start(build, server.display, 'beep', (microseconds, colour) => {
  if (colour === 1) flashes.push(microseconds / 1000);
});
const host = await Host.start(build, server.display, { 'stream.profile': 'high', 'stream.frameRate': 60 });
const browser = await launchBrowser();
const context = await browser.newContext({ viewport: { width: 1200, height: 800 }, bypassCSP: true });
const page = await context.newPage();
await page.goto(host.url);
await waitForPictures(page);
await page.mouse.click(600, 20);
await page.waitForFunction(() => window.kestruneViewer.audio.state === 'playing', null, { timeout: 20000 });
await sleep(10); // the reserve and the speed settle
await page.evaluate(installProbe, onsetModule);
await sleep(1);
flashes.length = 0;
while (flashes.length < count) await sleep(0.5);
await sleep(1);
const { shown, heard } = await page.evaluate(() => window.probe);
const events = flashes.map((at) => ({ picture: nearest(shown, at + 300) - at, sound: nearest(heard, at + 300) - at }))
  .filter(({ picture, sound }) => picture > 0 && picture < 700 && sound > 0 && sound < 700);
const distances = events.map(({ picture, sound }) => sound - picture);
const worst = distances.reduce((most, each) => (Math.abs(each) > Math.abs(most) ? each : most), 0);
console.log(`${events.length} of ${flashes.length} flashes and beeps seen and heard`);
console.log(`sound after picture: median ${median(distances).toFixed(1)} ms, worst ${worst.toFixed(1)} ms`);
console.log(`delay of the picture ${median(events.map(({ picture }) => picture)).toFixed(0)} ms, of the sound ${median(events.map(({ sound }) => sound)).toFixed(0)} ms (medians)`);
await browser.close();
await host.stop();
scene.stop();
server.stop();
process.exit(0);

// Measures, with a square that changes between black and white on the display and a page in headless Chromium:
//   decoded: change written to the display server -> frame with the change out of the page's decoder
//   shown:   the same -> the page's presentation callback for the picture that has the change
//   click:   mouse button pressed in the page -> presentation of the picture in which the clicked square has changed
//   rest:    share of a core that all processes of the browser take while the screen stands still
// Prints median and 95th percentile in milliseconds and the pictures shown in a second, over a still and over a
// scrolling screen, in control mode, at 1600x900 and one picture pixel per pixel of the page. Several builds take turns.
//
// usage: node bench/endtoend/latency.mjs BUILD_FOLDER... [--count=60] [--scenes=flash,flashscroll,click,clickscroll,rest]

import { readFileSync, readdirSync } from 'node:fs';

import { Host, XServer, launchBrowser, openViewer, sleep } from '../../tests/browser/lab.mjs';
import { Scene, processUse } from './tools.mjs';

const builds = process.argv.slice(2).filter((argument) => !argument.startsWith('--'));
const options = new Map(process.argv.slice(2).filter((argument) => argument.startsWith('--')).map((argument) => argument.slice(2).split('=')));
if (builds.length === 0) {
  console.error('usage: node bench/endtoend/latency.mjs BUILD_FOLDER... [--count=60] [--scenes=flash,flashscroll,click,clickscroll,rest]');
  process.exit(2);
}
const count = Number(options.get('count') ?? 60);
const scenes = (options.get('scenes') ?? 'flash,flashscroll,click,clickscroll,rest').split(',');
const WIDTH = 1600;
const HEIGHT = 900;
const REST_SECONDS = 10;

function percentile(values, share) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * share))];
}

/**
 * Runs in the page: notes the colour in the middle of every picture when it is decoded, and which picture is shown when.
 * It draws nothing, since that would delay what it measures.
 */
function installProbe() {
  const probe = { decoded: [], shown: [], pressed: [] };
  window.probe = probe;
  const epochMs = (pageMs) => performance.timeOrigin + pageMs;
  window.kestruneViewer.onFrameDecoded = (frame, receivedAt, decodedAt) => {
    // Two by two pixels of luma; the planes differ by decoder, the first is luma in all.
    const rect = { x: (frame.codedWidth >> 2) * 2, y: (frame.codedHeight >> 2) * 2, width: 2, height: 2 };
    const pixels = new Uint8Array(64);
    const entry = { at: epochMs(decodedAt), picture: frame.timestamp };
    probe.decoded.push(entry);
    const copy = frame.clone();
    copy.copyTo(pixels, { rect }).then(() => {
      entry.white = pixels[0] > 128;
      copy.close();
    });
  };
  window.kestruneViewer.onFrameShown = ({ shownAt, timestamp, metadata }) => {
    const picture = metadata && metadata.mediaTime > 0 ? Math.round(metadata.mediaTime * 1e6) : timestamp;
    probe.shown.push({ at: epochMs(shownAt), picture });
  };
  window.addEventListener('pointerdown', (event) => probe.pressed.push(epochMs(event.timeStamp)), true);
}

/** The first picture of each colour in a row. */
function changes(pictures) {
  return pictures.filter(({ white }, index) => index === 0 || white !== pictures[index - 1].white);
}

/** For every cause, the first sight of its colour behind it and before the next cause. */
function distances(causes, sights) {
  const result = [];
  causes.forEach((cause, index) => {
    const end = index + 1 < causes.length ? causes[index + 1].at : Infinity;
    const sight = sights.find(({ at, white }) => at >= cause.at - 1 && at < end && (cause.white === undefined || white === cause.white));
    if (sight) result.push(sight.at - cause.at);
  });
  return result;
}

/** Processor seconds so far of the processes below this one that belong to the browser. */
function browserProcessorSeconds() {
  const parents = new Map();
  for (const name of readdirSync('/proc').filter((entry) => /^\d+$/.test(entry))) {
    try {
      const [, command, parent] = /^\d+ \((.*)\) \S (\d+)/s.exec(readFileSync(`/proc/${name}/stat`, 'utf8'));
      parents.set(Number(name), { command, parent: Number(parent) });
    } catch {
      // It has just ended.
    }
  }
  const isBelow = (pid) => pid === process.pid || (parents.has(pid) && isBelow(parents.get(pid).parent));
  return [...parents].filter(([pid, { command }]) => /^chrom/.test(command) && isBelow(pid))
    .reduce((sum, [pid]) => sum + processUse(pid).processorSeconds, 0);
}

/** Gives the picture the size on the page that it has on the display. */
async function showUnscaled(page) {
  const { width, height } = await page.evaluate(() => {
    const stage = document.getElementById('stage').getBoundingClientRect();
    return { width: window.innerWidth - stage.width, height: window.innerHeight - stage.height };
  });
  await page.setViewportSize({ width: WIDTH + width, height: HEIGHT + height });
  await page.waitForFunction(([w, h]) => window.kestruneViewer.pictureRect?.width === w && window.kestruneViewer.pictureRect.height === h, [WIDTH, HEIGHT]);
}

async function measure(build, sceneName) {
  const server = await XServer.start(WIDTH, HEIGHT);
  const toggles = [];
  const scene = await Scene.start(build, server.display, sceneName === 'rest' ? 'idle' : sceneName, (microseconds, colour) => {
    toggles.push({ at: microseconds / 1000, white: colour === 1 });
  });
  const host = await Host.start(build, server.display, { 'stream.profile': 'high', 'stream.frameRate': 60 });
  const browser = await launchBrowser();
  try {
    const page = await openViewer(browser, host.url);
    const isClick = sceneName.startsWith('click');
    // The newest picture at once, as in use by hand; video mode trades delay for evenness.
    await page.click('#mode-control');
    await showUnscaled(page);
    await page.mouse.move(600, 400);
    await sleep(3);
    if (sceneName === 'rest') {
      const before = browserProcessorSeconds();
      await sleep(REST_SECONDS);
      return { cores: (browserProcessorSeconds() - before) / REST_SECONDS };
    }
    await page.evaluate(installProbe);
    await sleep(0.5);
    toggles.length = 0;
    const begun = performance.now();
    const framesBefore = await page.evaluate(() => window.kestruneViewer.stats.framesShown);
    if (isClick) {
      for (let index = 0; index < count; index++) {
        await page.mouse.click(600, 400);
        await sleep(0.35 + Math.random() * 0.1);
      }
    } else {
      await sleep(count * 0.41);
    }
    const frames = await page.evaluate(() => window.kestruneViewer.stats.framesShown) - framesBefore;
    const fps = (frames * 1000) / (performance.now() - begun);
    await sleep(0.5);
    const seen = await page.evaluate(() => window.probe);
    const colours = new Map(seen.decoded.map(({ picture, white }) => [picture, white]));
    const decoded = changes(seen.decoded);
    const shown = changes(seen.shown.filter(({ picture }) => colours.has(picture))
      .map(({ at, picture }) => ({ at, white: colours.get(picture) })));
    const { pressed } = seen;
    if (isClick) return { shown: distances(pressed.map((at) => ({ at })), shown.slice(1)), wanted: pressed.length, fps };
    return { decoded: distances(toggles, decoded), shown: distances(toggles, shown), wanted: toggles.length, fps };
  } finally {
    await browser.close();
    await host.stop();
    scene.stop();
    server.stop();
  }
}

const show = (values) => (values?.length
  ? `${percentile(values, 0.5).toFixed(1).padStart(6)} /${percentile(values, 0.95).toFixed(1).padStart(6)}`
  : '     - /     -');
console.log('scene         seen      decoded           shown       frames/s  (median / 95th percentile, ms)');
for (const scene of scenes) {
  for (const build of builds) {
    const { decoded, shown, wanted, fps, cores } = await measure(build, scene);
    const figures = scene === 'rest' ? `${cores.toFixed(3)} of a core`
      : `${String(shown.length).padStart(3)}/${wanted}  ${show(decoded)}   ${show(shown)}   ${fps.toFixed(1).padStart(6)}`;
    console.log(`${scene.padEnd(12)} ${figures}${builds.length > 1 ? `   ${build}` : ''}`);
  }
}
process.exit(0);

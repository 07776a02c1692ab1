// Measures, with a square that changes between black and white on the display and a page in headless Chromium:
//   decoded: change written to the display server -> frame with the change out of the page's decoder
//   shown:   the same -> the page's presentation callback for the picture that has the change
//   click:   mouse button pressed in the page -> presentation of the picture in which the clicked square has changed
// Prints median and 95th percentile in milliseconds, over a still and over a scrolling screen, at 1600x900.
//
// usage: node bench/endtoend/latency.mjs BUILD_FOLDER [COUNT]

import { Host, Scene, XServer, launchBrowser, openViewer, sleep } from '../../tests/browser/lab.mjs';

const [build, countText = '60'] = process.argv.slice(2);
if (!build) {
  console.error('usage: node bench/endtoend/latency.mjs BUILD_FOLDER [COUNT]');
  process.exit(2);
}
const count = Number(countText);

function percentile(values, share) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * share))];
}

/** Runs in the page: notes when the colour in the middle of the picture changes, decoded and shown. */
function installProbe() {
  const probe = { decoded: [], shown: [], pressed: [] };
  window.probe = probe;
  const epochMs = (pageMs) => performance.timeOrigin + pageMs;
  const note = (list, atMs, white) => {
    if (list.length === 0 || list[list.length - 1].white !== white) list.push({ at: epochMs(atMs), white });
  };
  // The middle of the picture, two by two pixels of luma; the planes differ by decoder, the first is luma in all.
  const pixels = new Uint8Array(64);
  window.kestruneViewer.onFrameDecoded = (frame, receivedAt, decodedAt) => {
    const rect = { x: (frame.codedWidth >> 2) * 2, y: (frame.codedHeight >> 2) * 2, width: 2, height: 2 };
    const copy = frame.clone();
    copy.copyTo(pixels, { rect }).then(() => {
      note(probe.decoded, decodedAt, pixels[0] > 128);
      copy.close();
    });
  };
  const canvas = document.createElement('canvas');
  canvas.width = 1;
  canvas.height = 1;
  const context = canvas.getContext('2d', { willReadFrequently: true });
  window.kestruneViewer.onFrameShown = ({ shownAt, element }) => {
    const width = element.videoWidth || element.width;
    const height = element.videoHeight || element.height;
    context.drawImage(element, width / 2, height / 2, 2, 2, 0, 0, 1, 1);
    note(probe.shown, shownAt, context.getImageData(0, 0, 1, 1).data[0] > 128);
  };
  window.addEventListener('pointerdown', (event) => probe.pressed.push(epochMs(event.timeStamp)), true);
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

async function measure(sceneName) {
  const server = await XServer.start(1920, 1080);
  const toggles = [];
  const scene = await Scene.start(build, server.display, sceneName, (microseconds, colour) => {
    toggles.push({ at: microseconds / 1000, white: colour === 1 });
  });
  const host = await Host.start(build, server.display, { 'stream.profile': 'high', 'stream.frameRate': 60 });
  const browser = await launchBrowser();
  try {
    const page = await openViewer(browser, host.url);
    const isClick = sceneName.startsWith('click');
    // The newest picture at once, as in use by hand; video mode trades delay for evenness.
    await page.evaluate(() => window.kestruneViewer.sendControl({ type: 'mode', mode: 'control' }));
    if (isClick) await page.click('#mode-control');
    await sleep(3);
    await page.evaluate(installProbe);
    await sleep(0.5);
    toggles.length = 0;
    if (isClick) {
      for (let index = 0; index < count; index++) {
        await page.mouse.click(600, 400);
        await sleep(0.35 + Math.random() * 0.1);
      }
    } else {
      await sleep(count * 0.41);
    }
    await sleep(0.5);
    const { decoded, shown, pressed } = await page.evaluate(() => window.probe);
    if (isClick) return { shown: distances(pressed.map((at) => ({ at })), shown.slice(1)), wanted: pressed.length };
    return { decoded: distances(toggles, decoded), shown: distances(toggles, shown), wanted: toggles.length };
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
console.log('scene         seen      decoded           shown     (median / 95th percentile, ms)');
for (const scene of ['flash', 'flashscroll', 'click', 'clickscroll']) {
  const { decoded, shown, wanted } = await measure(scene);
  console.log(`${scene.padEnd(12)} ${String(shown.length).padStart(3)}/${wanted}  ${show(decoded)}   ${show(shown)}`);
}
process.exit(0);

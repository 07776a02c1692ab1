// Streams a moving picture and sound to a viewer for a while, and prints once a minute what the host holds and uses:
// resident memory, and processor time by thread in milliseconds per second.
// Needs a sound server: run it under scripts/with-private-sound.
//
// usage: scripts/with-private-sound node bench/endtoend/soak.mjs BUILD_FOLDER [MINUTES]

import { readFileSync, readdirSync } from 'node:fs';
import { Host, XServer, sleep } from '../../tests/browser/lab.mjs';
import { Scene, connectCounter, processUse } from './tools.mjs';

const [build, minutesText = '10'] = process.argv.slice(2);
if (!build) {
  console.error('usage: scripts/with-private-sound node bench/endtoend/soak.mjs BUILD_FOLDER [MINUTES]');
  process.exit(2);
}

/** Milliseconds of processor time of each thread since its start; threads of one name are added up. */
function threadUse(pid) {
  const use = {};
  for (const thread of readdirSync(`/proc/${pid}/task`)) {
    const name = readFileSync(`/proc/${pid}/task/${thread}/comm`, 'utf8').trim();
    use[name] = (use[name] ?? 0) + Number(readFileSync(`/proc/${pid}/task/${thread}/schedstat`, 'utf8').split(' ')[0]) / 1e6;
  }
  return use;
}

/** What the page does for sound: a long poll after the other. */
async function pollSound(host, counts) {
  const url = new URL(host.url);
  let after = 0;
  for (;;) {
    const response = await fetch(`http://${url.host}/audio?after=${after}`, { headers: { authorization: `Bearer ${url.hash.slice(1)}` } });
    counts.soundBytes += (await response.arrayBuffer()).byteLength;
    after = Number(response.headers.get('x-audio-sequence') ?? after);
    if (response.status !== 200) await sleep(0.1);
  }
}

const server = await XServer.start(1920, 1080);
const beeps = await Scene.start(build, server.display, 'beep');
const scene = await Scene.start(build, server.display, 'video'); // covers the other
const host = await Host.start(build, server.display, { 'stream.profile': 'high', 'stream.frameRate': 60 });
const viewer = await connectCounter(host);
const counts = { soundBytes: 0 };
let isEnding = false;
pollSound(host, counts).catch((error) => {
  if (isEnding) return;
  console.error(error);
  process.exit(1);
});
for (let minute = 1; minute <= Number(minutesText); minute++) {
  const before = { threads: threadUse(host.pid), frames: viewer.counts().frames, soundBytes: counts.soundBytes };
  await sleep(60);
  const threads = threadUse(host.pid);
  const shares = Object.entries(threads).map(([name, use]) => [name, (use - (before.threads[name] ?? 0)) / 60])
    .filter(([, share]) => share >= 0.05).map(([name, share]) => `${name} ${share.toFixed(1)}`);
  console.log(`minute ${minute}: ${processUse(host.pid).residentMiB.toFixed(1)} MiB, `
    + `${((viewer.counts().frames - before.frames) / 60).toFixed(1)} pictures/s, `
    + `${((counts.soundBytes - before.soundBytes) / 60 / 1024).toFixed(0)} KiB/s of sound; ms/s: ${shares.join(', ')}`);
}
isEnding = true;
viewer.close();
beeps.stop();
scene.stop();
await host.stop();
server.stop();
process.exit(0);

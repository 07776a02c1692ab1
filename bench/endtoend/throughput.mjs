// Measures the road from the display to the socket, and ffmpeg on the same display, size, rate, bit rate and profile,
// in turn in one run, and prints processor seconds per second, frames per second and their ratio.
//
// usage: node bench/endtoend/throughput.mjs BUILD_FOLDER [SECONDS [SCENE...]]

import { Host, XServer, sleep, spawnQuiet } from '../../tests/browser/lab.mjs';
import { Scene, connectCounter, processUse } from './tools.mjs';

const [build, secondsText = '8', ...onlyScenes] = process.argv.slice(2);
if (!build) {
  console.error('usage: node bench/endtoend/throughput.mjs BUILD_FOLDER [SECONDS [SCENE...]]');
  process.exit(2);
}
const seconds = Number(secondsText);

const cases = [
  { scene: 'idle', profile: 'high', fps: 60 },
  { scene: 'caret', profile: 'high', fps: 60 },
  { scene: 'video', profile: 'high', fps: 30 },
  { scene: 'video', profile: 'high', fps: 60 },
  { scene: 'scroll', profile: 'high', fps: 60 },
  { scene: 'scroll', profile: 'balanced', fps: 60 },
].filter((entry) => onlyScenes.length === 0 || onlyScenes.includes(entry.scene));
const sizes = { high: '1600:900', balanced: '1280:720' };

/** Our host with one viewer that only counts what arrives. */
async function measureHost(display, entry) {
  const host = await Host.start(build, display, { 'stream.profile': entry.profile, 'stream.frameRate': entry.fps });
  try {
    const viewer = await connectCounter(host);
    await sleep(4);
    const before = { use: processUse(host.pid), ...viewer.counts() };
    await sleep(seconds);
    const after = { use: processUse(host.pid), ...viewer.counts() };
    viewer.close();
    return {
      cores: (after.use.processorSeconds - before.use.processorSeconds) / seconds,
      fps: (after.frames - before.frames) / seconds,
      kbit: ((after.bytes - before.bytes) * 8) / seconds / 1000,
      residentMiB: after.use.residentMiB,
    };
  } finally {
    await host.stop();
  }
}

/** ffmpeg's own grabber and x264 with the same settings; the bytes go through a pipe, as ours go through a socket. */
async function measureFfmpeg(display, entry) {
  const child = spawnQuiet('ffmpeg', [
    '-loglevel', 'error', '-f', 'x11grab', '-draw_mouse', '0', '-framerate', String(entry.fps),
    '-video_size', '1920x1080', '-i', display, '-vf', `scale=${sizes[entry.profile]}`, '-pix_fmt', 'yuv420p',
    '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-profile:v', 'baseline', '-threads', '1',
    '-b:v', '4M', '-maxrate', '6M', '-bufsize', '6M', '-g', String(2 * entry.fps),
    '-progress', 'pipe:2', '-stats_period', '0.5', '-f', 'h264', 'pipe:1',
  ], { DISPLAY: display });
  let bytes = 0;
  let frames = 0;
  child.stdout.on('data', (data) => { bytes += data.length; });
  child.stderr.on('data', (data) => {
    for (const match of String(data).matchAll(/frame=\s*(\d+)/g)) frames = Number(match[1]);
  });
  await sleep(3);
  const before = { use: processUse(child.pid), bytes, frames };
  await sleep(seconds);
  const after = { use: processUse(child.pid), bytes, frames };
  child.kill('SIGKILL');
  return {
    cores: (after.use.processorSeconds - before.use.processorSeconds) / seconds,
    fps: (after.frames - before.frames) / seconds,
    kbit: ((after.bytes - before.bytes) * 8) / seconds / 1000,
  };
}

const show = (number, digits = 2) => number.toFixed(digits).padStart(7);
console.log('scene   size      rate |    cores     fps  kbit/s     MiB | ffmpeg cores   fps  kbit/s | cores ours/ffmpeg');
for (const entry of cases) {
  const server = await XServer.start(1920, 1080);
  const scene = await Scene.start(build, server.display, entry.scene);
  try {
    const ours = await measureHost(server.display, entry);
    const peer = await measureFfmpeg(server.display, entry);
    console.log(`${entry.scene.padEnd(7)} ${sizes[entry.profile].padEnd(9)} ${String(entry.fps).padStart(4)} |`
      + ` ${show(ours.cores, 3)} ${show(ours.fps, 1)} ${show(ours.kbit, 0)} ${show(ours.residentMiB, 0)} |`
      + `      ${show(peer.cores, 3)} ${show(peer.fps, 1)} ${show(peer.kbit, 0)} | ${show(ours.cores / peer.cores, 3)}`);
  } finally {
    scene.stop();
    server.stop();
  }
}
process.exit(0);

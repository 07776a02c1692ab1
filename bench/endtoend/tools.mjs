// What only the measurements need: scenes on the display, a viewer that counts, and what a process uses.

import { readFileSync } from 'node:fs';
import path from 'node:path';

import { connectViewer, spawnQuiet, waitForLine } from '../../tests/browser/lab.mjs';

export class Scene {
  /** `onToggle(microseconds, colour)` hears of each change of the square. */
  static async start(build, display, name, onToggle = () => {}) {
    const child = spawnQuiet(path.join(build, 'bin/screen_content'), [name], { DISPLAY: display });
    await waitForLine(child.stdout, (line) => line === 'ready', (line) => {
      const match = /^(\d+) ([01])$/.exec(line);
      if (match) onToggle(Number(match[1]), Number(match[2]));
    });
    return Object.assign(new Scene(), { child });
  }
  stop() { this.child.kill('SIGTERM'); }
}

/** A viewer without a decoder that counts what arrives. */
export async function connectCounter(host) {
  const counts = { frames: 0, bytes: 0 };
  const viewer = await connectViewer(host, { onFrame: (data) => {
    counts.frames += 1;
    counts.bytes += data.length;
  } });
  return { ...viewer, counts: () => ({ ...counts }) };
}

/** Processor time of all threads since the start, and resident memory, of a process. */
export function processUse(pid) {
  const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').replace(/^.*\) /s, '').split(' ');
  const resident = /VmRSS:\s+(\d+) kB/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'));
  return {
    processorSeconds: (Number(fields[11]) + Number(fields[12])) / 100,
    residentMiB: Number(resident[1]) / 1024,
  };
}

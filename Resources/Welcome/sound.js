// Tones on either side, and a beat whose lamp lights when it sounds.

const kTone = 440; // Hz
const kToneSeconds = 0.8;
const kBeatSeconds = 1;
const kBeepSeconds = 0.06;

const lamp = document.getElementById('lamp');
const figures = document.getElementById('figures');
const beatButton = document.getElementById('beat');
let audio = null;
let beating = 0; // the timer of the next beat; 0 while there is none

function play(frequency, pan, at, seconds) {
  const tone = new OscillatorNode(audio, { frequency });
  const gain = new GainNode(audio, { gain: 0 });
  gain.gain.setValueAtTime(0, at);
  gain.gain.linearRampToValueAtTime(0.3, at + 0.01); // a step would click
  gain.gain.setValueAtTime(0.3, at + seconds - 0.01);
  gain.gain.linearRampToValueAtTime(0, at + seconds);
  tone.connect(gain).connect(new StereoPannerNode(audio, { pan })).connect(audio.destination);
  tone.start(at);
  tone.stop(at + seconds);
}

async function ready() {
  audio ??= new AudioContext();
  await audio.resume();
  figures.value = `${audio.sampleRate} Hz`;
}

function beat() {
  const at = audio.currentTime + 0.1;
  play(880, 0, at, kBeepSeconds);
  setTimeout(() => {
    lamp.classList.add('on');
    setTimeout(() => lamp.classList.remove('on'), 1000 * kBeepSeconds);
  }, 100);
  beating = setTimeout(beat, 1000 * kBeatSeconds);
}

for (const [id, pan] of [['left', -1], ['right', 1], ['both', 0]]) {
  document.getElementById(id).addEventListener('click', async () => {
    await ready();
    play(kTone, pan, audio.currentTime, kToneSeconds);
  });
}

beatButton.addEventListener('click', async () => {
  await ready();
  if (beating) {
    clearTimeout(beating);
    beating = 0;
  } else {
    beat();
  }
  beatButton.setAttribute('aria-pressed', String(beating !== 0));
});

// A bar that crosses the picture once in two seconds, and the time: uneven steps and late frames are easy to see.

const kCrossing = 2000; // ms

const picture = document.getElementById('picture');
const figures = document.getElementById('figures');
const context = picture.getContext('2d');
let frames = 0;

function draw(now) {
  const { width, height } = picture;
  const phase = (now % kCrossing) / kCrossing;
  context.fillStyle = '#141a22';
  context.fillRect(0, 0, width, height);
  context.fillStyle = '#2a3441';
  for (let tick = 0; tick < 10; tick += 1) context.fillRect(Math.round((tick * width) / 10), 0, 2, height);
  context.fillStyle = '#63b3f6';
  context.fillRect(Math.round(phase * width) - 20, 0, 40, height);
  context.fillStyle = '#e9eef4';
  context.font = '64px system-ui, sans-serif';
  context.textAlign = 'center';
  context.fillText(new Date().toISOString().slice(11, 23), width / 2, height / 2);
  frames += 1;
  requestAnimationFrame(draw);
}

function fit() {
  const { width, height } = picture.getBoundingClientRect();
  picture.width = Math.round(width);
  picture.height = Math.round(height);
}

addEventListener('resize', fit);
fit();
requestAnimationFrame(draw);

setInterval(() => {
  figures.value = `${frames} frames a second`;
  frames = 0;
}, 1000);

// Strokes under each finger, drawn when they arrive, so that what is seen is the delay of the road and nothing else.

const board = document.getElementById('board');
const figures = document.getElementById('figures');
const context = board.getContext('2d');
const last = new Map(); // pointer -> its last point
let events = 0;

function fit() {
  const { width, height } = board.getBoundingClientRect();
  const kept = context.getImageData(0, 0, Math.max(1, board.width), Math.max(1, board.height));
  board.width = Math.round(width);
  board.height = Math.round(height);
  context.putImageData(kept, 0, 0);
  context.lineCap = 'round';
  context.lineWidth = 8;
}

function stroke(event) {
  const from = last.get(event.pointerId);
  const to = { x: event.offsetX, y: event.offsetY };
  context.strokeStyle = `hsl(${(event.pointerId * 67) % 360} 80% 65%)`;
  context.beginPath();
  context.moveTo(from.x, from.y);
  context.lineTo(to.x, to.y);
  context.stroke();
  last.set(event.pointerId, to);
}

board.addEventListener('pointerdown', (event) => {
  board.setPointerCapture(event.pointerId);
  last.set(event.pointerId, { x: event.offsetX, y: event.offsetY });
  stroke(event);
});
board.addEventListener('pointermove', (event) => {
  events += 1;
  if (last.has(event.pointerId)) stroke(event);
});
for (const type of ['pointerup', 'pointercancel']) {
  board.addEventListener(type, (event) => last.delete(event.pointerId));
}
document.getElementById('clear').addEventListener('click', () => context.clearRect(0, 0, board.width, board.height));
addEventListener('resize', fit);
fit();

setInterval(() => {
  figures.value = `${events} moves a second`;
  events = 0;
}, 1000);

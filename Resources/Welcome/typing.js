// Counts what arrives, by grapheme, so that a lost or doubled letter shows.

const text = document.getElementById('text');
const figures = document.getElementById('figures');
const segmenter = new Intl.Segmenter();

function count() {
  const letters = [...segmenter.segment(text.value)].length;
  figures.value = `${letters} ${letters === 1 ? 'character' : 'characters'}`;
}

text.addEventListener('input', count);
count();

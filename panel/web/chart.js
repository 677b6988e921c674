// Sizes of backups over time, as a drawing. The table beside it holds the same figures.
import {h, s} from './dom.js';
import {bytes} from './format.js';

const HEIGHT = 190;
const LEFT = 64;
const BOTTOM = 24;
const TOP = 10;
const LABEL = 100;
const WIDE = {width: 960, bars: 120};
const NARROW = {width: 340, bars: 45};
let plotWidth = WIDE.width;

function roundUp(value) {
  let step = 1024;
  while (step * 4 < value) step *= 2;
  return Math.ceil(value / step) * step;
}

function grid(top) {
  return [0, 0.5, 1].map((part) => {
    const y = TOP + (1 - part) * (HEIGHT - TOP - BOTTOM);
    return [s('line', {class: 'grid', x1: LEFT, x2: plotWidth, y1: y, y2: y}),
      s('text', {class: 'axis', x: LEFT - 8, y: y + 4, 'text-anchor': 'end'}, part === 0 ? '0' : bytes(top * part))];
  });
}

function bar(backup, index, width, top) {
  const full = HEIGHT - TOP - BOTTOM;
  const tall = Math.max(2, (backup.size / top) * full);
  const gap = Math.min(width * 0.3, 8);
  return s('rect', {class: `bar-${backup.kind}`, x: LEFT + index * width + gap / 2, y: HEIGHT - BOTTOM - tall,
    width: Math.min(width - gap, 40), height: tall, rx: 2},
  s('title', {}, `${backup.date}: ${backup.kind}, ${bytes(backup.size)}`));
}

/** Under the first bar and under those far enough from the last one named. */
function dates(backups, width) {
  let free = -LABEL;
  return backups.map((backup, index) => {
    const middle = LEFT + index * width + Math.min(width, 44) / 2;
    if (middle - free < LABEL) return null;
    free = middle;
    return s('text', {class: 'axis', y: HEIGHT - 6, x: Math.min(Math.max(middle, LEFT + LABEL / 2 - 30), plotWidth - LABEL / 2),
      'text-anchor': 'middle'}, backup.date === 'custom' ? 'custom' : backup.date);
  });
}

/** `backups` as the server lists them; nothing for fewer than two. */
export function sizeChart(backups) {
  const size = window.innerWidth < 700 ? NARROW : WIDE;
  plotWidth = size.width;
  const shown = backups.filter((backup) => backup.finished)
    .sort((a, b) => a.finished.localeCompare(b.finished)).slice(-size.bars);
  if (shown.length < 2) return null;
  const top = roundUp(Math.max(...shown.map((backup) => backup.size), 1024));
  const width = (plotWidth - LEFT) / Math.max(shown.length, 12);
  const words = `${shown.length} backups from ${shown[0].date} to ${shown.at(-1).date}, the largest of ${bytes(
    Math.max(...shown.map((backup) => backup.size)))}.`;
  const kinds = {full: 'Full', incremental: 'Increment', custom: 'Custom'};
  const used = Object.keys(kinds).filter((kind) => shown.some((backup) => backup.kind === kind));
  return h('figure', {class: 'chart card'},
    h('figcaption', {}, h('strong', {}, 'Sizes over time'),
      h('span', {class: 'legend'}, used.map((kind) => h('span', {class: `key key-${kind}`}, kinds[kind])))),
    s('svg', {viewBox: `0 0 ${plotWidth} ${HEIGHT}`, role: 'img', 'aria-label': `Sizes over time: ${words}`},
      grid(top).flat(), shown.map((backup, index) => bar(backup, index, width, top)), dates(shown, width)));
}

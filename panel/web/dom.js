// Elements without HTML text: nothing that comes from outside is ever parsed as markup.

const SVG = 'http://www.w3.org/2000/svg';

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (name === 'value' || name === 'checked' || name === 'indeterminate') element[name] = value;
    else element.setAttribute(name, value === true ? '' : value);
  }
  element.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined && child !== false));
  return element;
}

/** h('p', {class: 'hint'}, 'text', child): attributes, on<event> handlers, children. */
export function h(tag, attributes, ...children) {
  return fill(document.createElement(tag), attributes, children);
}

/** The same for the elements of a drawing. */
export function s(tag, attributes, ...children) {
  return fill(document.createElementNS(SVG, tag), attributes, children);
}

const ICONS = {
  folder: 'M2.5 5.5v8a1 1 0 0 0 1 1h11a1 1 0 0 0 1-1V7a1 1 0 0 0-1-1H9L7.5 4.5h-4a1 1 0 0 0-1 1Z',
  file: 'M5 2.5h5l3.5 3.5v9a.5.5 0 0 1-.5.5H5a.5.5 0 0 1-.5-.5V3a.5.5 0 0 1 .5-.5ZM10 2.5V6h3.5',
  link: 'M7.5 10.5 10.5 7.5M8 5l1.5-1.5a2.8 2.8 0 0 1 4 4L12 9M10 13l-1.5 1.5a2.8 2.8 0 0 1-4-4L6 9',
  database: 'M3.5 4.5c0-1.1 2.5-2 5.5-2s5.5.9 5.5 2-2.5 2-5.5 2-5.5-.9-5.5-2Zm0 0v9c0 1.1 2.5 2 5.5 2s5.5-.9 5.5-2v-9M3.5 9c0 1.1 2.5 2 5.5 2s5.5-.9 5.5-2',
  chevron: 'm7 5 4 4-4 4',
  pin: 'M6.5 2.5h5M7.5 2.5v5l-2.5 3h8l-2.5-3v-5M9 10.5v5',
  check: 'm4 9.5 3.2 3.2L14 6',
  cross: 'm5 5 8 8M13 5l-8 8',
  warn: 'M9 3 2.5 14.5h13L9 3Zm0 4.5v3.2M9 12.6v.1',
  clock: 'M9 2.5a6.5 6.5 0 1 0 0 13 6.5 6.5 0 0 0 0-13ZM9 5.5V9l2.5 1.5',
};

/** A drawing beside words: hidden from those who hear the page. */
export function icon(name, extra = '') {
  return s('svg', {class: `icon ${extra}`, viewBox: '0 0 18 18', 'aria-hidden': 'true', focusable: 'false'},
    s('path', {d: ICONS[name]}));
}

/** Tells those who hear the page what has changed. */
export function announce(text) {
  document.getElementById('status').textContent = text;
}

export function badge(text, tone, picture) {
  return h('span', {class: `badge ${tone}`}, picture ? icon(picture) : null, text);
}

export function notice(tone, ...content) {
  const pictures = {bad: 'cross', warn: 'warn', good: 'check', info: 'clock'};
  return h('div', {class: `notice ${tone}`}, icon(pictures[tone] ?? 'clock'), h('div', {}, ...content));
}

/** On narrow screens a table is a list: each cell says what it is, and stays a cell for those who hear it. */
function describe(row, columns) {
  row.setAttribute('role', 'row');
  [...row.children].forEach((cell, index) => {
    cell.setAttribute('role', cell.tagName === 'TH' ? 'rowheader' : 'cell');
    if (cell.tagName === 'TD' && !columns[index].hidden) cell.dataset.name = columns[index].name;
  });
  return row;
}

/** A table with its caption; `columns`: {name, class}; `bodies`: arrays of rows (tr elements). */
export function table(caption, columns, ...bodies) {
  const head = h('tr', {role: 'row'}, columns.map((column) => h('th', {scope: 'col', role: 'columnheader', class: column.class},
    column.hidden ? h('span', {class: 'visually-hidden'}, column.name) : column.name)));
  return h('div', {class: 'table-frame', role: 'region', 'aria-label': caption, tabindex: '0'},
    h('table', {role: 'table'}, h('caption', {}, caption), h('thead', {role: 'rowgroup'}, head),
      bodies.map((rows) => h('tbody', {role: 'rowgroup'}, rows.map((row) => describe(row, columns))))));
}

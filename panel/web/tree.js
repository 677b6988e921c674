// The files of a backup as a tree: folders are asked for when they are opened. One stop of the Tab
// key; arrows move, Right and Left open and close, Space chooses, as readers of the screen expect
// it of a tree with check marks.
import {announce, h, icon} from './dom.js';
import {bytes, moment, plural} from './format.js';

const PAGE = 200;
const PICTURES = {folder: 'folder', link: 'link'};

/** What was chosen: paths with names; a chosen folder stands for all below it. */
export class Selection {
  #chosen = new Map();
  #watchers = new Set();

  get paths() { return [...this.#chosen.keys()]; }
  get names() { return [...this.#chosen.values()]; }
  get size() { return this.#chosen.size; }

  /** The chosen folder that holds this path already, or null. Encoded separators are "%2F". */
  coveredBy(path) {
    for (let cut = path.lastIndexOf('%2F'); cut > 0; cut = path.lastIndexOf('%2F', cut - 1)) {
      if (this.#chosen.has(path.slice(0, cut))) return path.slice(0, cut);
    }
    return null;
  }

  has(path) { return this.#chosen.has(path) || this.coveredBy(path) !== null; }

  /** True when something below the folder `path` is chosen. */
  touches(path) { return this.paths.some((one) => one.startsWith(`${path}%2F`)); }

  toggle(path, name) {
    if (this.#chosen.has(path)) this.#chosen.delete(path);
    else if (this.coveredBy(path) === null) {
      for (const inner of this.paths) if (inner.startsWith(`${path}%2F`)) this.#chosen.delete(inner);
      this.#chosen.set(path, name);
    }
    this.changed();
  }

  clear() {
    this.#chosen.clear();
    this.changed();
  }

  changed() { this.#watchers.forEach((watcher) => watcher()); }
  watch(watcher) {
    this.#watchers.add(watcher);
    return () => this.#watchers.delete(watcher);
  }
}

function details(entry) {
  const parts = [];
  if (entry.type === 'folder') parts.push(plural(entry.files ?? 0, 'file'));
  if (entry.type === 'link' || entry.type === 'hard link') parts.push(`→ ${entry.target}`);
  if (entry.flaw) parts.push(entry.flaw);
  return parts.join(' · ');
}

export class FileTree {
  #load;
  #selection;
  #wholeNames;

  /** `load(folder, offset)` gives {total, entries}; `folder` is an encoded path, "" the root. */
  constructor(label, load, selection, {wholeNames = false} = {}) {
    this.#load = load;
    this.#selection = selection;
    this.#wholeNames = wholeNames;
    this.element = h('ul', {class: 'tree', role: 'tree', 'aria-label': label, 'aria-multiselectable': 'true',
      onkeydown: (event) => this.#key(event), onclick: (event) => this.#click(event)});
    this.stopWatching = selection.watch(() => this.#redrawMarks());
  }

  /** Shows the first page; how many entries there are in all. */
  async start() {
    const total = await this.#append(this.element, '', 0, 1);
    this.element.querySelector('[role=treeitem]')?.setAttribute('tabindex', '0');
    return total;
  }

  async #append(list, folder, offset, level) {
    list.setAttribute('aria-busy', 'true');
    try {
      const {total, entries} = await this.#load(folder, offset, PAGE);
      list.append(...entries.filter((entry) => entry.name !== '.system').map((entry) => this.#item(entry, level)));
      const shown = offset + entries.length;
      if (shown < total) list.append(this.#more(folder, shown, total, level));
      return total;
    } finally {
      list.removeAttribute('aria-busy');
    }
  }

  #item(entry, level) {
    const folder = entry.type === 'folder' && !this.#wholeNames;
    const short = this.#wholeNames ? entry.name : entry.name.slice(entry.name.lastIndexOf('/') + 1);
    const missing = entry.flaw && entry.flaw !== 'changed while it was read';
    const item = h('li', {role: 'treeitem', tabindex: '-1', 'aria-level': String(level),
      'aria-expanded': folder ? 'false' : null, 'aria-checked': missing ? null : 'false', 'aria-disabled': missing ? 'true' : null},
    h('div', {class: 'row'},
      h('span', {class: 'twist'}, folder ? icon('chevron') : null),
      h('span', {class: 'mark'}, missing ? null : icon('check')),
      icon(PICTURES[entry.type] ?? 'file', `kind-${entry.type === 'folder' ? 'folder' : 'file'}`),
      h('span', {class: 'name'}, short), h('span', {class: 'details'}, details(entry)),
      h('span', {class: 'size'}, bytes(entry.size)),
      h('span', {class: 'time'}, entry.mtime > 0 ? moment(entry.mtime) : '')));
    item.dataset.path = entry.path;
    item.dataset.name = entry.name;
    this.#drawMark(item);
    return item;
  }

  #more(folder, shown, total, level) {
    const item = h('li', {role: 'treeitem', tabindex: '-1', 'aria-level': String(level), class: 'more'},
      h('div', {class: 'row'}, `Show more (${(total - shown).toLocaleString('en')} left)`));
    item.dataset.more = folder;
    item.dataset.offset = String(shown);
    return item;
  }

  #drawMark(item) {
    if (!item.hasAttribute('aria-checked')) return;
    const {path} = item.dataset;
    const partly = !this.#selection.has(path) && this.#selection.touches(path);
    item.setAttribute('aria-checked', partly ? 'mixed' : String(this.#selection.has(path)));
    item.classList.toggle('inherited', this.#selection.coveredBy(path) !== null);
  }

  #redrawMarks() {
    this.element.querySelectorAll('[aria-checked]').forEach((item) => this.#drawMark(item));
  }

  #toggle(item) {
    if (!item.hasAttribute('aria-checked')) return;
    if (this.#selection.coveredBy(item.dataset.path) !== null) {
      announce('It comes with the folder that is chosen');
      return;
    }
    this.#selection.toggle(item.dataset.path, item.dataset.name);
  }

  async #open(item) {
    item.setAttribute('aria-expanded', 'true');
    let list = item.querySelector(':scope > ul');
    if (list) {
      list.hidden = false;
      return;
    }
    list = h('ul', {role: 'group'});
    item.append(list);
    try {
      const total = await this.#append(list, item.dataset.path, 0, Number(item.getAttribute('aria-level')) + 1);
      if (total === 0) announce('The folder is empty');
    } catch (error) {
      list.remove();
      item.setAttribute('aria-expanded', 'false');
      announce(error.message);
    }
  }

  #close(item) {
    item.setAttribute('aria-expanded', 'false');
    item.querySelector(':scope > ul').hidden = true;
  }

  async #showMore(item) {
    const list = item.parentElement;
    const before = item.previousElementSibling;
    const {more: folder, offset} = item.dataset;
    item.remove();
    await this.#append(list, folder, Number(offset), Number(item.getAttribute('aria-level')));
    this.#focus(before?.nextElementSibling ?? before);
  }

  #activate(item) {
    if ('more' in item.dataset) return this.#showMore(item);
    const open = item.getAttribute('aria-expanded');
    if (open === 'false') return this.#open(item);
    return open === 'true' ? this.#close(item) : this.#toggle(item);
  }

  #focus(item) {
    if (!item) return;
    this.element.querySelectorAll('[role=treeitem][tabindex="0"]').forEach((one) => one.setAttribute('tabindex', '-1'));
    item.setAttribute('tabindex', '0');
    item.focus();
  }

  #click(event) {
    const item = event.target.closest('[role=treeitem]');
    if (!item) return;
    this.#focus(item);
    if (event.target.closest('.mark')) this.#toggle(item);
    else this.#activate(item);
  }

  #visible() {
    return [...this.element.querySelectorAll('[role=treeitem]')].filter((item) => !item.parentElement.closest('ul[hidden]'));
  }

  #key(event) {
    const item = event.target.closest('[role=treeitem]');
    if (!item || event.ctrlKey || event.metaKey || event.altKey) return;
    const items = this.#visible();
    const at = items.indexOf(item);
    const open = item.getAttribute('aria-expanded');
    const steps = {
      ArrowDown: () => this.#focus(items[at + 1]),
      ArrowUp: () => this.#focus(items[at - 1]),
      Home: () => this.#focus(items[0]),
      End: () => this.#focus(items.at(-1)),
      ArrowRight: () => (open === 'false' ? this.#open(item) : open === 'true' && this.#focus(item.querySelector('[role=treeitem]'))),
      ArrowLeft: () => (open === 'true' ? this.#close(item) : this.#focus(item.parentElement.closest('[role=treeitem]'))),
      ' ': () => ('more' in item.dataset ? this.#showMore(item) : this.#toggle(item)),
      Enter: () => this.#activate(item),
    };
    if (event.key in steps) {
      event.preventDefault();
      steps[event.key]();
    } else if (event.key.length === 1) {
      const begin = event.key.toLowerCase();
      const after = [...items.slice(at + 1), ...items.slice(0, at)];
      this.#focus(after.find((one) => one.querySelector('.name')?.textContent.toLowerCase().startsWith(begin)));
    }
  }
}

// A download that goes on where it broke off: each try has a session of its own and asks for the
// rest. Straight into a file where the browser can; else in memory, handed out at the end.
import {post} from './api.js';
import {announce, h, notice} from './dom.js';
import {bytes} from './format.js';

const TRIES = 8;
const WAIT_MS = 1500;
const BLOCK = 4 << 20;

/** Pieces become blobs early: a browser keeps those on disk. */
class Memory {
  #pieces = [];
  #blobs = [];
  #held = 0;
  async write(piece) {
    this.#pieces.push(piece);
    this.#held += piece.length;
    if (this.#held >= BLOCK) this.#flush();
  }
  #flush() {
    this.#blobs.push(new Blob(this.#pieces));
    this.#pieces = [];
    this.#held = 0;
  }
  async close(name) {
    this.#flush();
    const address = URL.createObjectURL(new Blob(this.#blobs, {type: 'application/gzip'}));
    h('a', {href: address, download: name}).click();
    setTimeout(() => URL.revokeObjectURL(address), 60000);
  }
  async abort() { this.#blobs = this.#pieces = []; }
}

async function target(name) {
  if (!window.showSaveFilePicker || navigator.webdriver) return new Memory();
  const handle = await window.showSaveFilePicker({suggestedName: name});
  const stream = await handle.createWritable();
  return {write: (piece) => stream.write(piece), close: () => stream.close(), abort: () => stream.abort()};
}

/** Broken off for good, whoever tries again. */
class Refused extends Error {}

/** What an answer that is no download says to people. */
async function reason(answer) {
  if (answer.status === 503) return 'Too many downloads are running just now. Try again in a minute.';
  const text = await answer.text();
  const words = text.match(/<p>([^<]+)</)?.[1] ?? (text.startsWith('<') ? '' : text.trim());
  return words.slice(0, 200) || `The server answered with ${answer.status}.`;
}

async function request(user, part, state, signal) {
  const {url} = await post('download', {user, part}, signal);
  const headers = state.done > 0 ? {Range: `bytes=${state.done}-`, ...(state.tag ? {'If-Range': state.tag} : {})} : {};
  const answer = await fetch(url, {headers, signal, cache: 'no-store'});
  if (!answer.ok) throw new Refused(await reason(answer));
  if (state.done > 0 && answer.status !== 206) throw new Refused('The backup has changed meanwhile; begin again.');
  if (!(answer.headers.get('Content-Type') ?? '').startsWith('application/') || !answer.headers.get('Content-Length')) {
    throw new Refused(await reason(answer));
  }
  if (state.done === 0) {
    state.total = Number(answer.headers.get('Content-Length'));
    state.tag = answer.headers.get('ETag') ?? '';
  }
  return answer;
}

async function fetchAll(user, part, file, state, signal) {
  for (let tries = 0; ; tries += 1) {
    const before = state.done;
    try {
      const reader = (await request(user, part, state, signal)).body.getReader();
      for (let {done, value} = await reader.read(); !done; {done, value} = await reader.read()) {
        await file.write(value);
        state.done += value.length;
        state.changed();
      }
      if (state.done >= state.total) return;
      throw new Error('The connection was cut.');
    } catch (error) {
      if (error.name === 'AbortError' || error instanceof Refused) throw error;
      if (state.done > before) tries = 0;
      if (tries >= TRIES) throw error;
      state.changed('The connection broke off; going on in a moment …');
      await new Promise((resolve) => { setTimeout(resolve, WAIT_MS); });
    }
  }
}

function partRow(user, part) {
  const bar = h('progress', {max: '1', value: 0, hidden: true, 'aria-label': `Download: ${part.name}`});
  const words = h('p', {class: 'hint', role: 'status'});
  let stop = null;
  const start = h('button', {class: 'button', type: 'button'}, 'Download');
  start.addEventListener('click', async () => {
    if (stop) {
      stop.abort();
      return;
    }
    let file;
    try {
      file = await target(part.file);
    } catch {
      return;  // the place was not chosen
    }
    stop = new AbortController();
    start.textContent = 'Stop';
    bar.hidden = false;
    const state = {done: 0, total: 0, tag: '', changed: (message) => {
      bar.value = state.total ? state.done / state.total : 0;
      words.textContent = message ?? `${bytes(state.done)} of ${bytes(state.total)}`;
    }};
    try {
      await fetchAll(user, part.part, file, state, stop.signal);
      await file.close(part.file);
      words.textContent = `Complete, ${bytes(state.total)}`;
      announce(`${part.name}: the download is complete`);
    } catch (error) {
      await file.abort();
      words.replaceChildren(error.name === 'AbortError' ? 'Stopped' : notice('bad', error.message));
    }
    stop = null;
    start.textContent = 'Download';
  });
  return h('li', {class: 'part'}, h('div', {class: 'part-head'}, h('span', {}, part.name), start), bar, words);
}

function partsOf(user, backup) {
  const at = backup.date === 'custom' ? backup.finished.slice(0, 10) : backup.date;
  if (backup.kind !== 'incremental') return [{part: '1', name: `${backup.kind === 'full' ? 'Full' : 'Custom'} backup of ${at}`, file: `${user}-${at}.tgz`}];
  return [{part: '1', name: `Full backup of ${backup.base}`, file: `${user}-${backup.base}.tgz`},
    {part: '2', name: `Increment of ${at}`, file: `${user}-${at}-increment.tgz`}];
}

/** A dialog with the archives of the newest backup; `opener` gets the focus back. */
export function openDownload(user, backup, opener) {
  const parts = partsOf(user, backup);
  const dialog = h('dialog', {'aria-labelledby': 'download-head', onclose: () => { dialog.remove(); opener.focus(); }},
    h('h2', {id: 'download-head'}, 'Download the newest backup'),
    h('p', {class: 'hint'}, parts.length > 1 ? 'Unpack the full backup first and the increment over it; what was deleted in between comes back, too.'
      : 'One archive, which tar and gzip unpack. It is not encrypted.'),
    h('ul', {class: 'bare'}, parts.map((part) => partRow(user, part))),
    h('form', {method: 'dialog', class: 'actions', onsubmit: (event) => { event.preventDefault(); dialog.close(); }},
      h('button', {class: 'button', type: 'submit'}, 'Close')));
  document.body.append(dialog);
  dialog.showModal();
}

// One backup: its files as a tree, a search, its databases, and what was chosen of them.
import {get, post} from './api.js';
import {flags, verifiedWords} from './backups.js';
import {announce, badge, h, icon, notice} from './dom.js';
import {bytes, plural} from './format.js';
import {FileTree, Selection} from './tree.js';

const DATABASE = '.system/db.';
const selections = new Map();

/** What was chosen of a backup; kept while the page is open, so that the restore finds it. */
export function selectionFor({user, date, own}) {
  const key = `${user}/${date}/${own ?? ''}`;
  if (!selections.has(key)) selections.set(key, new Selection());
  return selections.get(key);
}

export async function findBackup({user, date, own}, session, signal) {
  const lists = await get('backups', user === session.user ? {} : {user}, signal);
  const found = ((own ? lists.own : lists.backups) ?? []).find((backup) => backup.date === date && backup.user === user);
  if (!found) throw new Error('There is no such backup.');
  return found;
}

const question = ({user, date, own}) => ({user, date, own: own ? 'yes' : ''});

/** The databases in the backup; none when it holds none. */
async function databases(params, signal) {
  try {
    const {entries} = await get('files', {...question(params), folder: '.system'}, signal);
    return entries.filter((entry) => entry.name.startsWith(DATABASE));
  } catch (error) {
    if (error.code === 'program' || error.code === 'missed') return [];
    throw error;
  }
}

function databaseList(entries, selection) {
  if (!entries.length) return null;
  const item = (entry) => {
    const rest = entry.name.slice(DATABASE.length);
    const cut = rest.indexOf('.');
    const box = h('input', {type: 'checkbox', checked: selection.has(entry.path),
      onchange: () => selection.toggle(entry.path, entry.name)});
    selection.watch(() => { box.checked = selection.has(entry.path); });
    return h('li', {}, h('label', {class: 'check'}, box, icon('database'), h('span', {class: 'name'}, rest.slice(cut + 1)),
      h('span', {class: 'details'}, `on ${rest.slice(0, cut)}`), h('span', {class: 'size'}, bytes(entry.size))));
  };
  return h('fieldset', {class: 'card databases'}, h('legend', {}, 'Databases'), h('ul', {class: 'bare'}, entries.map(item)));
}

function selectionBar(selection, restore) {
  const words = h('p', {class: 'chosen-words'});
  const clear = h('button', {class: 'button quiet', type: 'button', onclick: () => {
    selection.clear();
    announce('Nothing is chosen');
  }}, 'Clear');
  const go = h('a', {class: 'button primary', href: restore}, 'Restore');
  const bar = h('div', {class: 'selection-bar', role: 'region', 'aria-label': 'What is chosen'}, words, clear, go);
  const draw = () => {
    clear.hidden = selection.size === 0;
    words.textContent = selection.size ? `${plural(selection.size, 'item')} chosen` : 'Nothing chosen: everything comes back';
    go.textContent = selection.size ? 'Restore what is chosen' : 'Restore everything';
  };
  draw();
  return {bar, stop: selection.watch(draw)};
}

function facts(backup, admin) {
  const kind = {full: 'Full backup', incremental: `Increment to ${backup.base}`, custom: 'Custom backup'}[backup.kind];
  return h('p', {class: 'facts'}, badge(kind, `kind-${backup.kind}`), flags(backup), h('span', {}, bytes(backup.size)),
    h('span', {}, `finished ${backup.finished}`), h('span', {}, 'verified: ', verifiedWords(backup)),
    admin && backup.user ? verifyButton(backup) : null);
}

function verifyButton(backup) {
  return h('button', {class: 'button small quiet', type: 'button', onclick: async (event) => {
    event.target.disabled = true;
    try {
      const {id} = await post('verify', {user: backup.user, date: backup.date, deep: true});
      location.hash = `#/job/${id}`;
    } catch (error) {
      event.target.after(h('span', {role: 'alert'}, error.message));
    }
  }}, 'Verify now');
}

export async function browsePage({params, session, signal}) {
  const [backup, inDatabases] = await Promise.all([findBackup(params, session, signal), databases(params, signal)]);
  const selection = selectionFor(params);
  const load = (search) => (folder, offset, limit) => get('files', {...question(params), folder, offset, limit, search}, signal);
  const place = h('div', {class: 'tree-place'});
  const count = h('p', {class: 'hint', role: 'status'});
  let shown = null;
  const show = async (search) => {
    shown?.stopWatching();
    shown = new FileTree(search ? `Files that match ${search}` : `Files of ${params.date}`, load(search), selection, {wholeNames: Boolean(search)});
    place.replaceChildren(h('p', {class: 'hint'}, 'Reading the index …'));
    try {
      const total = await shown.start();
      place.replaceChildren(total ? shown.element : h('p', {class: 'empty'}, search ? 'No name matches.' : 'The backup holds no files.'));
      count.textContent = search ? `${plural(total, 'match', 'matches')} for “${search}”` : '';
    } catch (error) {
      if (error.name !== 'AbortError') place.replaceChildren(notice('bad', error.message));
    }
  };
  const input = h('input', {type: 'search', id: 'file-search', maxlength: '200', onsearch: () => { if (!input.value) show(''); }});
  const search = h('form', {role: 'search', class: 'search', onsubmit: (event) => {
    event.preventDefault();
    show(input.value.trim());
  }}, h('label', {for: 'file-search'}, 'Search'), input, h('button', {class: 'button', type: 'submit'}, 'Find'),
  h('button', {class: 'button quiet', type: 'button', onclick: () => { input.value = ''; show(''); }}, 'All files'));
  const {bar, stop} = selectionBar(selection, `#/restore/${encodeURIComponent(params.user)}/${params.date}${params.own ? '/own' : ''}`);
  signal.addEventListener('abort', () => { stop(); shown?.stopWatching(); });
  show('');
  const title = `${params.user}, ${params.date}${params.own ? ' (private copy)' : ''}`;
  return {title, content: [
    h('p', {class: 'crumbs'}, h('a', {href: `#/backups/${encodeURIComponent(params.user)}`}, 'Backups'), ' / ', params.date),
    h('h1', {}, title), facts(backup, session.admin && !params.own),
    h('section', {class: 'card files', 'aria-label': 'Files'}, h('div', {class: 'files-head'}, h('h2', {}, 'Files'), search), count, place,
      h('p', {class: 'hint keys'}, 'Arrow keys move, Right opens a folder, Space chooses.')),
    databaseList(inDatabases, selection), bar]};
}

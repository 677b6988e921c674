// The backups of one user, and of all.
import {get, post} from './api.js';
import {sizeChart} from './chart.js';
import {announce, badge, h, icon, notice, table} from './dom.js';
import {openDownload} from './download.js';
import {age, bytes, day, plural, weekday} from './format.js';
import {jobViews} from './jobs.js';

const KINDS = {full: 'Full', incremental: 'Increment', custom: 'Custom'};
const SHOWN_AT_ONCE = 200;
const ROWS_AT_ONCE = 100;

export const usable = (backup) => !backup.deleted && !backup.damaged;

/** The backup that was finished last and can be relied on. */
export function newest(backups) {
  return backups.filter(usable).sort((a, b) => a.finished.localeCompare(b.finished)).at(-1);
}

export function flags(backup) {
  return [backup.damaged ? badge('damaged', 'bad', 'cross') : null,
    backup.deleted ? badge('deleted', 'muted') : null,
    backup.pinned ? badge('pinned', 'info', 'pin') : null];
}

export function verifiedWords(backup) {
  if (!backup.verified) return h('span', {class: 'muted'}, 'not yet');
  if (!backup.verified_good) return badge(`failed ${day(backup.verified)}`, 'bad', 'cross');
  return h('span', {class: 'good-words'}, icon('check'), `${day(backup.verified)}${backup.verified_deep ? ', deep' : ''}`);
}

const address = (page, backup, own) => `#/${page}/${encodeURIComponent(backup.user)}/${backup.date}${own ? '/own' : ''}`;

function pinButton(backup, reload) {
  const text = backup.pinned ? 'Unpin' : 'Pin';
  return h('button', {class: 'button small quiet', type: 'button', 'aria-label': `${text} ${backup.date}`, onclick: async (event) => {
    event.target.disabled = true;
    try {
      await post('pin', {user: backup.user, date: backup.date, pinned: !backup.pinned});
      announce(`${backup.date} is ${backup.pinned ? 'not pinned any more' : 'pinned'}`);
    } finally {
      reload();
    }
  }}, text);
}

function backupRow(backup, {own, admin, reload}) {
  const indent = backup.kind === 'incremental' ? 'increment' : '';
  const name = backup.date === 'custom' ? `Custom, ${day(backup.finished)}` : backup.date;
  const label = usable(backup) ? h('a', {href: address('backup', backup, own)}, name) : name;
  return h('tr', {class: indent},
    h('th', {scope: 'row'}, label, ' ', h('span', {class: 'muted'}, weekday(backup.date))),
    h('td', {}, badge(KINDS[backup.kind] ?? backup.kind, `kind-${backup.kind}`), flags(backup)),
    h('td', {class: 'number'}, bytes(backup.size)),
    h('td', {}, backup.storage, backup.encrypted ? h('span', {class: 'muted'}, ', encrypted') : null),
    h('td', {}, verifiedWords(backup)),
    h('td', {class: 'row-actions'},
      usable(backup) ? h('a', {class: 'button small', href: address('restore', backup, own), 'aria-label': `Restore ${backup.date}`}, 'Restore') : null,
      admin && !own ? pinButton(backup, reload) : null));
}

/** Chains, the newest first: each full backup with its increments; custom ones stand alone. */
export function chains(backups) {
  const found = new Map();
  for (const backup of backups) {
    const key = backup.kind === 'incremental' ? backup.base : backup.date;
    if (!found.has(key)) found.set(key, []);
    found.get(key).push(backup);
  }
  const last = (chain) => chain.map((backup) => backup.finished).sort().at(-1);
  return [...found.values()].sort((a, b) => last(b).localeCompare(last(a)))
    .map((chain) => chain.sort((a, b) => (a.kind === 'full' ? -1 : b.kind === 'full' ? 1 : b.date.localeCompare(a.date))));
}

function chainHead(chain, columns) {
  if (chain[0].kind === 'custom') return null;
  const size = chain.reduce((sum, backup) => sum + backup.size, 0);
  const increments = chain.filter((backup) => backup.kind === 'incremental').length;
  const words = chain[0].kind === 'full' ? `Chain of ${chain[0].date}` : `Increments without their full backup`;
  return h('tr', {class: 'chain'}, h('th', {scope: 'rowgroup', colspan: String(columns)}, words,
    h('span', {class: 'muted'}, ` · ${plural(increments, 'increment')} · ${bytes(size)}`)));
}

function backupTable(caption, backups, context, limit = ROWS_AT_ONCE) {
  const columns = [{name: 'Backup'}, {name: 'Kind'}, {name: 'Size', class: 'number'}, {name: 'Storage'}, {name: 'Verified'},
    {name: 'Actions', hidden: true}];
  let room = limit;
  const bodies = chains(backups).map((chain) => {
    const shown = chain.slice(0, Math.max(0, room));
    room -= shown.length;
    return shown.length ? [chainHead(chain, columns.length), ...shown.map((backup) => backupRow(backup, context))].filter(Boolean) : [];
  });
  const place = h('div', {class: 'long-table'}, table(caption, columns, ...bodies.filter((rows) => rows.length)));
  if (limit < backups.length) {
    place.append(h('button', {class: 'button', type: 'button', onclick: () => {
      const longer = backupTable(caption, backups, context, limit * 5);
      place.replaceWith(longer);
      longer.querySelectorAll('tbody tr:not(.chain) th a')[limit]?.focus();
    }}, `Show more (${(backups.length - limit).toLocaleString('en')} left)`));
  }
  return place;
}

function figure(name, value, hint, tone = '') {
  return h('div', {class: `figure ${tone}`}, h('dt', {}, name), h('dd', {}, value, hint ? h('span', {class: 'hint'}, hint) : null));
}

function overview(backups) {
  const last = newest(backups);
  const good = backups.filter((backup) => backup.verified && backup.verified_good).map((backup) => backup.verified).sort().at(-1);
  const bad = backups.filter((backup) => backup.damaged || (backup.verified && !backup.verified_good)).length;
  return h('dl', {class: 'figures-row'},
    figure('Newest backup', last ? day(last.finished) : 'none', last ? age(day(last.finished)) : ''),
    figure('Backups', backups.length.toLocaleString('en'), plural(backups.filter((backup) => backup.kind === 'full').length, 'full one')),
    figure('Stored', bytes(backups.reduce((sum, backup) => sum + backup.size, 0)), 'in all'),
    bad ? figure('Verified', plural(bad, 'backup'), 'cannot be relied on', 'bad') : figure('Verified', good ? day(good) : 'not yet', good ? 'good' : ''));
}

function startButton(text, style, body) {
  return h('button', {class: `button ${style}`, type: 'button', onclick: async (event) => {
    event.target.disabled = true;
    const place = document.getElementById('start-problem');
    place.replaceChildren();
    try {
      const {id} = await post('run', body);
      location.hash = `#/job/${id}`;
    } catch (error) {
      place.replaceChildren(notice('bad', error.message));
      event.target.disabled = false;
    }
  }}, text);
}

export async function backupsPage({params, session, signal, reload}) {
  const user = params.user ?? session.user;
  const asked = user === session.user ? {} : {user};
  const [{backups, own}, jobs] = await Promise.all([get('backups', asked, signal), jobViews(user, signal)]);
  const context = {admin: session.admin, reload};
  const download = h('button', {class: 'button', type: 'button', onclick: () => openDownload(user, newest(backups), download)}, 'Download the newest');
  const title = user === session.user ? 'Your backups' : `Backups of ${user}`;
  return {title, content: [
    h('div', {class: 'page-head'}, h('h1', {}, title), h('div', {class: 'actions'},
      startButton('Back up now', 'primary', {user}), startButton('Custom backup', '', {user, custom: true}),
      newest(backups) ? download : null)),
    h('div', {id: 'start-problem', role: 'alert'}), jobs.running, jobs.ended,
    backups.length ? [overview(backups), sizeChart(backups), backupTable('Backups, the newest first', backups, context)]
      : h('p', {class: 'card empty'}, 'There is no backup yet. “Back up now” makes the first one; those that are made every day will stand here, too.'),
    own === null ? null : h('div', {class: 'part-of-page'}, h('h2', {}, 'Copies in the private storage'),
      own.length ? backupTable('Private copies, the newest first', own, {...context, own: true})
        : h('p', {class: 'card empty'}, 'Nothing has been copied there yet.')),
  ]};
}

/** For administrators: everybody's, as far as a text matches. */
export async function allBackupsPage({signal}) {
  const {backups} = await get('backups', {all: 'yes'}, signal);
  backups.sort((a, b) => b.finished.localeCompare(a.finished));
  const place = h('div');
  const filter = h('input', {type: 'search', id: 'all-filter', oninput: () => draw(filter.value)});
  const draw = (text, limit = SHOWN_AT_ONCE) => {
    const wanted = text.trim().toLowerCase();
    const found = backups.filter((backup) => `${backup.user} ${backup.date} ${backup.kind}`.toLowerCase().includes(wanted));
    const rows = found.slice(0, limit).map((backup) => h('tr', {},
      h('th', {scope: 'row'}, h('a', {href: `#/backups/${encodeURIComponent(backup.user)}`}, backup.user)),
      h('td', {}, usable(backup) ? h('a', {href: address('backup', backup)}, backup.date) : backup.date),
      h('td', {}, badge(KINDS[backup.kind] ?? backup.kind, `kind-${backup.kind}`), flags(backup)),
      h('td', {class: 'number'}, bytes(backup.size)), h('td', {}, backup.storage), h('td', {}, verifiedWords(backup)),
      h('td', {}, backup.finished)));
    place.replaceChildren(table(`${plural(found.length, 'backup')}, the newest first`, [{name: 'User'}, {name: 'Backup'}, {name: 'Kind'},
      {name: 'Size', class: 'number'}, {name: 'Storage'}, {name: 'Verified'}, {name: 'Finished'}], rows),
    found.length > limit ? h('button', {class: 'button', type: 'button', onclick: () => draw(text, limit * 5)}, `Show more (${found.length - limit} left)`) : '');
  };
  draw('');
  return {title: 'All backups', content: [h('div', {class: 'page-head'}, h('h1', {}, 'All backups'),
    h('div', {class: 'field inline'}, h('label', {for: 'all-filter'}, 'Filter'), filter)), place]};
}

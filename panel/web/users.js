// For administrators: whose backups there are.
import {get} from './api.js';
import {badge, h, table} from './dom.js';
import {age, bytes, day, daysSince, plural} from './format.js';
import {runningJob} from './jobs.js';

const LATE_DAYS = 2;

function state(user) {
  if (!user.known) return badge('removed from the panel', 'muted');
  if (!user.newest) return badge('no backup', 'bad', 'cross');
  return daysSince(day(user.newest)) >= LATE_DAYS ? badge('late', 'warn', 'warn') : badge('up to date', 'good', 'check');
}

function row(user) {
  return h('tr', {},
    h('th', {scope: 'row'}, h('a', {href: `#/backups/${encodeURIComponent(user.name)}`}, user.name)),
    h('td', {}, state(user)),
    h('td', {}, user.newest ? day(user.newest) : '–', user.newest ? h('span', {class: 'muted'}, ` ${age(day(user.newest))}`) : null),
    h('td', {class: 'number'}, String(user.backups)),
    h('td', {class: 'number'}, bytes(user.size)),
    h('td', {}, user.plan || '–'));
}

const ORDERS = {
  'By name': (a, b) => a.name.localeCompare(b.name),
  'Oldest backup first': (a, b) => a.newest.localeCompare(b.newest),
  'Largest first': (a, b) => b.size - a.size,
};

export async function usersPage({signal}) {
  const [users, job] = await Promise.all([get('users', {}, signal), runningJob('', signal)]);
  const place = h('div');
  const draw = () => {
    const wanted = search.value.trim().toLowerCase();
    const found = users.filter((user) => user.name.toLowerCase().includes(wanted)).sort(ORDERS[order.value]);
    place.replaceChildren(table(`${plural(found.length, 'user')}`, [{name: 'User'}, {name: 'State'}, {name: 'Newest backup'},
      {name: 'Backups', class: 'number'}, {name: 'Stored', class: 'number'}, {name: 'Plan'}], found.map(row)));
  };
  const search = h('input', {type: 'search', id: 'user-search', oninput: draw});
  const order = h('select', {id: 'user-order', onchange: draw}, Object.keys(ORDERS).map((name) => h('option', {}, name)));
  draw();
  return {title: 'Users', content: [h('div', {class: 'page-head'}, h('h1', {}, 'Users'), h('div', {class: 'actions'},
    h('div', {class: 'field inline'}, h('label', {for: 'user-search'}, 'Search'), search),
    h('div', {class: 'field inline'}, h('label', {for: 'user-order'}, 'Order'), order))), job, place]};
}

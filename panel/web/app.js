// The frame: who is logged in, which page is shown, where the focus goes.
import {get, onLoggedOut, onStale, post, setToken} from './api.js';
import {allBackupsPage, backupsPage} from './backups.js';
import {browsePage} from './browse.js';
import {announce, h, notice} from './dom.js';
import {jobPage} from './jobs.js';
import {loginPage} from './login.js';
import {reportPage, reportsPage} from './reports.js';
import {restorePage} from './restore.js';
import {storagesPage} from './storages.js';
import {usersPage} from './users.js';

const ROUTES = [
  [/^\/users$/, usersPage, [], 'users', true],
  [/^\/all$/, allBackupsPage, [], 'all', true],
  [/^\/backups(?:\/([^/]+))?$/, backupsPage, ['user'], 'backups'],
  [/^\/backup\/([^/]+)\/([^/]+)(?:\/(own))?$/, browsePage, ['user', 'date', 'own'], 'backups'],
  [/^\/restore\/([^/]+)\/([^/]+)(?:\/(own))?$/, restorePage, ['user', 'date', 'own'], 'backups'],
  [/^\/job\/([0-9a-f]+)$/, jobPage, ['id'], 'backups'],
  [/^\/reports$/, reportsPage, [], 'reports'],
  [/^\/report\/([\w-]+)$/, reportPage, ['id'], 'reports'],
  [/^\/storages$/, storagesPage, [], 'storages'],
];

const LOG_IN_MARK = 'backup2-log-in';  // changes in all windows when somebody logs in or out

const main = document.getElementById('main');
let session = null;
let leaving = new AbortController();

const home = () => (session.admin ? '#/users' : '#/backups');

function drawFrame(current) {
  const nav = document.getElementById('nav');
  nav.hidden = document.getElementById('who').hidden = session === null;
  if (!session) return;
  const links = session.admin ? [['users', 'Users'], ['all', 'All backups']] : [];
  if (session.root) links.push(['backups', session.admin ? 'My backups' : 'Backups']);
  links.push(['reports', 'Reports'], ['storages', session.admin ? 'Storages' : 'Storage']);
  nav.replaceChildren(h('ul', {}, links.map(([page, name]) =>
    h('li', {}, h('a', {href: `#/${page}`, 'aria-current': page === current ? 'page' : null}, name)))));
  document.getElementById('who-name').textContent = session.user;
}

function put({title, content, focus}, moveFocus) {
  document.title = `${title} · Backups`;
  main.replaceChildren(...content.flat(Infinity).filter(Boolean));
  main.removeAttribute('aria-busy');
  if (!moveFocus) return;
  window.scrollTo(0, 0);
  const heading = main.querySelector('h1');
  heading?.setAttribute('tabindex', '-1');
  (focus ?? heading ?? main).focus({preventScroll: true});
}

function showLogin(hint = '') {
  session = null;
  setToken('');
  leaving.abort();
  document.querySelectorAll('dialog').forEach((dialog) => dialog.close());
  drawFrame('');
  put(loginPage((found) => {
    session = found;
    setToken(found.csrf);
    localStorage.setItem(LOG_IN_MARK, String(Math.random()));
    announce('You are logged in');
    if (location.hash.length > 2) route();
    else location.hash = home();
  }, hint), true);
}

function sessionEnded() {
  if (session) showLogin('Your session has ended. When you log in again, you come back to where you were; what runs goes on meanwhile.');
}

/** Another window logged in or out: this one must not show one user under the name of another. */
async function lookAgain() {
  const found = await get('session').catch(() => null);
  if (!found) return;
  if (!found.logged_in) sessionEnded();
  else if (found.user !== session?.user) location.reload();
  else setToken(found.csrf);
}

function find() {
  const path = location.hash.slice(1);
  for (const [pattern, page, names, group, admin] of ROUTES) {
    const match = path.match(pattern);
    if (!match || (admin && !session.admin)) continue;
    const params = {};
    names.forEach((name, index) => { if (match[index + 1] !== undefined) params[name] = decodeURIComponent(match[index + 1]); });
    return {page, params, group: params.user && params.user !== session.user ? 'users' : group};
  }
  return null;
}

async function route(moveFocus = true) {
  if (!session) return;
  const found = find();
  if (!found) {
    location.replace(home());
    return;
  }
  leaving.abort();
  leaving = new AbortController();
  const {signal} = leaving;
  drawFrame(found.group);
  main.setAttribute('aria-busy', 'true');
  try {
    const page = await found.page({params: found.params, session, signal, reload: () => route(false)});
    if (!signal.aborted) put(page, moveFocus);
  } catch (error) {
    if (error.name === 'AbortError' || signal.aborted || error.code === 'session') return;
    put({title: 'Not found', content: [h('h1', {}, 'That did not work'), notice('bad', error.message),
      h('p', {class: 'actions'}, h('button', {class: 'button', type: 'button', onclick: () => route()}, 'Try again'),
        h('a', {class: 'button', href: home()}, 'To the start'))]}, moveFocus);
  }
}

function prepareTheme() {
  const select = document.getElementById('theme');
  select.value = document.documentElement.dataset.theme ?? '';
  select.addEventListener('change', () => {
    if (select.value) {
      document.documentElement.dataset.theme = select.value;
      localStorage.setItem('backup2-theme', select.value);
    } else {
      delete document.documentElement.dataset.theme;
      localStorage.removeItem('backup2-theme');
    }
  });
}

async function logOut() {
  await post('logout').catch(() => {});
  localStorage.setItem(LOG_IN_MARK, String(Math.random()));
  location.hash = '';
  showLogin();
  announce('You are logged out');
}

async function start() {
  prepareTheme();
  onLoggedOut(sessionEnded);
  onStale(lookAgain);
  window.addEventListener('storage', (event) => { if (event.key === LOG_IN_MARK) lookAgain(); });
  document.querySelector('.skip').addEventListener('click', (event) => {
    event.preventDefault();
    (main.querySelector('h1') ?? main).focus();
  });
  document.getElementById('logout').addEventListener('click', logOut);
  window.addEventListener('hashchange', () => route());
  try {
    const {logged_in: known, ...found} = await get('session');
    if (!known) {
      showLogin();
      return;
    }
    session = found;
    setToken(found.csrf);
    await route();
  } catch (error) {
    if (error.code !== 'session') put({title: 'Backups', content: [notice('bad', error.message)]}, false);
  }
}

start();

// Where backups go, and a test of each place.
import {get, post} from './api.js';
import {badge, h, notice, table} from './dom.js';
import {watchJob} from './jobs.js';

function testButton(storage, signal) {
  const place = document.getElementById('test-result') ?? h('div');
  const name = storage.owner || 'the administrator';
  return h('button', {class: 'button small', type: 'button', 'aria-label': `Test the storage of ${name}`, onclick: async (event) => {
    const button = event.target;
    const result = document.getElementById('test-result') ?? place;
    button.disabled = true;
    try {
      const {id} = await post('storage-check', {user: storage.owner});
      await watchJob(id, result, signal);
    } catch (error) {
      if (error.name !== 'AbortError') result.replaceChildren(notice('bad', error.message));
    } finally {
      button.disabled = false;
    }
  }}, 'Test');
}

function row(storage, signal) {
  return h('tr', {},
    h('th', {scope: 'row'}, storage.owner || 'administrator'),
    h('td', {class: 'path'}, storage.storage),
    h('td', {}, storage.encrypted ? badge('encrypted', 'good', 'check') : badge('not encrypted', 'warn', 'warn')),
    h('td', {class: 'number'}, storage.size_limit || '–'), h('td', {class: 'number'}, storage.count_limit || '–'),
    h('td', {class: 'row-actions'}, testButton(storage, signal)));
}

export async function storagesPage({session, signal}) {
  const storages = await get('storages', {}, signal);
  const title = session.admin ? 'Storages' : 'Your private storage';
  return {title, content: [h('h1', {}, title),
    h('p', {class: 'lead'}, 'The test writes a small file, lists it, reads it back and removes it.'),
    h('div', {id: 'test-result', role: 'status'}),
    storages.length ? table(session.admin ? 'All storages' : 'Your private storage',
      [{name: 'Owner'}, {name: 'Place'}, {name: 'Encryption'}, {name: 'Size limit', class: 'number'}, {name: 'Count limit', class: 'number'},
        {name: 'Actions', hidden: true}], storages.map((storage) => row(storage, signal)))
      : h('p', {class: 'card empty'}, session.admin ? 'No storage is set up.' : 'You have no storage of your own. The administrator can set one up.')]};
}

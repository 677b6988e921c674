// What restores could not bring back. Opening a report marks it as viewed.
import {get, post} from './api.js';
import {badge, h, notice, table} from './dom.js';
import {plural} from './format.js';

const TYPES = {all: 'everything', selected: 'chosen items', import: 'import'};
const EVENTS = {file: 'file', db: 'database', get_data: 'restore'};

function state(report) {
  return [report.finalized ? null : badge('not ended', 'warn', 'clock'),
    report.viewed ? h('span', {class: 'muted'}, 'viewed') : badge('new', 'info')];
}

function listRow(report) {
  return h('tr', {},
    h('th', {scope: 'row'}, h('a', {href: `#/report/${report.id}`}, report.date)),
    h('td', {}, report.owner),
    h('td', {}, TYPES[report.type] ?? report.type),
    h('td', {}, report.events ? badge(plural(report.events, 'failure'), 'bad', 'cross') : badge('everything came back', 'good', 'check')),
    h('td', {}, state(report)));
}

export async function reportsPage({session, signal}) {
  const reports = await get('reports', session.admin ? {all: 'yes'} : {}, signal);
  reports.sort((a, b) => b.date.localeCompare(a.date));
  return {title: 'Reports', content: [h('h1', {}, 'Restore reports'),
    reports.length ? table('Reports, the newest first', [{name: 'Begun'}, {name: 'User'}, {name: 'Restored'}, {name: 'Result'}, {name: 'State'}],
      reports.map(listRow)) : h('p', {class: 'card empty'}, 'Nothing has been restored yet. Each restore leaves a report here that says what did not come back.')]};
}

const reason = (event) => event.error ?? (event.code === undefined ? '' : `code ${event.code}`);

function eventTable(events) {
  const reasons = events.some(reason);
  const columns = ['What', 'Name', ...(reasons ? ['Reason'] : []), 'When'];
  return table('What did not come back', columns.map((name) => ({name})), events.map((event) => h('tr', {},
    h('td', {}, EVENTS[event.type] ?? event.type), h('td', {class: 'path'}, event.name.trim()),
    reasons ? h('td', {}, reason(event)) : null, h('td', {}, event.date))));
}

export async function reportPage({params, signal}) {
  const report = await post(`reports/${params.id}`, {}, signal);
  const none = report.finalized ? notice('good', h('p', {}, 'Everything came back.'))
    : notice('info', h('p', {}, 'Nothing failed so far. The restore still runs, or it was broken off before its end.'));
  return {title: `Report of ${report.date}`, content: [
    h('p', {class: 'crumbs'}, h('a', {href: '#/reports'}, 'Reports'), ` / ${report.date}`),
    h('h1', {}, `Restore of ${report.owner}, ${report.date}`),
    h('p', {class: 'facts'}, h('span', {}, TYPES[report.type] ?? report.type), h('span', {}, report.finalized ? 'ended' : 'not ended'), h('span', {class: 'path'}, report.id)),
    report.events.length ? [notice('bad', h('p', {}, `${plural(report.events.length, 'item')} did not come back.`)),
      eventTable(report.events)] : none,
    report.badchars ? h('p', {class: 'hint'}, 'Bytes of names that cannot be shown stand as “?”.') : null]};
}

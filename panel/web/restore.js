// The restore: what, a dry run with its result, the word to go, and the work itself.
import {post} from './api.js';
import {findBackup, selectionFor} from './browse.js';
import {h, notice} from './dom.js';
import {bytes, plural} from './format.js';
import {linesView, outcome, previewView, runningJob, watchJob} from './jobs.js';

const STEPS = ['Choose', 'Dry run', 'Confirm', 'Restore'];
const OVERWRITE = {
  always: 'Replace them all',
  changed: 'Replace those that differ',
  newer: 'Replace those that are older',
  never: 'Leave them as they are',
};

function steps(at) {
  return h('ol', {class: 'steps'}, STEPS.map((name, index) =>
    h('li', {class: index < at ? 'past' : '', 'aria-current': index === at ? 'step' : null}, name)));
}

class Wizard {
  constructor(context, backup) {
    this.params = context.params;
    this.signal = context.signal;
    this.backup = backup;
    this.selection = selectionFor(context.params);
    this.choice = {what: this.selection.size ? 'paths' : 'all', overwrite: 'always'};
    this.place = h('div', {class: 'wizard'});
    this.choose(false);
  }

  show(at, heading, ...content) {
    const title = h('h2', {tabindex: '-1'}, heading);
    this.place.replaceChildren(steps(at), h('section', {class: 'card'}, title, ...content.flat(Infinity).filter(Boolean)));
    return title;
  }

  body(preview) {
    const {user, date, own} = this.params;
    return {user, date, own: Boolean(own), preview, ...this.choice, ...(this.choice.what === 'paths' ? {paths: this.selection.paths} : {})};
  }

  words() {
    const {what} = this.choice;
    if (what === 'all') return 'all files and databases';
    return what === 'files' ? 'all files (no databases)' : plural(this.selection.size, 'chosen item');
  }

  // ---- Choose

  radio(value, label, hint, disabled = false) {
    const input = h('input', {type: 'radio', name: 'what', value, checked: this.choice.what === value, disabled,
      onchange: () => { this.choice.what = value; }});
    return h('label', {class: 'choice'}, input, h('span', {}, h('strong', {}, label), h('span', {class: 'hint'}, hint)));
  }

  chosenNames() {
    const names = this.selection.names;
    if (!names.length) return null;
    return h('details', {class: 'chosen'}, h('summary', {}, `What is chosen (${names.length})`),
      h('ul', {}, names.slice(0, 50).map((name) => h('li', {class: 'path'}, name)), names.length > 50 ? h('li', {}, '…') : null));
  }

  choose(focus = true) {
    const browse = `#/backup/${encodeURIComponent(this.params.user)}/${this.params.date}${this.params.own ? '/own' : ''}`;
    const overwrite = h('select', {id: 'overwrite', onchange: (event) => { this.choice.overwrite = event.target.value; }},
      Object.entries(OVERWRITE).map(([value, text]) => h('option', {value, selected: value === this.choice.overwrite}, text)));
    const title = this.show(0, 'What is to come back?', h('form', {onsubmit: (event) => { event.preventDefault(); this.tryIt(); }},
      h('fieldset', {class: 'plain'}, h('legend', {class: 'visually-hidden'}, 'What is to come back?'),
        this.radio('all', 'Everything', 'All files, and the databases back into their servers'),
        this.radio('files', 'All files', 'Databases stay as they are'),
        this.radio('paths', 'What I have chosen', this.selection.size ? plural(this.selection.size, 'item') : 'Nothing is chosen yet', !this.selection.size)),
      this.chosenNames(),
      h('p', {}, h('a', {href: browse}, this.selection.size ? 'Change what is chosen' : 'Choose files and databases')),
      h('div', {class: 'field'}, h('label', {for: 'overwrite'}, 'Files that are there now and in the backup'), overwrite,
        h('p', {class: 'hint'}, 'What is there and not in the backup stays in any case.')),
      h('p', {class: 'actions'}, h('button', {class: 'button primary', type: 'submit'}, 'Try it without changing anything'))));
    if (focus) title.focus();
  }

  // ---- Dry run and confirmation

  failed(message) {
    return [notice('bad', message), h('p', {class: 'actions'}, h('button', {class: 'button', type: 'button', onclick: () => this.choose()}, 'Back'))];
  }

  async run(preview, at, heading) {
    const place = h('div');
    this.show(at, heading, place).focus();
    try {
      const {id} = await post('restore', this.body(preview));
      return await watchJob(id, place, this.signal, !preview);
    } catch (error) {
      if (error.name !== 'AbortError') this.show(at, heading, this.failed(error.message)).focus();
      return null;
    }
  }

  async tryIt() {
    const job = await this.run(true, 1, 'Dry run');
    if (job) this.confirm(job);
  }

  summary(job) {
    const actions = Object.entries(job.actions);
    if (!actions.length) return notice('good', h('p', {}, 'Nothing would change: everything is as the backup has it.'));
    return h('dl', {class: 'figures-row'}, actions.map(([action, count]) =>
      h('div', {class: 'figure'}, h('dt', {}, action), h('dd', {}, count.toLocaleString('en')))));
  }

  confirm(job) {
    if (outcome(job) === 'failed' && !Object.keys(job.actions).length) {
      this.show(1, 'The dry run failed', notice('bad', job.lines.at(-1) ?? 'The program gave no reason.'), linesView(job),
        this.failed('Nothing was changed.')).focus();
      return;
    }
    const back = h('button', {class: 'button', type: 'button', onclick: () => this.choose()}, 'Back');
    const go = h('button', {class: 'button primary danger', type: 'button', onclick: () => this.restore()}, 'Restore now');
    this.show(2, 'This is what would be done', this.summary(job),
      h('details', {}, h('summary', {}, 'Show the names'), previewView(job)),
      notice('warn', h('p', {}, `Restoring ${this.words()} of ${this.params.date} changes the data of ${this.params.user}. Nothing has been changed so far.`)),
      h('p', {class: 'actions'}, go, back)).focus();
  }

  // ---- The work

  async restore() {
    const job = await this.run(false, 3, 'Restoring');
    if (!job) return;
    const {user} = this.params;
    this.place.querySelector('section').append(h('p', {class: 'actions'},
      job.report ? h('a', {class: 'button primary', href: `#/report/${job.report}`}, 'Open the report') : null,
      h('a', {class: 'button', href: `#/backups/${encodeURIComponent(user)}`}, 'To the backups')));
    this.place.querySelector('h2').textContent = outcome(job) === 'failed' ? 'Not everything came back' : 'Restored';
    this.place.querySelector('h2').focus();
  }
}

export async function restorePage(context) {
  const [backup, running] = await Promise.all([findBackup(context.params, context.session, context.signal),
    runningJob(context.params.user, context.signal)]);
  const {user, date, own} = context.params;
  const wizard = new Wizard(context, backup);
  const title = `Restore ${user}, ${date}`;
  return {title, content: [
    h('p', {class: 'crumbs'}, h('a', {href: `#/backups/${encodeURIComponent(user)}`}, 'Backups'), ' / ',
      h('a', {href: `#/backup/${encodeURIComponent(user)}/${date}${own ? '/own' : ''}`}, date), ' / Restore'),
    h('h1', {}, title), h('p', {class: 'facts'}, h('span', {}, `${backup.kind} backup`), h('span', {}, bytes(backup.size)), h('span', {}, `finished ${backup.finished}`)),
    running, wizard.place]};
}

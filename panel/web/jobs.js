// Long work: its progress while it runs, and what came of it.
import {get} from './api.js';
import {announce, badge, h, icon, notice, table} from './dom.js';
import {bytes, moment, plural, seconds} from './format.js';

const PAUSE_MS = 500;
const RECENT = 8;
const LOST_TRIES = 60;
const LOST_PAUSE_MS = 2000;
const TITLES = {run: 'Backup', restore: 'Restore', preview: 'Dry run', verify: 'Verification', check: 'Storage test'};
const STEPS = {archive: 'Saving files', upload: 'Storing', restore: 'Bringing files back',
  download: 'Fetching', verify: 'Checking', measure: 'Measuring'};

export function jobTitle(job) {
  const of = [job.user, job.date].filter(Boolean).join(', ');
  return `${TITLES[job.kind] ?? job.kind}${of ? ` of ${of}` : ''}`;
}

/** What became of a job in one word: running, done, warnings or failed. */
export function outcome(job) {
  if (job.running) return 'running';
  if (job.status === 0) return 'done';
  return job.status === 3 ? 'warnings' : 'failed';
}

function figures(job) {
  const parts = [];
  if (job.bytes > 0) parts.push(job.of_bytes > 0 ? `${bytes(job.bytes)} of ${bytes(job.of_bytes)}` : bytes(job.bytes));
  if (job.files > 0) parts.push(plural(job.files, 'file'));
  parts.push(seconds(Math.max(0, Date.now() / 1000 - job.started)));
  return parts.join(' · ');
}

function share(job) {
  if (job.of_bytes > 0) return Math.min(1, job.bytes / job.of_bytes);
  return job.of_files > 0 ? Math.min(1, job.files / job.of_files) : null;
}

/** The bar with words; update(job) redraws it and tells listeners every quarter. */
function progressView(job) {
  const name = jobTitle(job);
  const bar = h('progress', {max: '1', 'aria-label': `Progress: ${name}`});
  const words = h('p', {class: 'figures'});
  const step = h('span', {class: 'step-name'});
  let told = 0;
  const update = (now) => {
    const part = share(now);
    if (part === null) bar.removeAttribute('value');
    else bar.value = part;
    step.textContent = STEPS[now.step] ?? 'Starting';
    words.textContent = (part === null ? '' : `${Math.floor(part * 100)} % · `) + figures(now);
    const quarter = Math.floor((part ?? 0) * 4);
    if (quarter > told) {
      told = quarter;
      announce(`${name}: ${quarter * 25} percent`);
    }
  };
  update(job);
  return {element: h('div', {class: 'job running'}, h('p', {class: 'job-title'}, h('strong', {}, name), ' ', step), bar, words), update};
}

function cells(line, pathAt) {
  const cut = line.indexOf('\t');
  return [line.slice(0, cut), line.slice(cut + 1)].map((text, index) => h('td', {class: index === pathAt ? 'path' : null}, text));
}

function namedLines(job, caption, headings, pathAt) {
  const named = (job.lines ?? []).filter((line) => line.includes('\t'));
  const more = job.line_count - job.lines.length;
  return [
    named.length ? table(caption, headings.map((name) => ({name})), named.map((line) => h('tr', {}, cells(line, pathAt)))) : null,
    more > 0 ? h('p', {class: 'hint'}, `and ${plural(more, 'more line')}`) : null,
  ];
}

/** What a dry run says of each name. */
export const previewView = (job) => namedLines(job, 'What the restore would do', ['Action', 'Name'], 1);

/** The lines of a finished job: names with reasons as a table, others as text. */
export function linesView(job) {
  const plain = (job.lines ?? []).filter((line) => !line.includes('\t'));
  return [plain.length ? h('ul', {class: 'plain-lines'}, plain.map((line) => h('li', {}, line))) : null,
    namedLines(job, 'Details', ['Name', 'What happened'], 0)];
}

const WORDS = {done: 'finished', warnings: 'finished with warnings', failed: 'failed'};
const ADVICE = {
  run: 'The earlier backups are as they were. Try it again; if it fails once more, tell the administrator what stands here.',
  restore: 'What came back stays. The report says what did not; a restore can be repeated.',
  verify: 'Make a new full backup (“Custom backup”), and look at the storage.',
  check: 'Backups cannot go there until this is mended.',
};
const TONES = {done: 'good', warnings: 'warn', failed: 'bad'};

export function resultView(job) {
  const result = outcome(job);
  const took = job.finished > job.started ? ` after ${seconds(job.finished - job.started)}` : '';
  return h('div', {class: 'job'},
    notice(TONES[result], h('p', {}, h('strong', {}, `${jobTitle(job)} ${WORDS[result]}`), `${took}, ${moment(job.finished)}`)),
    linesView(job), result === 'failed' && ADVICE[job.kind] ? h('p', {class: 'hint'}, ADVICE[job.kind]) : null);
}

const pause = (signal, milliseconds = PAUSE_MS) => new Promise((resolve) => {
  const timer = setTimeout(resolve, milliseconds);
  signal?.addEventListener('abort', () => { clearTimeout(timer); resolve(); }, {once: true});
});

/** Asks again while the server is out of reach or busy: the job goes on meanwhile. */
async function patiently(ask, signal) {
  for (let tries = 0; ; tries += 1) {
    try {
      return await ask();
    } catch (error) {
      const passing = error.status === 0 || error.status >= 502;
      if (!passing || tries >= LOST_TRIES) throw error;
      await pause(signal, LOST_PAUSE_MS);
      if (signal?.aborted) return null;
    }
  }
}

/** Shows the job inside `place` until it has ended; gives its last state, null when left. */
export async function watchJob(id, place, signal, showResult = true) {
  let view = null;
  for (;;) {
    const job = await patiently(() => get(`jobs/${id}`, {}, signal), signal);
    if (signal?.aborted) return null;
    if (!job.running) {
      announce(`${jobTitle(job)} ${WORDS[outcome(job)]}`);
      place.replaceChildren(...(showResult ? [resultView(job)] : []));
      return job;
    }
    if (view) view.update(job);
    else {
      view = progressView(job);
      place.replaceChildren(view.element);
      announce(`${jobTitle(job)} is running`);
    }
    await pause(signal);
    if (signal?.aborted) return null;
  }
}

/** The page of one job: #/job/ID. */
export async function jobPage({params, signal}) {
  const job = await get(`jobs/${params.id}`, {}, signal);
  const place = h('section', {class: 'card', 'aria-label': 'Progress'});
  const end = h('p', {class: 'actions'});
  watchJob(params.id, place, signal).then((last) => {
    if (!last) return;
    if (last.report) end.append(h('a', {class: 'button primary', href: `#/report/${last.report}`}, 'Open the report'));
    if (last.user) end.append(h('a', {class: 'button', href: `#/backups/${last.user}`}, 'To the backups'));
  }).catch((error) => place.replaceChildren(notice('bad', error.message)));
  return {title: jobTitle(job), content: [h('h1', {}, jobTitle(job)), place, end]};
}

const getJobs = (user, signal) => get('jobs', user ? {user} : {all: 'yes'}, signal);

/** A line that leads to the job that runs, if one does. */
function runningLine(jobs) {
  const job = jobs.find((one) => one.running);
  return job ? h('p', {class: 'notice info'}, icon('clock'),
    h('span', {}, `${jobTitle(job)} is running. `, h('a', {href: `#/job/${job.id}`}, 'Watch it'))) : null;
}

export const runningJob = async (user, signal) => runningLine(await getJobs(user, signal));

/** What has ended lately, in case nobody looked. */
function endedList(jobs) {
  const ended = jobs.filter((job) => !job.running && job.kind !== 'preview').slice(0, RECENT);
  if (!ended.length) return null;
  return h('details', {class: 'card recent'}, h('summary', {}, `Latest work: ${jobTitle(ended[0])} ${WORDS[outcome(ended[0])]}`),
    h('ul', {class: 'bare'}, ended.map((job) => h('li', {},
      h('a', {href: `#/job/${job.id}`}, jobTitle(job)), badge(WORDS[outcome(job)], TONES[outcome(job)]),
      h('span', {class: 'muted'}, moment(job.finished))))));
}

/** The line and the list for a page. */
export async function jobViews(user, signal) {
  const jobs = await getJobs(user, signal);
  return {running: runningLine(jobs), ended: endedList(jobs)};
}

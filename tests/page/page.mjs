// Uses the page in Chromium as people do. What to use comes as JSON on standard input (test_page.py);
// every step stands for itself in the output, and a failed one leaves a picture.
import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {createHash} from 'node:crypto';
import {existsSync, mkdirSync, readFileSync, rmSync, statSync, writeFileSync} from 'node:fs';
import {gunzipSync} from 'node:zlib';
import {chromium} from 'playwright-core';

const facts = JSON.parse(readFileSync(0, 'utf8'));
const axeSource = readFileSync(new URL('./node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');
const FLAGS = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
  '--disable-component-update', '--disable-sync', '--disable-dev-shm-usage'];

const browser = await chromium.launch({executablePath: facts.chromium, headless: true, args: FLAGS});
const complaints = [];
let failures = 0;
let expected = [];  // statuses of answers that the browser may complain about

async function open(user, options = {}) {
  const context = await browser.newContext({ignoreHTTPSErrors: true, viewport: {width: 1280, height: 860}, bypassCSP: false,
    colorScheme: 'light', reducedMotion: 'reduce', acceptDownloads: true, ...options});
  const page = await context.newPage();
  page.setDefaultTimeout(60000);
  await page.addInitScript(() => {
    document.addEventListener('securitypolicyviolation', (event) => console.error(`CSP: ${event.violatedDirective} ${event.blockedURI}`));
  });
  page.on('console', (message) => {
    if (message.type() === 'error' && !expected.some((status) => message.text().includes(`status of ${status}`))) complaints.push(message.text());
  });
  page.on('pageerror', (error) => complaints.push(String(error.stack)));
  page.on('dialog', (dialog) => { complaints.push(`dialog: ${dialog.message()}`); dialog.dismiss(); });
  await page.goto(facts.url);
  if (user) await logIn(page, user);
  return page;
}

async function logIn(page, user) {
  await page.getByLabel('User name').fill(user);
  await page.getByLabel('Password').fill(facts.passwords[user]);
  await page.getByRole('button', {name: 'Log in'}).click();
  await page.getByRole('button', {name: 'Log out'}).waitFor();
}

/** No fault that the rules of WCAG 2.2 A and AA can tell by machine. */
async function accessible(page, what) {
  await page.waitForFunction(() => !document.querySelector('main[aria-busy]'));
  // In a world of its own: the page's own rules about scripts stay in force.
  const client = await page.context().newCDPSession(page);
  const {frameTree} = await client.send('Page.getFrameTree');
  const {executionContextId: contextId} = await client.send('Page.createIsolatedWorld', {frameId: frameTree.frame.id});
  const evaluate = async (expression) => {
    const {result, exceptionDetails} = await client.send('Runtime.evaluate', {contextId, expression, awaitPromise: true, returnByValue: true});
    assert.ok(!exceptionDetails, JSON.stringify(exceptionDetails));
    return result.value;
  };
  await evaluate(`${axeSource}; 0`);
  const faults = await evaluate(`axe.run(document, {runOnly: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice']})
    .then((found) => found.violations.map((one) => one.id + ': ' + one.nodes.map((node) => node.target + ' ' + node.failureSummary).join('; ')))`);
  assert.deepEqual(faults, [], what);
  await client.detach();
}

const shot = async (page, name) => page.screenshot({path: `${facts.shots}/${name}.png`, animations: 'disabled'});
const heading = (page, name) => page.getByRole('heading', {name, level: 1}).waitFor();
const treeItem = (page, name) => page.getByRole('treeitem').filter({has: page.locator(':scope > .row > .name', {hasText: name})}).first();
const hash = (bytes) => createHash('sha256').update(bytes).digest('hex');

async function step(name, work) {
  try {
    await work();
    console.log(`ok ${name}`);
  } catch (error) {
    failures += 1;
    console.log(`FAILED ${name}\n${error.stack}`);
    const pages = browser.contexts().flatMap((context) => context.pages());
    await pages.at(-1)?.screenshot({path: `${facts.shots}/failed-${failures}.png`}).catch(() => {});
  }
}

const {anna, bert, monday, tuesday, home} = facts;
let page;

await step('a wrong password is refused in words, and the right one logs in', async () => {
  page = await open('');
  await heading(page, 'Log in');
  await accessible(page, 'log-in');
  await shot(page, 'login-light');
  expected = [401];
  await page.getByLabel('User name').fill(anna);
  await page.getByLabel('Password').fill('wrong');
  await page.keyboard.press('Enter');
  await page.getByRole('alert').getByText('name or the password is wrong').waitFor();
  expected = [];
  await logIn(page, anna);
  assert.equal(await page.evaluate(() => document.cookie), '');
});

await step('the list shows each chain with kinds, sizes, storage and verification', async () => {
  await heading(page, 'Your backups');
  const table = page.getByRole('table', {name: 'Backups, the newest first'});
  await table.getByText(`Chain of ${monday}`).waitFor();
  const row = (date) => table.getByRole('row').filter({has: page.getByRole('link', {name: date, exact: true})});
  assert.match(await row(monday).innerText(), /Full.*[KM]iB.*local, encrypted\s+20\d\d-\d\d-\d\d/s);
  assert.match(await row(tuesday).innerText(), /Increment.*not yet/s);
  assert.equal(await page.getByRole('img', {name: /Sizes over time: \d+ backups/}).count(), 1);
  assert.equal(await page.getByRole('table', {name: 'Private copies, the newest first'}).getByRole('link', {name: tuesday, exact: true}).count(), 1);
  await accessible(page, 'list');
  await shot(page, 'list-light');
});

await step('folders open one by one, odd names stand as they are, long folders come in pages', async () => {
  await page.getByRole('table', {name: 'Backups, the newest first'}).getByRole('link', {name: monday, exact: true}).click();
  await heading(page, `${anna}, ${monday}`);
  await treeItem(page, 'data').click();
  await treeItem(page, 'odd').click();
  await page.getByText('<img src=x onerror=alert(1)>.txt').waitFor();
  assert.equal(await treeItem(page, 'odd').getByRole('treeitem').count(), 6);
  await treeItem(page, 'many').click();
  await page.getByRole('treeitem', {name: 'Show more (30 left)'}).click();
  await page.getByText('file 229', {exact: true}).waitFor();
  await treeItem(page, 'many').locator(':scope > .row').click();
  await accessible(page, 'browse');
});

await step('a search finds names whatever their case', async () => {
  await page.getByLabel('Search').fill('INVOICE 1');
  await page.keyboard.press('Enter');
  await page.getByText('2 matches').waitFor();
  await page.getByText('data/invoices/2024/Invoice 18.txt').waitFor();
  await page.getByLabel('Search').fill('[x');
  await page.keyboard.press('Enter');
  await page.getByText('1 match for').waitFor();
  await page.getByRole('button', {name: 'All files'}).click();
  await treeItem(page, 'data').waitFor();
});

await step('chosen files come back byte for byte, after a dry run and with a report', async () => {
  const photo = `${home}/data/photos/a.jpg`;
  const before = hash(readFileSync(photo));
  writeFileSync(photo, 'spoilt');
  rmSync(`${home}/data/odd`, {recursive: true});
  writeFileSync(`${home}/data/later.txt`, 'stays');
  await treeItem(page, 'data').click();
  for (const name of ['photos', 'odd', 'index.html']) await treeItem(page, name).locator(':scope > .row > .mark').click();
  await page.getByText('3 items chosen').waitFor();
  await shot(page, 'browse-light');
  await page.getByRole('link', {name: 'Restore what is chosen'}).click();
  await heading(page, `Restore ${anna}, ${monday}`);
  assert.ok(await page.getByRole('radio', {name: /What I have chosen/}).isChecked());
  await accessible(page, 'restore');
  await page.getByRole('button', {name: 'Try it without changing anything'}).click();
  await page.getByRole('heading', {name: 'This is what would be done'}).waitFor();
  assert.ok(!existsSync(`${home}/data/odd`), 'the dry run changed something');
  await page.getByText('Show the names').click();
  await page.getByRole('cell', {name: 'data/photos/a.jpg'}).waitFor();
  await accessible(page, 'confirm');
  await shot(page, 'restore-light');
  await page.getByRole('button', {name: 'Restore now'}).click();
  await page.getByRole('heading', {name: 'Restored', exact: true}).waitFor();
  assert.equal(hash(readFileSync(photo)), before);
  assert.equal(readFileSync(`${home}/data/odd/new\nline`, 'utf8'), 'line\n');
  assert.equal(readFileSync(Buffer.from(`${home}/data/odd/b\xffyte`, 'latin1'), 'utf8'), 'not UTF-8\n');
  assert.equal(readFileSync(`${home}/data/odd/50%2F#?&+ .txt`, 'utf8'), 'address\n');
  assert.equal(statSync(`${home}/data/index.html`).size, 560);
  assert.equal(readFileSync(`${home}/data/later.txt`, 'utf8'), 'stays');
  await page.getByRole('link', {name: 'Open the report'}).click();
  await page.getByText('Everything came back.').waitFor();
});

await step('what could not come back stands in the report, and opening marks it as viewed', async () => {
  rmSync(`${home}/data/photos/a.jpg`);
  mkdirSync(`${home}/data/photos/a.jpg/in-the-way`, {recursive: true});
  await page.goto(`${facts.url}/#/restore/${anna}/${monday}`);
  await page.getByRole('radio', {name: /^All files/}).check();
  await page.getByRole('button', {name: 'Try it without changing anything'}).click();
  await page.getByRole('button', {name: 'Restore now'}).click();
  await page.getByRole('heading', {name: 'Not everything came back'}).waitFor();
  await page.goto(`${facts.url}/#/reports`);
  const row = page.getByRole('row').filter({hasText: '1 failure'});
  await row.getByText('new').waitFor();
  await accessible(page, 'reports');
  await row.getByRole('link').click();
  await page.getByText('1 item did not come back.').waitFor();
  assert.match(await page.getByRole('table').innerText(), /a\.jpg/);
  await accessible(page, 'report');
  await shot(page, 'report-light');
  await page.goto(`${facts.url}/#/reports`);
  await page.getByRole('row').filter({hasText: '1 failure'}).getByText('viewed').waitFor();
  rmSync(`${home}/data/photos/a.jpg`, {recursive: true});
});

await step('a database comes back alone', async () => {
  const sql = (words) => execFileSync(facts.mariadb[0], [...facts.mariadb.slice(1), words], {encoding: 'utf8'});
  sql('DELETE FROM shop.orders WHERE name = "first"');
  writeFileSync(`${home}/data/later.txt`, 'newer than the backup');
  await page.goto(`${facts.url}/#/backup/${anna}/${tuesday}`);
  await page.getByRole('checkbox', {name: /shop.*on main/}).check();
  await accessible(page, 'databases');
  await page.getByRole('link', {name: 'Restore what is chosen'}).click();
  await page.getByRole('button', {name: 'Try it without changing anything'}).click();
  await page.getByRole('button', {name: 'Restore now'}).click();
  await page.getByRole('heading', {name: 'Restored', exact: true}).waitFor();
  assert.equal(sql('SELECT name FROM shop.orders ORDER BY name'), 'first\nsecond\n');
  assert.equal(readFileSync(`${home}/data/later.txt`, 'utf8'), 'newer than the backup');
});

await step('a backup that was started shows its progress, also after the page was loaded again', async () => {
  writeFileSync(facts.hold, '');  // nothing reaches the storage while this file is there
  await page.goto(`${facts.url}/#/backups`);
  await page.getByRole('button', {name: 'Custom backup'}).click();
  await heading(page, `Backup of ${anna}`);
  await page.getByRole('progressbar').waitFor();
  await page.getByText(/\d+ files? ·/).waitFor();
  await page.reload();
  await page.getByRole('progressbar').waitFor();
  await page.goto(`${facts.url}/#/backups`);
  expected = [409];
  await page.getByRole('button', {name: 'Back up now'}).click();
  await page.getByText(`Another job of ${anna} is running.`).waitFor();
  expected = [];
  await page.getByRole('link', {name: 'Watch it'}).click();
  await accessible(page, 'job');
  rmSync(facts.hold);
  await page.getByText(/Backup of .* finished/).first().waitFor();
  await page.getByRole('link', {name: 'To the backups'}).click();
  await page.getByRole('link', {name: /^Custom, /}).first().waitFor();
  await page.getByText(/^Latest work: Backup of .* finished/).click();
  await page.getByRole('link', {name: /^Restore of /}).first().waitFor();
});

await step('the private storage can be tried', async () => {
  await page.getByRole('link', {name: 'Storage', exact: true}).click();
  await page.getByRole('button', {name: `Test the storage of ${anna}`}).click();
  await page.getByText('can be written, listed and read').waitFor();
  await accessible(page, 'storage');
});

await step('the newest backup is downloaded whole although the connection breaks', async () => {
  let cut = 0;
  const ranges = [];
  await page.route('**/velcgi/**', async (route) => {
    ranges.push(await route.request().headerValue('range'));
    if (cut > 0) return route.continue();
    cut += 1;
    const answer = await route.fetch();
    const whole = await answer.body();  // the half of it, as if the line had died
    return route.fulfill({status: 200, headers: answer.headers(), body: whole.subarray(0, whole.length >> 1)});
  });
  await page.goto(`${facts.url}/#/backups`);
  await page.getByRole('button', {name: 'Download the newest'}).click();
  await accessible(page, 'download');
  const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('dialog').getByRole('button', {name: 'Download'}).first().click()]);
  const bytes = readFileSync(await download.path());
  assert.match(ranges.at(-1) ?? '', /^bytes=\d+-$/, 'it did not go on where it broke off');
  assert.ok(gunzipSync(bytes).includes('data/invoices/2024/invoice 17.txt'));
  await page.keyboard.press('Escape');
  assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Download the newest');
  await page.unroute('**/velcgi/**');
});

await step('everything works with the keyboard alone', async () => {
  const keys = await open('');
  const press = (...names) => names.reduce((done, name) => done.then(() => keys.keyboard.press(name)), Promise.resolve());
  const tabTo = async (name) => {
    for (let tries = 0; tries < 40; tries += 1) {
      await press('Tab');
      const text = await keys.evaluate(() => document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent.trim());
      if (text === name) {
        const ring = await keys.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
        assert.notEqual(ring, 'none', `${name}: the focus cannot be seen`);
        return;
      }
    }
    assert.fail(`${name} cannot be reached`);
  };
  await heading(keys, 'Log in');
  await keys.keyboard.type(bert);  // the field has the focus
  await press('Tab');
  await keys.keyboard.type(facts.passwords[bert]);
  await press('Enter');
  await heading(keys, 'Your backups');
  assert.equal(await keys.evaluate(() => document.activeElement.tagName), 'H1');
  await tabTo(monday);
  await press('Enter');
  await heading(keys, `${bert}, ${monday}`);
  await treeItem(keys, 'data').waitFor();
  for (let tries = 0; tries < 20 && !(await keys.evaluate(() => document.activeElement.getAttribute('role') === 'treeitem')); tries += 1) await press('Tab');
  await press('ArrowRight');
  await treeItem(keys, 'zebra').waitFor();
  await press('ArrowDown', 'Space');
  await keys.getByText('1 item chosen').waitFor();
  assert.equal(await treeItem(keys, 'data').getAttribute('aria-checked'), 'mixed');
  await tabTo('Restore what is chosen');
  await press('Enter');
  await tabTo('Try it without changing anything');
  await press('Enter');
  await keys.getByRole('heading', {name: 'This is what would be done'}).waitFor();
  await tabTo('Restore now');
  await press('Enter');
  await keys.getByRole('heading', {name: 'Restored', exact: true}).waitFor();
  assert.equal(await keys.evaluate(() => document.activeElement.textContent), 'Restored');
  await keys.context().close();
});

await step('one user never reaches another\'s pages', async () => {
  const other = await open(bert);
  expected = [403, 404];
  for (const place of [`backups/${anna}`, `backup/${anna}/${monday}`, `restore/${anna}/${monday}`]) {
    await other.goto(`${facts.url}/#/${place}`);
    await other.getByText('That is not yours.').waitFor();
  }
  await other.goto(`${facts.url}/#/users`);
  await heading(other, 'Your backups');
  assert.ok(!(await other.content()).includes(anna));
  expected = [];
  await other.context().close();
});

await step('an administrator finds users and sees everybody\'s backups', async () => {
  const chief = await open('chief');
  await heading(chief, 'Users');
  await accessible(chief, 'users');
  await shot(chief, 'users-light');
  await chief.getByLabel('Search').fill('gam');
  await chief.getByRole('table', {name: '1 user'}).getByRole('link', {name: bert}).click();
  await heading(chief, `Backups of ${bert}`);
  await chief.getByRole('button', {name: `Pin ${monday}`}).click();
  await chief.getByRole('table', {name: 'Backups, the newest first'}).getByText('pinned').waitFor();
  await chief.getByRole('link', {name: 'All backups'}).click();
  await chief.getByRole('row').filter({hasText: anna}).first().waitFor();
  await accessible(chief, 'all backups');
  await chief.getByRole('link', {name: 'Storages'}).click();
  await chief.getByRole('button', {name: 'Test the storage of the administrator'}).click();
  await chief.getByText('can be written, listed and read').waitFor();
  await chief.context().close();
});

await step('dark colours come with the system or by choice, with contrast enough', async () => {
  const dark = await open('', {colorScheme: 'dark'});
  const ground = () => dark.evaluate(() => getComputedStyle(document.body).backgroundColor);
  await heading(dark, 'Log in');
  const night = await ground();
  await shot(dark, 'login-dark');
  await dark.getByLabel('Colours').selectOption('light');
  assert.notEqual(await ground(), night);
  await dark.getByLabel('Colours').selectOption('dark');
  await dark.reload();
  assert.equal(await ground(), night);
  await logIn(dark, anna);
  await heading(dark, 'Your backups');
  await accessible(dark, 'list, dark');
  await shot(dark, 'list-dark');
  await dark.goto(`${facts.url}/#/backup/${anna}/${monday}`);
  await treeItem(dark, 'data').click();
  await treeItem(dark, 'photos').locator(':scope > .row > .mark').click();
  await accessible(dark, 'browse, dark');
  await shot(dark, 'browse-dark');
  await dark.goto(`${facts.url}/#/restore/${anna}/${monday}`);
  await dark.getByRole('button', {name: 'Try it without changing anything'}).click();
  await dark.getByRole('heading', {name: 'This is what would be done'}).waitFor();
  await accessible(dark, 'confirm, dark');
  await shot(dark, 'restore-dark');
  await dark.goto(`${facts.url}/#/reports`);
  await dark.getByRole('row').filter({hasText: '1 failure'}).getByRole('link').click();
  await dark.getByText('did not come back.').waitFor();
  await shot(dark, 'report-dark');
  await dark.context().close();
});

await step('a narrow screen shows everything without moving sideways', async () => {
  const phone = await open(anna, {viewport: {width: 360, height: 740}});
  for (const place of ['backups', `backup/${anna}/${monday}`, `restore/${anna}/${monday}`, 'reports', 'storages']) {
    await phone.goto(`${facts.url}/#/${place}`);
    await phone.waitForFunction(() => !document.querySelector('main[aria-busy]'));
    assert.ok(await phone.evaluate(() => document.documentElement.scrollWidth <= innerWidth), place);
    if (place === 'backups' || place === 'storages') await accessible(phone, `${place}, narrow`);
  }
  await phone.context().close();
});

await step('a session that ends leads back to where one was, and other windows follow', async () => {
  const first = await open(anna);
  await first.goto(`${facts.url}/#/restore/${anna}/${monday}`);
  await heading(first, `Restore ${anna}, ${monday}`);
  expected = [401, 403];
  await first.context().clearCookies();
  await first.getByRole('button', {name: 'Try it without changing anything'}).click();
  await first.getByText('Your session has ended.').waitFor();
  await logIn(first, anna);
  await heading(first, `Restore ${anna}, ${monday}`);
  const second = await first.context().newPage();
  await second.goto(facts.url);
  await second.getByRole('button', {name: 'Log out'}).click();
  await heading(first, 'Log in');
  await logIn(second, bert);
  await first.getByText('That is not yours.').waitFor();
  assert.equal(await first.locator('#who-name').textContent(), bert);
  expected = [];
  await first.context().close();
});

await step('guessing passwords ends in words', async () => {
  const guess = await open('');
  expected = [401, 429];
  for (let tries = 0; tries < 6; tries += 1) {
    await guess.getByLabel('User name').fill('nobody');
    await guess.getByLabel('Password').fill('guess');
    await guess.getByRole('button', {name: 'Log in'}).click();
    await guess.getByRole('alert').locator('.notice').waitFor();
    await guess.waitForFunction(() => !document.querySelector('form button').disabled);
  }
  await guess.getByText('Too many attempts').waitFor();
  expected = [];
  await guess.context().close();
});

await step('logging out ends the session', async () => {
  await page.getByRole('button', {name: 'Log out'}).click();
  await heading(page, 'Log in');
  await page.goto(`${facts.url}/#/backups`);
  await heading(page, 'Log in');
});

await step('the browser complained about nothing', () => assert.deepEqual(complaints, []));

await browser.close();
process.exitCode = failures > 0 ? 1 : 0;

// The web console in headless Chromium, driven as a sysop would drive it.
// node console_e2e.mjs <build/bin> <node|--demo> <chromium>
//
// node:   qxcluster (which starts qxfront) in a fresh program directory; a telnet user logs
//         in, the monitor view is switched, a lock-out made in the browser refuses a call at
//         log-in, a spot typed by the user shows in the spot list, a setting saved in the
//         browser lands in cluster.cfg.
// --demo: console_demo's fake node, driven through its standard input instead of telnet.
import { chromium } from 'playwright-core';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const [bin, mode, chromiumPath] = process.argv.slice(2);
const demo = mode === '--demo';
const home = fs.mkdtempSync(path.join(os.tmpdir(), 'qx-console-e2e-'));
const shots = process.env.QX_BROWSER_SHOTS || path.join(home, 'shots');
fs.mkdirSync(shots, {recursive: true});

let passed = 0;
let failed = 0;
function check(ok, what) {
  if (ok) passed++;
  else failed++;
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}`);
  return ok;
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
async function waitFor(fn, ms = 15000) {
  const end = Date.now() + ms;
  while (Date.now() < end) {
    const v = await fn();
    if (v) return v;
    await sleep(100);
  }
  return await fn();
}

async function freePort() {
  const srv = net.createServer();
  await new Promise((r) => srv.listen(0, '127.0.0.1', r));
  const port = srv.address().port;
  await new Promise((r) => srv.close(r));
  return port;
}

// A telnet user: a plain TCP socket that collects what the node sends.
class Telnet {
  constructor(port) {
    this.text = '';
    this.closed = false;
    this.socket = net.connect(port, '127.0.0.1');
    this.socket.setEncoding('latin1');
    this.socket.on('data', (d) => { this.text += d; });
    this.socket.on('close', () => { this.closed = true; });
    this.socket.on('error', () => { this.closed = true; });
  }
  send(line) { this.socket.write(line + '\r\n'); }
  async until(re, ms = 15000) {
    return waitFor(() => re.test(this.text), ms);
  }
  close() { this.socket.destroy(); }
}

// ---- The node (or the demo) --------------------------------------------------------------

const ports = {console: await freePort(), link: await freePort(), users: await freePort()};
let program;
let args;
if (demo) {
  program = path.join(bin, 'console_demo');
  args = ['--home', home, '--port', String(ports.console)];
} else {
  program = path.join(bin, 'qxcluster');
  args = ['--home', home];
  // Spotters need a known country for their spots to be accepted.
  fs.mkdirSync(path.join(home, 'data', 'files'), {recursive: true});
  fs.writeFileSync(path.join(home, 'data', 'files', 'cty_wt_mod.dat'),
                   'United Kingdom: 14: 27: EU: 54.00: 2.00: 0.0: G:\r\n    G,M,2E;\r\n' +
                   'United States: 05: 08: NA: 37.53: 91.67: 5.0: K:\r\n    K,N,W;\r\n');
  fs.writeFileSync(path.join(home, 'cluster.cfg'), [
    'Cluster Call^XX0QX-9',
    'Winsock IP^127.0.0.1',
    `Winsock Port^${ports.link}`,
    `Frontend Ports^${ports.users}`,
    `Console Port^${ports.console}`,
    // Nothing is fetched from outside the machine.
    'Get WWV^False',
    'Country File URL^',
    'Known Calls URL^',
    'Update URL^',
    '',
  ].join('\r\n'));
}
const out = fs.createWriteStream(path.join(home, 'node.out'));
const child = spawn(program, args, {cwd: home, stdio: ['pipe', 'pipe', 'pipe']});
let stdout = '';
let exited = null;
child.stdout.setEncoding('utf8');
child.stdout.on('data', (d) => { stdout += d; out.write(d); });
child.stderr.on('data', (d) => out.write(d));
child.on('exit', (code, signal) => { exited = {code, signal}; });

function stopChild() {
  if (exited === null) child.kill('SIGTERM');
  // The node started qxfront, which outlives it by design: stop it too.
  try {
    const pid = Number(fs.readFileSync(path.join(home, 'qxfront.pid'), 'latin1').trim());
    if (pid > 0) process.kill(pid, 'SIGTERM');
  } catch (e) { /* no front-end was started */ }
}
process.on('exit', stopChild);

await waitFor(() => /Console password: \S+/.test(stdout) || exited !== null, 30000);
const passwordMatch = stdout.match(/Console password: (\S+)/);
if (!check(passwordMatch, 'the node prints the console password once')) {
  console.log(`node output (${path.join(home, 'node.out')}):\n${stdout}`);
  console.log(`${passed} passed, ${failed} failed`);
  process.exit(1);
}
const password = passwordMatch[1];
const base = `http://127.0.0.1:${ports.console}`;

// ---- The browser -------------------------------------------------------------------------

const context = await chromium.launchPersistentContext(path.join(home, 'chromium-profile'), {
  executablePath: chromiumPath,
  headless: true,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
         '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  viewport: {width: 1280, height: 800},
});
const page = context.pages()[0] || await context.newPage();
const pageErrors = [];
page.on('pageerror', (e) => pageErrors.push(String(e)));
const shot = (name) => page.screenshot({path: path.join(shots, name + '.png')}).catch(() => {});
const tab = (name) => page.click(`#tabs button[data-page="${name}"]`);
const visible = async (locator, ms = 15000) =>
  locator.first().waitFor({state: 'visible', timeout: ms}).then(() => true, () => false);

try {
  // Log-in: a page without a session goes to the log-in form; a wrong password is refused.
  await page.goto(base + '/');
  check(page.url().endsWith('/login'), 'a page without a session goes to the log-in form');
  await page.fill('#password', 'not-the-password');
  await page.click('#login-button');
  check(await visible(page.locator('#login-error', {hasText: /wrong password/i})),
        'a wrong password is refused');
  await page.fill('#password', password);
  await page.click('#login-button');
  await page.waitForURL(base + '/', {timeout: 15000}).catch(() => {});
  check(await visible(page.locator('#live', {hasText: 'live'})),
        'after log-in the console is live over its WebSocket');
  await shot('01-monitor');

  // A user logs in and appears in the connections list.
  let user = null;
  if (demo) {
    child.stdin.write('user 5 G4ABC Bob\n');
  } else {
    user = new Telnet(ports.users);
    check(await user.until(/call: |login: /i), 'telnet user gets the call prompt');
    user.send('G4ABC');
    if (await user.until(/Please enter your name/, 10000)) {
      user.send('Bob');
      await user.until(/\?|y\/n|Y\/N/, 5000);
      user.send('y');
    }
    await user.until(/>\s*$/, 10000);
  }
  await tab('connections');
  check(await visible(page.locator('#connections-table tbody tr', {hasText: 'G4ABC'})),
        'the user appears in Connections');
  await shot('02-connections');

  await tab('monitor');
  check(await waitFor(async () => (await page.textContent('#monitor-pane')).trim().length > 0),
        'the monitor pane shows live lines');

  // The monitor view selector changes the node's view, which a fresh page load reads back.
  check(await page.inputValue('#monitor-view') === '0', 'the monitor view starts on all traffic');
  await page.selectOption('#monitor-view', '1');
  check(await visible(page.locator('#monitor-pane span', {hasText: '--- view: node traffic ---'})),
        'choosing node traffic is confirmed in the monitor pane');
  const viewNow = async () => page.evaluate(async () =>
    (await (await fetch('/api/monitor/view', {credentials: 'same-origin'})).json()).view);
  check(await waitFor(async () => (await viewNow()) === 1), 'the node is on the node-traffic view');
  await page.reload();
  check(await waitFor(async () => (await page.inputValue('#monitor-view')) === '1'),
        'a reloaded page shows the node-traffic view');
  await page.selectOption('#monitor-view', '0');
  check(await waitFor(async () => (await viewNow()) === 0), 'back on the all-traffic view');

  // A call added to the lock-out list is saved in its side file ...
  await tab('lists');
  await page.click('#list-names li[data-list="LockOuts"]');
  await page.fill('#list-add-item', 'K2BAD');
  await page.press('#list-add-item', 'Enter');
  check(await visible(page.locator('#list-items tr', {hasText: 'K2BAD'})),
        'the added call is shown in the LockOuts list');
  const lockouts = path.join(home, 'data', 'cfg', 'LockOuts.cfg');
  check(await waitFor(() => fs.existsSync(lockouts) &&
                            fs.readFileSync(lockouts, 'latin1').includes('K2BAD')),
        'the call is in data/cfg/LockOuts.cfg');
  await shot('03-lists');
  // ... and refused at log-in.
  if (!demo) {
    const bad = new Telnet(ports.users);
    await bad.until(/call: |login: /i);
    bad.send('K2BAD');
    check(await bad.until(/LockedOut /), 'the locked-out call is refused at log-in');
    bad.close();
  }

  // A spot posted by the user appears in the spot list.
  if (demo) {
    child.stdin.write('spot DX de G4ABC:     14025.0  K1ABC        test                           1200Z\n');
    child.stdin.write('spot refused DX de N0BAD: 14025.0 K1ABC bad spotter\n');
  } else {
    user.send('DX 14025 K1ABC test');
  }
  await tab('spots');
  check(await visible(page.locator('#spots-table tbody tr', {hasText: 'K1ABC'})),
        'the spot appears in Spots');
  await shot('04-spots');

  // A user who goes away leaves the connections table within a second.
  if (user) {
    await tab('connections');
    const row = page.locator('#connections-table tbody tr', {hasText: 'G4ABC'});
    await row.first().waitFor({timeout: 5000}).catch(() => {});
    user.close();
    user = null;
    check(await waitFor(async () => (await row.count()) === 0, 1000),
          'a user who disconnects leaves the table within a second');
  }

  // A setting saved in the browser is written to cluster.cfg.
  await tab('settings');
  await page.locator('#settings-groups input[data-key]').first().waitFor({timeout: 15000});
  let key = null;
  for (const k of ['Connection Retry', 'Maximum DX Spots', 'Maximum Announcements',
                   'NewMaxSpotsPerMin']) {
    const input = page.locator(`#settings-groups input[data-key="${k}"]`);
    if (await input.count() && !(await input.getAttribute('readonly') !== null)) {
      key = k;
      break;
    }
  }
  if (check(key !== null, 'the settings page shows an editable numeric key')) {
    const input = page.locator(`#settings-groups input[data-key="${key}"]`);
    const old = await input.inputValue();
    const value = String((parseInt(old, 10) || 60) + 7);
    await input.fill(value);
    await page.click('#settings-save');
    check(await visible(page.locator('#settings-confirm-list li', {hasText: `${key}: "${old}" to "${value}"`})),
          `before saving, the page names the change to ${key}`);
    await page.click('#settings-confirm-yes');
    check(await visible(page.locator('#settings-status', {hasText: 'Saved.'})),
          `saving ${key} is confirmed`);
    const cfg = path.join(home, 'cluster.cfg');
    check(await waitFor(() => fs.readFileSync(cfg, 'latin1').includes(`${key}^${value}`)),
          `cluster.cfg holds ${key}^${value}`);

    // A console address the node could not listen on is refused, and nothing is saved.
    const address = page.locator('#settings-groups input[data-key="Console Address"]');
    await address.fill('foo');
    await page.click('#settings-save');
    await page.click('#settings-confirm-yes');
    check(await visible(page.locator('#settings-status.error', {hasText: 'IP address'})),
          'a console address that is not an IP address is refused with the reason');
    check(!fs.readFileSync(cfg, 'latin1').includes('Console Address^foo'),
          'the refused value does not reach cluster.cfg');
  }
  const logonText = page.locator('#logon-sections textarea[data-section="Logon 1"]');
  if (check(await visible(logonText), 'log-on messages are editable in place')) {
    const box = page.locator('#logon-sections .logon',
                             {has: page.locator('textarea[data-section="Logon 1"]')});
    await logonText.fill('Welcome to the test node');
    await box.locator('button').click();
    check(await visible(box.locator('span', {hasText: 'Saved.'})), 'a log-on message is saved');
  }
  await shot('05-settings');

  await tab('links');
  check(await visible(page.locator('#links-table')), 'the node links page opens');
  // An outgoing connection is defined in the page (inactive, so nothing dials out).
  await page.fill('#link-name', 'GB7TST');
  await page.fill('#link-kind', 'pc9x');
  await page.fill('#link-address', '127.0.0.1');
  await page.fill('#link-port', String(await freePort()));
  await page.uncheck('#link-active');
  await page.click('#link-form button[type="submit"]');
  check(await visible(page.locator('#links-table tbody tr', {hasText: 'GB7TST'})),
        'a new outgoing connection is listed');
  if (!demo) {
    check(await waitFor(() => fs.readFileSync(path.join(home, 'cluster.cfg'), 'latin1')
                                  .includes('GB7TST')),
          'the new outgoing connection is in cluster.cfg');
  }
  await shot('06-links');
  await tab('stats');
  check(await visible(page.locator('#stats-table tbody tr', {hasText: 'Uptime'})),
        'statistics are shown');
  if (demo) {
    check(await page.locator('#stats-chart polyline').count() === 1, 'the spots-per-minute chart is drawn');
  }
  await shot('07-stats');
  await tab('logs');
  await page.locator('#logs-file option').first().waitFor({state: 'attached', timeout: 15000})
      .catch(() => {});
  await page.click('#logs-tail');
  check(await visible(page.locator('#logs-status', {hasText: 'lines'})), 'a log file can be tailed');
  await shot('08-logs');

  await tab('mail');
  check(await visible(page.locator('#mail-table')), 'the mail page opens');
  if (demo) {
    const row = page.locator('#mail-table tbody tr', {hasText: 'Field day'});
    check(await visible(row.locator('td', {hasText: 'W1CCC: given up (5 failed)'})),
          'a stuck forward is shown with its failed attempts');
    await row.locator('button', {hasText: 'Read'}).click();
    check(await visible(page.locator('#mail-read pre', {hasText: 'Saturday from 1200Z'})),
          'a message can be read');
    await row.locator('button', {hasText: 'Send again'}).click();
    check(await visible(page.locator('#mail-table td', {hasText: 'W1CCC: queued'})),
          'a stuck forward is queued again');
  }
  await shot('09-mail');

  check(pageErrors.length === 0, 'no script errors in the page' +
        (pageErrors.length ? ': ' + pageErrors.join('; ') : ''));

  // Shut down, with the program's own question.
  let question = '';
  page.once('dialog', (d) => { question = d.message(); d.accept(); });
  await page.click('#shutdown');
  check(await waitFor(() => question !== '', 5000) &&
        question === 'Do you really want to end program? ', 'shut-down asks the question');
  check(await waitFor(() => exited !== null, 20000), 'the program ends after shut-down');
  if (user) user.close();
} catch (e) {
  check(false, 'unexpected error: ' + (e && e.stack || e));
  await shot('99-error');
} finally {
  await context.close().catch(() => {});
  stopChild();
}

console.log(`screenshots: ${shots}; node output: ${path.join(home, 'node.out')}`);
console.log(`${passed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);

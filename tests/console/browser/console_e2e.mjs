// The web console in headless Chromium, driven as a sysop would drive it.
// node console_e2e.mjs <build/bin> <node|--demo> <chromium>
//
// node:   qxcluster (which starts qxfront) in a fresh program directory; a telnet user logs
//         in, the monitor view is switched, a lock-out made in the browser refuses a call at
//         log-in, a spot typed by the user shows in the spot list once (and a refused one
//         with its reason), what the user typed shows in the monitor, and both survive a
//         reload; a bad word added in the browser refuses the next spot, an exit list is
//         loaded from a local HTTP server, a neighbour defined in the browser links, a user
//         locked out on the Users page is disconnected and refused, a setting saved in the
//         browser lands in cluster.cfg.
// --demo: console_demo's fake node, driven through its standard input instead of telnet.
import { chromium } from 'playwright-core';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const [bin, mode, chromiumPath] = process.argv.slice(2);
const demo = mode === '--demo';
const home = fs.mkdtempSync(path.join(os.tmpdir(), 'qx-console-e2e-'));
// Reviewers look at the pages here after a run (build/console-screenshots beside build/bin).
const shots = process.env.QX_BROWSER_SHOTS || path.join(path.resolve(bin), '..', 'console-screenshots');
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

  // A bad word added in the browser refuses the very next spot that carries it.  (The demo's
  // fake node keeps only the configuration's lists.)
  if (!demo) {
    await page.click('#list-names li[data-list="BadWords"]');
    check(await visible(page.locator('#list-title', {hasText: 'BadWords'})), 'the bad words open');
    await page.fill('#list-add-item', 'FT8SPAM');
    await page.press('#list-add-item', 'Enter');
    check(await visible(page.locator('#list-items tr', {hasText: 'FT8SPAM'})),
          'the bad word is listed');
    await shot('03b-bad-words');
    check(fs.readFileSync(path.join(home, 'data', 'files', 'badwords.txt'), 'latin1')
            .includes('FT8SPAM'), 'the bad word is in data/files/badwords.txt');
    user.send('DX 14025 JA1AAA FT8SPAM here');
    user.send('DX 14026 JA1BBB fine');
    check(await user.until(/DX de G4ABC:.*JA1BBB/), 'the next clean spot is taken');
    check(!/DX de G4ABC:.*JA1AAA/.test(user.text), 'the spot with the bad word is refused');

    // The anonymity-network list is loaded from an address the sysop types.
    const exitList = 'ExitNode 0011BD2485AD45D984EC4159C88FC066E5E3300E\n' +
                     'Published 2026-11-24 02:53:35\nExitAddress 198.51.100.77 2026-11-24 04:05:02\n';
    const server = http.createServer((req, res) => {
      res.writeHead(200, {'Content-Type': 'text/plain'});
      res.end(exitList);
    });
    await new Promise((r) => server.listen(0, '127.0.0.1', r));
    await page.click('#list-names li[data-list="TorList"]');
    await page.fill('#list-fetch-url', `http://127.0.0.1:${server.address().port}/exit-addresses`);
    await page.click('#list-fetch-form button[type="submit"]');
    check(await visible(page.locator('#list-items tr', {hasText: '198.51.100.77'})),
          'an exit list loaded from a local address fills TorList');
    check(await visible(page.locator('#list-note', {hasText: '1 new'})), 'the load says what it added');
    await shot('03c-torlist');
    server.close();
    // A refused address says why.
    await page.click('#list-names li[data-list="IpNotOk"]');
    await page.fill('#list-add-item', 'not.an.address');
    await page.press('#list-add-item', 'Enter');
    check(await visible(page.locator('#list-error', {hasText: 'not an IP address'})),
          'an address list refuses an entry that is no address');
  }


  // A spot posted by the user appears in the Spots table once, a refused one with its reason
  // in words, and what the user typed is in the monitor beside what the node sent.
  let refusedCall, refusedRule, typed;
  if (demo) {
    child.stdin.write('input 5 DX 14025 K1ABC test\n');
    child.stdin.write('spot DX de G4ABC:     14025.0  K1ABC        test                           1200Z\n');
    child.stdin.write('spot refused DX de N0BAD: 14025.0 K9BAD bad spotter\n');
    [refusedCall, refusedRule, typed] = ['N0BAD', 'spotter refused: N0BAD (SpotterNok list)',
                                         'DX 14025 K1ABC test'];
  } else {
    await page.click('#list-names li[data-list="DxNok"]');
    await page.fill('#list-add-item', 'K9BAD');
    await page.press('#list-add-item', 'Enter');
    await visible(page.locator('#list-items tr', {hasText: 'K9BAD'}));
    user.send('DX 14025 K1ABC test');
    await user.until(/K1ABC/);
    user.send('DX 14030 K9BAD hello');
    [refusedCall, refusedRule, typed] = ['K9BAD', 'DX call refused: K9BAD (DxNok list)',
                                         'DX 14025 K1ABC test'];
  }
  await tab('spots');
  const spotRows = page.locator('#spots-table tbody tr:not(.refused)', {hasText: 'K1ABC'});
  check(await visible(spotRows), 'the spot appears in Spots');
  check(await spotRows.count() === 1, 'the spot is one row of the table');
  check(await visible(page.locator('#spots-table tbody tr.refused', {hasText: refusedRule})),
        'the refused spot is in the table with its reason in words');
  await shot('04-spots');
  // The table sorts by a column's heading and filters by band, and its address says so.
  const dxColumn = async () => page.locator('#spots-table tbody tr td:nth-child(4)').allTextContents();
  const inOrder = (a, dir) => a.length > 1 && a.every((x, i) => i === 0 || dir * x.localeCompare(a[i - 1]) >= 0);
  await page.click('#spots-table th[data-sort="dx"]');
  const ascending = await dxColumn();
  await page.click('#spots-table th[data-sort="dx"]');
  check(inOrder(ascending, 1) && inOrder(await dxColumn(), -1) && /sort=dx/.test(page.url()),
        'a click on a heading sorts the table, a second click the other way');
  await page.selectOption('#spots-band', '40m');
  check(await waitFor(async () => (await page.locator('#spots-table tbody tr').count()) === 0),
        'the band filter leaves out spots on other bands');
  await page.selectOption('#spots-band', '');
  await tab('monitor');
  const typedLine = page.locator('#monitor-pane span', {hasText: '> ' + typed});
  check(await visible(typedLine), 'what the user typed is in the monitor, marked as input');
  if (!demo) {
    check(await visible(page.locator('#monitor-pane span', {hasText: '[sent to 1 user]'})),
          'the spot is one monitor line with the number of users it went to');
    check(await page.locator('#monitor-pane span', {hasText: /DX de G4ABC:.*K1ABC/}).count() === 1,
          'the spot is in the monitor once');
  }
  await shot('04a-monitor-both-directions');

  // After a reload the monitor still shows what happened, and the Spots page comes back with
  // its search and filter from its address.
  await page.reload();
  check(await visible(typedLine), 'the monitor shows the earlier lines after a reload');
  await page.goto(base + `/#/spots?q=${refusedCall}&refused=only`);
  await page.reload();
  check(await waitFor(async () => (await page.inputValue('#spots-search')) === refusedCall &&
                                  (await page.inputValue('#spots-refused')) === 'only'),
        'a reloaded Spots page keeps its search and filter');
  check(await visible(page.locator('#spots-table tbody tr.refused', {hasText: refusedRule})),
        'the refused spot is found again after the reload');
  check(await page.locator('#spots-table tbody tr:not(.refused)').count() === 0,
        'the refused-only filter shows no taken spots');
  await shot('04b-spots-after-reload');
  await page.goto(base + '/#/spots');

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

  // A neighbour defined in the browser is let in from its address and links.
  await page.fill('#neighbour-call', 'K7LEG');
  await page.selectOption('#neighbour-type', 'ARC');
  await page.fill('#neighbour-addresses', '127.0.0.1');
  await page.click('#neighbour-form button[type="submit"]');
  check(await visible(page.locator('#nodes-table tbody tr', {hasText: 'K7LEG'})),
        'the neighbour is listed with its address');
  if (!demo) {
    const peer = new Telnet(ports.users);
    await peer.until(/login: /i);
    peer.send('K7LEG');
    check(await peer.until(/PC18\^/), 'the neighbour is greeted as a node');
    peer.send('PC19^1^K7LEG^0^5455^H25^');
    peer.send('PC20^');
    check(await peer.until(/PC22\^/), 'the node link handshake completes');
    await tab('connections');
    check(await visible(page.locator('#connections-table tbody tr', {hasText: 'K7LEG'})
                            .filter({hasText: 'node'})),
          'the neighbour shows as a node connection');
    await shot('06b-neighbour-linked');
    peer.close();
  }

  // The Users page finds a user by call; a lock-out disconnects and refuses the next log-in.
  let victim = null;
  if (!demo) {
    victim = new Telnet(ports.users);
    await victim.until(/login: /i);
    victim.send('G4LOK');
    if (await victim.until(/Please enter your name/, 10000)) {
      victim.send('Lou');
      await victim.until(/\(Y or N\)/, 5000);
      victim.send('y');
    }
    await victim.until(/>\s*$/, 10000);
  }
  const lockCall = demo ? 'G4ABC' : 'G4LOK';
  await tab('users');
  await page.fill('#users-query', lockCall);
  await page.press('#users-query', 'Enter');
  const userRow = page.locator('#users-table tbody tr', {hasText: lockCall});
  check(await visible(userRow), 'the user is found on the Users page');
  await userRow.locator('button', {hasText: 'Details'}).click();
  check(await visible(page.locator('#user-settings tr', {hasText: 'Name'})),
        "the user's settings are shown");
  page.once('dialog', (d) => d.accept());
  await userRow.locator('button', {hasText: 'Lock out'}).click();
  check(await visible(page.locator('#users-table tbody tr', {hasText: 'locked out'})),
        'the user is shown as locked out');
  await shot('09-users');
  if (!demo) {
    check(await waitFor(() => victim.closed, 10000), 'the locked-out user is disconnected');
    const again = new Telnet(ports.users);
    await again.until(/login: /i);
    again.send('G4LOK');
    check(await again.until(/LockedOut /), 'the locked-out user cannot log in again');
    again.close();
  }
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
  await page.check('#logs-follow');
  check(await visible(page.locator('#logs-status', {hasText: 'following'})), 'the log is followed');
  if (!demo) {
    check(await visible(page.locator('#logs-output', {hasText: 'Sysop added FT8SPAM to bad words'})),
          'the log names what the sysop changed');
  }
  await page.uncheck('#logs-follow');
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

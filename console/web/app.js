'use strict';
// The sysop's console: live lines over one WebSocket, everything else through the JSON API.
// Text from the node is only ever put into the page as text, never as markup.

const state = {
  csrf: '',
  streams: [],
  follow: '',        // stream number followed in the monitor pane, '' for all
  monitorLines: [],  // what the monitor pane draws from: the history, then live lines
  monitorLoading: false,
  monitorQueued: [], // live lines that came while the history was being read
  monitorHeld: 0,    // lines that came while paused
  spotRows: [],      // the Spots table's rows as the API gave them
  spotSort: {key: 'ts', dir: -1},
  spotReload: null,
  currentList: '',
  settingsOriginal: new Map(),
};
const kMaxPaneLines = 3000;
const kMaxKeptLines = 6000;
const kMaxSpots = 2000;
const kBands = ['2200m', '630m', '160m', '80m', '60m', '40m', '30m', '20m', '17m', '15m', '12m',
                '10m', '6m', '4m', '2m', '70cm', '33cm', '23cm', '13cm', '9cm', '6cm', '3cm'];
const $ = (id) => document.getElementById(id);

function el(tag, attrs, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === 'class') e.className = v;
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else if (v !== undefined && v !== null && v !== false) e.setAttribute(k, v === true ? '' : v);
  }
  for (const c of children) {
    if (c === null || c === undefined) continue;
    e.append(c instanceof Node ? c : document.createTextNode(String(c)));
  }
  return e;
}

async function api(path, body) {
  const opts = {credentials: 'same-origin', headers: {}};
  if (body !== undefined) {
    opts.method = 'POST';
    opts.headers['Content-Type'] = 'application/json';
    opts.headers['X-CSRF-Token'] = state.csrf;
    opts.body = JSON.stringify(body);
  }
  const res = await fetch('/api/' + path, opts);
  if (res.status === 401) {
    location.href = '/login';
    throw new Error('not logged in');
  }
  const data = await res.json().catch(() => ({}));
  if (!res.ok) throw new Error(data.error || ('error ' + res.status));
  return data;
}

function timeText(unixSeconds) {
  if (!unixSeconds) return '';
  const d = new Date(unixSeconds * 1000);
  const p = (n) => String(n).padStart(2, '0');
  return `${p(d.getUTCDate())}-${p(d.getUTCMonth() + 1)} ${p(d.getUTCHours())}${p(d.getUTCMinutes())}Z`;
}

function colourClass(c) {
  return ['red', 'green', 'blue', 'orange', 'white'].includes(c) ? 'c-' + c : '';
}

// ---- Pages -------------------------------------------------------------------------------

// The Lists, Node links, Users and Logs pages live in admin.js (loaders and startAdmin).

const pageLoaders = {
  monitor: () => loadMonitorView(),
  spots: () => loadSpots(),
  connections: () => renderStreams(),
  lists: () => loadLists(),
  settings: () => loadSettings(),
  links: () => loadLinks(),
  users: () => loadUsers(),
  stats: () => loadStats(),
  logs: () => loadLogFiles(),
};
let currentPage = 'monitor';
let refreshTimer = null;

function showPage(name) {
  currentPage = name;
  for (const b of document.querySelectorAll('#tabs button')) {
    b.classList.toggle('active', b.dataset.page === name);
  }
  for (const p of document.querySelectorAll('.page')) {
    p.classList.toggle('active', p.id === 'page-' + name);
  }
  clearInterval(refreshTimer);
  writeRoute();
  // A hidden pane does not scroll with its lines: on showing, it starts at the newest.
  if (name === 'monitor') $('monitor-pane').scrollTop = $('monitor-pane').scrollHeight;
  const loader = pageLoaders[name];
  if (loader) loader().catch(showError);
  if (name === 'links' || name === 'stats') {
    refreshTimer = setInterval(() => pageLoaders[name]().catch(() => {}), 5000);
  }
  if (name === 'spots') {
    // Refusals that never reach the node's spot list (bad words, duplicates) show up too.
    refreshTimer = setInterval(() => { if (spotsLive()) loadSpots().catch(() => {}); }, 15000);
  }
}

// ---- Addresses ---------------------------------------------------------------------------
// Each page has its own address (#/spots?day=2026-11-24&q=K1ABC), so a reload or a bookmark
// opens the same page with the same search and filters.

function readRoute() {
  const h = location.hash.replace(/^#\/?/, '');
  const q = h.indexOf('?');
  const name = q < 0 ? h : h.slice(0, q);
  return {name: document.getElementById('page-' + name) ? name : 'monitor',
          params: new URLSearchParams(q < 0 ? '' : h.slice(q + 1))};
}

function routeParams(name) {
  const p = new URLSearchParams();
  const put = (k, v, fallback) => { if (v !== undefined && v !== '' && v !== fallback) p.set(k, v); };
  if (name === 'monitor') {
    put('q', $('monitor-search').value.trim());
    put('stream', state.follow);
    put('raw', $('monitor-raw').checked ? '' : '0');
  } else if (name === 'spots') {
    put('day', $('spots-day').value, todayText());
    put('q', $('spots-search').value.trim());
    put('band', $('spots-band').value);
    put('refused', $('spots-refused').value, 'include');
    put('sort', state.spotSort.key, 'ts');
    put('dir', state.spotSort.dir > 0 ? 'asc' : '', '');
  }
  return p;
}

function writeRoute() {
  const qs = routeParams(currentPage).toString();
  const hash = '#/' + currentPage + (qs ? '?' + qs : '');
  if (location.hash !== hash) history.replaceState(null, '', hash);
}

function applyRoute() {
  const {name, params} = readRoute();
  if (name === 'monitor') {
    $('monitor-search').value = params.get('q') || '';
    state.follow = params.get('stream') || '';
    $('monitor-follow').value = state.follow;
    $('monitor-raw').checked = params.get('raw') !== '0';
    renderMonitor();
  } else if (name === 'spots') {
    $('spots-day').value = params.get('day') || todayText();
    $('spots-search').value = params.get('q') || '';
    $('spots-band').value = params.get('band') || '';
    $('spots-refused').value = params.get('refused') || 'include';
    state.spotSort = {key: params.get('sort') || 'ts', dir: params.get('dir') === 'asc' ? 1 : -1};
  }
  showPage(name);
}

function showError(e) {
  console.warn(e);
}

// ---- Monitor -----------------------------------------------------------------------------

function appendLine(pane, text, cls, max) {
  const follow = pane.scrollTop + pane.clientHeight >= pane.scrollHeight - 4;
  pane.append(el('span', {class: cls}, text + '\n'));
  while (pane.childNodes.length > max) pane.firstChild.remove();
  if (follow) pane.scrollTop = pane.scrollHeight;
}

function clockText(ms) {
  if (!ms) return '';
  const d = new Date(ms);
  const p = (n) => String(n).padStart(2, '0');
  return `${p(d.getUTCHours())}:${p(d.getUTCMinutes())}:${p(d.getUTCSeconds())}Z`;
}

// One line of the pane: time, stream, direction (> came in on the stream, < the node sent
// it) and the text.
function monitorText(msg) {
  if (msg.local) return msg.x;
  const stream = msg.s ? String(msg.s).padStart(4, ' ') : '    ';
  const mark = msg.d === 'in' ? '>' : msg.d === 'out' ? '<' : ' ';
  const head = `${clockText(msg.ts)} ${stream} ${mark} `;
  // A text of several lines keeps its lines under the first one's text.
  const lines = String(msg.x).replace(/[\r\n]+$/, '').split(/\r?\n|\r/);
  return head + lines.join('\n' + ' '.repeat(head.length));
}

function monitorShows(msg) {
  if (msg.local) return true;
  if (msg.ch === 'raw' && !$('monitor-raw').checked) return false;
  if (state.follow !== '' && msg.s !== 0 && String(msg.s) !== state.follow) return false;
  const q = $('monitor-search').value.trim().toLowerCase();
  return !q || String(msg.x).toLowerCase().includes(q);
}

function monitorClass(msg) {
  if (msg.local) return 'marker';
  return colourClass(msg.c) || (msg.d === 'in' ? 'dir-in' : '');
}

function keepMonitorLine(msg) {
  state.monitorLines.push(msg);
  if (state.monitorLines.length > kMaxKeptLines) {
    state.monitorLines.splice(0, state.monitorLines.length - kMaxKeptLines);
  }
}

function monitorLine(msg) {
  if (state.monitorLoading) {
    state.monitorQueued.push(msg);
    return;
  }
  keepMonitorLine(msg);
  if (!monitorShows(msg)) return;
  if ($('monitor-pause').checked) {
    state.monitorHeld++;
    $('monitor-paused').textContent = state.monitorHeld + ' lines held';
    return;
  }
  appendLine($('monitor-pane'), monitorText(msg), monitorClass(msg), kMaxPaneLines);
}

// Draws the pane again from the kept lines: after a change of search, stream or filter.
function renderMonitor() {
  const pane = $('monitor-pane');
  const shown = state.monitorLines.filter(monitorShows).slice(-kMaxPaneLines);
  pane.replaceChildren(...shown.map((m) => el('span', {class: monitorClass(m)}, monitorText(m) + '\n')));
  pane.scrollTop = pane.scrollHeight;
}

// What happened before the page was opened (or while the node restarted): the node keeps the
// last hours of its monitor.  Live lines that arrive meanwhile wait and follow the history.
async function loadMonitorHistory() {
  state.monitorLoading = true;
  try {
    const data = await api('monitor/history?limit=5000');
    const kept = data.lines || [];
    const last = kept.length ? kept[kept.length - 1].ts : 0;
    const seen = new Set(kept.filter((m) => m.ts === last).map((m) => m.s + ' ' + m.x));
    const local = state.monitorLines.filter((m) => m.local);
    state.monitorLines = kept;
    if (kept.length) {
      state.monitorLines.push({local: true, x: `--- history from ${clockText(kept[0].ts)}, live from here ---`});
    }
    for (const m of local.slice(-20)) keepMonitorLine(m);
    for (const m of state.monitorQueued) {
      if (m.ts > last || (m.ts === last && !seen.has(m.s + ' ' + m.x))) keepMonitorLine(m);
    }
  } finally {
    state.monitorLoading = false;
    state.monitorQueued = [];
    renderMonitor();
  }
}

function monitorMarker(text) {
  monitorLine({local: true, x: text});
}

function setFollow(stream) {
  state.follow = stream === '' ? '' : String(stream);
  $('monitor-follow').value = state.follow;
  renderMonitor();
  monitorMarker(state.follow === '' ? '--- all streams ---' : '--- following stream ' + state.follow + ' ---');
  renderStreams();
  if (currentPage === 'monitor') writeRoute();
}

// The node's monitor view (all traffic or node traffic) lives in the running node, not in
// the page: every console sees and changes the same one, and a restart goes back to all.
async function loadMonitorView() {
  const data = await api('monitor/view');
  $('monitor-view').value = String(data.view);
}

async function changeMonitorView() {
  const select = $('monitor-view');
  $('monitor-view-error').textContent = '';
  try {
    const data = await api('monitor/view', {view: Number(select.value)});
    select.value = String(data.view);
    monitorMarker(data.view === 1 ? '--- view: node traffic ---' : '--- view: all traffic ---');
  } catch (e) {
    $('monitor-view-error').textContent = e.message;
    await loadMonitorView().catch(showError);
  }
}

// ---- Connections -------------------------------------------------------------------------

function renderStreams() {
  const tbody = $('connections-table').tBodies[0];
  tbody.replaceChildren();
  let users = 0, nodes = 0;
  for (const s of state.streams) {
    if (s.kind === 'user') users++;
    if (s.kind === 'node') nodes++;
    const row = el('tr', {class: String(s.number) === state.follow ? 'followed' : '',
                          'data-stream': s.number},
      el('td', {}, s.number),
      el('td', {class: colourClass(s.colour)}, s.call),
      el('td', {}, s.kind), el('td', {title: 'state ' + s.state}, stateWords(s.state)),
      el('td', {}, s.peer), el('td', {}, s.port),
      el('td', {}, timeText(s.since)), el('td', {}, s.name),
      el('td', {}, filtersCell(s.filters)),
      el('td', {},
        el('button', {onclick: () => { setFollow(s.number); showPage('monitor'); }}, 'Follow'),
        ' ',
        el('button', {class: 'danger', onclick: () => disconnectStream(s)}, 'Disconnect')));
    tbody.append(row);
  }
  $('connections-summary').textContent =
      `${state.streams.length} streams, ${users} users, ${nodes} nodes`;
  const select = $('monitor-follow');
  const keep = state.follow;
  select.replaceChildren(el('option', {value: ''}, 'all'));
  for (const s of state.streams) select.append(el('option', {value: s.number}, `${s.number} ${s.call}`));
  if (keep !== '' && !state.streams.some((s) => String(s.number) === keep)) {
    select.append(el('option', {value: keep}, keep));
  }
  select.value = keep;
  return Promise.resolve();
}

// The stream table's state code as the sysop reads it.
function stateWords(code) {
  const words = {3: 'logging in', 9: 'timed out', 20: 'node link: handshake',
                 21: 'node link: PC9x', 22: 'node link: older protocol',
                 31: 'skimmer feed', 33: 'reverse beacon feed', 39: 'reporter feed'};
  if (words[code]) return words[code];
  if (code >= 1 && code <= 16) return 'logged in';
  if (code > 16 && code < 30) return 'node link';
  if (code >= 30) return 'feed';
  return 'state ' + code;
}

// A user's filters as SH/FILTER shows them: the first line (on or off) opens the rest.
function filtersCell(lines) {
  if (!lines || lines.length === 0) return '';
  return el('details', {class: 'filters'}, el('summary', {}, lines[0]),
            el('pre', {}, lines.slice(1).join('\n')));
}

async function disconnectStream(s) {
  if (!confirm(`Disconnect stream ${s.number} (${s.call})?`)) return;
  try {
    await api('streams/disconnect', {stream: s.number});
    state.streams = state.streams.filter((x) => x.number !== s.number);
    renderStreams();
  } catch (e) {
    alert(e.message);
  }
}

// ---- Spots -------------------------------------------------------------------------------

function todayText() {
  return new Date().toISOString().slice(0, 10);
}

// The table follows the node while it shows today and is not paused.
function spotsLive() {
  return currentPage === 'spots' && !$('spots-pause').checked &&
         ($('spots-day').value || todayText()) === todayText();
}

// A line of the node's own spot list: kept as it comes (markers and all), and a sign that
// the table has a new row.
function spotLine(msg) {
  appendLine($('spots-list'), `${clockText(msg.ts)} ${msg.x}`, colourClass(msg.c), kMaxPaneLines);
  // The table comes from the day's file, which the node reads for each load: on a busy node
  // the page asks at most every few seconds, however many spots arrive.
  if (!spotsLive() || state.spotReload) return;
  state.spotReload = setTimeout(() => {
    state.spotReload = null;
    if (spotsLive()) loadSpots().catch(showError);
  }, 3000);
}

async function loadSpots() {
  const query = new URLSearchParams({
    day: $('spots-day').value || todayText(),
    refused: $('spots-refused').value,
    limit: String(kMaxSpots),
  });
  if ($('spots-search').value.trim()) query.set('q', $('spots-search').value.trim());
  if ($('spots-band').value) query.set('band', $('spots-band').value);
  try {
    const data = await api('spots?' + query);
    state.spotRows = data.spots;
    $('spots-status').textContent = `${data.matched} spot${data.matched === 1 ? '' : 's'} on ${data.day}` +
        (data.matched > data.spots.length ? `, the newest ${data.spots.length} shown` : '');
    $('spots-status').classList.remove('error');
  } catch (e) {
    $('spots-status').textContent = e.message;
    $('spots-status').classList.add('error');
    state.spotRows = [];
  }
  renderSpots();
}

function spotCompare(key, dir) {
  return (a, b) => {
    const x = a[key] ?? '', y = b[key] ?? '';
    const c = typeof x === 'number' && typeof y === 'number' ? x - y : String(x).localeCompare(String(y));
    return c * dir || (b.ts - a.ts);
  };
}

function renderSpots() {
  const {key, dir} = state.spotSort;
  for (const th of $('spots-table').tHead.rows[0].cells) {
    th.classList.toggle('sorted-asc', th.dataset.sort === key && dir > 0);
    th.classList.toggle('sorted-desc', th.dataset.sort === key && dir < 0);
  }
  const rows = [...state.spotRows].sort(spotCompare(key, dir));
  $('spots-table').tBodies[0].replaceChildren(...rows.map((r) => el('tr',
    {class: r.refused ? 'refused' : ''},
    el('td', {}, clockText(r.ts * 1000)), el('td', {class: 'num'}, Number(r.freq).toFixed(1)),
    el('td', {}, r.band), el('td', {}, r.dx), el('td', {}, r.spotter),
    el('td', {class: 'comment'}, r.comment), el('td', {}, r.origin), el('td', {}, r.source),
    el('td', {title: r.refused ? r.rule : ''}, r.refused ? r.rule : ''))));
}

function sortSpots(key) {
  const same = state.spotSort.key === key;
  state.spotSort = {key, dir: same ? -state.spotSort.dir : (key === 'ts' || key === 'freq' ? -1 : 1)};
  renderSpots();
  writeRoute();
}

// ---- Lists -------------------------------------------------------------------------------

// ---- Settings ----------------------------------------------------------------------------

// Each key is edited the way it is checked: switches as toggles, numbers and ports as
// numbers.  The node checks every value again and saves nothing when one is wrong.
function settingInput(k) {
  if (k.kind === 'switch') {
    const box = el('input', {type: 'checkbox', 'data-key': k.key, 'aria-label': k.key,
                             disabled: k.readOnly});
    box.checked = /^true$/i.test(k.value.trim());
    return box;
  }
  const attrs = {value: k.value, 'data-key': k.key, readonly: k.readOnly, 'aria-label': k.key,
                 spellcheck: 'false'};
  if (k.kind === 'number' || k.kind === 'port') attrs.inputmode = 'numeric';
  if (k.kind === 'url' || k.kind === 'site') attrs.placeholder = 'https://...';
  if (k.kind === 'address') attrs.placeholder = '127.0.0.1';
  return el('input', attrs);
}

function settingValue(input) {
  if (input.type === 'checkbox') return input.checked ? 'True' : 'False';
  return input.value;
}

function settingChanges() {
  const changes = {};
  for (const input of $('settings-groups').querySelectorAll('input[data-key]')) {
    const was = state.settingsOriginal.get(input.dataset.key);
    const now = settingValue(input);
    const same = input.type === 'checkbox' ? /^true$/i.test(was.trim()) === input.checked
                                           : now === was;
    if (!same) changes[input.dataset.key] = now;
  }
  return changes;
}

async function loadSettings() {
  const data = await api('settings');
  const box = $('settings-groups');
  box.replaceChildren();
  state.settingsOriginal.clear();
  state.settingsRestart = new Set();
  for (const g of data.groups) {
    const fs = el('fieldset', {}, el('legend', {}, g.name));
    for (const k of g.keys) {
      state.settingsOriginal.set(k.key, k.value);
      if (k.restart) state.settingsRestart.add(k.key);
      const input = settingInput(k);
      const label = el('label', {}, k.key,
                       k.restart ? el('span', {class: 'badge', title: 'read when the node starts'},
                                      'restart') : null);
      const row = el('div', {class: 'setting', 'data-row': k.key}, label, input);
      const mark = () => row.classList.toggle('changed', k.key in settingChanges());
      input.addEventListener('input', mark);
      input.addEventListener('change', mark);
      if (k.help) row.append(el('div', {class: 'help'}, k.help));
      fs.append(row);
    }
    box.append(fs);
  }
  $('settings-status').textContent = '';
  $('settings-confirm').hidden = true;
  await loadLogon();
}

// Saving first shows what will change, old and new, and which changes wait for a restart.
function saveSettings(ev) {
  ev.preventDefault();
  const changes = settingChanges();
  const status = $('settings-status');
  status.className = 'hint';
  for (const row of $('settings-groups').querySelectorAll('.setting.bad')) {
    row.classList.remove('bad');
  }
  if (Object.keys(changes).length === 0) {
    status.textContent = 'Nothing changed.';
    return;
  }
  status.textContent = '';
  const list = $('settings-confirm-list');
  list.replaceChildren();
  for (const [key, value] of Object.entries(changes)) {
    list.append(el('li', {}, `${key}: "${state.settingsOriginal.get(key)}" to "${value}"`,
                   state.settingsRestart.has(key) ? ' (after a restart)' : ''));
  }
  state.pendingChanges = changes;
  $('settings-confirm').hidden = false;
  $('settings-confirm-yes').focus();
}

async function confirmSettings() {
  const changes = state.pendingChanges || {};
  $('settings-confirm').hidden = true;
  const status = $('settings-status');
  status.textContent = 'Saving...';
  status.className = 'hint';
  try {
    await api('settings', {changes});
    const waiting = Object.keys(changes).filter((k) => state.settingsRestart.has(k));
    await loadSettings();
    status.textContent = 'Saved.';
    if (waiting.length) {
      $('restart-keys').textContent = waiting.join(', ');
      $('restart-notice').hidden = false;
    }
  } catch (e) {
    // Nothing was saved: the edits stay in the form for the sysop to put right.
    status.textContent = 'Not saved: ' + e.message;
    status.className = 'error';
    const key = e.message.split(':')[0];
    const row = $('settings-groups').querySelector(`.setting[data-row="${CSS.escape(key)}"]`);
    if (row) row.classList.add('bad');
  }
}

async function restartNode() {
  if (!confirm('Restart the node now? Connections are kept; commands wait until it is back.')) {
    return;
  }
  try {
    await api('restart', {confirm: true});
  } catch (e) {
    // The node may close this connection on its way down before the answer arrives.
    if (!(e instanceof TypeError)) {
      alert(e.message);
      return;
    }
  }
  $('restart-notice').hidden = true;
  $('settings-status').textContent = 'Restarting: the live view comes back by itself.';
}

async function loadLogon() {
  const data = await api('logon');
  const box = $('logon-sections');
  box.replaceChildren();
  for (const s of data.sections) {
    const area = el('textarea', {'data-section': s.section, 'aria-label': s.section});
    area.value = s.text;
    const status = el('span', {class: 'hint'});
    const save = el('button', {onclick: async () => {
      status.textContent = 'Saving...';
      try {
        await api('logon', {section: s.section, text: area.value});
        status.textContent = 'Saved.';
      } catch (e) {
        status.textContent = e.message;
      }
    }}, 'Save');
    box.append(el('div', {class: 'logon'}, el('div', {class: 'toolbar'}, el('b', {}, s.section), save, status), area));
  }
}

async function changePassword(ev) {
  ev.preventDefault();
  const status = $('password-status');
  status.textContent = 'Changing...';
  try {
    await api('password', {old: $('password-old').value, new: $('password-new').value});
    status.textContent = 'Changed.';
    $('password-old').value = '';
    $('password-new').value = '';
  } catch (e) {
    status.textContent = e.message;
  }
}

// ---- Statistics --------------------------------------------------------------------------

async function loadStats() {
  const s = await api('stats');
  const rows = [
    ['Users', s.users], ['Nodes', s.nodes], ['Spots per minute', s.spotsPerMinute],
    ['Highest spots per minute', s.highestSpotsPerMinute], ['Link peak pending', s.linkPeakPending],
    ['Spots shed (link behind)', s.linkSpotsShed], ['Spots waiting', s.linkSpotsWaiting],
    ['Uptime', s.uptime],
  ];
  fillPairs($('stats-table'), rows);
  fillPairs($('stats-refusals'), Object.entries(s.refusals));
  fillPairs($('stats-pc41'), Object.entries(s.pc41));
  fillPairs($('stats-feeds'), (s.feeds || []).map((f) => [
    `${f.name} (${f.type})`,
    `${f.state}; ${f.linesPerMinute} lines/min, ${f.spotsPerMinute} spots/min; ` +
        `verified ${f.counts.verified || 0}, busted ${f.counts.busted || 0}, ` +
        `unverified ${f.counts.unverified || 0}, garbage ${f.counts.garbage || 0}`]));
  drawChart($('stats-chart'), s.history);
  await loadDownloads();
}

async function loadDownloads() {
  const d = await api('downloads');
  const tbody = $('downloads-table').tBodies[0];
  tbody.replaceChildren();
  for (const f of d.files) {
    tbody.append(el('tr', {title: f.url}, el('td', {}, f.file), el('td', {}, f.outcome),
                    el('td', {}, timeText(f.lastSuccess)),
                    el('td', {}, f.next === null ? 'when asked' : timeText(f.next) || 'now')));
  }
  $('downloads-program').textContent = d.program ? 'Program: ' + d.program : '';
}

async function updateReferenceData() {
  $('downloads-error').textContent = '';
  try {
    await api('downloads/update', {});
  } catch (e) {
    $('downloads-error').textContent = e.message;
  }
  // The downloads take a moment; the table shows them under way, then how they ended.
  await loadDownloads();
  setTimeout(() => loadDownloads().catch(() => {}), 3000);
}

function fillPairs(table, rows) {
  const tbody = table.tBodies[0];
  tbody.replaceChildren();
  for (const [k, v] of rows) tbody.append(el('tr', {}, el('td', {}, k), el('td', {}, v)));
}

function svg(tag, attrs) {
  const e = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, v);
  return e;
}

// A plain line chart: minutes along the bottom (newest at the right), spots per minute up.
function drawChart(box, values) {
  box.replaceChildren();
  const w = 720, h = 240, left = 40, bottom = 20, top = 10, right = 10;
  const max = Math.max(1, ...values);
  const n = Math.max(values.length, 2);
  const x = (i) => left + (w - left - right) * i / (n - 1);
  const y = (v) => top + (h - top - bottom) * (1 - v / max);
  box.append(svg('line', {class: 'axis', x1: left, y1: h - bottom, x2: w - right, y2: h - bottom}));
  box.append(svg('line', {class: 'axis', x1: left, y1: top, x2: left, y2: h - bottom}));
  for (const v of [0, max / 2, max]) {
    const t = svg('text', {x: 4, y: y(v) + 4});
    t.textContent = String(Math.round(v));
    box.append(t);
  }
  const hours = values.length / 60;
  const label = svg('text', {x: left, y: h - 4});
  label.textContent = values.length ? `last ${hours >= 1 ? hours.toFixed(1) + ' h' : values.length + ' min'}` : 'no data yet';
  box.append(label);
  if (values.length) {
    const points = values.map((v, i) => `${x(i).toFixed(1)},${y(v).toFixed(1)}`).join(' ');
    box.append(svg('polyline', {class: 'curve', points}));
  }
}

// ---- Logs --------------------------------------------------------------------------------

// ---- Live connection ---------------------------------------------------------------------

let socket = null;
let retryDelay = 1000;

function connectLive() {
  const scheme = location.protocol === 'https:' ? 'wss://' : 'ws://';
  socket = new WebSocket(scheme + location.host + '/ws');
  $('live').textContent = 'connecting...';
  socket.onopen = () => {
    retryDelay = 1000;
    loadMonitorHistory().catch(showError);
    $('live').textContent = 'live';
    $('live').title = 'Live lines and connections arrive as they happen';
    $('live').classList.remove('off');
  };
  socket.onmessage = (ev) => {
    let msg;
    try { msg = JSON.parse(ev.data); } catch (e) { return; }
    if (msg.t === 'line') {
      if (msg.ch === 'spots') spotLine(msg);
      else monitorLine(msg);
    } else if (msg.t === 'streams') {
      state.streams = msg.streams;
      renderStreams();
    } else if (msg.t === 'dropped') {
      monitorMarker(msg.x);
      appendLine($('spots-list'), msg.x, 'marker', kMaxPaneLines);
    } else if (msg.t === 'hello') {
      setCall(msg.call);
    }
  };
  socket.onclose = async () => {
    $('live').textContent = `offline, trying again in ${Math.round(retryDelay / 1000)} s`;
    $('live').title = 'The live view is closed: the node may be restarting or stopped';
    $('live').classList.add('off');
    // The session may have ended (node restarted): the API call sends us to the log-in.
    try { await api('session'); } catch (e) { /* node down: keep retrying */ }
    setTimeout(connectLive, retryDelay);
    retryDelay = Math.min(retryDelay * 2, 15000);
  };
}

function setCall(call) {
  if (!call) return;
  $('node-call').textContent = call;
  document.title = call + ' - QX Cluster console';
}

// ---- Start -------------------------------------------------------------------------------

async function start() {
  const session = await api('session');
  state.csrf = session.csrf;
  setCall(session.call);

  for (const b of document.querySelectorAll('#tabs button')) {
    b.addEventListener('click', () => {
      // Each page keeps its own search and filters in its address.
      currentPage = b.dataset.page;
      const qs = routeParams(b.dataset.page).toString();
      location.hash = '#/' + b.dataset.page + (qs ? '?' + qs : '');
    });
  }
  window.addEventListener('hashchange', applyRoute);
  $('monitor-clear').addEventListener('click', () => {
    state.monitorLines = [];
    $('monitor-pane').replaceChildren();
  });
  $('monitor-pause').addEventListener('change', () => {
    if ($('monitor-pause').checked) return;
    state.monitorHeld = 0;
    $('monitor-paused').textContent = '';
    renderMonitor();
  });
  $('monitor-follow').addEventListener('change', () => setFollow($('monitor-follow').value));
  $('monitor-raw').addEventListener('change', () => { renderMonitor(); writeRoute(); });
  let searchTimer = null;
  $('monitor-search').addEventListener('input', () => {
    clearTimeout(searchTimer);
    searchTimer = setTimeout(() => { renderMonitor(); writeRoute(); }, 200);
  });
  $('monitor-view').addEventListener('change', changeMonitorView);
  loadMonitorView().catch(showError);
  for (const b of kBands) $('spots-band').append(el('option', {value: b}, b));
  $('spots-day').max = todayText();
  const reloadSpots = () => { writeRoute(); loadSpots().catch(showError); };
  for (const id of ['spots-day', 'spots-band', 'spots-refused']) {
    $(id).addEventListener('change', reloadSpots);
  }
  $('spots-search').addEventListener('input', () => {
    clearTimeout(searchTimer);
    searchTimer = setTimeout(reloadSpots, 300);
  });
  $('spots-pause').addEventListener('change', () => { if (spotsLive()) reloadSpots(); });
  for (const th of $('spots-table').tHead.rows[0].cells) {
    th.addEventListener('click', () => sortSpots(th.dataset.sort));
  }
  $('settings-form').addEventListener('submit', saveSettings);
  $('settings-confirm-yes').addEventListener('click', () => confirmSettings().catch(showError));
  $('settings-confirm-no').addEventListener('click', () => { $('settings-confirm').hidden = true; });
  $('restart-node').addEventListener('click', restartNode);
  $('settings-reload').addEventListener('click', () => loadSettings().catch(showError));
  $('password-form').addEventListener('submit', changePassword);
  $('downloads-update').addEventListener('click', () => updateReferenceData().catch(showError));
  startAdmin();
  $('logout').addEventListener('click', async () => {
    try { await api('logout', {}); } catch (e) { /* gone anyway */ }
    location.href = '/login';
  });
  $('shutdown').addEventListener('click', async () => {
    if (!confirm('Do you really want to end program? ')) return;
    try {
      await api('shutdown', {confirm: true});
      document.body.replaceChildren(el('p', {class: 'login-box'}, 'The node is shutting down.'));
    } catch (e) {
      alert(e.message);
    }
  });
  applyRoute();
  connectLive();
}

start().catch(showError);

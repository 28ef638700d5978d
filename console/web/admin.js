'use strict';
// The sysop's administration pages: lists and files, passwords, neighbour nodes and outgoing
// connections, the users, and the logs.  Uses the helpers of app.js (api, el, $, state,
// currentPage), which is loaded after this file and calls startAdmin() once it has a session.
// Text from the node is only ever put into the page as text.

const admin = {
  list: '',            // the list shown on the Lists page
  listSearchTimer: null,
  usersOffset: 0,
  usersTotal: 0,
  usersLimit: 50,
  userShown: '',       // the call whose record is open
  followTimer: null,
};

// What each list holds, for the sysop who opens it.
const kListHelp = {
  BadWords: 'Words and phrases that refuse a spot (comment, spotter or DX call). One a line; ' +
            'an entry with blanks is a phrase.',
  IpNotOk: 'Spotter addresses whose spots are refused. One IP address a line.',
  TorList: 'Anonymity-network exit addresses; spots from them are refused. Paste a list or ' +
           'load a published exit list from its address.',
  SpecialCalls: 'Calls that are valid whatever their shape.',
  LockOuts: 'Calls that may not log in (every SSID).',
  Nodes: 'Calls of nodes, optionally with their type ("GB7AAA DXS"). Neighbours are defined ' +
         'with their addresses and password on the Node links page.',
};

// ---- Lists and files ---------------------------------------------------------------------

async function loadLists() {
  const data = await api('lists');
  const ul = $('list-names');
  ul.replaceChildren();
  for (const name of data.lists) {
    ul.append(el('li', {class: name === admin.list ? 'active' : '', 'data-list': name,
                        onclick: () => openList(name).catch(showError)}, name));
  }
  if (!admin.list && data.lists.length) admin.list = data.lists[0];
  await Promise.all([admin.list ? openList(admin.list) : null, loadPasswords()]);
}

async function openList(name) {
  if (name !== admin.list) $('list-search').value = '';
  admin.list = name;
  for (const li of $('list-names').children) li.classList.toggle('active', li.dataset.list === name);
  $('list-title').textContent = name;
  $('list-help').textContent = kListHelp[name] || '';
  $('list-error').textContent = '';
  const q = $('list-search').value.trim();
  const data = await api(`lists/${encodeURIComponent(name)}?q=${encodeURIComponent(q)}`);
  $('list-count').textContent = q ? `${data.matching} of ${data.total} match`
                                   : `${data.total} ${data.total === 1 ? 'entry' : 'entries'}`;
  $('list-fetch-form').hidden = !data.fetchable;
  $('list-note').textContent = data.note || '';
  const tbody = $('list-items').tBodies[0];
  tbody.replaceChildren();
  for (const item of data.items) {
    tbody.append(el('tr', {},
      el('td', {}, item),
      el('td', {}, el('button', {onclick: () => changeList('remove', item)}, 'Remove'))));
  }
  // A download runs in the background: look again until it has told how it went.
  if (data.fetchable && (data.note || '').endsWith('...')) {
    setTimeout(() => { if (admin.list === name) openList(name).catch(showError); }, 1000);
  }
}

async function changeList(action, item) {
  let error = '';
  try {
    await api(`lists/${encodeURIComponent(admin.list)}/${action}`, {item});
  } catch (e) {
    error = e.message;
  }
  await openList(admin.list);
  $('list-error').textContent = error;
}

async function importList() {
  const status = $('list-import-status');
  status.className = 'hint';
  try {
    const r = await api(`lists/${encodeURIComponent(admin.list)}/import`,
                        {text: $('list-import-text').value});
    let text = `${r.added} added, ${r.already} already listed`;
    if (r.refused.length) {
      text += `, ${r.refused.length} refused: ${r.refused.slice(0, 5).join('; ')}`;
      status.className = 'error';
    } else {
      $('list-import-text').value = '';
    }
    status.textContent = text;
  } catch (e) {
    status.className = 'error';
    status.textContent = e.message;
  }
  await openList(admin.list);
}

async function fetchList(ev) {
  ev.preventDefault();
  try {
    await api(`lists/${encodeURIComponent(admin.list)}/fetch`, {url: $('list-fetch-url').value});
  } catch (e) {
    $('list-note').textContent = e.message;
    return;
  }
  await openList(admin.list);
}

async function loadPasswords() {
  const data = await api('passwords');
  const tbody = $('password-rows').tBodies[0];
  tbody.replaceChildren();
  for (const p of data.calls) {
    tbody.append(el('tr', {},
      el('td', {}, p.call), el('td', {}, p.password), el('td', {}, p.level),
      el('td', {}, el('button', {class: 'danger', onclick: async () => {
        if (!confirm(`Remove the password of ${p.call}? The call then logs in without one.`)) return;
        try { await api('passwords/remove', {call: p.call}); } catch (e) {
          $('password-row-error').textContent = e.message;
        }
        await loadPasswords();
      }}, 'Remove'))));
  }
}

async function setPasswordRow(ev) {
  ev.preventDefault();
  $('password-row-error').textContent = '';
  try {
    await api('passwords/set', {call: $('password-row-call').value,
                                password: $('password-row-password').value,
                                level: $('password-row-level').value});
    $('password-row-form').reset();
  } catch (e) {
    $('password-row-error').textContent = e.message;
  }
  await loadPasswords();
}

// ---- Node links --------------------------------------------------------------------------

async function loadLinks() {
  const data = await api('links');
  const links = $('links-table').tBodies[0];
  links.replaceChildren();
  for (const l of data.links) {
    const up = l.stream > 0 || l.state === 'connected' || l.state === 'connecting';
    links.append(el('tr', {'data-link': l.name},
      el('td', {}, l.name), el('td', {}, l.remoteKind), el('td', {}, l.address),
      el('td', {}, l.port), el('td', {}, l.active ? 'yes' : 'no'),
      el('td', {class: l.state === 'connected' ? 'c-green' : ''}, l.state),
      el('td', {}, l.stream || ''),
      el('td', {class: 'c-red'}, l.lastError || ''),
      el('td', {},
        el('button', {onclick: () => linkAction(up ? 'disconnect' : 'connect', l.name)},
           up ? 'Disconnect' : 'Connect'),
        ' ',
        el('button', {onclick: () => editLink(l)}, 'Edit'),
        ' ',
        el('button', {class: 'danger', onclick: () => {
          if (confirm(`Remove the connection ${l.name}?`)) linkAction('remove', l.name);
        }}, 'Remove'))));
  }
  const nodes = $('nodes-table').tBodies[0];
  nodes.replaceChildren();
  for (const n of data.nodes) {
    nodes.append(el('tr', {'data-node': n.call},
      el('td', {}, n.call), el('td', {}, n.type), el('td', {}, n.local ? 'yes' : ''),
      el('td', {}, n.addresses || ''), el('td', {}, n.password || ''),
      el('td', {},
        el('button', {onclick: () => editNode(n)}, 'Edit'), ' ',
        el('button', {class: 'danger', onclick: async () => {
          if (!confirm(`Remove the node ${n.call}? It can no longer log in as a node.`)) return;
          try { await api('nodes/remove', {call: n.call}); } catch (e) {
            $('links-error').textContent = e.message;
          }
          await loadLinks();
        }}, 'Remove'))));
  }
}

function editLink(l) {
  $('link-name').value = l.name;
  $('link-kind').value = l.remoteKind;
  $('link-address').value = l.address;
  $('link-port').value = l.port;
  $('link-active').checked = l.active;
}

function editNode(n) {
  $('neighbour-call').value = n.call;
  if (![...$('neighbour-type').options].some((o) => o.value === n.type)) {
    $('neighbour-type').append(el('option', {value: n.type}, n.type));
  }
  $('neighbour-type').value = n.type;
  $('neighbour-addresses').value = n.addresses || '';
  $('neighbour-password').value = '';
  $('neighbour-local').checked = n.local;
}

async function saveLink(ev) {
  ev.preventDefault();
  $('links-error').textContent = '';
  try {
    await api('links/save', {name: $('link-name').value, remoteKind: $('link-kind').value,
                             address: $('link-address').value, port: $('link-port').value,
                             active: $('link-active').checked});
    $('link-form').reset();
  } catch (e) {
    $('links-error').textContent = e.message;
  }
  await loadLinks();
}

async function saveNode(ev) {
  ev.preventDefault();
  $('links-error').textContent = '';
  try {
    await api('nodes/save', {call: $('neighbour-call').value, type: $('neighbour-type').value,
                             addresses: $('neighbour-addresses').value,
                             password: $('neighbour-password').value,
                             local: $('neighbour-local').checked});
    $('neighbour-form').reset();
  } catch (e) {
    $('links-error').textContent = e.message;
  }
  await loadLinks();
}

async function linkAction(action, name) {
  $('links-error').textContent = '';
  try {
    const r = await api('links/' + action, {name});
    if (r.error) $('links-error').textContent = r.error;
  } catch (e) {
    $('links-error').textContent = e.message;
  }
  await loadLinks();
}

// ---- Users -------------------------------------------------------------------------------

async function loadUsers() {
  const q = $('users-query').value.trim();
  const data = await api(`users?q=${encodeURIComponent(q)}&offset=${admin.usersOffset}` +
                         `&limit=${admin.usersLimit}`);
  admin.usersOffset = data.offset;
  admin.usersTotal = data.total;
  const first = data.total ? data.offset + 1 : 0;
  $('users-count').textContent = `${first}-${data.offset + data.users.length} of ${data.total}`;
  $('users-prev').disabled = data.offset === 0;
  $('users-next').disabled = data.offset + data.users.length >= data.total;
  const tbody = $('users-table').tBodies[0];
  tbody.replaceChildren();
  for (const u of data.users) {
    const now = u.lockedOut ? 'locked out' : (u.stream ? `on stream ${u.stream}` : '');
    tbody.append(el('tr', {'data-call': u.call, class: u.lockedOut ? 'c-red' : ''},
      el('td', {}, u.call), el('td', {}, u.name), el('td', {}, u.qth),
      el('td', {}, u.lastLogin), el('td', {}, u.spots), el('td', {}, now),
      el('td', {},
        el('button', {onclick: () => showUser(u.call).catch(showError)}, 'Details'), ' ',
        u.lockedOut
          ? el('button', {onclick: () => lockUser(u.call, false)}, 'Lift lock-out')
          : el('button', {class: 'danger', onclick: () => {
              if (confirm(`Lock out ${u.call}? Every SSID is refused at log-in` +
                          (u.stream ? ' and the user is disconnected now.' : '.'))) {
                lockUser(u.call, true);
              }
            }}, u.stream ? 'Lock out and disconnect' : 'Lock out'),
        u.stream ? ' ' : null,
        u.stream ? el('button', {onclick: async () => {
          try { await api('streams/disconnect', {stream: u.stream}); } catch (e) {
            $('users-error').textContent = e.message;
          }
          await loadUsers();
        }}, 'Disconnect') : null)));
  }
  if (admin.userShown) await showUser(admin.userShown).catch(() => {});
}

async function showUser(call) {
  const data = await api('users/' + encodeURIComponent(call));
  admin.userShown = call;
  $('user-detail').hidden = false;
  $('user-detail-title').textContent = `${data.user.call} (${data.user.name})`;
  const rows = $('user-settings').tBodies[0];
  rows.replaceChildren();
  for (const [label, value] of data.settings) {
    rows.append(el('tr', {}, el('td', {}, label), el('td', {}, value)));
  }
  const filters = $('user-filters').tBodies[0];
  filters.replaceChildren();
  for (const f of data.filters) filters.append(el('tr', {}, el('td', {}, f)));
  if (!data.filters.length) filters.append(el('tr', {}, el('td', {class: 'hint'}, 'no filters')));
}

async function lockUser(call, locked) {
  $('users-error').textContent = '';
  try {
    await api('users/lockout', {call, locked});
  } catch (e) {
    $('users-error').textContent = e.message;
  }
  await loadUsers();
}

// ---- Logs --------------------------------------------------------------------------------

async function loadLogFiles() {
  const data = await api('logs');
  const select = $('logs-file');
  const keep = select.value;
  select.replaceChildren();
  for (const f of data.files) select.append(el('option', {value: f}, f));
  if (data.files.includes(keep)) select.value = keep;
}

async function tailLog() {
  const name = $('logs-file').value;
  const lines = $('logs-lines').value || 200;
  try {
    const data = await api(`logs/tail?name=${encodeURIComponent(name)}&lines=${lines}`);
    const pane = $('logs-output');
    const atEnd = pane.scrollTop + pane.clientHeight >= pane.scrollHeight - 4;
    pane.textContent = data.lines.join('\n');
    $('logs-status').textContent = `${data.lines.length} lines` +
                                   ($('logs-follow').checked ? ', following' : '');
    if (atEnd || !$('logs-follow').checked) pane.scrollTop = pane.scrollHeight;
  } catch (e) {
    $('logs-status').textContent = e.message;
  }
}

async function searchLog(ev) {
  ev.preventDefault();
  $('logs-follow').checked = false;
  followLog();
  const name = $('logs-file').value;
  const q = $('logs-query').value;
  try {
    const data = await api(`logs/search?name=${encodeURIComponent(name)}&q=${encodeURIComponent(q)}`);
    $('logs-output').textContent = data.lines.join('\n');
    $('logs-status').textContent = `${data.lines.length} lines found (newest first)`;
  } catch (e) {
    $('logs-status').textContent = e.message;
  }
}

// Follow mode reads the end of the file again every two seconds while the Logs page is open.
function followLog() {
  clearInterval(admin.followTimer);
  admin.followTimer = null;
  if (!$('logs-follow').checked) return;
  tailLog();
  admin.followTimer = setInterval(() => {
    if (currentPage !== 'logs' || !$('logs-follow').checked) {
      clearInterval(admin.followTimer);
      admin.followTimer = null;
      $('logs-follow').checked = false;
      return;
    }
    tailLog();
  }, 2000);
}

// ---- Wiring ------------------------------------------------------------------------------

function startAdmin() {
  $('list-add-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    const item = $('list-add-item').value.trim();
    if (!item) return;
    $('list-add-item').value = '';
    changeList('add', item);
  });
  $('list-search').addEventListener('input', () => {
    clearTimeout(admin.listSearchTimer);
    admin.listSearchTimer = setTimeout(() => openList(admin.list).catch(showError), 250);
  });
  $('list-import').addEventListener('click', importList);
  $('list-fetch-form').addEventListener('submit', fetchList);
  $('password-row-form').addEventListener('submit', setPasswordRow);
  $('links-refresh').addEventListener('click', () => loadLinks().catch(showError));
  $('link-form').addEventListener('submit', saveLink);
  $('neighbour-form').addEventListener('submit', saveNode);
  $('users-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    admin.usersOffset = 0;
    loadUsers().catch((e) => { $('users-error').textContent = e.message; });
  });
  $('users-prev').addEventListener('click', () => {
    admin.usersOffset = Math.max(0, admin.usersOffset - admin.usersLimit);
    loadUsers().catch(showError);
  });
  $('users-next').addEventListener('click', () => {
    admin.usersOffset += admin.usersLimit;
    loadUsers().catch(showError);
  });
  $('logs-tail').addEventListener('click', tailLog);
  $('logs-form').addEventListener('submit', searchLog);
  $('logs-follow').addEventListener('change', followLog);
}

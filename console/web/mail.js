// The sysop's mail page: every message with where it stands on its way to other nodes; one
// can be read, deleted, or (when a forward is stuck) sent again.  Uses api(), el(), $(),
// timeText() and pageLoaders from app.js, which is loaded first.
'use strict';

function mailForwardText(m) {
  const parts = m.forwards.map((f) => {
    const tries = f.attempts > 0 ? ` (${f.attempts} failed)` : '';
    return f.state === 'acknowledged' ? `${f.node}: acknowledged`
                                      : `${f.node}: ${f.state}${tries}`;
  });
  if (m.waiting) parts.push(m.waiting);
  return parts.length ? parts.join(', ') : (m.receivedFrom ? 'delivered here' : 'kept here');
}

function mailStuck(m) {
  return m.forwards.some((f) => f.state === 'given up' || f.state === 'queued') || !!m.waiting;
}

async function mailAction(action, number) {
  if (action === 'delete' && !confirm(`Delete message ${number}?`)) return;
  $('mail-error').textContent = '';
  try {
    await api('mail/' + action, {number});
    if ($('mail-read').dataset.number === String(number)) {
      if (action === 'delete') $('mail-read').hidden = true;
      else if (!$('mail-read').hidden) await readMail(number);
    }
  } catch (e) {
    $('mail-error').textContent = e.message;
  }
  await loadMail();
}

async function readMail(number) {
  const m = await api('mail/read?number=' + number);
  const box = $('mail-read');
  box.dataset.number = String(m.number);
  box.replaceChildren(
      el('h2', {}, `Message ${m.number}: ${m.subject}`),
      el('p', {}, `From ${m.from} to ${m.to}, ${timeText(m.time)}, ` +
                      `${m.private ? 'private' : 'bulletin'}; origin ${m.origin || '-'}` +
                      (m.receivedFrom ? `, received from ${m.receivedFrom}` : '') +
                      (m.boundFor ? `, bound for ${m.boundFor}` : '')),
      el('p', {}, 'Forwarding: ' + mailForwardText(m)),
      el('pre', {}, m.text.join('\n')));
  box.hidden = false;
}

async function loadMail() {
  const data = await api('mail');
  const rows = data.messages.slice().reverse().map((m) => el('tr', {},
      el('td', {}, m.number),
      el('td', {}, m.private ? (m.read ? 'P' : 'P N') : 'B'),
      el('td', {}, m.from),
      el('td', {}, m.to),
      el('td', {}, timeText(m.time)),
      el('td', {}, m.subject),
      el('td', {class: 'mail-state'}, mailForwardText(m)),
      el('td', {},
         el('button', {onclick: () => readMail(m.number).catch((e) => {
           $('mail-error').textContent = e.message;
         })}, 'Read'),
         mailStuck(m) ? el('button', {onclick: () => mailAction('requeue', m.number)},
                           'Send again') : null,
         el('button', {class: 'danger', onclick: () => mailAction('delete', m.number)},
            'Delete'))));
  $('mail-table').tBodies[0].replaceChildren(...rows);
  $('mail-count').textContent = `${data.messages.length} messages`;
}

pageLoaders.mail = () => loadMail();
$('mail-refresh').addEventListener('click', () => loadMail().catch((e) => {
  $('mail-error').textContent = e.message;
}));

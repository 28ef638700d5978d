'use strict';
// Log-in: the password goes as JSON; the answer sets the session cookie.
document.getElementById('login-form').addEventListener('submit', async (ev) => {
  ev.preventDefault();
  const button = document.getElementById('login-button');
  const error = document.getElementById('login-error');
  const password = document.getElementById('password');
  button.disabled = true;
  error.textContent = '';
  try {
    const res = await fetch('/api/login', {
      method: 'POST',
      headers: {'Content-Type': 'application/json'},
      body: JSON.stringify({password: password.value}),
      credentials: 'same-origin',
    });
    if (res.ok) {
      location.href = '/';
      return;
    }
    const body = await res.json().catch(() => ({}));
    error.textContent = body.error || ('Log-in failed (' + res.status + ')');
    password.select();
  } catch (e) {
    error.textContent = 'The node does not answer.';
  } finally {
    button.disabled = false;
  }
});

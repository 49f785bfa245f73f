// The sign-in page. Scope "4" signs in on POST /sessions; the console scopes
// "0" and "1" on POST /login with the answer to a verification-code
// challenge (GET /login). The password and the challenge stay in this page's
// form and memory only; the session itself is the HttpOnly cookie the
// gateway sets.
import {ApiError, ERR_LOGIN_THROTTLED, ERR_VERIFY_CODE, ERR_VERIFY_CODE_EXPIRED, api}
  from './api.js';
import {byId, say} from './dom.js';
import {codeText, currentLanguage, errorText, t} from './i18n.js';

let context = null;
let challengeId = '';
let waitUntil = 0;  // ms since the epoch; the throttle's wait ends then
let waitTimer = 0;
let codeTimer = 0;  // fetches the next picture when the shown one expires
let challengeAsked = 0;  // only the latest challenge asked for is shown
let lastError = null;  // shown again in another language
let codeNoteKey = '';  // why the picture changed by itself, as a text key

const needsCode = () => byId('signin-scope').value !== '4';

function showError(error) {
  lastError = error;
  if (!error) {
    say(byId('signin-error'), '');
  } else if (typeof error === 'string') {
    say(byId('signin-error'), t(error));
  } else if (error.status === 0) {
    say(byId('signin-error'), t('error.network'));
  } else {
    say(byId('signin-error'), `${errorText(error)} (${t('code')} ${codeText(error.code)})`);
  }
}

// Says under the picture why it changed by itself; "" says nothing.
function codeNote(key) {
  codeNoteKey = key;
  say(byId('signin-code-note'), key ? t(key) : '');
}

// A new picture replaces the shown one a second before the shown one
// expires (the gateway counts whole seconds), with a word why. expiresIn is
// relative, so a wrong clock on this computer does not matter.
function renewExpiring() {
  codeNote('signin.codeRenewed');
  newChallenge();
}

async function newChallenge() {
  window.clearTimeout(codeTimer);
  const asked = ++challengeAsked;
  challengeId = '';
  const image = byId('signin-code-image');
  image.removeAttribute('src');
  byId('signin-code').value = '';
  try {
    const answer = await api('GET', '/login', {isPublic: true});
    if (asked !== challengeAsked) return;
    challengeId = answer.data.challengeId;
    image.src = answer.data.image;
    codeTimer = window.setTimeout(renewExpiring, Math.max(1, answer.data.expiresIn - 1) * 1000);
  } catch (e) {
    showError('signin.codeFailed');
  }
}

function showChallenge() {
  const wanted = needsCode();
  byId('signin-challenge').hidden = !wanted;
  if (wanted) newChallenge();
  else window.clearTimeout(codeTimer);
}

function tick() {
  const left = Math.ceil((waitUntil - Date.now()) / 1000);
  const submit = byId('signin-submit');
  if (left > 0) {
    showError(null);
    say(byId('signin-error'), t('signin.wait', {seconds: left}));
    byId('signin-error').dataset.wait = String(left);
    submit.disabled = true;
    return;
  }
  window.clearInterval(waitTimer);
  waitTimer = 0;
  delete byId('signin-error').dataset.wait;
  submit.disabled = false;
  say(byId('signin-error'), t('signin.waitOver'));
  lastError = 'signin.waitOver';
}

// The throttle's wait as a count-down, second by second, from the answer's
// Retry-After: the gateway sends the wait that is really left, so "You can
// try again now." is only said once a new attempt is let through.
function startCountdown(seconds) {
  waitUntil = Date.now() + seconds * 1000;
  window.clearInterval(waitTimer);
  waitTimer = window.setInterval(tick, 250);
  tick();
}

async function submit(event) {
  event.preventDefault();
  if (waitTimer) return;
  const username = byId('signin-user').value.trim();
  const password = byId('signin-password').value;
  const scope = byId('signin-scope').value;
  const verifyCode = byId('signin-code').value.trim();
  if (!username || !password || (needsCode() && !verifyCode)) {
    showError('signin.missing');
    return;
  }
  const body = {username, password, scope, language: currentLanguage()};
  if (needsCode()) Object.assign(body, {challengeId, verifyCode});
  const button = byId('signin-submit');
  button.disabled = true;
  try {
    await api('POST', needsCode() ? '/login' : '/sessions', {body, isPublic: true});
    // The answer's token is not kept: the cookie carries the session.
    byId('signin-password').value = '';
    byId('signin-code').value = '';
    showError(null);
    button.disabled = false;
    await context.signedIn();
    return;
  } catch (e) {
    button.disabled = false;
    if (e instanceof ApiError && e.code === ERR_LOGIN_THROTTLED && e.retryAfter > 0) {
      startCountdown(e.retryAfter);
    } else if (e instanceof ApiError && e.code === ERR_VERIFY_CODE_EXPIRED) {
      showError('signin.codeExpired');
    } else {
      // Without a Retry-After the wait is unknown: the refusal is shown as
      // it is, never as a wait that is over.
      showError(e instanceof ApiError ? e : new ApiError(0, 0, ''));
    }
    // A challenge takes one answer, right or wrong.
    if (needsCode()) {
      codeNote('');
      await newChallenge();
      if (e.code === ERR_VERIFY_CODE || e.code === ERR_VERIFY_CODE_EXPIRED) {
        byId('signin-code').focus();
      }
    }
  }
}

export function init(ctx) {
  context = ctx;
  byId('signin-form').addEventListener('submit', submit);
  byId('signin-scope').addEventListener('change', showChallenge);
  byId('signin-new-code').addEventListener('click', () => {
    codeNote('');
    newChallenge();
    byId('signin-code').focus();
  });
}

export function enter() {
  showError(null);
  codeNote('');
  byId('signin-submit').disabled = Boolean(waitTimer);
  showChallenge();
  byId('signin-code-image').alt = t('signin.codeImage');
}

export function leave() {
  byId('signin-password').value = '';
  challengeId = '';
  window.clearTimeout(codeTimer);
}

export function retranslate() {
  byId('signin-code-image').alt = t('signin.codeImage');
  codeNote(codeNoteKey);
  if (waitTimer) tick();
  else showError(lastError);
}

// The console's shell: which page shows, who is signed in, the interface
// language, sign-out and the reaction to a lost session. Pages are picked by
// the URL's fragment (#/tasks, #/alarms ...), which never holds anything
// secret. A page asked for without a session (an expired one, or an address
// opened signed out) is remembered, and signing in goes back to it.
import {api, onSessionLost} from './api.js';
import {byId, say} from './dom.js';
import {setSignedIn} from './live.js';
import {currentLanguage, setLanguage, t, translatePage} from './i18n.js';
import * as signin from './signin.js';
import * as tasks from './tasks.js';
import * as alarms from './alarms.js';
import * as certificates from './certificates.js';
import * as storage from './storage.js';

const PAGES = {signin, tasks, alarms, certificates, storage};
const DEFAULT_PAGE = 'tasks';
// The calls each page makes; a page shows when the session may make one of
// them (GET /sessions lists what it may, from the gateway's access table).
const PAGE_CALLS = {
  tasks: ['GET /kestrel_task'],
  alarms: ['GET /alarm/historyalarm'],
  certificates: ['POST /kestrel_cert/import_cert', 'POST /kestrel_hypervisor/import_cert',
    'POST /kestrel_cert/import_crl'],
  storage: ['GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf'],
};

let session = null;  // {userName, scope, language} of GET /sessions, never the token
let current = null;  // the page shown
let noticeKey = '';  // the notice shown above the page, as a text key
let returnTo = '';  // the page to show once signed in again ("" for the default)

function notice(key) {
  noticeKey = key;
  const back = key && returnTo ? ` ${t('signin.returnTo', {page: t(`nav.${returnTo}`)})}` : '';
  say(byId('notice'), key ? t(key) + back : '');
}

// The page named by the address, when it is one.
function pageInAddress() {
  const name = window.location.hash.replace(/^#\/?/, '');
  return name !== 'signin' && PAGES[name] ? name : '';
}

// Whether the session may make `call` ("POST /kestrel_cert/import_crl").
function may(call) {
  const path = call.slice(call.indexOf(' ') + 1);
  const permissions = session?.permissions ?? [];
  return permissions.includes(call) || permissions.includes(`* ${path}`);
}

function mayOpen(page) {
  return PAGE_CALLS[page].some(may);
}

function showAccount() {
  byId('nav').hidden = !session;
  for (const link of byId('nav').querySelectorAll('a')) link.hidden = !mayOpen(link.dataset.page);
  byId('sign-out').hidden = !session;
  byId('who').textContent = session ? t('signedInAs', {user: session.userName}) : '';
}

function wantedPage() {
  const name = window.location.hash.replace(/^#\/?/, '');
  if (!session) return 'signin';
  if (name !== 'signin' && PAGES[name] && mayOpen(name)) return name;
  return mayOpen(DEFAULT_PAGE) ? DEFAULT_PAGE : Object.keys(PAGE_CALLS).find(mayOpen) ?? DEFAULT_PAGE;
}

function route() {
  const name = wantedPage();
  if (`#/${name}` !== window.location.hash) {
    // Replacing the fragment fires hashchange, which comes back here.
    window.history.replaceState(null, '', `#/${name}`);
  }
  if (name === current) return;
  if (current) {
    PAGES[current].leave?.();
    byId(`page-${current}`).hidden = true;
  }
  current = name;
  if (name !== 'signin' && noticeKey !== '') notice('');
  for (const link of byId('nav').querySelectorAll('a')) {
    if (link.dataset.page === name) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
  const section = byId(`page-${name}`);
  section.hidden = false;
  PAGES[name].enter();
  section.querySelector('h1').focus();
}

// Asks the gateway whether the browser is signed in: GET /console/session
// answers 200 either way (a signed-out visit leaves no failed request in
// the browser's log); only then GET /sessions for the session's facts.
async function loadSession() {
  try {
    const probe = await api('GET', '/console/session', {isPublic: true});
    session = probe.data?.signedIn ? (await api('GET', '/sessions', {isPublic: true})).data : null;
  } catch (e) {
    session = null;
  }
  showAccount();
  setSignedIn(Boolean(session));
}

// The page to show after a sign-in: the remembered one when the new
// session may open it.
function pageAfterSignIn() {
  const page = returnTo;
  returnTo = '';
  return page && PAGES[page] && mayOpen(page) ? page : DEFAULT_PAGE;
}

const context = {
  // Called by the sign-in page once the gateway has set the cookie.
  async signedIn() {
    await loadSession();
    notice('');
    window.location.hash = `#/${pageAfterSignIn()}`;
    route();
  },
  language: currentLanguage,
  may,
};

function retranslate() {
  translatePage();
  const other = currentLanguage() === 'zh' ? 'en' : 'zh';
  const button = byId('lang-switch');
  button.textContent = other === 'zh' ? '中文' : 'English';
  button.lang = other;
  showAccount();
  notice(noticeKey);
  for (const page of Object.values(PAGES)) page.retranslate?.();
}

// `key` is the notice; `keepPlace` remembers the page to come back to.
function sessionEnded(key, keepPlace) {
  const page = current;
  returnTo = keepPlace && page && page !== 'signin' ? page : '';
  session = null;
  setSignedIn(false);
  showAccount();
  if (page) {
    PAGES[page].leave?.();
    byId(`page-${page}`).hidden = true;
    current = null;
  }
  notice(key);
  route();
}

async function signOut() {
  try {
    await api('DELETE', '/sessions');
  } catch (e) {
    // The session is gone either way; a lost one has already been reported.
  }
  sessionEnded('signin.signedOut', false);
}

async function start() {
  setLanguage(currentLanguage());
  for (const page of Object.values(PAGES)) page.init(context);
  retranslate();
  byId('lang-switch').addEventListener('click', () => {
    setLanguage(currentLanguage() === 'zh' ? 'en' : 'zh', true);
    retranslate();
  });
  byId('sign-out').addEventListener('click', signOut);
  onSessionLost(() => {
    if (session) sessionEnded('signin.expired', true);
  });
  window.addEventListener('hashchange', route);
  await loadSession();
  // An address opened signed out (a bookmark, a reload after the session
  // ended) is where the sign-in leads.
  if (!session) returnTo = pageInAddress();
  route();
}

start();

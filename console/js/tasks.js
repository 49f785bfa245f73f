// The tasks page: GET /kestrel_task with paging (start, limit), sorting and
// the status and type filters, the total from GET /kestrel_task/count with
// the same filters, and one task's details (GET /kestrel_task/<id>) in the
// language the switch chooses (the request's LANGUAGE argument). While the
// page shows, the list and the details follow the live updates (live.js):
// a task event moves its row's bar and state at once, and the list or the
// details are asked again soon after for what an event does not carry.
// Without the stream the list refreshes every ten seconds, and says so.
import {api} from './api.js';
import {byId, el, say} from './dom.js';
import {liveState, subscribe} from './live.js';
import {codeText, currentLanguage, enumLabel, errorText, formatTime, t} from './i18n.js';

const REFRESH_MS = 10000;
// How long after a live change the list or the details are asked again:
// changes that come together are read together.
const SETTLE_MS = 800;
// The members of a task event that a row and the details show as they are.
const LIVE_MEMBERS = ['status', 'progress', 'endTime'];
// Progress entries are separated by a backslash, an "n" and a line feed.
const DETAIL_SEPARATOR = '\\n\n';

let start = 0;
let total = 0;
let rows = [];
let timer = 0;
let active = false;
let openTask = null;  // the task whose details show
let detailLanguage = '';
let lastError = null;
let shown = '';  // the list and total last drawn, to leave an unchanged table alone
let listSoon = 0;  // the timer of the list's next read after a live change
let detailSoon = 0;  // the same for the open details

function filters() {
  return {
    status: byId('tasks-status').value,
    type: byId('tasks-type').value,
  };
}

function limit() {
  return Number(byId('tasks-limit').value);
}

function showError(error) {
  lastError = error;
  say(byId('tasks-error'), error ? `${errorText(error)} (${t('code')} ${codeText(error.code)})` : '');
}

function statusBadge(status) {
  return el('span', {class: `badge status-${status}`}, enumLabel('task_status', status));
}

function renderRows() {
  const body = byId('tasks-table').tBodies[0];
  // A refresh must not take the keyboard focus away from the row it is on.
  const focused = document.activeElement?.closest?.('#tasks-table button.open-task')
    ?.dataset.taskId;
  // data-label names the column where a narrow window shows rows as cards.
  body.replaceChildren(...rows.map((task) => el('tr', {'data-task-id': task.taskId},
    el('td', {class: 'num', 'data-label': t('tasks.id')}, task.taskId),
    el('td', {'data-label': t('tasks.name')},
      el('button', {type: 'button', class: 'link-button open-task', 'data-task-id': task.taskId,
        'aria-label': t('tasks.open', {name: task.name})}, task.name)),
    el('td', {'data-label': t('tasks.type')}, enumLabel('task_type', task.type)),
    el('td', {'data-label': t('tasks.status')}, statusBadge(task.status)),
    el('td', {class: 'progress-cell', 'data-label': t('tasks.progress')},
      el('progress', {max: 100, value: task.progress,
        'aria-label': t('tasks.progressOf', {name: task.name})}),
      ` ${task.progress} %`),
    el('td', {class: 'time', 'data-label': t('tasks.started')}, formatTime(task.startTime)))));
  const range = byId('tasks-pager').querySelector('.range');
  range.textContent = total === 0 ? t('rangeEmpty')
    : t('range', {from: start + 1, to: start + rows.length, total});
  const [prev, next] = byId('tasks-pager').querySelectorAll('button');
  prev.disabled = start === 0;
  next.disabled = start + rows.length >= total;
  if (focused !== undefined) {
    body.querySelector(`button.open-task[data-task-id="${CSS.escape(focused)}"]`)?.focus();
  }
}

async function load() {
  const query = {...filters(), start, limit: limit(), sort: byId('tasks-sort').value};
  try {
    const [list, count] = await Promise.all([
      api('GET', '/kestrel_task', {query}),
      api('GET', '/kestrel_task/count', {query: filters()}),
    ]);
    const fresh = Array.isArray(list.data) ? list.data : [];
    const freshTotal = Number(count.data?.count ?? fresh.length);
    showError(null);
    const drawn = JSON.stringify([start, freshTotal, fresh]);
    if (drawn === shown) return;
    shown = drawn;
    rows = fresh;
    total = freshTotal;
    renderRows();
  } catch (e) {
    if (active) showError(e);
  }
}

function detailLines(detail) {
  return String(detail ?? '').split(DETAIL_SEPARATOR).map((line) => line.trim())
    .filter((line) => line !== '');
}

function renderDetail(task) {
  const section = byId('task-detail');
  section.dataset.taskId = task.taskId;
  section.dataset.language = detailLanguage;
  byId('task-detail-title').textContent = `${task.name} (${task.taskId})`;
  byId('task-type').textContent = enumLabel('task_type', task.type);
  byId('task-status').replaceChildren(statusBadge(task.status));
  byId('task-resource').textContent = task.resource ?? '';
  byId('task-progress').textContent = `${task.progress} %`;
  byId('task-progress-bar').value = Number(task.progress) || 0;
  byId('task-start').textContent = formatTime(task.startTime);
  byId('task-end').textContent = formatTime(task.endTime);
  // A task without a fault carries error information with code "0".
  const info = task.errorInfo && typeof task.errorInfo === 'object' &&
    String(task.errorInfo.code ?? '0') !== '0' ? task.errorInfo : null;
  byId('task-error-box').hidden = !info;
  if (info) {
    const text = byId('task-error-text');
    text.textContent = info.description ?? '';
    text.lang = detailLanguage === 'zh' ? 'zh-CN' : 'en';
    byId('task-error-code').textContent = info.code ?? '';
  }
  const lines = detailLines(task.detail);
  const list = byId('task-detail-lines');
  list.lang = detailLanguage === 'zh' ? 'zh-CN' : 'en';
  list.replaceChildren(...(lines.length ? lines.map((line) => el('li', {}, line))
    : [el('li', {class: 'muted'}, t('tasks.noDetail'))]));
  for (const button of section.querySelectorAll('[data-lang]')) {
    button.setAttribute('aria-pressed', String(button.dataset.lang === detailLanguage));
  }
}

async function showTask(taskId, focus) {
  try {
    const answer = await api('GET', `/kestrel_task/${encodeURIComponent(taskId)}`,
      {query: {LANGUAGE: detailLanguage}});
    openTask = answer.data;
    showError(null);
    renderDetail(openTask);
    byId('task-detail').hidden = false;
    if (focus) {
      byId('task-detail').scrollIntoView({block: 'start'});
      byId('task-detail-title').focus({preventScroll: true});
    }
  } catch (e) {
    if (active) showError(e);
  }
}

// Hides the details and gives the focus back to the task's row.
function closeDetail() {
  const id = openTask?.taskId;
  openTask = null;
  byId('task-detail').hidden = true;
  byId('tasks-table').querySelector(`button.open-task[data-task-id="${CSS.escape(id ?? '')}"]`)
    ?.focus();
}

const following = () => active && byId('tasks-auto').checked;

// Polls only while the stream cannot be had.
function schedule() {
  window.clearInterval(timer);
  timer = 0;
  if (following() && liveState() !== 'live') timer = window.setInterval(load, REFRESH_MS);
  showLiveState();
}

// A discreet line under the filters: live, or polling instead.
function showLiveState() {
  const state = liveState();
  const key = !following() || state === 'off' ? '' : state === 'live' ? 'tasks.live' : 'tasks.polling';
  const line = byId('tasks-live');
  say(line, key ? t(key) : '');
  line.dataset.state = key ? state : '';
}

function readListSoon() {
  window.clearTimeout(listSoon);
  listSoon = window.setTimeout(load, SETTLE_MS);
}

function readDetailSoon(taskId) {
  window.clearTimeout(detailSoon);
  detailSoon = window.setTimeout(() => {
    if (openTask && String(openTask.taskId) === taskId) showTask(taskId, false);
  }, SETTLE_MS);
}

// One task event: the row and the open details show it at once; the list
// is read again when the task is not on this page or changed state (the
// filters and the order may place it elsewhere), the details for their new
// progress entries.
function applyChange(change) {
  if (!following()) return;
  const id = String(change.taskId ?? change.id ?? '');
  const row = rows.find((task) => String(task.taskId) === id);
  if (row) {
    const moved = change.status !== undefined && Number(change.status) !== Number(row.status);
    for (const member of LIVE_MEMBERS) if (change[member] !== undefined) row[member] = change[member];
    renderRows();
    if (moved) readListSoon();
  } else {
    readListSoon();
  }
  if (openTask && String(openTask.taskId) === id) {
    for (const member of LIVE_MEMBERS) {
      if (change[member] !== undefined) openTask[member] = change[member];
    }
    renderDetail(openTask);
    readDetailSoon(id);
  }
}

export function init() {
  subscribe({
    task: applyChange,
    reset() {
      if (!following()) return;
      load();
      if (openTask) showTask(openTask.taskId, false);
    },
    state(state) {
      schedule();
      // Back on the stream: read what changed while it was away.
      if (state === 'live' && following()) readListSoon();
    },
  });
  byId('tasks-filters').addEventListener('change', (event) => {
    if (event.target.id === 'tasks-auto') {
      schedule();
      return;
    }
    start = 0;
    load();
  });
  byId('tasks-filters').addEventListener('submit', (event) => event.preventDefault());
  byId('tasks-pager').addEventListener('click', (event) => {
    const step = Number(event.target.dataset?.step ?? 0);
    if (!step) return;
    start = Math.max(0, start + step * limit());
    load();
  });
  byId('tasks-table').addEventListener('click', (event) => {
    const button = event.target.closest('button.open-task');
    if (button) showTask(button.dataset.taskId, true);
  });
  for (const button of byId('task-detail').querySelectorAll('[data-lang]')) {
    button.addEventListener('click', () => {
      detailLanguage = button.dataset.lang;
      if (openTask) showTask(openTask.taskId, false);
    });
  }
  byId('task-detail-close').addEventListener('click', closeDetail);
  // Esc closes the details wherever the focus is on the page.
  document.addEventListener('keydown', (event) => {
    if (event.key === 'Escape' && active && !byId('task-detail').hidden) {
      event.preventDefault();
      closeDetail();
    }
  });
}

export function enter() {
  active = true;
  if (!detailLanguage) detailLanguage = currentLanguage();
  load();
  schedule();
}

export function leave() {
  active = false;
  window.clearTimeout(listSoon);
  window.clearTimeout(detailSoon);
  schedule();
  openTask = null;
  byId('task-detail').hidden = true;
  showError(null);
}

export function retranslate() {
  showLiveState();
  renderRows();
  if (openTask) renderDetail(openTask);
  showError(lastError);
}

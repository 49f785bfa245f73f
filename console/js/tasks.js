// The tasks page: GET /kestrel_task with paging (start, limit), sorting and
// the status and type filters, the total from GET /kestrel_task/count with
// the same filters, a refresh every ten seconds while the page shows, and one
// task's details (GET /kestrel_task/<id>) in the language the switch chooses
// (the request's LANGUAGE argument).
import {api} from './api.js';
import {byId, el, say} from './dom.js';
import {codeText, currentLanguage, enumLabel, errorText, formatTime, t} from './i18n.js';

const REFRESH_MS = 10000;
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
  const info = task.errorInfo && typeof task.errorInfo === 'object' ? task.errorInfo : null;
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

function schedule() {
  window.clearInterval(timer);
  timer = 0;
  if (active && byId('tasks-auto').checked) timer = window.setInterval(load, REFRESH_MS);
}

export function init() {
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
  schedule();
  openTask = null;
  byId('task-detail').hidden = true;
  showError(null);
}

export function retranslate() {
  renderRows();
  if (openTask) renderDetail(openTask);
  showError(lastError);
}

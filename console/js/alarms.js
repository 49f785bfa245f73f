// The alarms page: GET /alarm/historyalarm a page at a time (start, limit),
// filtered by severity and the time the alarm was raised, and the total of
// the matching alarms from GET /alarm/historyalarm/count.
import {api} from './api.js';
import {byId, el, say} from './dom.js';
import {codeText, enumLabel, errorText, formatTime, t} from './i18n.js';

let start = 0;
let total = 0;
let rows = [];
let active = false;
let lastError = null;

// A datetime-local value as seconds since the epoch; "" stays "".
function epoch(value) {
  if (!value) return '';
  const ms = new Date(value).getTime();
  return Number.isNaN(ms) ? '' : String(Math.floor(ms / 1000));
}

function conditions() {
  return {
    severity: byId('alarms-severity').value,
    begintime: epoch(byId('alarms-begin').value),
    endtime: epoch(byId('alarms-end').value),
  };
}

function limit() {
  return Number(byId('alarms-limit').value);
}

function showError(error) {
  lastError = error;
  say(byId('alarms-error'), error ? `${errorText(error)} (${t('code')} ${codeText(error.code)})` : '');
}

function render() {
  // data-label names the column where a narrow window shows rows as cards.
  const cell = (key, content, attributes = {}) =>
    el('td', {...attributes, 'data-label': t(key)}, content);
  byId('alarms-table').tBodies[0].replaceChildren(...rows.map((alarm) => el('tr', {'data-alarm-id': alarm.id},
    cell('alarms.id', alarm.id, {class: 'num'}),
    cell('alarms.severity', el('span', {class: `badge severity-${alarm.severity}`},
      enumLabel('alarm_severity', alarm.severity))),
    cell('alarms.name', alarm.name),
    cell('alarms.source', alarm.source),
    cell('alarms.raised', formatTime(alarm.occurTime), {class: 'time'}),
    cell('alarms.cleared', alarm.clearTime ? formatTime(alarm.clearTime) : t('alarms.notCleared'),
      {class: 'time'}),
    cell('alarms.detail', alarm.detail, {class: 'wide'}))));
  byId('alarms-total').textContent = String(total);
  const range = byId('alarms-pager').querySelector('.range');
  range.textContent = rows.length === 0 ? t('rangeEmpty')
    : t('range', {from: start + 1, to: start + rows.length, total});
  const [prev, next] = byId('alarms-pager').querySelectorAll('button');
  prev.disabled = start === 0;
  next.disabled = start + rows.length >= total;
}

async function load() {
  try {
    const [list, count] = await Promise.all([
      api('GET', '/alarm/historyalarm', {query: {...conditions(), start, limit: limit()}}),
      api('GET', '/alarm/historyalarm/count', {query: conditions()}),
    ]);
    rows = Array.isArray(list.data?.alarms) ? list.data.alarms : [];
    total = Number(count.COUNT ?? 0);
    showError(null);
    render();
  } catch (e) {
    if (active) showError(e);
  }
}

export function init() {
  byId('alarms-filters').addEventListener('change', () => {
    start = 0;
    load();
  });
  byId('alarms-filters').addEventListener('submit', (event) => event.preventDefault());
  byId('alarms-pager').addEventListener('click', (event) => {
    const step = Number(event.target.dataset?.step ?? 0);
    if (!step) return;
    start = Math.max(0, start + step * limit());
    load();
  });
}

export function enter() {
  active = true;
  load();
}

export function leave() {
  active = false;
  showError(null);
}

export function retranslate() {
  render();
  showError(lastError);
}

// The alarms page: GET /alarm/historyalarm a page at a time (start, limit),
// filtered by severity and the time the alarm was raised, and the total of
// the matching alarms from GET /alarm/historyalarm/count. The times are
// typed in the interface language's format ("11/14/2023 22:13" or
// "2023-11-14 22:13"), the one every time on the console is shown in, not
// in a date picker that speaks the browser's language.
import {api} from './api.js';
import {byId, el, say} from './dom.js';
import {subscribe} from './live.js';
import {codeText, enumLabel, errorText, formatTime, formatTypedTime, parseTime, t}
  from './i18n.js';

let start = 0;
let total = 0;
let rows = [];
let active = false;
let lastError = null;

const TIME_FIELDS = ['alarms-begin', 'alarms-end'];
// What each time field last held, read: seconds since the epoch or "".
// Kept so that a change of language can write it again in the new format.
const typed = {'alarms-begin': '', 'alarms-end': ''};

// Reads the time fields; false (and the field marked) when one is not a
// time in the current format.
function readTimes() {
  for (const id of TIME_FIELDS) {
    const seconds = parseTime(byId(id).value);
    byId(id).setAttribute('aria-invalid', String(seconds === null));
    if (seconds === null) return false;
    typed[id] = seconds;
  }
  return true;
}

function conditions() {
  return {
    severity: byId('alarms-severity').value,
    begintime: String(typed['alarms-begin']),
    endtime: String(typed['alarms-end']),
  };
}

// The example of the format in the error text: this very minute.
function badTimeError() {
  const now = Math.floor(Date.now() / 1000);
  return {local: t('alarms.badTime', {format: t('alarms.timeFormat'), example: formatTypedTime(now)})};
}

function limit() {
  return Number(byId('alarms-limit').value);
}

function showError(error) {
  lastError = error;
  if (error?.local) {
    say(byId('alarms-error'), error.local);
    return;
  }
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

// An alarm raised or cleared (a live update, live.js) or a reset: the
// page and its total are read again, so a new alarm raises the total.
const SETTLE_MS = 800;
let soon = 0;

export function init() {
  const readSoon = () => {
    if (!active) return;
    window.clearTimeout(soon);
    soon = window.setTimeout(load, SETTLE_MS);
  };
  subscribe({alarm: readSoon, reset: readSoon});
  byId('alarms-filters').addEventListener('change', () => {
    if (!readTimes()) {
      showError(badTimeError());
      return;
    }
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
  for (const id of TIME_FIELDS) {
    if (byId(id).getAttribute('aria-invalid') !== 'true') {
      byId(id).value = typed[id] === '' ? '' : formatTypedTime(typed[id]);
    }
  }
  render();
  showError(lastError?.local ? badTimeError() : lastError);
}

// The database-backup storage page: the configuration from
// GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf, whose check
// result comes as the catalogue's text in the interface language.
import {api} from './api.js';
import {byId, say} from './dom.js';
import {codeText, currentLanguage, enumLabel, errorText, formatBytes, t} from './i18n.js';

let config = null;
let lastError = null;
let active = false;

function showError(error) {
  lastError = error;
  say(byId('storage-error'), error ? `${errorText(error)} (${t('code')} ${codeText(error.code)})` : '');
}

function render() {
  byId('storage-facts').hidden = !config;
  if (!config) return;
  byId('storage-name').textContent = config.name ?? '';
  byId('storage-type').textContent = enumLabel('storage_type', config.storageType);
  byId('storage-path').textContent = config.storagePath ?? '';
  byId('storage-capacity').textContent = formatBytes(config.capacity ?? 0);
  const share = config.capacity > 0 ? config.used / config.capacity : 0;
  byId('storage-used').textContent = `${formatBytes(config.used ?? 0)} (${Math.round(share * 100)} %)`;
  byId('storage-meter').value = share;
  byId('storage-meter').high = 0.85;
  byId('storage-retention').textContent = t('storage.days', {days: config.retentionDays ?? 0});
  const result = byId('storage-result');
  result.textContent = config.result ? config.result : t('storage.ok');
  result.className = config.result ? 'bad-text' : '';
}

async function load() {
  try {
    const answer = await api('GET', '/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf',
      {query: {LANGUAGE: currentLanguage()}});
    config = answer.data ?? null;
    showError(null);
  } catch (e) {
    config = null;
    if (active) showError(e);
  }
  render();
}

export function init() {
  byId('storage-reload').addEventListener('click', load);
}

export function enter() {
  active = true;
  load();
}

export function leave() {
  active = false;
}

export function retranslate() {
  // The check result is the catalogue's text: ask again in the new language.
  if (active) load();
  else render();
  showError(lastError);
}

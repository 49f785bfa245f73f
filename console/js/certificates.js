// The certificates page: a CA certificate (POST /kestrel_cert/import_cert or
// /kestrel_hypervisor/import_cert) or a CRL (POST /kestrel_cert/import_crl)
// uploaded as multipart/form-data with a progress bar. An empty file and
// one over 1 MiB are refused here, before a byte is sent; the backend's
// verdict shows with its readable text and its code. The file fields are a
// translated button (a label) over the browser's own, visually hidden,
// input, so that no text of the browser's language shows.
import {ApiError, MAX_UPLOAD_BYTES, upload} from './api.js';
import {byId, el} from './dom.js';
import {codeText, errorText, t} from './i18n.js';

// What each form last showed, to show it again in another language.
const verdicts = {cert: null, crl: null};

function showVerdict(kind) {
  const box = byId(`${kind}-verdict`);
  const verdict = verdicts[kind];
  box.hidden = !verdict;
  box.className = 'verdict';
  delete box.dataset.code;
  delete box.dataset.outcome;
  if (!verdict) {
    box.replaceChildren();
    return;
  }
  box.dataset.outcome = verdict.outcome;
  box.classList.add(verdict.outcome === 'imported' ? 'good' : verdict.outcome === 'sending' ? 'busy' : 'bad');
  if (verdict.outcome === 'imported') {
    box.replaceChildren(el('strong', {}, t('certs.imported')));
  } else if (verdict.outcome === 'sending') {
    box.replaceChildren(t('certs.uploading', {percent: Math.round(verdict.fraction * 100)}));
  } else if (verdict.outcome === 'too-large') {
    box.replaceChildren(el('strong', {}, t('certs.tooLarge', {size: verdict.size})));
  } else if (verdict.outcome === 'no-file') {
    box.replaceChildren(el('strong', {}, t('certs.noFile')));
  } else if (verdict.outcome === 'empty') {
    box.replaceChildren(el('strong', {}, t('certs.empty')));
  } else {
    const error = verdict.error;
    box.dataset.code = String(error.code);
    box.replaceChildren(
      el('strong', {}, t('certs.refused')), ' ',
      el('span', {class: 'verdict-text'}, error.status === 0 ? t('error.network') : errorText(error)),
      el('span', {class: 'verdict-code'}, `${t('code')} ${codeText(error.code)}`));
  }
}

// The chosen file's name beside the button, or "No file chosen".
function showFileName(kind) {
  const file = byId(`${kind}-file`).files[0];
  byId(`${kind}-file-name`).textContent = file ? file.name : t('certs.noneChosen');
}

// Back to an empty bar, hidden: the verdict says how the upload ended.
function resetProgress(progress) {
  progress.value = 0;
  progress.hidden = true;
}

async function send(kind, route, input) {
  const progress = byId(`${kind}-progress`);
  const file = input.files[0];
  resetProgress(progress);
  if (!file) {
    verdicts[kind] = {outcome: 'no-file'};
  } else if (file.size === 0) {
    verdicts[kind] = {outcome: 'empty'};
  } else if (file.size > MAX_UPLOAD_BYTES) {
    verdicts[kind] = {outcome: 'too-large', size: file.size};
  } else {
    progress.value = 0;
    progress.hidden = false;
    verdicts[kind] = {outcome: 'sending', fraction: 0};
    showVerdict(kind);
    try {
      await upload(route, file, (fraction) => {
        progress.value = Math.round(fraction * 100);
        if (verdicts[kind].outcome === 'sending') {
          verdicts[kind].fraction = fraction;
          showVerdict(kind);
        }
      });
      verdicts[kind] = {outcome: 'imported'};
    } catch (e) {
      verdicts[kind] = {outcome: 'refused', error: e instanceof ApiError ? e : new ApiError(0, 0, '')};
    }
    resetProgress(progress);
  }
  showVerdict(kind);
}

let context = null;

export function init(app) {
  context = app;
  byId('cert-form').addEventListener('submit', (event) => {
    event.preventDefault();
    send('cert', byId('cert-target').value, byId('cert-file'));
  });
  byId('crl-form').addEventListener('submit', (event) => {
    event.preventDefault();
    send('crl', byId('crl-form').dataset.route, byId('crl-file'));
  });
  for (const kind of ['cert', 'crl']) {
    byId(`${kind}-file`).addEventListener('change', () => {
      verdicts[kind] = null;
      resetProgress(byId(`${kind}-progress`));
      showFileName(kind);
      showVerdict(kind);
    });
  }
}

// Offers only the imports the session may make.
export function enter() {
  const target = byId('cert-target');
  for (const option of target.options) option.hidden = !context.may(`POST ${option.value}`);
  const first = [...target.options].find((option) => !option.hidden);
  if (first && target.selectedOptions[0]?.hidden) target.value = first.value;
  byId('cert-form').hidden = !first;
  byId('crl-form').hidden = !context.may(`POST ${byId('crl-form').dataset.route}`);
}

export function retranslate() {
  showFileName('cert');
  showFileName('crl');
  showVerdict('cert');
  showVerdict('crl');
}

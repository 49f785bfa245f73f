// The console's one way to the gateway's HTTP API. Every request goes to the
// page's own origin with the session cookie (HttpOnly: the page never sees
// the token) and the header the gateway requires of state-changing requests
// made with that cookie.
//
//   const tasks = await api('GET', '/kestrel_task', {query: {start: 0, limit: 10}});
//   // tasks.data is the list; a failure throws ApiError(status, code, description)

export const CONSOLE_HEADER = ['X-Requested-With', 'nox-console'];

// Codes the pages react to.
export const ERR_SESSION_REQUIRED = 0x03000011;
export const ERR_LOGIN_THROTTLED = 0x03000013;
export const ERR_VERIFY_CODE = 0x03000014;
export const ERR_VERIFY_CODE_EXPIRED = 0x03000015;
export const MAX_UPLOAD_BYTES = 1048576;

export class ApiError extends Error {
  constructor(status, code, description, retryAfter = 0) {
    super(description);
    this.status = status;
    this.code = code;
    this.description = description;
    this.retryAfter = retryAfter;  // seconds, from Retry-After
  }
}

let sessionLost = () => {};

// `handler` runs when a request that needed the session is refused for want
// of one (the session expired or was ended elsewhere).
export function onSessionLost(handler) {
  sessionLost = handler;
}

function urlFor(path, query) {
  const url = new URL(path, window.location.origin);
  for (const [name, value] of Object.entries(query ?? {})) {
    if (value !== undefined && value !== null && value !== '') url.searchParams.set(name, value);
  }
  return url;
}

function failure(status, json, statusText, retryAfter) {
  const error = json?.error;
  return new ApiError(status, error?.code ?? 0,
    error?.description ?? (statusText || `HTTP ${status}`), Number(retryAfter) || 0);
}

function checkSession(error, isPublic) {
  if (!isPublic && error.code === ERR_SESSION_REQUIRED) sessionLost();
  return error;
}

// Sends one request and returns the answer's JSON. Throws ApiError for a
// failure status or an envelope whose code is not 0. `isPublic` marks the
// login routes, whose 401 answers are not a lost session.
export async function api(method, path, {query, body, isPublic = false} = {}) {
  const headers = {Accept: 'application/json', [CONSOLE_HEADER[0]]: CONSOLE_HEADER[1]};
  const init = {method, headers, credentials: 'same-origin', cache: 'no-store', redirect: 'error'};
  if (body !== undefined) {
    headers['Content-Type'] = 'application/json';
    init.body = JSON.stringify(body);
  }
  let response;
  try {
    response = await fetch(urlFor(path, query), init);
  } catch (e) {
    throw new ApiError(0, 0, '');
  }
  let json = null;
  try {
    json = await response.json();
  } catch (e) {
    json = null;
  }
  if (!response.ok || (json?.error && json.error.code !== 0)) {
    throw checkSession(failure(response.status, json, response.statusText,
      response.headers.get('Retry-After')), isPublic);
  }
  return json;
}

// Uploads `file` as the one file part of a multipart body to `path`, calling
// onProgress(fraction) while it is sent. Resolves with the answer's JSON,
// rejects with ApiError. XMLHttpRequest, because fetch reports no upload
// progress.
export function upload(path, file, onProgress) {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    request.open('POST', path);
    request.setRequestHeader(CONSOLE_HEADER[0], CONSOLE_HEADER[1]);
    request.setRequestHeader('Accept', 'application/json');
    request.upload.addEventListener('progress', (event) => {
      if (event.lengthComputable && event.total > 0) onProgress(event.loaded / event.total);
    });
    request.addEventListener('load', () => {
      let json = null;
      try {
        json = JSON.parse(request.responseText);
      } catch (e) {
        json = null;
      }
      if (request.status >= 200 && request.status < 300 && (!json?.error || json.error.code === 0)) {
        onProgress(1);
        resolve(json);
      } else {
        reject(checkSession(failure(request.status, json, request.statusText, 0), false));
      }
    });
    request.addEventListener('error', () => reject(new ApiError(0, 0, '')));
    const form = new FormData();
    form.append('file', file, file.name);
    request.send(form);
  });
}

// Live updates: one EventSource on GET /events for the signed-in browser,
// shared by the pages. The gateway streams `task` events (data: one JSON
// object with at least the task's id, status and progress), `alarm` events
// and `reset` (the client fell too far behind: reload). The browser resumes
// a dropped stream by itself with Last-Event-ID.
//
//   const stop = subscribe({task(change) {...}, state(s) {...}});
//   // state(s): 'live' while the stream is open, 'polling' while it cannot
//   // be had (the pages then poll), 'off' when signed out.
//
// When the stream fails for good (an answer that is not a stream: no
// session, a limit, no /events at all) the pages poll, and another stream
// is tried every RETRY_MS.

const EVENTS_PATH = '/events';
const RETRY_MS = 30000;
const EVENT_NAMES = ['task', 'alarm', 'reset'];

let source = null;
let state = 'off';
let retryTimer = 0;
const listeners = new Set();

function tell(name, value) {
  for (const listener of listeners) listener[name]?.(value);
}

function setState(next) {
  if (next === state) return;
  state = next;
  tell('state', state);
}

function close() {
  window.clearTimeout(retryTimer);
  retryTimer = 0;
  source?.close();
  source = null;
}

function open() {
  close();
  source = new EventSource(EVENTS_PATH, {withCredentials: true});
  source.addEventListener('open', () => setState('live'));
  source.addEventListener('error', () => {
    // CONNECTING: the browser tries again by itself (with Last-Event-ID);
    // CLOSED: it gave up, so the page polls and tries a new stream later.
    setState('polling');
    if (source?.readyState === EventSource.CLOSED) {
      source.close();
      source = null;
      retryTimer = window.setTimeout(open, RETRY_MS);
    }
  });
  for (const name of EVENT_NAMES) {
    source.addEventListener(name, (event) => {
      let data = null;
      try {
        data = JSON.parse(event.data);
      } catch (e) {
        data = null;
      }
      if (data && typeof data === 'object') tell(name, data);
    });
  }
}

// Opens the stream (after a sign-in) or closes it (signed out).
export function setSignedIn(signedIn) {
  if (!signedIn) {
    close();
    setState('off');
    return;
  }
  if (!source && !retryTimer) {
    setState('polling');  // until the stream is open
    open();
  }
}

export function liveState() {
  return state;
}

// Adds `listener` ({task, alarm, reset, state}: functions, each optional);
// returns the function that removes it.
export function subscribe(listener) {
  listeners.add(listener);
  return () => listeners.delete(listener);
}

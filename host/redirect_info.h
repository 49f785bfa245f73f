// The reference host's extras around RedirectInfoMgr (declared in login_op.h,
// implemented in redirect_info.cc over the installed StateStore).
//
// An observer sees every addSessionInfo call as it happens, before the entry
// is stored; tests use it to see in which order a login labels its session.
//
// Thread-safety: the observer is called on the thread that adds the entry,
// outside the table's lock; installing one races with nothing.
#ifndef NOX_HOST_REDIRECT_INFO_H_
#define NOX_HOST_REDIRECT_INFO_H_

#include <functional>
#include <string>

#include "nox_visibility.h"

using RedirectInfoObserver = std::function<void(const std::string& key, int kind)>;

// Installs `observer` (empty: none); returns the one it replaces.
HOST_API RedirectInfoObserver setRedirectInfoObserver(RedirectInfoObserver observer);

// Entries in the table (tests).
HOST_API size_t redirectInfoCount();

// How long an entry outlives the last use of its session in a store that
// expires keys by itself (Redis): the sessions' idle time-out, set by
// SessionStore::setIdleTimeout. A memory store ends entries with their
// sessions.
HOST_API void setSessionInfoLifetime(int seconds);

#endif  // NOX_HOST_REDIRECT_INFO_H_

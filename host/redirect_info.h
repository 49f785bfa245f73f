// The reference host's extras around RedirectInfoMgr (declared in login_op.h).
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

#endif  // NOX_HOST_REDIRECT_INFO_H_

// How a client names its session: the token header, else the session cookie,
// and the cookie the host sets at login and clears at logout. The gateway's
// session check and the host's logout read the token by this one rule.
//
//   HttpRequest connection("DELETE", "/sessions", "10.0.0.7");
//   connection.addHeader("Cookie", "theme=dark");
//   connection.addHeader("Cookie", "NOX_SESSION=ab12");
//   sessionTokenOf(connection) == "ab12"
//
// Thread-safety: every function here is pure and may be called from any
// thread.
#ifndef NOX_HOST_SESSION_TOKEN_H_
#define NOX_HOST_SESSION_TOKEN_H_

#include <string>

#include "nox_visibility.h"
#include "request_msg.h"

// The request header that carries the token, and the answer header a login
// hands it out in.
constexpr char kTokenHeader[] = "X-Auth-Token";
// The request header of cookies; HttpRequest keeps every line of it as one
// ("a=1" and "b=2" read "a=1; b=2").
constexpr char kCookieHeader[] = "Cookie";
// The HttpOnly cookie that carries the token for the console.
constexpr char kSessionCookie[] = "NOX_SESSION";

// The session token of a request: the token header, blanks and tabs around it
// trimmed, else the first non-empty session cookie of any Cookie line, else
// "". When `fromCookie` is given, *fromCookie tells whether the cookie gave it.
HOST_API std::string sessionTokenOf(const HttpRequest& connection, bool* fromCookie = nullptr);

// The Set-Cookie value that hands `token` to a browser at login:
//   "NOX_SESSION=<token>; Path=/; HttpOnly; SameSite=Strict"
HOST_API std::string sessionCookieFor(const std::string& token);
// The Set-Cookie value that makes the browser forget it at logout:
//   "NOX_SESSION=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict"
HOST_API std::string clearedSessionCookie();

#endif  // NOX_HOST_SESSION_TOKEN_H_

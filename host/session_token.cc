#include "session_token.h"

namespace {

constexpr char kCookieAttributes[] = "; Path=/; HttpOnly; SameSite=Strict";

// HTTP's optional white space (blanks and tabs) around `text` removed.
std::string trimBlanks(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  const size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

// The first non-empty value of cookie `name` in a Cookie header
// ("a=1; NOX_SESSION=ab12"), or "".
std::string cookieValue(const std::string& header, const std::string& name) {
  size_t pos = 0;
  while (pos <= header.size()) {
    size_t end = header.find(';', pos);
    if (end == std::string::npos) end = header.size();
    const std::string pair = trimBlanks(header.substr(pos, end - pos));
    const size_t eq = pair.find('=');
    if (eq == name.size() && pair.compare(0, eq, name) == 0) {
      std::string value = trimBlanks(pair.substr(eq + 1));
      if (!value.empty()) return value;
    }
    pos = end + 1;
  }
  return std::string();
}

}  // namespace

std::string sessionTokenOf(const HttpRequest& connection, bool* fromCookie) {
  if (fromCookie != nullptr) *fromCookie = false;
  std::string token = trimBlanks(connection.getHeader(kTokenHeader));
  if (!token.empty()) return token;
  std::string cookie = cookieValue(connection.getHeader(kCookieHeader), kSessionCookie);
  if (fromCookie != nullptr) *fromCookie = !cookie.empty();
  return cookie;
}

std::string sessionCookieFor(const std::string& token) {
  return std::string(kSessionCookie) + "=" + token + kCookieAttributes;
}

std::string clearedSessionCookie() {
  return std::string(kSessionCookie) + "=; Max-Age=0" + kCookieAttributes;
}

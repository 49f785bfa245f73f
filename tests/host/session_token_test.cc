#include "session_token.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Header = std::pair<const char*, const char*>;

HttpRequest connectionWith(const std::vector<Header>& headers) {
  HttpRequest connection("DELETE", "/sessions", "127.0.0.1");
  for (const Header& header : headers) connection.addHeader(header.first, header.second);
  return connection;
}

TEST(SessionTokenOfTest, ReadsTheHeaderElseTheCookie) {
  const struct {
    std::vector<Header> headers;
    const char* token;
    bool fromCookie;
  } cases[] = {
      {{}, "", false},                                                 // nothing sent
      {{{"Cookie", "a=1; NOX_SESSION=fromcookie"}}, "fromcookie", true},
      {{{"Cookie", "NOX_SESSION=c"}, {"x-auth-token", "h"}}, "h", false},  // header first
      {{{"X-Auth-Token", " \th \t"}}, "h", false},                    // blanks and tabs trimmed
      {{{"X-Auth-Token", "  "}, {"Cookie", "NOX_SESSION=c"}}, "c", true},  // blank header
      {{{"Cookie", "NOX_SESSIONX=1; XNOX_SESSION=2"}}, "", false},    // names match whole
      {{{"Cookie", "NOX_SESSION=; NOX_SESSION=second"}}, "second", true},  // first non-empty
      {{{"Cookie", "theme=dark"}, {"Cookie", "NOX_SESSION=line2"}}, "line2", true},
      {{{"cookie", "NOX_SESSION=one"}, {"COOKIE", "NOX_SESSION=two"}}, "one", true},
      {{{"Cookie", " NOX_SESSION = s ;x=1"}}, "", false},  // "NOX_SESSION " is another name
      {{{"Cookie", "x=1;NOX_SESSION= t1 "}}, "t1", true},             // value trimmed
  };
  for (const auto& c : cases) {
    const HttpRequest connection = connectionWith(c.headers);
    SCOPED_TRACE(connection.getHeader("Cookie") + " | " + connection.getHeader("X-Auth-Token"));
    bool fromCookie = !c.fromCookie;
    EXPECT_EQ(sessionTokenOf(connection, &fromCookie), c.token);
    EXPECT_EQ(fromCookie, c.fromCookie);
    EXPECT_EQ(sessionTokenOf(connection), c.token);
  }
}

// A client may split its cookies over several lines; the host keeps them as
// one list so that every reader sees all of them.
TEST(SessionTokenOfTest, CookieLinesJoinAsOne) {
  const HttpRequest connection =
      connectionWith({{"Cookie", "a=1"}, {"Accept", "*/*"}, {"cookie", "b=2"}});
  EXPECT_EQ(connection.getHeader("Cookie"), "a=1; b=2");
  EXPECT_EQ(connection.getHeader("Accept"), "*/*");
}

TEST(SessionCookieTest, SetAndCleared) {
  EXPECT_EQ(sessionCookieFor("ab12"), "NOX_SESSION=ab12; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(clearedSessionCookie(), "NOX_SESSION=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
}

}  // namespace

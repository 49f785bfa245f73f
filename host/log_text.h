// Text that may have come from a request, made safe for a log line.
//
// A client chooses user names, paths and header values. Written as they are,
// a line feed in them would start a forged line in the log, a terminal
// control would rewrite what an operator sees, and a byte that is not UTF-8
// would make the line unreadable to log collectors. Every log sink of the
// gateway (trace log, access log, audit log) passes such text through one of
// the two functions here.
//
// Thread-safety: pure functions.
#ifndef NOX_HOST_LOG_TEXT_H_
#define NOX_HOST_LOG_TEXT_H_

#include <string>

#include "nox_visibility.h"

// `text` with every character that could break or disguise a text log line
// written as visible escapes, the rest (UTF-8 included) as it is:
//   \n \r \t                      line feed, carriage return, tab
//   \xNN                          other C0 controls, DEL, and every byte that
//                                 is not part of well-formed UTF-8
//   \u0085 \u2028 ...             C1 controls (U+0080..U+009F) and the line
//                                 and paragraph separators U+2028, U+2029
//   \\                            the backslash itself, so that an escape
//                                 always means an escape
//   escapeLogText("a\nb\\c\xff") == "a\\nb\\\\c\\xff"
HOST_API std::string escapeLogText(const std::string& text);

// Appends `text` to *out as a JSON string (in double quotes) that stays on
// one line and is valid UTF-8: '"' and '\' escaped, \b \f \n \r \t as such,
// other C0 controls, DEL, C1 controls and U+2028/U+2029 as \u00XX / \u20XX,
// and each byte that is not part of well-formed UTF-8 as \ufffd (the
// replacement character; JSON text cannot hold such a byte).
//   appendJsonLogString("a\"\n\xff", &out);   // out += "\"a\\\"\\n\\ufffd\""
HOST_API void appendJsonLogString(const std::string& text, std::string* out);

// The system's text for an errno value, for log lines and error texts
// (unlike strerror, safe on any thread):
//   errnoText(ENOENT) == "No such file or directory"
HOST_API std::string errnoText(int error);

// One JSON object on one line, members in the order they are added, string
// values written by appendJsonLogString.
//   JsonLogLine line;
//   line.add("user", "a\nb").add("code", 0);
//   line.text() == "{\"user\":\"a\\nb\",\"code\":0}"
// Thread-safety: one object per thread.
class HOST_API JsonLogLine {
 public:
  JsonLogLine& add(const char* name, const std::string& value);
  JsonLogLine& add(const char* name, long long value);
  // The object's text, without a line feed.
  std::string text() const { return text_ + "}"; }

 private:
  void appendName(const char* name);
  std::string text_ = "{";
};

// "2026-11-25T17:20:00.123Z": the UTC time `ms` milliseconds after the epoch.
HOST_API std::string formatUtcMillis(long long ms);
// The current time in milliseconds since the epoch, for formatUtcMillis.
HOST_API long long nowUtcMillis();

#endif  // NOX_HOST_LOG_TEXT_H_

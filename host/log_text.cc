#include "log_text.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

const char kHex[] = "0123456789abcdef";

// The length of the well-formed UTF-8 sequence at text[i] (1 to 4; Unicode
// table 3-7: no overlong forms, no surrogates, nothing above U+10FFFF) and
// its code point in *codePoint; 0 when the byte there starts none.
size_t utf8Sequence(const std::string& text, size_t i, unsigned* codePoint) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  }
  size_t length = 0;
  unsigned char low = 0x80;  // the range of the second byte
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  unsigned value = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if (k == 1 ? (next < low || next > high) : (next < 0x80 || next > 0xBF)) return 0;
    value = (value << 6) | (next & 0x3F);
  }
  *codePoint = value;
  return length;
}

// C0 controls, DEL, C1 controls and the two Unicode line breaks: what must
// never stand in a log line as itself.
bool mustEscape(unsigned codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x2028 ||
         codePoint == 0x2029;
}

void appendHexByte(const char* prefix, unsigned char byte, std::string* out) {
  out->append(prefix);
  out->push_back(kHex[byte >> 4]);
  out->push_back(kHex[byte & 0xF]);
}

void appendCodePoint(unsigned codePoint, std::string* out) {
  out->append("\\u");
  for (int shift = 12; shift >= 0; shift -= 4) out->push_back(kHex[(codePoint >> shift) & 0xF]);
}

// The short escapes both forms share; false for any other character.
bool appendShortEscape(unsigned codePoint, std::string* out) {
  switch (codePoint) {
    case '\n':
      out->append("\\n");
      return true;
    case '\r':
      out->append("\\r");
      return true;
    case '\t':
      out->append("\\t");
      return true;
    case '\\':
      out->append("\\\\");
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string escapeLogText(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    unsigned codePoint = 0;
    const size_t length = utf8Sequence(text, i, &codePoint);
    if (length == 0) {
      appendHexByte("\\x", static_cast<unsigned char>(text[i]), &out);
      ++i;
      continue;
    }
    if (!appendShortEscape(codePoint, &out)) {
      if (codePoint < 0x80 && mustEscape(codePoint)) {
        appendHexByte("\\x", static_cast<unsigned char>(codePoint), &out);
      } else if (mustEscape(codePoint)) {
        appendCodePoint(codePoint, &out);
      } else {
        out.append(text, i, length);
      }
    }
    i += length;
  }
  return out;
}

void appendJsonLogString(const std::string& text, std::string* out) {
  out->push_back('"');
  size_t i = 0;
  while (i < text.size()) {
    unsigned codePoint = 0;
    const size_t length = utf8Sequence(text, i, &codePoint);
    if (length == 0) {
      out->append("\\ufffd");
      ++i;
      continue;
    }
    if (codePoint == '"') {
      out->append("\\\"");
    } else if (codePoint == '\b') {
      out->append("\\b");
    } else if (codePoint == '\f') {
      out->append("\\f");
    } else if (appendShortEscape(codePoint, out)) {
      // written
    } else if (mustEscape(codePoint)) {
      appendCodePoint(codePoint, out);
    } else {
      out->append(text, i, length);
    }
    i += length;
  }
  out->push_back('"');
}

void JsonLogLine::appendName(const char* name) {
  if (text_.size() > 1) text_.push_back(',');
  appendJsonLogString(name, &text_);
  text_.push_back(':');
}

JsonLogLine& JsonLogLine::add(const char* name, const std::string& value) {
  appendName(name);
  appendJsonLogString(value, &text_);
  return *this;
}

JsonLogLine& JsonLogLine::add(const char* name, long long value) {
  appendName(name);
  text_ += std::to_string(value);
  return *this;
}

long long nowUtcMillis() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

std::string formatUtcMillis(long long ms) {
  const time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm utc;
  gmtime_r(&seconds, &utc);
  char stamp[40];
  const size_t n = strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(stamp + n, sizeof(stamp) - n, ".%03dZ", static_cast<int>(ms % 1000));
  return stamp;
}

std::string errnoText(int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, in `buffer` or a static string.
  return std::string(strerror_r(error, buffer, sizeof(buffer)));
}

#include "compact_json.h"

namespace gw {

namespace {

const char kHex[] = "0123456789abcdef";

void appendQuoted(const char* text, size_t length, std::string* out) {
  out->push_back('"');
  const char* runStart = text;
  const char* end = text + length;
  for (const char* c = text; c != end; ++c) {
    const unsigned char byte = static_cast<unsigned char>(*c);
    if (byte >= 0x20 && byte != '"' && byte != '\\') continue;
    out->append(runStart, static_cast<size_t>(c - runStart));
    runStart = c + 1;
    switch (byte) {
      case '"':
        out->append("\\\"");
        break;
      case '\\':
        out->append("\\\\");
        break;
      case '\b':
        out->append("\\b");
        break;
      case '\f':
        out->append("\\f");
        break;
      case '\n':
        out->append("\\n");
        break;
      case '\r':
        out->append("\\r");
        break;
      case '\t':
        out->append("\\t");
        break;
      default: {
        const char escape[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
        out->append(escape, sizeof escape);
        break;
      }
    }
  }
  out->append(runStart, static_cast<size_t>(end - runStart));
  out->push_back('"');
}

void appendValue(const Json::Value& value, std::string* out) {
  switch (value.type()) {
    case Json::nullValue:
      out->append("null");
      break;
    case Json::intValue:
      out->append(std::to_string(value.asLargestInt()));
      break;
    case Json::uintValue:
      out->append(std::to_string(value.asLargestUInt()));
      break;
    case Json::realValue:
      // Rare in answers; jsoncpp's own formatting keeps the text identical.
      out->append(Json::valueToString(value.asDouble()));
      break;
    case Json::booleanValue:
      out->append(value.asBool() ? "true" : "false");
      break;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (value.getString(&begin, &end)) {
        appendQuoted(begin, static_cast<size_t>(end - begin), out);
      } else {
        out->append("\"\"");
      }
      break;
    }
    case Json::arrayValue: {
      out->push_back('[');
      const Json::ArrayIndex size = value.size();
      for (Json::ArrayIndex i = 0; i < size; ++i) {
        if (i != 0) out->push_back(',');
        appendValue(value[i], out);
      }
      out->push_back(']');
      break;
    }
    case Json::objectValue: {
      out->push_back('{');
      bool first = true;
      for (auto it = value.begin(); it != value.end(); ++it) {
        if (!first) out->push_back(',');
        first = false;
        char const* nameEnd = nullptr;
        const char* name = it.memberName(&nameEnd);
        appendQuoted(name, static_cast<size_t>(nameEnd - name), out);
        out->push_back(':');
        appendValue(*it, out);
      }
      out->push_back('}');
      break;
    }
  }
}

}  // namespace

void appendCompactJson(const Json::Value& value, std::string* out) { appendValue(value, out); }

std::string toCompactJson(const Json::Value& value) {
  std::string out;
  out.reserve(256);
  appendValue(value, &out);
  return out;
}

}  // namespace gw

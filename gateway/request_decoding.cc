#include "request_decoding.h"

#include <strings.h>

#include <cctype>
#include <exception>
#include <memory>

#include "error_table.h"
#include "reply_json.h"

namespace gw {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
  return strncasecmp(text.c_str(), prefix, std::char_traits<char>::length(prefix)) == 0;
}

std::string trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

long long fillMultipart(const HttpInput& in, size_t maxBody, CRequestMsgBody& body) {
  size_t fileBytes = 0;
  Json::Value fields(Json::objectValue);
  for (const FormPart& part : in.parts) {
    if (!part.fileName.empty()) {
      fileBytes += part.content.size();
      if (fileBytes > maxBody) return kErrBodyTooLarge;
      body.addUpload(part.fileName, part.content);
    } else if (!part.name.empty()) {
      fields[part.name] = part.content;
    }
  }
  if (!fields.empty()) body.setJson(fields);
  return 0;
}

long long fillJson(const std::string& text, CRequestMsgBody& body) {
  // newJsonReader stops at a nesting depth no request needs, by throwing.
  std::unique_ptr<Json::CharReader> reader(reply::newJsonReader());
  Json::Value json;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &json, &errors)) {
      return kErrBadRequest;
    }
  } catch (const std::exception&) {
    return kErrBadRequest;
  }
  body.setJson(json);
  return 0;
}

}  // namespace

RequestTarget splitTarget(const std::string& target) {
  const size_t mark = target.find('?');
  if (mark == std::string::npos) return RequestTarget{target, std::string()};
  return RequestTarget{target.substr(0, mark), target.substr(mark + 1)};
}

std::string urlDecode(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const int hi = hexDigit(text[i + 1]);
      const int lo = hexDigit(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(plusIsSpace && c == '+' ? ' ' : c);
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query) {
  std::vector<std::pair<std::string, std::string>> args;
  size_t pos = 0;
  while (pos <= query.size()) {
    size_t end = query.find('&', pos);
    if (end == std::string::npos) end = query.size();
    if (end > pos) {
      const std::string piece = query.substr(pos, end - pos);
      const size_t eq = piece.find('=');
      if (eq == std::string::npos) {
        args.emplace_back(urlDecode(piece, true), std::string());
      } else {
        args.emplace_back(urlDecode(piece.substr(0, eq), true),
                          urlDecode(piece.substr(eq + 1), true));
      }
    }
    pos = end + 1;
  }
  return args;
}

std::string headerValue(const HeaderList& headers, const std::string& name) {
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
  }
  return std::string();
}

bool isMethod(const std::string& method, const char* name) {
  return strcasecmp(method.c_str(), name) == 0;
}

bool isReadMethod(const std::string& method) {
  return isMethod(method, "GET") || isMethod(method, "HEAD");
}

std::string languageFromAcceptLanguage(const std::string& value) {
  return startsWithNoCase(trim(value), "zh") ? "zh" : "en";
}

std::string languageFromArgument(const std::string& value) {
  if (value.empty()) return std::string();
  return value == "zh" ? "zh" : "en";
}

bool isFormBody(const HttpInput& in) {
  if (in.multipart) return true;
  const std::string type = headerValue(in.headers, "Content-Type");
  return startsWithNoCase(type, "application/x-www-form-urlencoded") ||
         startsWithNoCase(type, "multipart/form-data");
}

long long fillBody(const HttpInput& in, size_t maxBody, CRequestMsg& request) {
  CRequestMsgBody& body = request.getBody();
  if (in.multipart) return fillMultipart(in, maxBody, body);
  if (in.body.empty()) return 0;
  if (in.body.size() > maxBody) return kErrBodyTooLarge;
  const std::string type = headerValue(in.headers, "Content-Type");
  if (startsWithNoCase(type, "application/x-www-form-urlencoded")) {
    Json::Value fields(Json::objectValue);
    for (const auto& field : parseQuery(in.body)) fields[field.first] = field.second;
    body.setJson(fields);
    return 0;
  }
  // JSON when declared so, or when no type is declared at all; other types
  // carry nothing the operations read.
  if (!type.empty() && !startsWithNoCase(type, kJsonType)) return 0;
  return fillJson(in.body, body);
}

}  // namespace gw

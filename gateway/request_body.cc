#include "request_body.h"

#include <brotli/decode.h>
#include <strings.h>
#include <zlib.h>

#include <cctype>
#include <cstdint>

namespace gw {

namespace {

BodyStatus inflateZlib(std::string* body, size_t limit, bool gzipWrapper) {
  z_stream stream{};
  // 15 + 32: zlib or gzip, told apart by the header; 15 alone: zlib. A
  // "deflate" body is meant to be zlib-wrapped, but some clients send raw
  // deflate; -15 reads that, and is tried when the zlib header is missing.
  int windowBits = gzipWrapper ? 15 + 32 : 15;
  if (!gzipWrapper && body->size() >= 2) {
    const unsigned cmf = static_cast<unsigned char>((*body)[0]);
    const unsigned flg = static_cast<unsigned char>((*body)[1]);
    if ((cmf & 0x0F) != 8 || ((cmf << 8) | flg) % 31 != 0) windowBits = -15;
  }
  if (inflateInit2(&stream, windowBits) != Z_OK) return BodyStatus::kMalformed;
  std::string out;
  char buffer[16384];
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body->data()));
  stream.avail_in = static_cast<uInt>(body->size());
  int result = Z_OK;
  while (result != Z_STREAM_END) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof(buffer);
    result = inflate(&stream, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END) break;
    out.append(buffer, sizeof(buffer) - stream.avail_out);
    if (out.size() > limit) {
      inflateEnd(&stream);
      return BodyStatus::kTooLarge;
    }
    if (result == Z_OK && stream.avail_in == 0 && stream.avail_out != 0) break;  // cut short
  }
  inflateEnd(&stream);
  if (result != Z_STREAM_END) return BodyStatus::kMalformed;
  body->swap(out);
  return BodyStatus::kOk;
}

BodyStatus decodeBrotli(std::string* body, size_t limit) {
  BrotliDecoderState* state = BrotliDecoderCreateInstance(nullptr, nullptr, nullptr);
  if (state == nullptr) return BodyStatus::kMalformed;
  std::string out;
  const uint8_t* next = reinterpret_cast<const uint8_t*>(body->data());
  size_t available = body->size();
  uint8_t buffer[16384];
  BrotliDecoderResult result = BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT;
  while (result == BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT) {
    uint8_t* out_next = buffer;
    size_t room = sizeof(buffer);
    result = BrotliDecoderDecompressStream(state, &available, &next, &room, &out_next, nullptr);
    out.append(reinterpret_cast<const char*>(buffer), sizeof(buffer) - room);
    if (out.size() > limit) {
      BrotliDecoderDestroyInstance(state);
      return BodyStatus::kTooLarge;
    }
  }
  BrotliDecoderDestroyInstance(state);
  if (result != BROTLI_DECODER_RESULT_SUCCESS) return BodyStatus::kMalformed;
  body->swap(out);
  return BodyStatus::kOk;
}

std::string trim(const std::string& text) {
  size_t first = 0;
  size_t last = text.size();
  while (first < last && (text[first] == ' ' || text[first] == '\t')) ++first;
  while (last > first && (text[last - 1] == ' ' || text[last - 1] == '\t')) --last;
  return text.substr(first, last - first);
}

// The parameter `name` of a header value like `form-data; name="f"; x=y`:
// the quoted string unescaped, or the token as it stands. *found tells
// whether the parameter is there at all.
std::string headerParameter(const std::string& value, const std::string& name, bool* found) {
  *found = false;
  size_t at = value.find(';');
  while (at != std::string::npos) {
    size_t start = at + 1;
    while (start < value.size() && (value[start] == ' ' || value[start] == '\t')) ++start;
    const size_t equals = value.find('=', start);
    if (equals == std::string::npos) return std::string();
    const std::string key = trim(value.substr(start, equals - start));
    size_t pos = equals + 1;
    while (pos < value.size() && (value[pos] == ' ' || value[pos] == '\t')) ++pos;
    std::string text;
    if (pos < value.size() && value[pos] == '"') {
      ++pos;
      while (pos < value.size() && value[pos] != '"') {
        if (value[pos] == '\\' && pos + 1 < value.size()) ++pos;
        text += value[pos++];
      }
      if (pos < value.size()) ++pos;  // the closing quote
      at = value.find(';', pos);
    } else {
      at = value.find(';', pos);
      text = trim(value.substr(pos, at == std::string::npos ? std::string::npos : at - pos));
    }
    if (strcasecmp(key.c_str(), name.c_str()) == 0) {
      *found = true;
      return text;
    }
  }
  return std::string();
}

// Fills `part` from the header block of one part ("Name: value" lines
// separated by CRLF). Returns false without a form-data Content-Disposition.
bool readPartHeaders(const std::string& block, FormPart* part) {
  bool disposition = false;
  size_t start = 0;
  while (start < block.size()) {
    size_t end = block.find("\r\n", start);
    if (end == std::string::npos) end = block.size();
    const std::string line = block.substr(start, end - start);
    start = end + 2;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    const std::string name = trim(line.substr(0, colon));
    const std::string value = trim(line.substr(colon + 1));
    if (strcasecmp(name.c_str(), "Content-Disposition") == 0) {
      if (strncasecmp(value.c_str(), "form-data", 9) != 0) return false;
      bool found = false;
      part->name = headerParameter(value, "name", &found);
      if (!found) return false;
      part->fileName = headerParameter(value, "filename", &found);
      disposition = true;
    } else if (strcasecmp(name.c_str(), "Content-Type") == 0) {
      part->contentType = value;
    }
  }
  return disposition;
}

}  // namespace

BodyStatus decodeContent(const std::string& encoding, std::string* body, size_t limit) {
  const std::string coding = trim(encoding);
  if (coding.empty() || strcasecmp(coding.c_str(), "identity") == 0) {
    return body->size() > limit ? BodyStatus::kTooLarge : BodyStatus::kOk;
  }
  if (strcasecmp(coding.c_str(), "gzip") == 0 || strcasecmp(coding.c_str(), "x-gzip") == 0) {
    return inflateZlib(body, limit, true);
  }
  if (strcasecmp(coding.c_str(), "deflate") == 0) return inflateZlib(body, limit, false);
  if (strcasecmp(coding.c_str(), "br") == 0) return decodeBrotli(body, limit);
  return BodyStatus::kUnsupported;
}

std::string multipartBoundary(const std::string& contentType) {
  const size_t semicolon = contentType.find(';');
  const std::string type = trim(contentType.substr(0, semicolon));
  if (strcasecmp(type.c_str(), "multipart/form-data") != 0) return std::string();
  bool found = false;
  std::string boundary = headerParameter(contentType, "boundary", &found);
  // RFC 2046: 1 to 70 characters, not ending in a blank.
  if (!found || boundary.empty() || boundary.size() > 70 || boundary.back() == ' ') {
    return std::string();
  }
  return boundary;
}

bool parseMultipart(const std::string& body, const std::string& boundary,
                    std::vector<FormPart>* parts) {
  parts->clear();
  const std::string delimiter = "--" + boundary;
  // The first delimiter opens the body or a line of its own after a preamble.
  size_t at = 0;
  if (body.compare(0, delimiter.size(), delimiter) != 0) {
    at = body.find("\r\n" + delimiter);
    if (at == std::string::npos) return false;
    at += 2;
  }
  const std::string next = "\r\n" + delimiter;
  for (;;) {
    at += delimiter.size();
    if (body.compare(at, 2, "--") == 0) return true;  // the closing delimiter
    // Transport padding, then the line break that ends the delimiter line.
    while (at < body.size() && (body[at] == ' ' || body[at] == '\t')) ++at;
    if (body.compare(at, 2, "\r\n") != 0) return false;
    at += 2;
    // A part with no header lines at all (it starts with the blank line)
    // has no Content-Disposition: not a form field.
    if (body.compare(at, 2, "\r\n") == 0) return false;
    const size_t headersEnd = body.find("\r\n\r\n", at);
    if (headersEnd == std::string::npos) return false;
    FormPart part;
    if (!readPartHeaders(body.substr(at, headersEnd - at), &part)) return false;
    const size_t contentStart = headersEnd + 4;
    const size_t end = body.find(next, contentStart);
    if (end == std::string::npos) return false;
    part.content.assign(body, contentStart, end - contentStart);
    parts->push_back(std::move(part));
    at = end + 2;
  }
}

}  // namespace gw

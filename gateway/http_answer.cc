#include "http_answer.h"

#include <brotli/encode.h>
#include <strings.h>
#include <zlib.h>

#include <cctype>
#include <cstdint>
#include <iterator>
#include <cstdlib>
#include <random>

#include "error_table.h"
#include "secure_random.h"

namespace gw {

namespace {

constexpr size_t kCompressFrom = 256;  // smaller bodies gain nothing

bool compressibleType(const std::string& type) {
  return type.compare(0, 5, "text/") == 0 || type.find("json") != std::string::npos ||
         type.find("javascript") != std::string::npos || type.find("svg") != std::string::npos ||
         type.find("xml") != std::string::npos;
}

bool gzipText(const std::string& text, std::string* out) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return false;
  }
  out->resize(deflateBound(&stream, text.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(&(*out)[0]);
  stream.avail_out = static_cast<uInt>(out->size());
  const int result = deflate(&stream, Z_FINISH);
  out->resize(stream.total_out);
  deflateEnd(&stream);
  return result == Z_STREAM_END;
}

bool brotliText(const std::string& text, std::string* out) {
  size_t size = BrotliEncoderMaxCompressedSize(text.size());
  if (size == 0) return false;
  out->resize(size);
  // Quality 5: most of brotli's gain at a small part of its top cost.
  if (!BrotliEncoderCompress(5, BROTLI_DEFAULT_WINDOW, BROTLI_MODE_TEXT, text.size(),
                             reinterpret_cast<const uint8_t*>(text.data()), &size,
                             reinterpret_cast<uint8_t*>(&(*out)[0]))) {
    return false;
  }
  out->resize(size);
  return true;
}

// The q-value of `coding` in an Accept-Encoding value: -1 when not named
// (nor by "*").
double acceptance(const std::string& accept, const std::string& coding) {
  double star = -1;
  size_t at = 0;
  while (at <= accept.size()) {
    size_t end = accept.find(',', at);
    if (end == std::string::npos) end = accept.size();
    std::string item = accept.substr(at, end - at);
    at = end + 1;
    double q = 1;
    const size_t semicolon = item.find(';');
    if (semicolon != std::string::npos) {
      const size_t qAt = item.find("q=", semicolon);
      if (qAt != std::string::npos) q = std::strtod(item.c_str() + qAt + 2, nullptr);
      item.resize(semicolon);
    }
    size_t first = 0;
    size_t last = item.size();
    while (first < last && std::isspace(static_cast<unsigned char>(item[first]))) ++first;
    while (last > first && std::isspace(static_cast<unsigned char>(item[last - 1]))) --last;
    item = item.substr(first, last - first);
    if (strcasecmp(item.c_str(), coding.c_str()) == 0) return q;
    if (item == "*") star = q;
  }
  return star;
}

}  // namespace

std::string requestIdFor(const std::string& given) {
  bool sane = !given.empty() && given.size() <= 64;
  for (char c : given) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') {
      sane = false;
    }
  }
  if (sane) return given;
  // 128 bits from a generator per thread, seeded from the system's random
  // source: unique and unguessable enough for a log key, without a system
  // call per request.
  thread_local std::mt19937_64 generator = [] {
    uint32_t words[8];
    secureRandomBytes(words, sizeof(words));
    std::seed_seq seed(std::begin(words), std::end(words));
    return std::mt19937_64(seed);
  }();
  static const char kDigits[] = "0123456789abcdef";
  std::string id(32, '0');
  for (int half = 0; half < 2; ++half) {
    uint64_t bits = generator();
    for (int i = 0; i < 16; ++i, bits >>= 4) id[half * 16 + i] = kDigits[bits & 0xF];
  }
  return id;
}

std::string chooseEncoding(const std::string& acceptEncoding) {
  if (acceptance(acceptEncoding, "br") > 0) return "br";
  if (acceptance(acceptEncoding, "gzip") > 0) return "gzip";
  return std::string();
}

void finishAnswer(HttpOutput* out, const AnswerContext& context) {
  HeaderList& headers = out->headers;
  bool cacheControl = false;
  bool policy = false;
  for (auto& header : headers) {
    if (context.secure && strcasecmp(header.first.c_str(), "Set-Cookie") == 0 &&
        header.second.find("; Secure") == std::string::npos) {
      header.second += "; Secure";  // a browser then never sends it over plain HTTP
    }
    if (strcasecmp(header.first.c_str(), "Cache-Control") == 0) cacheControl = true;
    if (strcasecmp(header.first.c_str(), "Content-Security-Policy") == 0) policy = true;
  }
  headers.emplace_back("X-Request-Id", context.requestId);
  if (context.secure && context.hstsMaxAge > 0) {
    headers.emplace_back("Strict-Transport-Security",
                         "max-age=" + std::to_string(context.hstsMaxAge));
  }
  // API answers hold session data: never cached, never sniffed as another
  // type. The console's files say "no-cache" and bring their own, wider
  // policy; API answers load nothing.
  if (!cacheControl) headers.emplace_back("Cache-Control", "no-store");
  headers.emplace_back("X-Content-Type-Options", "nosniff");
  if (!policy) {
    headers.emplace_back("Content-Security-Policy", "default-src 'none'; frame-ancestors 'none'");
  }
  if (out->contentType.empty()) out->contentType = "application/json";

  // Answers that may carry a secret are never compressed (BREACH).
  if (!out->compressible || out->body.size() < kCompressFrom ||
      !compressibleType(out->contentType)) {
    return;
  }
  const std::string coding = chooseEncoding(context.acceptEncoding);
  std::string packed;
  if (coding == "br" ? brotliText(out->body, &packed)
                     : coding == "gzip" && gzipText(out->body, &packed)) {
    out->body.swap(packed);
    headers.emplace_back("Content-Encoding", coding);
    headers.emplace_back("Vary", "Accept-Encoding");
  }
}

HttpOutput refusal(int status, long long code, const std::string& description) {
  HttpOutput out = errorOutput(code, description);
  out.status = status;
  return out;
}

}  // namespace gw

// Fuzzes the reading of request bodies. The first byte chooses what the rest
// is: a multipart/form-data body (boundary "b"), a Content-Type whose
// boundary is taken, or a body under one of the content codings. Properties:
// parts read from a body are written back into a body that reads the same;
// no part holds the delimiter; a decoded body never exceeds its limit.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "request_body.h"

namespace {

constexpr size_t kLimit = 1 << 16;

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0: {
      std::vector<gw::FormPart> parts;
      if (!gw::parseMultipart(rest, "b", &parts)) return 0;
      std::string again;
      for (const gw::FormPart& part : parts) {
        if (part.content.find("\r\n--b") != std::string::npos) std::abort();
        // Names with line breaks cannot be written back in a header line.
        if (part.name.find_first_of("\r\n") != std::string::npos ||
            part.fileName.find_first_of("\r\n") != std::string::npos ||
            part.contentType.find_first_of("\r\n") != std::string::npos) {
          return 0;
        }
        again += "--b\r\nContent-Disposition: form-data; name=" + quoted(part.name);
        if (!part.fileName.empty()) again += "; filename=" + quoted(part.fileName);
        again += "\r\n";
        if (!part.contentType.empty()) again += "Content-Type: " + part.contentType + "\r\n";
        again += "\r\n" + part.content + "\r\n";
      }
      again += "--b--\r\n";
      std::vector<gw::FormPart> reread;
      if (!gw::parseMultipart(again, "b", &reread) || reread.size() != parts.size()) std::abort();
      for (size_t i = 0; i < parts.size(); ++i) {
        if (reread[i].name != parts[i].name || reread[i].fileName != parts[i].fileName ||
            reread[i].content != parts[i].content) {
          std::abort();
        }
      }
      return 0;
    }
    case 1: {
      const std::string boundary = gw::multipartBoundary(rest);
      if (boundary.size() > 70) std::abort();
      return 0;
    }
    default: {
      static const char* const kCodings[] = {"gzip", "deflate", "br", "identity"};
      if (rest.empty()) return 0;
      std::string body = rest.substr(1);
      const gw::BodyStatus status =
          gw::decodeContent(kCodings[static_cast<unsigned char>(rest[0]) % 4], &body, kLimit);
      if (status == gw::BodyStatus::kOk && body.size() > kLimit) std::abort();
      return 0;
    }
  }
}

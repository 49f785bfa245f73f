// Reading a request body once the transport has it: undoing its
// Content-Encoding and splitting a multipart/form-data body into its parts.
// Nothing here touches a socket, so unit tests and the fuzzer drive it with
// plain strings.
//
//   std::string body = ...;                       // as the client sent it
//   if (decodeContent("gzip", &body, limit) != BodyStatus::kOk) ...
//   std::vector<FormPart> parts;
//   const std::string boundary = multipartBoundary(contentType);
//   if (!boundary.empty() && !parseMultipart(body, boundary, &parts)) ...
//
// Thread-safety: plain functions.
#ifndef NOX_GATEWAY_REQUEST_BODY_H_
#define NOX_GATEWAY_REQUEST_BODY_H_

#include <cstddef>
#include <string>
#include <vector>

#include "http_mapping.h"

namespace gw {

enum class BodyStatus {
  kOk,
  kTooLarge,     // more than the limit once decoded
  kMalformed,    // not a valid stream of its coding
  kUnsupported,  // a coding the gateway does not know
};

// Replaces *body with its decoded form for the Content-Encoding `encoding`
// ("gzip", "x-gzip", "deflate", "br"; "" and "identity" leave it as it is).
// The decoded size counts against `limit`: a small body that would inflate
// beyond it is refused as soon as the limit is crossed, never unpacked whole.
BodyStatus decodeContent(const std::string& encoding, std::string* body, size_t limit);

// The boundary of a multipart/form-data Content-Type, unquoted:
//   multipartBoundary("multipart/form-data; boundary=\"a b\"") == "a b"
// "" when the type is not multipart/form-data or names no valid boundary.
std::string multipartBoundary(const std::string& contentType);

// Splits a multipart/form-data `body` by `boundary` into *parts: each part's
// name and file name (from Content-Disposition), its Content-Type and its
// bytes. Returns false for a body that is not well formed (no closing
// delimiter, a part without Content-Disposition or without headers' end).
bool parseMultipart(const std::string& body, const std::string& boundary,
                    std::vector<FormPart>* parts);

}  // namespace gw

#endif  // NOX_GATEWAY_REQUEST_BODY_H_

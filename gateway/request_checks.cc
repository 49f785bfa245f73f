#include "request_checks.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <strings.h>

#include "error_table.h"
#include "http_server.h"
#include "request_body.h"
#include "request_decoding.h"

namespace gw {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

bool takesNoBody(const std::string& method) {
  return method == "GET" || method == "HEAD" || method == "OPTIONS";
}

}  // namespace

bool servedMethod(const std::string& method) {
  static const char* const kServed[] = {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE",
                                        "OPTIONS"};
  for (const char* served : kServed) {
    if (method == served) return true;
  }
  return false;
}

std::optional<Refusal> headerRefusal(const BeastRequest& req, bool chunked,
                                     const ServerConfig& config) {
  const std::string method(req.method_string());
  if (!servedMethod(method)) {
    return Refusal{405, kErrMethodNotAllowed, describeCode(kErrMethodNotAllowed)};
  }
  size_t headers = 0;
  for (auto it = req.begin(); it != req.end(); ++it) ++headers;
  if (headers > config.maxHeaders) {
    return Refusal{431, kErrBadRequest, "The request carries too many headers."};
  }
  // Transfer codings other than plain chunks, or the length given twice
  // (even twice the same): a front proxy and the gateway could disagree
  // on where the body ends.
  const auto coding = req.find(http::field::transfer_encoding);
  if ((coding != req.end() && !beast::iequals(coding->value(), "chunked")) ||
      req.count(http::field::content_length) > 1) {
    return Refusal{400, kErrBadRequest, "The request body is framed ambiguously."};
  }
  if (takesNoBody(method) && (req.has_content_length() || chunked)) {
    return Refusal{400, kErrBadRequest, "This method takes no request body."};
  }
  return std::nullopt;
}

std::optional<Refusal> headerReadRefusal(beast::error_code ec, bool requestLineRead) {
  if (ec == http::error::end_of_stream || ec == net::error::eof ||
      ec == net::error::connection_reset || ec == net::error::operation_aborted ||
      ec == net::ssl::error::stream_truncated) {
    return std::nullopt;
  }
  if (ec == http::error::header_limit) {
    // The parser takes the request line first: without it, the request
    // line alone is over the limit, which is a target too long.
    if (!requestLineRead) return Refusal{414, kErrBadRequest, "The request target is too long."};
    return Refusal{431, kErrBadRequest, "The request header is too large."};
  }
  if (ec == http::error::body_limit) {
    return Refusal{413, kErrBodyTooLarge, describeCode(kErrBodyTooLarge)};
  }
  return Refusal{400, kErrBadRequest, "The request could not be read."};
}

std::optional<Refusal> decodeRequestBody(HttpInput* in, size_t limit) {
  // Bodies are counted after inflating, so that a small body cannot
  // unpack into a large one.
  switch (decodeContent(headerValue(in->headers, "Content-Encoding"), &in->body, limit)) {
    case BodyStatus::kOk:
      break;
    case BodyStatus::kTooLarge:
      return Refusal{413, kErrBodyTooLarge, describeCode(kErrBodyTooLarge)};
    case BodyStatus::kUnsupported:
      return Refusal{415, kErrBadRequest,
                     "The request body's Content-Encoding is not supported."};
    case BodyStatus::kMalformed:
      return Refusal{400, kErrBadRequest, "The request body could not be read."};
  }
  const std::string type = headerValue(in->headers, "Content-Type");
  if (strncasecmp(type.c_str(), "multipart/form-data", 19) == 0) {
    const std::string boundary = multipartBoundary(type);
    if (boundary.empty() || !parseMultipart(in->body, boundary, &in->parts)) {
      return Refusal{400, kErrBadRequest, "The request body could not be read."};
    }
    in->multipart = true;
    in->body.clear();
  }
  return std::nullopt;
}

std::string requestClientOf(const BeastRequest& req, const std::string& peer,
                            const std::vector<AddressRange>& trustedProxies) {
  if (trustedProxies.empty()) return peer;
  std::string forwardedFor;
  for (const auto& field : req) {
    if (!beast::iequals(field.name_string(), kForwardedForHeader)) continue;
    if (!forwardedFor.empty()) forwardedFor += ',';
    forwardedFor += std::string(field.value());
  }
  return clientAddressOf(peer, forwardedFor, trustedProxies);
}

BeastResponse wireAnswer(HttpOutput& out, unsigned version, bool keepAlive, bool head) {
  BeastResponse res;
  res.version(version == 10 ? 10 : 11);
  res.result(static_cast<unsigned>(out.status));
  res.set(http::field::content_type, out.contentType);
  for (const auto& header : out.headers) res.insert(header.first, header.second);
  res.keep_alive(keepAlive);
  if (head) {
    // The length of the body a GET would have had, and no body.
    res.content_length(out.body.size());
  } else {
    res.body() = std::move(out.body);
    res.prepare_payload();
  }
  return res;
}

}  // namespace gw

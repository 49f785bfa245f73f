// The server's rules for one request, apart from its socket: which header
// it refuses, what a read error answers, how the body is decoded, who the
// client is, and the wire answer built from an HttpOutput. HttpServer's
// connections call these; each is a plain function of its inputs, so the
// unit tests can drive them without a connection.
//
//   std::optional<Refusal> no = headerRefusal(parser.get(), parser.chunked(), config);
//   if (no) ...   // no->status == 405, 431 or 400, with the envelope's code and text
//
// Thread-safety: plain functions.
#ifndef NOX_GATEWAY_REQUEST_CHECKS_H_
#define NOX_GATEWAY_REQUEST_CHECKS_H_

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>
#include <string>
#include <vector>

#include "forwarded_for.h"
#include "http_exchange.h"

namespace gw {

struct ServerConfig;

using BeastRequest = boost::beast::http::request<boost::beast::http::string_body>;
using BeastResponse = boost::beast::http::response<boost::beast::http::string_body>;

// What the transport answers a request it will not serve (then it closes
// the connection): the status, and the envelope's code and text.
struct Refusal {
  int status;
  long long code;
  std::string description;
};

// The methods the gateway serves; TRACE, CONNECT and others are refused
// before routing.
bool servedMethod(const std::string& method);

// The refusal of a header read whole, or nullopt to go on: a method not
// served (405), more header lines than allowed (431), a body framed
// ambiguously (a transfer coding other than chunked, Content-Length twice)
// or a body on a method that takes none (400).
std::optional<Refusal> headerRefusal(const BeastRequest& req, bool chunked,
                                     const ServerConfig& config);

// What a failed header read answers: nullopt when the client went away
// (close without an answer); 414 or 431 for a header over the limit
// (`requestLineRead` false: the request line alone was too long), 413 for a
// body over the limit, else 400.
std::optional<Refusal> headerReadRefusal(boost::beast::error_code ec, bool requestLineRead);

// Inflates in->body (Content-Encoding, counted after inflating against
// `limit`) and splits a multipart/form-data body into in->parts. nullopt,
// or the refusal (413, 415, 400).
std::optional<Refusal> decodeRequestBody(HttpInput* in, size_t limit);

// The request's client: `peer`, or, when `peer` is a trusted proxy, the
// client its X-Forwarded-For headers name (forwarded_for.h).
std::string requestClientOf(const BeastRequest& req, const std::string& peer,
                            const std::vector<AddressRange>& trustedProxies);

// The wire answer of `out`: HTTP/1.0 for a 1.0 request, else 1.1; for HEAD
// the length of the body a GET would have had, and no body. out.body is
// moved.
BeastResponse wireAnswer(HttpOutput& out, unsigned version, bool keepAlive, bool head);

}  // namespace gw

#endif  // NOX_GATEWAY_REQUEST_CHECKS_H_

// One HTTP exchange as the gateway's mapping sees it, apart from sockets: the
// request as it arrived (HttpInput) and the answer to send (HttpOutput), with
// the two constructors of answers every layer uses.
//
//   HttpOutput out = errorOutput(kErrRouteNotFound, describeCode(kErrRouteNotFound));
//   // out.status == 404, out.body == {"code":...,"description":...}
//
// Thread-safety: plain values and functions.
#ifndef NOX_GATEWAY_HTTP_EXCHANGE_H_
#define NOX_GATEWAY_HTTP_EXCHANGE_H_

#include <json/json.h>

#include <string>
#include <utility>
#include <vector>

namespace gw {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One part of a multipart/form-data body: a file when fileName is not empty,
// else a form field.
struct FormPart {
  std::string name;
  std::string fileName;
  std::string contentType;
  std::string content;
};

struct HttpInput {
  std::string method;           // as sent ("GET", "post", ...)
  std::string target;           // path and query as sent, percent-encoded
  HeaderList headers;           // names compare case-insensitively
  std::string body;             // the raw body (not used when multipart)
  bool multipart = false;       // the body arrived as multipart/form-data
  std::vector<FormPart> parts;  // its parts, in order
  std::string clientAddress;
};

struct HttpOutput {
  int status = 200;
  std::string contentType = "application/json";
  HeaderList headers;  // further headers of the answer (never Content-Type)
  std::string body;
  std::string user;     // the session's user, for the access log ("" without one)
  std::string session;  // the session's public identifier, for the access log
  // The route the answer belongs to, for the metrics: a registered URL
  // ("/kestrel_task", "/v1/alarm/historyalarm"), a built-in path, or "other".
  std::string route = "other";
  long long code = 0;  // the error envelope's code, 0 for none
  // False for answers that may carry a secret (a token, a session id, a
  // verification code): the server then never compresses them, whatever the
  // client accepts, so that no secret shares a compressed stream with text
  // an attacker chose (BREACH).
  bool compressible = true;
};

// The content type of JSON answers and bodies.
extern const char kJsonType[];  // "application/json"

// The Retry-After of every 503 answer (busy, backend or session store not
// available), in seconds.
extern const char kRetryAfterSeconds[];  // "1"

// An answer of `status` whose body is `value`, written compactly.
HttpOutput jsonOutput(int status, const Json::Value& value);

// An error answer: the status for `code` and the envelope; a 503 carries
// Retry-After.
HttpOutput errorOutput(long long code, const std::string& description);

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_EXCHANGE_H_

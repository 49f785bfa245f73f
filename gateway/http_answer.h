// The answer side of the HTTP server, apart from sockets: what every answer
// carries besides what the dispatcher made (protective headers, the request
// identifier, HSTS over HTTPS, Secure cookies), compression when the client
// accepts it and the answer may be compressed, and the refusals the
// transport itself answers with.
//
//   AnswerContext context;
//   context.secure = true;
//   context.requestId = requestIdFor(headerValue(in.headers, "X-Request-Id"));
//   context.acceptEncoding = headerValue(in.headers, "Accept-Encoding");
//   finishAnswer(&out, context);          // out.headers complete, body maybe compressed
//
// Thread-safety: plain functions.
#ifndef NOX_GATEWAY_HTTP_ANSWER_H_
#define NOX_GATEWAY_HTTP_ANSWER_H_

#include <string>

#include "http_mapping.h"

namespace gw {

struct AnswerContext {
  bool secure = false;          // HTTPS: cookies get Secure, hsts applies
  long long hstsMaxAge = 0;     // Strict-Transport-Security max-age over HTTPS; 0: none
  std::string requestId;        // sent back as X-Request-Id
  std::string acceptEncoding;   // the request's Accept-Encoding
};

// The client's X-Request-Id when it is 1 to 64 characters of letters,
// digits, '.', '_' and '-' (safe in every log); else 128 new random bits in
// hex.
std::string requestIdFor(const std::string& given);

// The content coding to answer with for `acceptEncoding`: "br" when the
// client takes it, else "gzip" when it takes that, else "" (q=0 refuses).
//   chooseEncoding("gzip, br;q=0") == "gzip"
std::string chooseEncoding(const std::string& acceptEncoding);

// Completes `out` for the wire (see above). Compresses the body when
// out->compressible, its type is text or JSON, it is at least 256 bytes and
// the client accepts br or gzip; adds Content-Encoding and Vary then.
void finishAnswer(HttpOutput* out, const AnswerContext& context);

// A refusal of the transport: `status` with the error envelope of `code`.
HttpOutput refusal(int status, long long code, const std::string& description);

}  // namespace gw

#endif  // NOX_GATEWAY_HTTP_ANSWER_H_

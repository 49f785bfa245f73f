// Request decoding: from the request as it arrived to the values the host
// takes. Target splitting, percent-decoding, query arguments, header
// lookup, the language a client asks for, and the body as the operations
// read it (JSON, a form, or uploaded files).
//
//   RequestTarget t = splitTarget("/kestrel_task/T%2D1?LANGUAGE=zh");
//   // t.path == "/kestrel_task/T%2D1", t.query == "LANGUAGE=zh"
//   parseQuery(t.query);                // {("LANGUAGE", "zh")}
//
// Thread-safety: plain functions.
#ifndef NOX_GATEWAY_REQUEST_DECODING_H_
#define NOX_GATEWAY_REQUEST_DECODING_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "http_exchange.h"
#include "request_msg.h"

namespace gw {

// A request target cut once at its first '?'; both parts stay
// percent-encoded.
struct RequestTarget {
  std::string path;
  std::string query;
};
RequestTarget splitTarget(const std::string& target);

// Percent-decoding. `plusIsSpace` also turns '+' into a blank (query texts).
// Malformed escapes are kept as they are.
//   urlDecode("a%2Fb+c", true) == "a/b c", urlDecode("%zz", false) == "%zz"
std::string urlDecode(const std::string& text, bool plusIsSpace);

// Splits "a=1&b=x%20y&c" into {("a","1"), ("b","x y"), ("c","")}, decoding
// names and values; empty pieces are skipped.
std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query);

// The value of header `name` (case-insensitive), or "".
std::string headerValue(const HeaderList& headers, const std::string& name);

// True when `method` is `name` in any case ("get" is GET).
bool isMethod(const std::string& method, const char* name);

// GET or HEAD, in any case: a call that reads and changes nothing.
bool isReadMethod(const std::string& method);

// The language from an Accept-Language value: "zh" when the first choice
// starts with "zh" (any case), else "en".
std::string languageFromAcceptLanguage(const std::string& value);

// The language a LANGUAGE argument asks for: "zh" for exactly "zh", "en"
// for any other value, "" when there is none (the session's language then).
std::string languageFromArgument(const std::string& value);

// True when the body is a form (url-encoded or multipart), which a page of
// another site can make a browser send without asking.
bool isFormBody(const HttpInput& in);

// Fills the body of `request` from the input: the uploaded files and form
// fields of a multipart body, the fields of a url-encoded form, or the JSON
// of a body declared JSON or not declared at all. Returns 0, or the error
// code that refuses the request (kErrBodyTooLarge beyond `maxBody` bytes,
// kErrBadRequest for JSON that cannot be read).
long long fillBody(const HttpInput& in, size_t maxBody, CRequestMsg& request);

}  // namespace gw

#endif  // NOX_GATEWAY_REQUEST_DECODING_H_

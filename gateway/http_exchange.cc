#include "http_exchange.h"

#include "compact_json.h"
#include "error_table.h"

namespace gw {

const char kJsonType[] = "application/json";
const char kRetryAfterSeconds[] = "1";

HttpOutput jsonOutput(int status, const Json::Value& value) {
  HttpOutput out;
  out.status = status;
  out.body = toCompactJson(value);
  return out;
}

HttpOutput errorOutput(long long code, const std::string& description) {
  HttpOutput out = jsonOutput(httpStatusForCode(code), errorEnvelope(code, description));
  out.code = code;
  // Busy, or a service it needs (backend, session store) not there: the
  // client may try again shortly.
  if (out.status == 503) out.headers.emplace_back("Retry-After", kRetryAfterSeconds);
  return out;
}

}  // namespace gw

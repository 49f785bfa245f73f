// Compact JSON text of a jsoncpp value, written straight into a string.
//
// Every answer of the gateway goes through here, so it is written for speed:
// one pass, no stream, no settings to look up. The text is the one jsoncpp's
// own writer gives with no indentation and UTF-8 kept:
//
//   {"data":[{"name":"每日备份","size":12}],"error":{"code":0}}
//
// - members in the value's own order (jsoncpp keeps them sorted by name);
// - strings: '"' and '\\' escaped, \b \f \n \r \t as such, other control
//   characters as \u00XX, every other byte as it is (UTF-8 passes through);
// - reals as jsoncpp writes them (17 significant digits); NaN as null.
// Comments attached to a value are not written.
//
// Thread-safety: pure functions.
#ifndef NOX_GATEWAY_COMPACT_JSON_H_
#define NOX_GATEWAY_COMPACT_JSON_H_

#include <json/json.h>

#include <string>

namespace gw {

// Appends the compact text of `value` to *out.
void appendCompactJson(const Json::Value& value, std::string* out);

// Compact JSON text (no trailing line feed) of `value`.
std::string toCompactJson(const Json::Value& value);

}  // namespace gw

#endif  // NOX_GATEWAY_COMPACT_JSON_H_

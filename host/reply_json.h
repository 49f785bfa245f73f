// The reference host's generic conversion of a reply package into the JSON
// answer, for operations that leave their result in the reply cells instead
// of writing a JSON body. The HTTP server never looks inside a reply: it
// sends what this makes.
//
// Each record becomes an object whose members are named by the field table of
// the object type (tag -> member name); tags the table does not name become
// "tag<N>". Numeric cells become JSON integers, text cells strings, JSON
// cells (types 7 and 8) the parsed value (their text when it does not parse),
// binary cells lower-case hex.
//
//   task record {1: "T-0001", 4: 2, 0x58: ""}  ->  {"taskId": "T-0001", "status": 2, "detail": ""}
//
// The shape follows the request: {"count": n} for a count ("count" as first
// resource identifier of a managed-object read), an array for a list, one
// object otherwise (a read by identifier, a non-managed-object query).
//
// Thread-safety: pure functions of their arguments.
#ifndef NOX_HOST_REPLY_JSON_H_
#define NOX_HOST_REPLY_JSON_H_

#include <json/json.h>

#include <cstdint>

#include "nox_visibility.h"
#include "request_msg.h"
#include "tlv_package.h"

namespace reply {

// Nesting depth beyond which newJsonReader's parse() throws (jsoncpp's way
// of refusing it); no request or stored text needs more.
constexpr int kMaxJsonDepth = 100;

// A JSON reader for text from the backend or a client (comments dropped,
// nesting at most kMaxJsonDepth levels), made from settings built once. The
// caller owns it.
HOST_API Json::CharReader* newJsonReader();

// The member name of `tag` in objects of `objType`, or null when the table
// has none.
HOST_API const char* fieldName(uint32_t objType, unsigned short tag);

// One cell's JSON value (null for a cell without a value).
HOST_API Json::Value cellToJson(const CTLVCell& cell);

// One record as a JSON object, member names from objType's table.
HOST_API Json::Value recordToJson(const CR3MRecordV3& record, uint32_t objType);

// The object type a reply belongs to: the request's managed-object type, else
// the high half of the response's command code, else that of the reply's
// first record.
HOST_API uint32_t replyObjectType(const CRequestMsg& request, const CResponseMsg& response);

// The whole answer: {"data": ..., "error": {"code": 0, "description": "0"}}
// with the reply template entries merged in as further top-level members.
HOST_API Json::Value genericReply(const CRequestMsg& request, const CResponseMsg& response);

}  // namespace reply

#endif  // NOX_HOST_REPLY_JSON_H_

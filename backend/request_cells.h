// Reading the cells of a request record with the checks the simulated
// backend applies: a cell that is present but of the wrong type, without a
// value or truncated raises BadRequest, which the backend answers with
// proto::kErrInvalidArgument.
//
//   std::string name;
//   if (readText(record, 1, &name)) ...          // false: no cell 1
//   long long kind = requireInt(record, 1);      // BadRequest when missing
//
// Thread-safety: plain functions of their arguments.
#ifndef NOX_BACKEND_REQUEST_CELLS_H_
#define NOX_BACKEND_REQUEST_CELLS_H_

#include <stdexcept>
#include <string>

#include "tlv_package.h"

// Raised for a request cell that is missing, of the wrong type or truncated.
class BadRequest : public std::runtime_error {
 public:
  explicit BadRequest(const std::string& what) : std::runtime_error(what) {}
};

// The text of a string cell: its bytes up to the terminating zero, which must
// lie within the cell's length. Returns false when the cell is absent.
bool readText(const CR3MRecordV3& record, unsigned short tag, std::string* out);
std::string requireText(const CR3MRecordV3& record, unsigned short tag);

// The value of a numeric cell (types 3, 4, 5, 6, 9 with 1 to 8 bytes).
// Returns false when the cell is absent.
bool readInt(const CR3MRecordV3& record, unsigned short tag, long long* out);
long long requireInt(const CR3MRecordV3& record, unsigned short tag);

// A non-negative count from an optional cell, `fallback` when absent.
long long optionalCount(const CR3MRecordV3& record, unsigned short tag, long long fallback);
// A time from an optional cell. Times are unsigned 64-bit; those beyond the
// signed range mean "no limit" and are clamped to it.
long long optionalTime(const CR3MRecordV3& record, unsigned short tag, long long fallback);

// Requires tag 0 to be the import commands' target, proto::kImportTarget.
void requireImportTarget(const CR3MRecordV3& record);

#endif  // NOX_BACKEND_REQUEST_CELLS_H_

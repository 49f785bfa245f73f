#include "request_cells.h"

#include <climits>
#include <cstring>

#include "backend_protocol.h"

bool readText(const CR3MRecordV3& record, unsigned short tag, std::string* out) {
  const CTLVCell* cell = record.find(tag);
  if (cell == nullptr) return false;
  const unsigned char* bytes = cell->data();
  const unsigned length = cell->getLength();
  if (cell->getType() != CTLVCell::TLV_STRING || bytes == nullptr || length == 0) {
    throw BadRequest("cell " + std::to_string(tag) + " is not a text");
  }
  const void* end = std::memchr(bytes, 0, length);
  if (end == nullptr) throw BadRequest("cell " + std::to_string(tag) + " is truncated");
  out->assign(reinterpret_cast<const char*>(bytes), static_cast<const unsigned char*>(end) - bytes);
  return true;
}

std::string requireText(const CR3MRecordV3& record, unsigned short tag) {
  std::string text;
  if (!readText(record, tag, &text)) throw BadRequest("cell " + std::to_string(tag) + " missing");
  return text;
}

bool readInt(const CR3MRecordV3& record, unsigned short tag, long long* out) {
  const CTLVCell* cell = record.find(tag);
  if (cell == nullptr) return false;
  const unsigned length = cell->getLength();
  if (length == 0 || length > 8 || cell->data() == nullptr) {
    throw BadRequest("cell " + std::to_string(tag) + " has no number");
  }
  try {
    *out = cell->toInt64();
  } catch (const QPNException&) {
    throw BadRequest("cell " + std::to_string(tag) + " is not numeric");
  }
  return true;
}

long long requireInt(const CR3MRecordV3& record, unsigned short tag) {
  long long value = 0;
  if (!readInt(record, tag, &value)) {
    throw BadRequest("cell " + std::to_string(tag) + " missing");
  }
  return value;
}

long long optionalCount(const CR3MRecordV3& record, unsigned short tag, long long fallback) {
  long long value = fallback;
  if (readInt(record, tag, &value) && value < 0) {
    throw BadRequest("cell " + std::to_string(tag) + " is negative");
  }
  return value;
}

long long optionalTime(const CR3MRecordV3& record, unsigned short tag, long long fallback) {
  long long value = fallback;
  if (!readInt(record, tag, &value)) return fallback;
  if (value < 0) {
    if (record.find(tag)->getType() != CTLVCell::TLV_UINT64) {
      throw BadRequest("cell " + std::to_string(tag) + " is negative");
    }
    value = LLONG_MAX;
  }
  return value;
}

void requireImportTarget(const CR3MRecordV3& record) {
  if (requireInt(record, 0) != proto::kImportTarget) throw BadRequest("unknown import target");
}

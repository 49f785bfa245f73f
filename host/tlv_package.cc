#include "tlv_package.h"

#include <cstdio>
#include <cstring>

namespace {

// Copies `length` bytes into `value`, inline up to seven bytes, else on the
// heap with one extra zero byte so that text is always terminated.
void storeBytes(CellValue& value, const void* data, unsigned long length) {
  value.clear();
  if (length <= sizeof(value.bytes_)) {
    if (data != nullptr && length > 0) std::memcpy(value.bytes_, data, length);
    return;
  }
  unsigned char* heap = new unsigned char[length + 1];
  if (data != nullptr) {
    std::memcpy(heap, data, length);
  } else {
    std::memset(heap, 0, length);
  }
  heap[length] = 0;
  value.heap_ = 1;
  value.ptr_ = heap;
}

}  // namespace

CTLVCell::CTLVCell(const CTLVCell& other) : length_(other.length_), typeTag_(other.typeTag_) {
  if (other.value_.heap_ != 0 && other.value_.ptr_ == nullptr) {
    value_.heap_ = 1;  // keep the "null heap value" state
    return;
  }
  storeBytes(value_, other.data(), other.length_);
}

CTLVCell& CTLVCell::operator=(const CTLVCell& other) {
  if (this == &other) return *this;
  CTLVCell copy(other);
  std::swap(length_, copy.length_);
  std::swap(typeTag_, copy.typeTag_);
  std::swap(value_, copy.value_);
  return *this;
}

CTLVCell::~CTLVCell() { value_.clear(); }

void CTLVCell::set_i(ETLVType type, unsigned short tag, void* data, unsigned long length) {
  storeBytes(value_, data, length);
  length_ = static_cast<uint32_t>(length);
  typeTag_ = static_cast<uint16_t>(((tag & 0x0FFF) << 4) | (static_cast<unsigned>(type) & 0xF));
}

void CTLVCell::setString(unsigned short tag, const std::string& text) {
  set_i(TLV_STRING, tag, const_cast<char*>(text.c_str()), text.size() + 1);
}

void CTLVCell::setUInt32(unsigned short tag, uint32_t value) {
  unsigned char b[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                        static_cast<unsigned char>(value >> 16),
                        static_cast<unsigned char>(value >> 24)};
  set_i(TLV_UINT32, tag, b, sizeof(b));
}

void CTLVCell::setInt32(unsigned short tag, int32_t value) {
  setUInt32(tag, static_cast<uint32_t>(value));
  typeTag_ = static_cast<uint16_t>((typeTag_ & 0xFFF0) | TLV_INT32);
}

void CTLVCell::setUInt64(unsigned short tag, uint64_t value) {
  unsigned char b[8];
  for (int i = 0; i < 8; ++i) b[i] = static_cast<unsigned char>(value >> (8 * i));
  set_i(TLV_UINT64, tag, b, sizeof(b));
}

long long CTLVCell::toInt64() const {
  checkNumerical();
  const unsigned char* b = data();
  if (b == nullptr || length_ == 0) return 0;
  const unsigned n = length_ < 8 ? length_ : 8;
  unsigned long long v = 0;
  for (unsigned i = 0; i < n; ++i) v |= static_cast<unsigned long long>(b[i]) << (8 * i);
  if (getType() == TLV_INT32 && n < 8 && (b[n - 1] & 0x80) != 0) {
    v |= ~0ULL << (8 * n);  // sign-extend
  }
  return static_cast<long long>(v);
}

std::string CTLVCell::toString() const {
  switch (getType()) {
    case TLV_STRING:
      return std::string(static_cast<const char*>(*this));
    case TLV_JSON:
    case TLV_JSON_ARRAY: {
      const unsigned char* b = data();
      if (b == nullptr) {
        throw QPNException("CTLVCell string value is null,tag " + std::to_string(getTag()) +
                           " length " + std::to_string(length_));
      }
      return std::string(reinterpret_cast<const char*>(b), length_);
    }
    case TLV_UINT32:
    case TLV_INT32:
    case TLV_UINT8:
    case TLV_UINT16:
    case TLV_UINT64:
      if (getType() == TLV_UINT64) return std::to_string(static_cast<unsigned long long>(toInt64()));
      return std::to_string(toInt64());
    case TLV_BINARY: {
      std::string hex;
      const unsigned char* b = data();
      char buf[3];
      for (uint32_t i = 0; b != nullptr && i < length_; ++i) {
        std::snprintf(buf, sizeof(buf), "%02x", b[i]);
        hex += buf;
      }
      return hex;
    }
    default:
      throw QPNException("CTLVCell has no value! tag equal to " + std::to_string(getTag()));
  }
}

CR3MRecordV3::CR3MRecordV3(const CR3MRecordV3& other)
    : command_(other.command_), word_(other.word_) {
  cells_.reserve(other.cells_.size());
  for (const CTLVCell* cell : other.cells_) cells_.push_back(new CTLVCell(*cell));
}

CR3MRecordV3& CR3MRecordV3::operator=(const CR3MRecordV3& other) {
  if (this == &other) return *this;
  CR3MRecordV3 copy(other);
  std::swap(command_, copy.command_);
  std::swap(word_, copy.word_);
  cells_.swap(copy.cells_);
  return *this;
}

CR3MRecordV3::~CR3MRecordV3() {
  for (CTLVCell* cell : cells_) delete cell;
}

CTLVCell& CR3MRecordV3::operator[](unsigned short tag) {
  if (CTLVCell* cell = find(tag)) return *cell;
  CTLVCell* cell = new CTLVCell();
  cell->typeTag_ = static_cast<uint16_t>((tag & 0x0FFF) << 4);
  cells_.push_back(cell);
  return *cell;
}

void CR3MRecordV3::appendInner(CTLVCell* cell) {
  if (cell == nullptr) return;
  for (CTLVCell*& existing : cells_) {
    if (existing->getTag() == cell->getTag()) {
      if (existing != cell) delete existing;
      existing = cell;
      return;
    }
  }
  cells_.push_back(cell);
}

CR3MPackageV3::CR3MPackageV3(const CR3MPackageV3& other) {
  records_.reserve(other.records_.size());
  for (const CR3MRecordV3* record : other.records_) records_.push_back(new CR3MRecordV3(*record));
}

CR3MPackageV3& CR3MPackageV3::operator=(const CR3MPackageV3& other) {
  if (this == &other) return *this;
  CR3MPackageV3 copy(other);
  records_.swap(copy.records_);
  return *this;
}

void CR3MPackageV3::clear() {
  for (CR3MRecordV3* record : records_) delete record;
  records_.clear();
}

void CR3MPackageV3::appendRecord(CR3MRecordV3* record) {
  if (record != nullptr) records_.push_back(record);
}

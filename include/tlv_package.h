// TLV packages: what operations exchange with the backend.
//
// A CR3MPackageV3 holds records in order; a CR3MRecordV3 carries a 32-bit
// command code, a second 32-bit header word and cells looked up by 16-bit tag;
// a CTLVCell is one typed value. Values of up to seven bytes are held inline in
// the cell (no allocation); longer ones on the heap.
//
// The text and integer conversions of a cell, picking a record by index and
// the package's destructor are defined inline here; the rest is the host's.
//
// Thread-safety: packages belong to the request being served; no locking.
#ifndef NOX_INCLUDE_TLV_PACKAGE_H_
#define NOX_INCLUDE_TLV_PACKAGE_H_

#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "qpn_exception.h"

// Where a cell's bytes live: inline when heap_ is clear, else at ptr_
// (allocated with array new).
struct HOST_API CellValue {
  unsigned char heap_ = 0;
  unsigned char bytes_[7] = {0, 0, 0, 0, 0, 0, 0};
  unsigned char* ptr_ = nullptr;

  // Frees a heap value and resets the value to empty.
  void clear() {
    if (heap_ != 0 && ptr_ != nullptr) delete[] ptr_;
    heap_ = 0;
    std::memset(bytes_, 0, sizeof(bytes_));
    ptr_ = nullptr;
  }
};

class HOST_API CTLVCell {
 public:
  // Type codes (low four bits of the type/tag word).
  enum ETLVType {
    TLV_NONE = 0,        // no value yet (a cell made by a tag lookup)
    TLV_BINARY = 1,      // raw bytes
    TLV_STRING = 2,      // NUL-terminated text; length counts the NUL
    TLV_UINT32 = 3,      // unsigned, little-endian
    TLV_INT32 = 4,       // signed, little-endian
    TLV_UINT8 = 5,       // unsigned
    TLV_UINT16 = 6,      // unsigned
    TLV_JSON_ARRAY = 7,  // JSON text of an array, no NUL counted
    TLV_JSON = 8,        // JSON text of an object, no NUL counted
    TLV_UINT64 = 9,      // unsigned 64-bit, little-endian
  };

  CTLVCell() = default;
  CTLVCell(const CTLVCell& other);
  CTLVCell& operator=(const CTLVCell& other);
  ~CTLVCell();

  // Stores `length` bytes from `data` as a value of `type` under `tag`. Values
  // of up to seven bytes go inline, longer ones to the heap (with one extra
  // zero byte so that text is always terminated). A null `data` stores
  // `length` zero bytes.
  void set_i(ETLVType type, unsigned short tag, void* data, unsigned long length);

  // Convenience setters of the reference host.
  void setString(unsigned short tag, const std::string& text);  // length = size + 1
  void setUInt32(unsigned short tag, uint32_t value);
  void setInt32(unsigned short tag, int32_t value);
  void setUInt64(unsigned short tag, uint64_t value);

  // A readable rendering: the text of text and JSON cells, the decimal value
  // of numeric cells, lower-case hex of binary cells. Throws QPNException for
  // a cell without a value or a text cell whose heap pointer is null.
  std::string toString() const;

  // The cell's text. Throws QPNException unless the type is TLV_STRING or when
  // a heap value's pointer is null. Returns a pointer into the cell.
  operator char const*() const {
    if (getType() != TLV_STRING) {
      throw QPNException("CTLVCell isn't string type! tag equal to " + std::to_string(getTag()));
    }
    if (value_.heap_ == 0) return reinterpret_cast<const char*>(value_.bytes_);
    if (value_.ptr_ != nullptr) return reinterpret_cast<const char*>(value_.ptr_);
    throw QPNException("CTLVCell string value is null,tag " + std::to_string(getTag()) +
                       " length " + std::to_string(length_));
  }

  // The value as a 32-bit signed integer; little-endian bytes, sign-extended
  // only for type 4 at lengths 1 and 2; a three-byte value is never
  // sign-extended; longer values are cut to their low four bytes.
  operator int() const {
    checkNumerical();
    if (length_ == 0) return 0;
    const unsigned char* b = value_.heap_ == 0 ? value_.bytes_ : value_.ptr_;
    const bool isSigned = getType() == TLV_INT32;
    switch (length_) {
      case 1:
        return isSigned ? static_cast<int>(static_cast<int8_t>(b[0])) : static_cast<int>(b[0]);
      case 2: {
        const uint16_t v = static_cast<uint16_t>(b[0] | (b[1] << 8));
        return isSigned ? static_cast<int>(static_cast<int16_t>(v)) : static_cast<int>(v);
      }
      case 3:
        return static_cast<int>(static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                                (static_cast<uint32_t>(b[2]) << 16));
      default:
        return static_cast<int>(static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                                (static_cast<uint32_t>(b[2]) << 16) |
                                (static_cast<uint32_t>(b[3]) << 24));
    }
  }

  // Throws QPNException unless the type is 3, 4, 5, 6 or 9.
  void checkNumerical() const {
    switch (getType()) {
      case TLV_UINT32:
      case TLV_INT32:
      case TLV_UINT8:
      case TLV_UINT16:
      case TLV_UINT64:
        return;
      default:
        throw QPNException("CTLVCell isn't numerical type! tag equal to " +
                           std::to_string(getTag()));
    }
  }

  unsigned short getTag() const { return static_cast<unsigned short>(typeTag_ >> 4); }
  int getType() const { return typeTag_ & 0xF; }
  unsigned int getLength() const { return length_; }
  // The value's bytes (inline or heap); null for a heap value without storage.
  const unsigned char* data() const { return value_.heap_ == 0 ? value_.bytes_ : value_.ptr_; }
  // The full value of a numeric cell, zero-extended (type 4 sign-extended).
  long long toInt64() const;

 private:
  friend class CR3MRecordV3;
  friend struct TlvCellTestAccess;

  uint32_t length_ = 0;
  uint16_t typeTag_ = 0;
  CellValue value_;
};

class HOST_API CR3MRecordV3 {
 public:
  CR3MRecordV3() = default;
  CR3MRecordV3(uint32_t command, uint32_t word) : command_(command), word_(word) {}
  CR3MRecordV3(const CR3MRecordV3& other);
  CR3MRecordV3& operator=(const CR3MRecordV3& other);
  ~CR3MRecordV3();

  // The cell with `tag`; a missing cell is created (type 0, no value).
  CTLVCell& operator[](unsigned short tag);
  // Takes ownership of `cell` and appends it (a cell of the same tag is
  // replaced).
  void appendInner(CTLVCell* cell);

  // The cell with `tag`, or null. Never creates a cell. Inline: it walks
  // the record's cells, so a caller needs nothing of the host for it.
  const CTLVCell* find(unsigned short tag) const {
    for (const CTLVCell* cell : cells_) {
      if (cell->getTag() == tag) return cell;
    }
    return nullptr;
  }
  CTLVCell* find(unsigned short tag) {
    for (CTLVCell* cell : cells_) {
      if (cell->getTag() == tag) return cell;
    }
    return nullptr;
  }
  bool has(unsigned short tag) const { return find(tag) != nullptr; }

  size_t cellCount() const { return cells_.size(); }
  const CTLVCell& cellAt(size_t index) const { return *cells_.at(index); }

  uint32_t command() const { return command_; }
  uint32_t word() const { return word_; }
  void setCommand(uint32_t command) { command_ = command; }
  void setWord(uint32_t word) { word_ = word; }

 private:
  uint32_t command_ = 0;
  uint32_t word_ = 0;
  std::vector<CTLVCell*> cells_;
};

class HOST_API CR3MPackageV3 {
 public:
  CR3MPackageV3() = default;
  CR3MPackageV3(const CR3MPackageV3& other);
  CR3MPackageV3& operator=(const CR3MPackageV3& other);
  // Clears the package, then frees the record sequence. A clear() that throws
  // ends the process: a destructor must not throw.
  virtual ~CR3MPackageV3() {
    try {
      clear();
    } catch (...) {
      std::terminate();
    }
  }

  // The record at `index` (0-based). Throws QPNException
  // "record don't exist, index is N" when there is no such record.
  CR3MRecordV3& operator[](size_t index) {
    if (index < records_.size()) return *records_[index];
    throw QPNException("record don't exist, index is " + std::to_string(index));
  }

  // Empties the package and releases its records.
  void clear();
  // Appends a new empty record and returns it. Inline, over the declared
  // layout: the room is made first, so no record is lost when it fails.
  CR3MRecordV3& addRecord(uint32_t command, uint32_t word) {
    records_.reserve(records_.size() + 1);
    records_.push_back(new CR3MRecordV3(command, word));
    return *records_.back();
  }
  // Takes ownership of `record` and appends it.
  void appendRecord(CR3MRecordV3* record);
  size_t size() const { return records_.size(); }
  const CR3MRecordV3& recordAt(size_t index) const { return *records_.at(index); }

 protected:
  std::vector<CR3MRecordV3*> records_;
};

// The backend device a package is sent for.
struct HOST_API CDeviceID {
  std::string id_;
  std::string address_;
};

// Who sends a package: the session's user.
struct HOST_API UserContext {
  std::string userName_;
  std::string userId_;
  std::string scope_;
  std::string clientAddress_;
};

struct HOST_API CommunicationTarget {
  enum TargetType { TARGET_BACKEND = 0, TARGET_EVENT = 1 };
};

class HOST_API CTlvMsg {
 public:
  // Sends `request` to the backend and fills `reply`. Returns 0. A failure the
  // backend reports, a missing backend or a time-out is thrown as
  // QPNExceptionWithErrCode_ with the code.
  static int sendMessage(const CDeviceID& device, const UserContext& user, CR3MPackageV3& request,
                         CR3MPackageV3& reply, std::string interfaceVersion, int timeout,
                         CommunicationTarget::TargetType target);
};

#endif  // NOX_INCLUDE_TLV_PACKAGE_H_

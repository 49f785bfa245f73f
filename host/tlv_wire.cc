#include "tlv_wire.h"

#include <cstdio>

namespace tlvwire {

namespace {

constexpr size_t kRecordHeadBytes = 12;  // command, word, cell count
constexpr size_t kCellHeadBytes = 6;     // type/tag, length
constexpr int kLastCellType = CTLVCell::TLV_UINT64;

void putU8(std::string* out, uint8_t v) { out->push_back(static_cast<char>(v)); }

void putU16(std::string* out, uint16_t v) {
  out->push_back(static_cast<char>(v & 0xFF));
  out->push_back(static_cast<char>(v >> 8));
}

void putU32(std::string* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void putU64(std::string* out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void putText(std::string* out, const std::string& text) {
  putU32(out, static_cast<uint32_t>(text.size()));
  out->append(text);
}

// Reads a body front to back; every read checks the bytes left and a failed
// read leaves the reader failed with the first reason.
class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}

  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }
  size_t left() const { return bytes_.size() - at_; }

  void fail(const std::string& why) {
    if (error_.empty()) error_ = why;
  }
  bool take(size_t n, const char* what) {
    if (failed()) return false;
    if (n > left()) {
      fail(std::string("truncated ") + what);
      return false;
    }
    return true;
  }
  uint8_t u8(const char* what) {
    if (!take(1, what)) return 0;
    return static_cast<uint8_t>(bytes_[at_++]);
  }
  uint16_t u16(const char* what) {
    if (!take(2, what)) return 0;
    const uint16_t v = static_cast<uint16_t>(byte(0) | (byte(1) << 8));
    at_ += 2;
    return v;
  }
  uint32_t u32(const char* what) {
    if (!take(4, what)) return 0;
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | byte(static_cast<size_t>(i));
    at_ += 4;
    return v;
  }
  uint64_t u64(const char* what) {
    if (!take(8, what)) return 0;
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | byte(static_cast<size_t>(i));
    at_ += 8;
    return v;
  }
  std::string text(const char* what) {
    const uint32_t n = u32(what);
    if (!take(n, what)) return std::string();
    std::string v = bytes_.substr(at_, n);
    at_ += n;
    return v;
  }
  const char* bytesAt(size_t n, const char* what) {
    if (!take(n, what)) return nullptr;
    const char* p = bytes_.data() + at_;
    at_ += n;
    return p;
  }
  // True when the body was read without a fault and to its last byte.
  bool finish(std::string* error) {
    if (!failed() && left() != 0) fail(std::to_string(left()) + " bytes after the end");
    if (failed()) {
      if (error != nullptr) *error = error_;
      return false;
    }
    return true;
  }

 private:
  uint32_t byte(size_t i) const { return static_cast<unsigned char>(bytes_[at_ + i]); }

  const std::string& bytes_;
  size_t at_ = 0;
  std::string error_;
};

void putPackage(std::string* out, const CR3MPackageV3& package) {
  putU32(out, static_cast<uint32_t>(package.size()));
  for (size_t r = 0; r < package.size(); ++r) {
    const CR3MRecordV3& record = package.recordAt(r);
    putU32(out, record.command());
    putU32(out, record.word());
    putU32(out, static_cast<uint32_t>(record.cellCount()));
    for (size_t c = 0; c < record.cellCount(); ++c) {
      const CTLVCell& cell = record.cellAt(c);
      putU16(out, static_cast<uint16_t>((cell.getTag() << 4) | cell.getType()));
      putU32(out, cell.getLength());
      // A heap value without storage travels as zero bytes of its length.
      if (cell.data() != nullptr) {
        out->append(reinterpret_cast<const char*>(cell.data()), cell.getLength());
      } else {
        out->append(cell.getLength(), '\0');
      }
    }
  }
}

void getPackage(Reader& in, CR3MPackageV3* package) {
  package->clear();
  const uint32_t records = in.u32("record count");
  if (in.failed()) return;
  // Counts are checked against what is left before anything is reserved.
  if (records > in.left() / kRecordHeadBytes) {
    in.fail("record count " + std::to_string(records) + " beyond the frame");
    return;
  }
  for (uint32_t r = 0; r < records && !in.failed(); ++r) {
    const uint32_t command = in.u32("record header");
    const uint32_t word = in.u32("record header");
    const uint32_t cells = in.u32("record header");
    if (in.failed()) return;
    if (cells > in.left() / kCellHeadBytes) {
      in.fail("cell count " + std::to_string(cells) + " beyond the frame");
      return;
    }
    CR3MRecordV3& record = package->addRecord(command, word);
    for (uint32_t c = 0; c < cells; ++c) {
      const uint16_t typeTag = in.u16("cell header");
      const uint32_t length = in.u32("cell header");
      const char* data = in.bytesAt(length, "cell value");
      if (in.failed()) return;
      const int type = typeTag & 0xF;
      const unsigned short tag = static_cast<unsigned short>(typeTag >> 4);
      if (type > kLastCellType) {
        in.fail("cell type " + std::to_string(type) + " unknown");
        return;
      }
      if (record.has(tag)) {
        in.fail("cell tag " + std::to_string(tag) + " twice in one record");
        return;
      }
      record[tag].set_i(static_cast<CTLVCell::ETLVType>(type), tag,
                        const_cast<char*>(length > 0 ? data : nullptr), length);
    }
  }
}

}  // namespace

std::string frame(FrameKind kind, uint32_t callId, const std::string& body) {
  std::string out;
  out.reserve(kHeaderBytes + body.size());
  putU32(&out, static_cast<uint32_t>(kHeaderBytes - 4 + body.size()));
  putU16(&out, kMagic);
  putU8(&out, kWireVersion);
  putU8(&out, static_cast<uint8_t>(kind));
  putU32(&out, callId);
  out.append(body);
  return out;
}

bool parseHeader(const char* bytes, FrameHeader* header, std::string* error) {
  const std::string head(bytes, kHeaderBytes);
  Reader in(head);
  const uint32_t length = in.u32("header");
  const uint16_t magic = in.u16("header");
  const uint8_t version = in.u8("header");
  const uint8_t kind = in.u8("header");
  const uint32_t callId = in.u32("header");
  if (magic != kMagic) {
    char hex[8];
    snprintf(hex, sizeof(hex), "%04X", static_cast<unsigned>(magic));
    *error = std::string("not a backend frame (magic 0x") + hex + ")";
    return false;
  }
  if (version != kWireVersion) {
    *error = "wire version " + std::to_string(version) + " unsupported (this side speaks " +
             std::to_string(kWireVersion) + ")";
    return false;
  }
  if (kind < static_cast<uint8_t>(FrameKind::kHello) ||
      kind > static_cast<uint8_t>(FrameKind::kPong)) {
    *error = "frame kind " + std::to_string(kind) + " unknown";
    return false;
  }
  if (length < kHeaderBytes - 4 || length > kMaxFrameBytes - 4) {
    *error = "frame length " + std::to_string(length) + " out of range (at most " +
             std::to_string(kMaxFrameBytes - 4) + ")";
    return false;
  }
  header->length = length;
  header->kind = static_cast<FrameKind>(kind);
  header->callId = callId;
  return true;
}

std::string callBody(const TlvCall& call, const CR3MPackageV3& request) {
  std::string out;
  putText(&out, call.device.id_);
  putText(&out, call.device.address_);
  putText(&out, call.user.userName_);
  putText(&out, call.user.userId_);
  putText(&out, call.user.scope_);
  putText(&out, call.user.clientAddress_);
  putText(&out, call.interfaceVersion);
  putU32(&out, static_cast<uint32_t>(call.timeout));
  putU8(&out, static_cast<uint8_t>(call.target));
  putPackage(&out, request);
  putText(&out, call.language);
  return out;
}

bool parseCallBody(const std::string& body, WireCall* call, CR3MPackageV3* request,
                   std::string* error) {
  Reader in(body);
  call->device.id_ = in.text("device id");
  call->device.address_ = in.text("device address");
  call->user.userName_ = in.text("user name");
  call->user.userId_ = in.text("user id");
  call->user.scope_ = in.text("scope");
  call->user.clientAddress_ = in.text("client address");
  call->interfaceVersion = in.text("interface version");
  call->timeout = static_cast<int>(in.u32("time-out"));
  const uint8_t target = in.u8("target");
  if (!in.failed() && target != CommunicationTarget::TARGET_BACKEND &&
      target != CommunicationTarget::TARGET_EVENT) {
    in.fail("target " + std::to_string(target) + " unknown");
  }
  call->target = static_cast<CommunicationTarget::TargetType>(target);
  if (!in.failed()) getPackage(in, request);
  call->language = in.text("language");
  return in.finish(error);
}

std::string replyBody(long long code, const CR3MPackageV3& reply) {
  std::string out;
  putU64(&out, static_cast<uint64_t>(code));
  putPackage(&out, reply);
  return out;
}

bool parseReplyBody(const std::string& body, long long* code, CR3MPackageV3* reply,
                    std::string* error) {
  Reader in(body);
  *code = static_cast<long long>(in.u64("code"));
  if (!in.failed()) getPackage(in, reply);
  return in.finish(error);
}

std::string storeFileBody(const std::string& path, const char* data, size_t length) {
  std::string out;
  out.reserve(8 + path.size() + length);
  putText(&out, path);
  putU32(&out, static_cast<uint32_t>(length));
  if (length > 0) out.append(data, length);
  return out;
}

bool parseStoreFileBody(const std::string& body, std::string* path, std::string* data,
                        std::string* error) {
  Reader in(body);
  *path = in.text("path");
  *data = in.text("file bytes");
  return in.finish(error);
}

std::string codeBody(long long code) {
  std::string out;
  putU64(&out, static_cast<uint64_t>(code));
  return out;
}

bool parseCodeBody(const std::string& body, long long* code, std::string* error) {
  Reader in(body);
  *code = static_cast<long long>(in.u64("code"));
  return in.finish(error);
}

std::string stringListBody(const std::vector<std::string>& texts) {
  std::string out;
  putU32(&out, static_cast<uint32_t>(texts.size()));
  for (const std::string& text : texts) putText(&out, text);
  return out;
}

bool parseStringListBody(const std::string& body, std::vector<std::string>* texts,
                         std::string* error) {
  Reader in(body);
  texts->clear();
  const uint32_t count = in.u32("count");
  if (!in.failed() && count > in.left() / 4) in.fail("text count beyond the frame");
  for (uint32_t i = 0; i < count && !in.failed(); ++i) texts->push_back(in.text("text"));
  return in.finish(error);
}

std::string packageBytes(const CR3MPackageV3& package) {
  std::string out;
  putPackage(&out, package);
  return out;
}

bool parsePackageBytes(const std::string& bytes, CR3MPackageV3* package, std::string* error) {
  Reader in(bytes);
  getPackage(in, package);
  return in.finish(error);
}

}  // namespace tlvwire

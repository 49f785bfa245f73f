// The backend's wire format: how a TLV call and its answer travel between a
// gateway and nox-backend over TCP. docs/backend.md ("The wire format")
// describes every byte; this is its one implementation, used by both sides.
//
// A frame is a 12-byte header and a body:
//
//   u32 length   bytes after this field (8 + body), at most kMaxFrameBytes
//   u16 magic    0x584E ("NX" on the wire)
//   u8  version  kWireVersion
//   u8  kind     FrameKind
//   u32 call id  chosen by the client, repeated in the answer
//
// All integers are little-endian, like the values of TLV cells.
//
//   std::string frame = tlvwire::frame(FrameKind::kCall, 7, tlvwire::callBody(call, package));
//   tlvwire::FrameHeader header;
//   if (!tlvwire::parseHeader(frame.data(), &header, &error)) ...   // refused
//
// Decoders never trust a length: every count and size is checked against
// the bytes that are left, and a body must be used up exactly.
//
// Thread-safety: plain functions of their arguments.
#ifndef NOX_HOST_TLV_WIRE_H_
#define NOX_HOST_TLV_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "tlv_backend.h"
#include "tlv_package.h"

namespace tlvwire {

constexpr uint16_t kMagic = 0x584E;
constexpr uint8_t kWireVersion = 2;  // 2: calls carry their language
constexpr size_t kHeaderBytes = 12;
// The largest frame (length field included): room for an upload of up to
// 16 MiB with its path.
constexpr uint32_t kMaxFrameBytes = 16u * 1024 * 1024 + 64 * 1024;

enum class FrameKind : uint8_t {
  kHello = 1,       // client: first frame on a connection; empty body
  kHelloReply = 2,  // server: the staging folders (string list)
  kCall = 3,        // client: one TLV call (callBody)
  kCallReply = 4,   // server: its code and reply package (replyBody)
  kStoreFile = 5,   // client: store these bytes at this path (storeFileBody)
  kStoreReply = 6,  // server: 0 or an error code (codeBody)
  kPing = 7,        // client: are you there? empty body
  kPong = 8,        // server: yes; empty body
};

struct FrameHeader {
  uint32_t length = 0;  // bytes after the length field
  FrameKind kind = FrameKind::kHello;
  uint32_t callId = 0;
  // Bytes of the body that follows the header.
  size_t bodyBytes() const { return length - (kHeaderBytes - 4); }
};

// A call as it arrives at the server: owns what TlvCall refers to.
struct WireCall {
  CDeviceID device;
  UserContext user;
  std::string interfaceVersion;
  int timeout = 0;
  CommunicationTarget::TargetType target = CommunicationTarget::TARGET_BACKEND;
  std::string language;

  TlvCall view() const {
    return TlvCall{device, user, interfaceVersion, timeout, target, language};
  }
};

// A whole frame: the header for `kind` and `callId`, then `body`. The caller
// keeps bodies within kMaxFrameBytes - kHeaderBytes.
HOST_API std::string frame(FrameKind kind, uint32_t callId, const std::string& body);

// Reads the kHeaderBytes at `bytes`. Returns false and sets *error for a
// wrong magic or version, an unknown kind or a length out of range.
HOST_API bool parseHeader(const char* bytes, FrameHeader* header, std::string* error);

// The body of a kCall frame and its reading. On failure, *error says what
// is wrong and the outputs are unspecified. The call's language comes last,
// after the package.
HOST_API std::string callBody(const TlvCall& call, const CR3MPackageV3& request);
HOST_API bool parseCallBody(const std::string& body, WireCall* call, CR3MPackageV3* request,
                            std::string* error);

// The body of a kCallReply frame: the code as a signed 64-bit value, then
// the reply package.
HOST_API std::string replyBody(long long code, const CR3MPackageV3& reply);
HOST_API bool parseReplyBody(const std::string& body, long long* code, CR3MPackageV3* reply,
                             std::string* error);

// The body of a kStoreFile frame: the path, then the file's bytes.
HOST_API std::string storeFileBody(const std::string& path, const char* data, size_t length);
HOST_API bool parseStoreFileBody(const std::string& body, std::string* path, std::string* data,
                                 std::string* error);

// The body of a kStoreReply frame: one signed 64-bit code.
HOST_API std::string codeBody(long long code);
HOST_API bool parseCodeBody(const std::string& body, long long* code, std::string* error);

// The body of a kHelloReply frame: a count, then each text.
HOST_API std::string stringListBody(const std::vector<std::string>& texts);
HOST_API bool parseStringListBody(const std::string& body, std::vector<std::string>* texts,
                                  std::string* error);

// A package alone, as inside the call and reply bodies (exposed for tests).
HOST_API std::string packageBytes(const CR3MPackageV3& package);
HOST_API bool parsePackageBytes(const std::string& bytes, CR3MPackageV3* package,
                                std::string* error);

}  // namespace tlvwire

#endif  // NOX_HOST_TLV_WIRE_H_

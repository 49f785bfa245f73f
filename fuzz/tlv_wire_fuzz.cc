// Fuzzes the backend's wire format from the receiving side: any bytes read
// as a frame header and as each kind of body are refused or accepted, never
// read past their end; an accepted call or reply encodes back to exactly the
// bytes it was read from.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tlv_wire.h"
#include "trace_sink.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (size >= tlvwire::kHeaderBytes) {
    tlvwire::FrameHeader header;
    if (tlvwire::parseHeader(bytes.data(), &header, &error) &&
        (header.bodyBytes() > tlvwire::kMaxFrameBytes || header.length < 8)) {
      abort();  // an accepted header is within the limits
    }
  }
  tlvwire::WireCall call;
  CR3MPackageV3 package;
  if (tlvwire::parseCallBody(bytes, &call, &package, &error)) {
    if (tlvwire::callBody(call.view(), package) != bytes) abort();
  }
  long long code = 0;
  CR3MPackageV3 reply;
  if (tlvwire::parseReplyBody(bytes, &code, &reply, &error)) {
    if (tlvwire::replyBody(code, reply) != bytes) abort();
  }
  std::string path;
  std::string file;
  if (tlvwire::parseStoreFileBody(bytes, &path, &file, &error)) {
    if (tlvwire::storeFileBody(path, file.data(), file.size()) != bytes) abort();
  }
  std::vector<std::string> texts;
  if (tlvwire::parseStringListBody(bytes, &texts, &error)) {
    if (tlvwire::stringListBody(texts) != bytes) abort();
  }
  if (tlvwire::parsePackageBytes(bytes, &package, &error)) {
    if (tlvwire::packageBytes(package) != bytes) abort();
  }
  return 0;
}

// Fuzzes the TLV access rules: a cell of arbitrary type, tag, length and
// bytes (inline or on the heap) is read as text, as an integer, as a 64-bit
// value and rendered; a package of arbitrary size is indexed. Every read
// either answers or throws QPNException; nothing else may happen.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tlv_package.h"
#include "trace_sink.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const int type = data[0] & 0xF;
  const unsigned short tag = static_cast<unsigned short>(((data[1] << 8) | data[2]) & 0x0FFF);
  const size_t records = data[3] % 8;
  std::string bytes(reinterpret_cast<const char*>(data + 4), size - 4);

  CTLVCell cell;
  cell.set_i(static_cast<CTLVCell::ETLVType>(type), tag, bytes.empty() ? nullptr : &bytes[0],
             bytes.size());
  try {
    const char* text = cell;
    volatile size_t n = std::strlen(text);  // must stay inside the value
    (void)n;
  } catch (const QPNException&) {
  }
  try {
    volatile int v = static_cast<int>(cell);
    (void)v;
  } catch (const QPNException&) {
  }
  try {
    volatile long long v = cell.toInt64();
    (void)v;
  } catch (const QPNException&) {
  }
  try {
    std::string rendered = cell.toString();
    (void)rendered;
  } catch (const QPNException&) {
  }

  CTLVCell copy(cell);
  CR3MPackageV3 package;
  for (size_t i = 0; i < records; ++i) package.addRecord(static_cast<uint32_t>(i), 13);
  if (records > 0) package[0].appendInner(new CTLVCell(copy));
  try {
    package[data[3] % 9];
  } catch (const QPNException&) {
  }
  CR3MPackageV3 copied(package);
  return 0;
}

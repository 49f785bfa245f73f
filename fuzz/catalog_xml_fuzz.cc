// Fuzzes the catalogue's loader on arbitrary files: the input is written to a
// temporary file that serves as both the messages and the enumerations file,
// then init runs and every loaded message is rendered.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "trace_sink.h"
#include "xml_config_parser.h"

namespace {
std::string gPath;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  char name[] = "/tmp/nox_catalog_fuzz_XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) abort();
  close(fd);
  gPath = name;
  atexit([] { unlink(gPath.c_str()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  FILE* f = std::fopen(gPath.c_str(), "wb");
  if (f == nullptr) abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) abort();
  std::fclose(f);

  CXmlConfigParser<MessageInfo> parser;
  parser.init(gPath, gPath);
  size_t rendered = 0;
  for (const auto& entry : parser.infoMap_) {
    if (++rendered > 32) break;
    MessageInfo info;
    info.init();
    if (parser.getXmlInfo(entry.first, "1#@#2#@#x", info, "#@#") != 0) abort();
    if (info.template_.empty() || info.template_.back() != ' ') abort();
  }
  // An unknown identifier reads the file again; "0" never does.
  MessageInfo info;
  info.init();
  parser.getXmlInfo("no-such-id", "", info, "#@#");
  parser.getXmlInfo("0", "", info, "#@#");
  return 0;
}

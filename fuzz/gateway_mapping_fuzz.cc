// Fuzzes the gateway's mapping of an HTTP request to the host framework and
// back: method, target (path and query), headers, body or multipart parts
// come from the input; the dispatcher routes them to the real plug-in's
// operations (registered through NOXRegisterOperations) with a scripted
// backend that answers every command with an empty reply. Every request must
// end in an HTTP answer: any crash, leak, undefined behaviour or exception
// that leaves the dispatcher is a finding.
//
// Input: "METHOD\nTARGET\nName: value\n...\n\nBODY". When the first byte of
// BODY is 0x01, the rest is multipart: parts separated by 0x00, each
// "name\x1ffilename\x1fcontent".
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "http_mapping.h"
#include "scripted_backend.h"
#include "operation_base.h"
#include "trace_sink.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

namespace {

CSpecifyProc* gRegistry = nullptr;
gw::Dispatcher* gDispatcher = nullptr;
ScriptedBackend* gBackend = nullptr;

std::string takeLine(const std::string& text, size_t* pos) {
  const size_t end = text.find('\n', *pos);
  std::string line = text.substr(*pos, end == std::string::npos ? std::string::npos : end - *pos);
  *pos = end == std::string::npos ? text.size() : end + 1;
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  // The operations read their catalogues from ../conf, as in an installation.
  char dir[] = "/tmp/nox_gateway_fuzz_XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  const std::string root = dir;
  if (symlink(NOX_SOURCE_DIR "/conf", (root + "/conf").c_str()) != 0) abort();
  if (mkdir((root + "/bin").c_str(), 0700) != 0 || chdir((root + "/bin").c_str()) != 0) abort();
  gBackend = new ScriptedBackend();
  gRegistry = new CSpecifyProc();
  NOXRegisterOperations(gRegistry);
  gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
    if (token != "fuzz-token") return false;
    info.getUserContext().userName_ = "apiuser";
    info.getUserContext().scope_ = "4";
    return true;
  };
  gw::DispatchOptions options;
  options.maxBody = 4096;
  options.openApi = "{}";
  gDispatcher = new gw::Dispatcher(*gRegistry, lookup, options);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  size_t pos = 0;
  gw::HttpInput in;
  in.method = takeLine(text, &pos);
  in.target = takeLine(text, &pos);
  in.clientAddress = "127.0.0.1";
  while (pos < text.size()) {
    const std::string line = takeLine(text, &pos);
    if (line.empty()) break;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    size_t v = colon + 1;
    while (v < line.size() && line[v] == ' ') ++v;
    in.headers.emplace_back(line.substr(0, colon), line.substr(v));
  }
  std::string body = text.substr(pos);
  if (!body.empty() && body[0] == '\x01') {
    in.multipart = true;
    size_t start = 1;
    while (start <= body.size()) {
      size_t end = body.find('\0', start);
      if (end == std::string::npos) end = body.size();
      const std::string part = body.substr(start, end - start);
      gw::FormPart form;
      const size_t a = part.find('\x1f');
      const size_t b = a == std::string::npos ? std::string::npos : part.find('\x1f', a + 1);
      form.name = part.substr(0, a);
      if (a != std::string::npos) form.fileName = part.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
      if (b != std::string::npos) form.content = part.substr(b + 1);
      in.parts.push_back(form);
      start = end + 1;
    }
  } else {
    in.body = body;
  }
  gw::HttpOutput out = gDispatcher->handle(in);
  if (out.status < 100 || out.status > 599) abort();
  gBackend->clearSent();
  return 0;
}

// Fuzzes the task detail read: a scripted backend answers the by-id query
// with a task record whose detail cell (0x58) and error information cell
// (0x62) hold the fuzzer's bytes, in either language. getDetail parses both,
// renders the progress entries with the shipped catalogues and rewrites the
// error information. A detail whose JSON root is not an array of objects makes
// jsoncpp throw its logic error, which passes to the caller by design; any
// crash, leak or undefined behaviour is a finding.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "NOXTaskOp.h"
#include "backend_protocol.h"
#include "scripted_backend.h"
#include "trace_sink.h"

namespace {

NOXTaskOp* gOp = nullptr;
ScriptedBackend* gBackend = nullptr;
std::string gDetail;
std::string gErrorInfo;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setTraceLevel(TraceLevel::kOff);
  setenv("TZ", "UTC", 1);
  // The operation reads its catalogues from ../conf, as in an installation.
  char dir[] = "/tmp/nox_task_fuzz_XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  const std::string root = dir;
  if (symlink(NOX_SOURCE_DIR "/conf", (root + "/conf").c_str()) != 0) abort();
  if (mkdir((root + "/bin").c_str(), 0700) != 0 || chdir((root + "/bin").c_str()) != 0) abort();
  gOp = new NOXTaskOp(proto::kTaskObjType);
  gBackend = new ScriptedBackend();
  gBackend->on(proto::moCommand(proto::kTaskObjType, proto::kMoGetById),
               [](const CR3MPackageV3&, CR3MPackageV3& reply) {
                 CR3MRecordV3& record = reply.addRecord(proto::moCommand(proto::kTaskObjType, 0), 13);
                 record[proto::kTagTaskId].setString(proto::kTagTaskId, "task-1");
                 record[proto::kTagTaskDetail].setString(proto::kTagTaskDetail, gDetail);
                 if (!gErrorInfo.empty()) {
                   record[proto::kTagTaskErrorInfo].set_i(CTLVCell::TLV_JSON,
                                                          proto::kTagTaskErrorInfo, &gErrorInfo[0],
                                                          gErrorInfo.size());
                 }
                 return 0LL;
               });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 32768) return 0;
  // First byte: language and whether LANGUAGE is given; the rest is split at
  // the first NUL into the detail and the error information.
  const uint8_t mode = data[0];
  const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  const size_t cut = rest.find('\0');
  gDetail = rest.substr(0, cut);
  gErrorInfo = cut == std::string::npos ? std::string() : rest.substr(cut + 1);

  CRequestMsg request;
  request.getResIDs().push_back("task-1");
  request.getSessionInfo().setLanguage((mode & 1) ? "zh" : "en");
  if (mode & 2) request.setArg("LANGUAGE", (mode & 4) ? "zh" : "en");
  CResponseMsg response;
  try {
    gOp->getDetail(request, response);
  } catch (const std::exception&) {
    // jsoncpp's logic error for a detail that is not an array of objects.
  }
  gBackend->clearSent();
  return 0;
}

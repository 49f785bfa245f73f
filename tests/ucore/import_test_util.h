// Helpers shared by the import operation tests: a scratch folder, a request
// with a session and an HTTP connection, reading back the written file, and
// reading the import events a ScriptedBackend recorded.
#ifndef NOX_TESTS_UCORE_IMPORT_TEST_UTIL_H_
#define NOX_TESTS_UCORE_IMPORT_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "request_msg.h"
#include "scripted_backend.h"
#include "trace_capture.h"

namespace import_test {

// A fresh folder made with mkdtemp, removed with its content at the end.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/nox-import-XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "";
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole content of `path`, or "<missing>" when it cannot be opened.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// The permission bits of `path`, or -1 when it does not exist.
inline int fileMode(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return static_cast<int>(st.st_mode & 07777);
}

// Writes a small file with mode 0600; returns false when it cannot.
inline bool writeTestFile(const std::string& path) {
  {
    std::ofstream out(path, std::ios::binary);
    if (!out) return false;
    out << "test";
  }
  return ::chmod(path.c_str(), 0600) == 0;
}

// Gives `request` a session (device, user) and an HTTP connection.
inline void prepareRequest(CRequestMsg& request, HttpRequest& connection) {
  CSessionInfo& session = request.getSessionInfo();
  session.getDeviceID().id_ = "device-1";
  session.getDeviceID().address_ = "127.0.0.1";
  session.getUserContext().userName_ = "admin";
  session.getUserContext().userId_ = "1";
  session.getUserContext().scope_ = "4";
  session.getUserContext().clientAddress_ = "10.0.0.7";
  session.setHttpConnection(&connection);
  request.setMethod("POST");
}

// Scripts `command` to answer with record 0 holding the text cell 70 = path.
inline void answerPath(ScriptedBackend& backend, uint32_t command, const std::string& path) {
  backend.on(command, [command, path](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(command, 13)[70].setString(70, path);
    return 0LL;
  });
}

// The value of `tag` in a sent package, or -1 when the cell is absent.
inline long long cellInt(const SentPackage& p, unsigned short tag) {
  const SentCell* c = p.cell(tag);
  return c == nullptr ? -1 : c->asInt();
}

// The outcome cells (tag 3) of the import events sent, in order.
inline std::vector<long long> eventOutcomes(const ScriptedBackend& backend) {
  std::vector<long long> out;
  for (const SentPackage& p : backend.sent(0x00C9009B)) out.push_back(cellInt(p, 3));
  return out;
}

// The commands sent, in order.
inline std::vector<uint32_t> commandsSent(const ScriptedBackend& backend) {
  std::vector<uint32_t> out;
  for (const SentPackage& p : backend.sent()) out.push_back(p.command);
  return out;
}

// Expects exactly one log record with `text`, at `level`, written by
// `function` of module 11.
inline void expectLog(const TraceCapture& trace, TraceLevel level, const std::string& function,
                      const std::string& text) {
  int seen = 0;
  for (const TraceRecord& r : trace.records()) {
    if (r.level == TraceLevel::kTrace || r.text != text) continue;
    ++seen;
    EXPECT_EQ(r.level, level) << text;
    EXPECT_EQ(r.function, function) << text;
    EXPECT_EQ(r.module, 11) << text;
    EXPECT_GT(r.line, 0u) << text;
  }
  EXPECT_EQ(seen, 1) << "log record \"" << text << "\"\n" << trace.dump();
}

// Whether the trace holds the record "leave NAME: VERDICT".
inline bool left(const TraceCapture& trace, const std::string& name, const std::string& verdict) {
  return trace.hasText("leave " + name + ": " + verdict);
}

}  // namespace import_test

#endif  // NOX_TESTS_UCORE_IMPORT_TEST_UTIL_H_

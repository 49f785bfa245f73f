// ScriptedBackend: a TlvBackend double that records every package sent to it
// and answers as the test says.
//
//   ScriptedBackend backend;                 // installed until destroyed
//   backend.on(0xE0000052, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
//     reply.addRecord(0xE0000052, 13)[70].setString(70, "/tmp/x.pem");
//     return 0LL;
//   });
//   backend.fail(0xE0000049, 0x60E01D0A);   // answer that command with a code
//   ... run the operation ...
//   ASSERT_EQ(backend.sent().size(), 3u);
//   EXPECT_EQ(backend.sent()[0].command, 0xE0000052u);
//
// Commands without a script answer with an empty reply and code 0.
#ifndef NOX_TESTS_SUPPORT_SCRIPTED_BACKEND_H_
#define NOX_TESTS_SUPPORT_SCRIPTED_BACKEND_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tlv_backend.h"

// One cell as it was sent.
struct SentCell {
  unsigned short tag = 0;
  int type = 0;
  unsigned int length = 0;
  std::string bytes;  // the raw value bytes (length of them)

  // The value read as an integer (numeric cells) or text (text cells).
  long long asInt() const;
  std::string asText() const;  // bytes up to the first NUL
};

// One package as it was sent (its first record; sent packages hold one).
struct SentPackage {
  uint32_t command = 0;
  uint32_t word = 0;
  std::vector<SentCell> cells;
  size_t records = 0;
  std::string interfaceVersion;
  int timeout = 0;
  int target = 0;
  std::string userName;

  // The cell with `tag`, or null.
  const SentCell* cell(unsigned short tag) const;
};

class ScriptedBackend : public TlvBackend {
 public:
  using Handler = std::function<long long(const CR3MPackageV3& request, CR3MPackageV3& reply)>;

  // Installs itself as the process's backend; restores the previous one when
  // destroyed.
  ScriptedBackend();
  ~ScriptedBackend() override;

  // Answers `command` with `handler` (replacing an earlier script).
  void on(uint32_t command, Handler handler);
  // Answers `command` with the error `code`.
  void fail(uint32_t command, long long code);
  // Throws `e` (by copy) when `command` arrives.
  void throwOn(uint32_t command, const std::exception_ptr& e);

  long long handle(const TlvCall& call, const CR3MPackageV3& request,
                   CR3MPackageV3& reply) override;

  std::vector<SentPackage> sent() const;
  // The packages sent with `command`, in order.
  std::vector<SentPackage> sent(uint32_t command) const;
  void clearSent();

 private:
  mutable std::mutex mutex_;
  std::map<uint32_t, Handler> handlers_;
  std::vector<SentPackage> sent_;
  std::shared_ptr<TlvBackend> previous_;
};

#endif  // NOX_TESTS_SUPPORT_SCRIPTED_BACKEND_H_

#include "scripted_backend.h"

namespace {

// A non-owning shared_ptr to the backend, so that installing does not tie
// the test object's lifetime to the registry.
std::shared_ptr<TlvBackend> borrow(TlvBackend* backend) {
  return std::shared_ptr<TlvBackend>(backend, [](TlvBackend*) {});
}

}  // namespace

long long SentCell::asInt() const {
  unsigned long long v = 0;
  for (size_t i = 0; i < bytes.size() && i < 8; ++i) {
    v |= static_cast<unsigned long long>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  }
  return static_cast<long long>(v);
}

std::string SentCell::asText() const { return std::string(bytes.c_str()); }

const SentCell* SentPackage::cell(unsigned short tag) const {
  for (const SentCell& c : cells) {
    if (c.tag == tag) return &c;
  }
  return nullptr;
}

ScriptedBackend::ScriptedBackend() { previous_ = installTlvBackend(borrow(this)); }

ScriptedBackend::~ScriptedBackend() { installTlvBackend(previous_); }

void ScriptedBackend::on(uint32_t command, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[command] = std::move(handler);
}

void ScriptedBackend::fail(uint32_t command, long long code) {
  on(command, [code](const CR3MPackageV3&, CR3MPackageV3&) { return code; });
}

void ScriptedBackend::throwOn(uint32_t command, const std::exception_ptr& e) {
  on(command, [e](const CR3MPackageV3&, CR3MPackageV3&) -> long long { std::rethrow_exception(e); });
}

long long ScriptedBackend::handle(const TlvCall& call, const CR3MPackageV3& request,
                                  CR3MPackageV3& reply) {
  SentPackage sent;
  sent.records = request.size();
  sent.interfaceVersion = call.interfaceVersion;
  sent.timeout = call.timeout;
  sent.target = call.target;
  sent.userName = call.user.userName_;
  if (request.size() > 0) {
    const CR3MRecordV3& record = request.recordAt(0);
    sent.command = record.command();
    sent.word = record.word();
    for (size_t i = 0; i < record.cellCount(); ++i) {
      const CTLVCell& c = record.cellAt(i);
      SentCell cell;
      cell.tag = c.getTag();
      cell.type = c.getType();
      cell.length = c.getLength();
      if (c.data() != nullptr) cell.bytes.assign(reinterpret_cast<const char*>(c.data()), c.getLength());
      sent.cells.push_back(cell);
    }
  }
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.push_back(sent);
    auto it = handlers_.find(sent.command);
    if (it != handlers_.end()) handler = it->second;
  }
  if (!handler) return 0;
  return handler(request, reply);
}

std::vector<SentPackage> ScriptedBackend::sent() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}

std::vector<SentPackage> ScriptedBackend::sent(uint32_t command) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<SentPackage> out;
  for (const SentPackage& p : sent_) {
    if (p.command == command) out.push_back(p);
  }
  return out;
}

void ScriptedBackend::clearSent() {
  std::lock_guard<std::mutex> lock(mutex_);
  sent_.clear();
}

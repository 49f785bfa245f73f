// AuditCapture: installs an in-memory audit sink for the life of a test and
// lets the test read every event back.
//
//   AuditCapture audit;
//   ... log in ...
//   ASSERT_EQ(audit.events().size(), 1u);
//   EXPECT_EQ(audit.events()[0].outcome, audit::kSuccess);
//
// Thread-safety: events are recorded from any thread.
#ifndef NOX_TESTS_SUPPORT_AUDIT_CAPTURE_H_
#define NOX_TESTS_SUPPORT_AUDIT_CAPTURE_H_

#include <memory>
#include <mutex>
#include <vector>

#include "audit.h"

class AuditCapture {
 public:
  AuditCapture() : sink_(std::make_shared<Sink>()) { previous_ = setAuditSink(sink_); }
  ~AuditCapture() { setAuditSink(previous_); }
  AuditCapture(const AuditCapture&) = delete;
  AuditCapture& operator=(const AuditCapture&) = delete;

  std::vector<AuditEvent> events() const {
    std::lock_guard<std::mutex> lock(sink_->mutex);
    return sink_->events;
  }

 private:
  struct Sink : AuditSink {
    void write(const AuditEvent& event) override {
      std::lock_guard<std::mutex> lock(mutex);
      events.push_back(event);
    }
    std::mutex mutex;
    std::vector<AuditEvent> events;
  };
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<AuditSink> previous_;
};

#endif  // NOX_TESTS_SUPPORT_AUDIT_CAPTURE_H_

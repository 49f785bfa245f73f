#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "operation_base.h"

namespace {

// An operation that records its release.
class RecordingOp : public CSpecifyOp {
 public:
  explicit RecordingOp(std::vector<std::string>* released, std::string name)
      : released_(released), name_(std::move(name)) {}
  int op(const std::string&, const std::string&, CRequestMsg&, CResponseMsg&) override { return 0; }
  void release() override {
    released_->push_back(name_);
    delete this;
  }

 private:
  std::vector<std::string>* released_;
  std::string name_;
};

class PlainOp : public CSpecifyOp {
 public:
  int op(const std::string&, const std::string&, CRequestMsg&, CResponseMsg&) override { return 7; }
};

}  // namespace

TEST(SpecifyProcTest, RoutesKeepOrderInterfaceAndFlag) {
  std::vector<std::string> released;
  CSpecifyProc proc;
  EXPECT_EQ(proc.regReqProc("/a", new RecordingOp(&released, "a"), true), 0);
  EXPECT_EQ(proc.regReqProcV1("/a", new RecordingOp(&released, "a1"), true), 0);
  EXPECT_EQ(proc.regReqProc("/b", new RecordingOp(&released, "b"), false), 0);
  ASSERT_EQ(proc.routes().size(), 3u);
  EXPECT_EQ(proc.routes()[1].url, "/a");
  EXPECT_EQ(proc.routes()[1].interfaceVersion, "v1");
  EXPECT_FALSE(proc.routes()[2].flag);
  EXPECT_NE(proc.find("/a", ""), proc.find("/a", "v1"));
  EXPECT_EQ(proc.find("/c", ""), nullptr);
  EXPECT_EQ(proc.find("/b", "v1"), nullptr);
}

TEST(SpecifyProcTest, DestructorReleasesEveryObject) {
  std::vector<std::string> released;
  {
    CSpecifyProc proc;
    proc.regReqProc("/a", new RecordingOp(&released, "a"), true);
    proc.regReqProcV1("/a", new RecordingOp(&released, "a1"), true);
  }
  EXPECT_EQ(released, (std::vector<std::string>{"a", "a1"}));
}

TEST(SpecifyProcTest, RefusedRouteIsReleasedAtOnce) {
  std::vector<std::string> released;
  CSpecifyProc proc;
  proc.regReqProc("/a", new RecordingOp(&released, "first"), true);
  EXPECT_EQ(proc.regReqProc("/a", new RecordingOp(&released, "duplicate"), true), -1);
  EXPECT_EQ(proc.regReqProc("no-slash", new RecordingOp(&released, "bad"), true), -1);
  EXPECT_EQ(proc.regReqProc("/x", nullptr, true), -1);
  EXPECT_EQ(released, (std::vector<std::string>{"duplicate", "bad"}));
  EXPECT_EQ(proc.routes().size(), 1u);
}

TEST(SpecifyOpTest, DefaultIsSupportAnswersTrueWithoutMarking) {
  PlainOp* op = new PlainOp();
  SpecifyOpPrivData priv;
  EXPECT_TRUE(op->isSupport("PUT", "", priv));
  EXPECT_EQ(priv.uploadMark_, 0u);
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op->op("GET", "", request, response), 7);
  op->release();  // deletes through the deleting destructor (checked by the sanitizer build)
}

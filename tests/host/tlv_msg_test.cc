#include <gtest/gtest.h>

#include "scripted_backend.h"
#include "tlv_backend.h"
#include "tlv_package.h"

namespace {

long long codeOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const QPNExceptionWithErrCode_& e) {
    return e.getErrCode();
  }
  return 0;
}

}  // namespace

TEST(SendMessageTest, WithoutBackendThrowsUnavailable) {
  std::shared_ptr<TlvBackend> previous = installTlvBackend(nullptr);
  CR3MPackageV3 request;
  request.addRecord(1, 13);
  CR3MPackageV3 reply;
  EXPECT_EQ(codeOf([&] {
              CTlvMsg::sendMessage(CDeviceID(), UserContext(), request, reply, "", 5,
                                   CommunicationTarget::TARGET_BACKEND);
            }),
            kErrBackendUnavailable);
  installTlvBackend(previous);
}

TEST(SendMessageTest, BackendCodeBecomesCodedException) {
  ScriptedBackend backend;
  backend.fail(0xE0000049, 0x60E01D0A);
  CR3MPackageV3 request;
  request.addRecord(0xE0000049, 13)[0].setUInt32(0, 0xE027);
  CR3MPackageV3 reply;
  EXPECT_EQ(codeOf([&] {
              CTlvMsg::sendMessage(CDeviceID(), UserContext(), request, reply, "v1", 30,
                                   CommunicationTarget::TARGET_BACKEND);
            }),
            0x60E01D0A);
  ASSERT_EQ(backend.sent().size(), 1u);
  EXPECT_EQ(backend.sent()[0].interfaceVersion, "v1");
  EXPECT_EQ(backend.sent()[0].timeout, 30);
  EXPECT_EQ(backend.sent()[0].word, 13u);
  EXPECT_EQ(backend.sent()[0].cell(0)->asInt(), 0xE027);
}

TEST(SendMessageTest, ReplyIsFilledOnSuccess) {
  ScriptedBackend backend;
  backend.on(0xE0000052, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(0xE0000052, 13)[70].setString(70, "/tmp/x.pem");
    return 0LL;
  });
  CR3MPackageV3 request;
  request.addRecord(0xE0000052, 13);
  CR3MPackageV3 reply;
  UserContext user;
  user.userName_ = "apiuser";
  EXPECT_EQ(CTlvMsg::sendMessage(CDeviceID(), user, request, reply, "", 5,
                                 CommunicationTarget::TARGET_BACKEND),
            0);
  EXPECT_STREQ(static_cast<const char*>(reply[0][70]), "/tmp/x.pem");
  EXPECT_EQ(backend.sent()[0].userName, "apiuser");
}

TEST(SendMessageTest, BackendThrowingStdExceptionBecomesFailureCode) {
  ScriptedBackend backend;
  backend.throwOn(7, std::make_exception_ptr(std::runtime_error("disk gone")));
  CR3MPackageV3 request;
  request.addRecord(7, 13);
  CR3MPackageV3 reply;
  EXPECT_EQ(codeOf([&] {
              CTlvMsg::sendMessage(CDeviceID(), UserContext(), request, reply, "", 5,
                                   CommunicationTarget::TARGET_BACKEND);
            }),
            kErrBackendFailure);
}

TEST(SendMessageTest, BackendCodedExceptionPassesUnchanged) {
  ScriptedBackend backend;
  backend.throwOn(8, std::make_exception_ptr(QPNExceptionWithErrCode_(55, "b", 1, false, nullptr)));
  CR3MPackageV3 request;
  request.addRecord(8, 13);
  CR3MPackageV3 reply;
  EXPECT_EQ(codeOf([&] {
              CTlvMsg::sendMessage(CDeviceID(), UserContext(), request, reply, "", 5,
                                   CommunicationTarget::TARGET_BACKEND);
            }),
            55);
}

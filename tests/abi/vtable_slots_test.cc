// Slot orders of the host framework's classes. A plug-in built against
// include/ overrides the host's virtual operations by position, so these
// orders are part of the binary contract.
#include <gtest/gtest.h>

#include "abi_slots.h"
#include "login_op.h"
#include "qpn_exception.h"
#include "operation_base.h"

// Slots 0 and 1 are the complete and deleting destructors everywhere below.

TEST(HostSlotsTest, QPNException) {
  EXPECT_EQ(virtualSlot(&QPNException::what), 2);
  EXPECT_EQ(virtualSlot(&QPNExceptionWithErrCode_::what), 2);
}

TEST(HostSlotsTest, CSpecifyOp) {
  EXPECT_EQ(virtualSlot(&CSpecifyOp::release), 2);
  EXPECT_EQ(virtualSlot(&CSpecifyOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&CSpecifyOp::op), 4);
}

TEST(HostSlotsTest, CMoSpecOpAddsGetPostPutDel) {
  EXPECT_EQ(virtualSlot(&CMoSpecOp::release), 2);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::op), 4);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::get), 5);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::post), 6);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::put), 7);
  EXPECT_EQ(virtualSlot(&CMoSpecOp::del), 8);
}

TEST(HostSlotsTest, GeneralNonMoOpAddsGet) {
  EXPECT_EQ(virtualSlot(&GeneralNonMoOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&GeneralNonMoOp::op), 4);
  EXPECT_EQ(virtualSlot(&GeneralNonMoOp::get), 5);
}

TEST(HostSlotsTest, AlarmOperationsAddNothing) {
  EXPECT_EQ(virtualSlot(&CHistoryAlarmOp::op), 4);
  EXPECT_EQ(virtualSlot(&CHistoryAlarmCountOp::op), 4);
}

using Login9 = int (CLoginOp::*)(const std::string&, const std::string&, const std::string&,
                                 const std::string&, CDeviceID&, CR3MPackageV3&,
                                 const std::string&, const std::string&, const std::string&);
using Login8 = int (CLoginOp::*)(const std::string&, const std::string&, const std::string&,
                                 const std::string&, CDeviceID&, CR3MPackageV3&,
                                 const std::string&, const std::string&);
TEST(HostSlotsTest, CLoginOp) {
  EXPECT_EQ(virtualSlot(&CLoginOp::release), 2);
  EXPECT_EQ(virtualSlot(&CLoginOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&CLoginOp::op), 4);
  EXPECT_EQ(virtualSlot(&CLoginOp::updateSessionFile), 5);
  EXPECT_EQ(virtualSlot(&CLoginOp::postCheckDevice), 6);
  EXPECT_EQ(virtualSlot(&CLoginOp::checkVerifyCode), 7);
  EXPECT_EQ(virtualSlot(&CLoginOp::handleLogin), 8);
  EXPECT_EQ(virtualSlot(&CLoginOp::handleLogout), 9);
  EXPECT_EQ(virtualSlot(&CLoginOp::handleGetLoginToken), 10);
  EXPECT_EQ(virtualSlot(&CLoginOp::handleCheckCode), 11);
  EXPECT_EQ(virtualSlot(static_cast<Login9>(&CLoginOp::login)), 12);
  EXPECT_EQ(virtualSlot(static_cast<Login8>(&CLoginOp::login)), 13);
}

// The verification-code base has exactly CLoginOp's slots: no slot of its
// own that a route's login could hide behind.
TEST(HostSlotsTest, CLoginOpWithVerifyCodeKeepsTheSlotsOfCLoginOp) {
  EXPECT_EQ(virtualSlot(&CLoginOpWithVerifyCode::isSupport), 3);
  EXPECT_EQ(virtualSlot(&CLoginOpWithVerifyCode::checkVerifyCode), 7);
  EXPECT_EQ(virtualSlot(&CLoginOpWithVerifyCode::handleLogin), 8);
  EXPECT_EQ(virtualSlot(static_cast<Login9>(&CLoginOpWithVerifyCode::login)), 12);
  EXPECT_EQ(virtualSlot(static_cast<Login8>(&CLoginOpWithVerifyCode::login)), 13);
  // The deleting destructor is the last entry shared with CSpecifyOp; the
  // table ends after slot 13, like CLoginOp's.
  EXPECT_EQ(sizeof(CLoginOpWithVerifyCode), sizeof(CLoginOp));
}

TEST(HostSlotsTest, NonVirtualMembersAreRecognised) {
  EXPECT_EQ(virtualSlot(&CSpecifyProc::regReqProc), -1);
}

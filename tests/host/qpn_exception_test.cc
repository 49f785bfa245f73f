#include "qpn_exception.h"

#include <gtest/gtest.h>

TEST(QPNExceptionTest, MessageIsPrefixedWithoutBlank) {
  QPNException e("record don't exist, index is 5");
  EXPECT_STREQ(e.what(), "Exception:record don't exist, index is 5");
}

TEST(QPNExceptionTest, EmptyText) {
  QPNException e("");
  EXPECT_STREQ(e.what(), "Exception:");
}

TEST(QPNExceptionWithErrCodeTest, WhatIsCodeInDecimalWhateverElseItCarries) {
  CMessageArgs args({"a", "b"});
  QPNExceptionWithErrCode_ withArgs(1000005, "src/ucore/NOXImportCert", 77, false, &args);
  QPNExceptionWithErrCode_ bare(1000005, "elsewhere", 1, true, nullptr);
  EXPECT_STREQ(withArgs.what(), "QPNExceptionWithErrCode 1000005");
  EXPECT_STREQ(bare.what(), "QPNExceptionWithErrCode 1000005");
}

TEST(QPNExceptionWithErrCodeTest, KeepsCodeFileLineFlagAndArgsInOrder) {
  CMessageArgs args({"first", "second"});
  QPNExceptionWithErrCode_ e(0x03000003, "src/ucore/NOXImportCrlOp", 120, false, &args);
  EXPECT_STREQ(e.what(), "QPNExceptionWithErrCode 50331651");
  EXPECT_EQ(e.getErrCode(), 0x03000003);
  EXPECT_EQ(e.getFile(), "src/ucore/NOXImportCrlOp");
  EXPECT_EQ(e.getLine(), 120);
  EXPECT_FALSE(e.getFlag());
  EXPECT_EQ(e.getArgs().args(), (std::vector<std::string>{"first", "second"}));
  args.args().clear();  // the exception holds its own copy
  EXPECT_EQ(e.getArgs().args().size(), 2u);
}

TEST(QPNExceptionWithErrCodeTest, NegativeCodeInSignedDecimal) {
  QPNExceptionWithErrCode_ e(-1, "f", 1, false, nullptr);
  EXPECT_STREQ(e.what(), "QPNExceptionWithErrCode -1");
  EXPECT_TRUE(e.getArgs().args().empty());
}

TEST(QPNExceptionWithErrCodeTest, NullFileIsEmpty) {
  QPNExceptionWithErrCode_ e(5, nullptr, 1, false, nullptr);
  EXPECT_EQ(e.getFile(), "");
}

TEST(QPNExceptionWithErrCodeTest, CaughtAsBaseAndStdException) {
  try {
    throw QPNExceptionWithErrCode_(2000000001, "x", 2, false, nullptr);
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "QPNExceptionWithErrCode 2000000001");
    EXPECT_NE(dynamic_cast<const QPNExceptionWithErrCode_*>(&e), nullptr);
  }
  EXPECT_THROW(throw QPNException("x"), std::exception);
}

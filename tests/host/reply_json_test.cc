// The reference host's generic conversion of reply cells into JSON: one
// value per cell type, JSON cells parsed within the nesting limit.
#include "reply_json.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "backend_protocol.h"

namespace {

TEST(ReplyJsonTest, CellsByType) {
  CTLVCell text;
  text.setString(1, "abc");
  EXPECT_EQ(reply::cellToJson(text), Json::Value("abc"));
  CTLVCell none;
  EXPECT_TRUE(reply::cellToJson(none).isNull());
  CTLVCell bin;
  unsigned char bytes[] = {0x00, 0xAB, 0x10};
  bin.set_i(CTLVCell::TLV_BINARY, 2, bytes, sizeof(bytes));
  EXPECT_EQ(reply::cellToJson(bin), Json::Value("00ab10"));
  CTLVCell arr;
  std::string json = "[1,2]";
  arr.set_i(CTLVCell::TLV_JSON_ARRAY, 3, &json[0], json.size());
  EXPECT_EQ(reply::cellToJson(arr).size(), 2u);
  CTLVCell broken;
  std::string notJson = "{oops";
  broken.set_i(CTLVCell::TLV_JSON, 4, &notJson[0], notJson.size());
  EXPECT_EQ(reply::cellToJson(broken), Json::Value("{oops"));  // kept as text
  // Nesting beyond the reader's limit is not followed down: kept as text too.
  CTLVCell deep;
  std::string nested = std::string(500, '[') + std::string(500, ']');
  deep.set_i(CTLVCell::TLV_JSON_ARRAY, 6, &nested[0], nested.size());
  EXPECT_EQ(reply::cellToJson(deep), Json::Value(nested));
  std::string shallow = std::string(reply::kMaxJsonDepth - 1, '[') +
                        std::string(reply::kMaxJsonDepth - 1, ']');
  deep.set_i(CTLVCell::TLV_JSON_ARRAY, 6, &shallow[0], shallow.size());
  EXPECT_TRUE(reply::cellToJson(deep).isArray());
  CTLVCell big;
  big.setUInt64(5, 18446744073709551615ULL);
  EXPECT_EQ(reply::cellToJson(big).asUInt64(), 18446744073709551615ULL);
}

TEST(ReplyJsonTest, FieldNamesByObjectType) {
  EXPECT_STREQ(reply::fieldName(proto::kTaskObjType, proto::kTagTaskId), "taskId");
  EXPECT_STREQ(reply::fieldName(proto::kStorageConfObjType, proto::kTagStoragePath), "storagePath");
  EXPECT_EQ(reply::fieldName(proto::kStorageConfObjType, proto::kTagTaskId), nullptr);
  EXPECT_EQ(reply::fieldName(0x7777, proto::kTagTaskId), nullptr);
}

}  // namespace

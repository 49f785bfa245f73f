// The gateway's compact JSON writer gives, byte for byte, the text of
// jsoncpp's own writer (no indentation, UTF-8 kept) for every kind of value.
#include "compact_json.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

namespace {

std::string jsoncppText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

TEST(CompactJsonTest, WorkedExamples) {
  Json::Value answer(Json::objectValue);
  answer["error"]["code"] = 0;
  answer["data"].append("每日备份");
  answer["data"].append(Json::Value(Json::nullValue));
  answer["data"].append(true);
  EXPECT_EQ(gw::toCompactJson(answer), R"({"data":["每日备份",null,true],"error":{"code":0}})");
  EXPECT_EQ(gw::toCompactJson(Json::Value(Json::arrayValue)), "[]");
  EXPECT_EQ(gw::toCompactJson(Json::Value(Json::objectValue)), "{}");
  EXPECT_EQ(gw::toCompactJson(Json::Value("a\"b\\c\n\x01")), R"("a\"b\\c\n\u0001")");
  std::string out = "x=";
  gw::appendCompactJson(Json::Value(-7), &out);
  EXPECT_EQ(out, "x=-7");
}

TEST(CompactJsonTest, EveryByteOfAStringAsJsoncppWritesIt) {
  std::string all;
  for (int c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
  const Json::Value value(all.data(), all.data() + all.size());
  EXPECT_EQ(gw::toCompactJson(value), jsoncppText(value));
  Json::Value object(Json::objectValue);
  object[all] = all;  // member names are escaped alike
  EXPECT_EQ(gw::toCompactJson(object), jsoncppText(object));
}

TEST(CompactJsonTest, NumbersAsJsoncppWritesThem) {
  const Json::Value values[] = {
      Json::Value(0),
      Json::Value(std::numeric_limits<Json::Int64>::min()),
      Json::Value(std::numeric_limits<Json::Int64>::max()),
      Json::Value(std::numeric_limits<Json::UInt64>::max()),
      Json::Value(0.1),
      Json::Value(-0.0),
      Json::Value(1e300),
      Json::Value(123456789.125),
      Json::Value(3.0),
      Json::Value(std::nan("")),
      Json::Value(std::numeric_limits<double>::infinity()),
      Json::Value(-std::numeric_limits<double>::infinity()),
      Json::Value(false),
  };
  for (const Json::Value& v : values) EXPECT_EQ(gw::toCompactJson(v), jsoncppText(v));
}

// A random value of bounded depth: every type, odd strings, member names
// that sort differently as bytes and as text.
Json::Value randomValue(std::mt19937& rng, int depth) {
  std::uniform_int_distribution<int> kind(0, depth > 0 ? 8 : 6);
  auto randomText = [&rng] {
    std::uniform_int_distribution<int> length(0, 12);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string text;
    for (int n = length(rng); n > 0; --n) text.push_back(static_cast<char>(byte(rng)));
    return text;
  };
  switch (kind(rng)) {
    case 0:
      return Json::Value(Json::nullValue);
    case 1:
      return Json::Value(static_cast<Json::Int64>(static_cast<Json::Int64>(rng()) - (1LL << 31)));
    case 2:
      return Json::Value(static_cast<Json::UInt64>(rng()) << 20);
    case 3:
      return Json::Value(std::ldexp(static_cast<double>(rng()), static_cast<int>(rng() % 80) - 40));
    case 4:
      return Json::Value(rng() % 2 == 0);
    case 5:
    case 6: {
      const std::string text = randomText();
      return Json::Value(text.data(), text.data() + text.size());
    }
    case 7: {
      Json::Value array(Json::arrayValue);
      for (int n = static_cast<int>(rng() % 5); n > 0; --n) array.append(randomValue(rng, depth - 1));
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (int n = static_cast<int>(rng() % 5); n > 0; --n) {
        object[randomText()] = randomValue(rng, depth - 1);
      }
      return object;
    }
  }
}

TEST(CompactJsonTest, RandomValuesAsJsoncppWritesThem) {
  std::mt19937 rng(20261122);
  for (int i = 0; i < 3000; ++i) {
    const Json::Value value = randomValue(rng, 4);
    ASSERT_EQ(gw::toCompactJson(value), jsoncppText(value)) << "value " << i;
  }
}

}  // namespace

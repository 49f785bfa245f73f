// Helpers shared by the end-to-end tests: JSON parsing of answers and the
// envelope checks.
#ifndef NOX_TESTS_E2E_E2E_SUPPORT_H_
#define NOX_TESTS_E2E_E2E_SUPPORT_H_

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <memory>
#include <string>

inline Json::Value parseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "not JSON: " << text;
  }
  return value;
}

// Checks {"data": null, "error": {"code": code, "description": <non-empty>}}.
inline void expectEnvelope(const httplib::Result& res, int status, long long code) {
  ASSERT_TRUE(res) << "no answer";
  EXPECT_EQ(res->status, status) << res->body;
  const Json::Value body = parseJson(res->body);
  EXPECT_TRUE(body.isMember("data") && body["data"].isNull()) << res->body;
  EXPECT_TRUE(body["error"]["code"].isIntegral()) << res->body;
  EXPECT_EQ(body["error"]["code"].asInt64(), code) << res->body;
  EXPECT_TRUE(body["error"]["description"].isString() &&
              !body["error"]["description"].asString().empty())
      << res->body;
}

#endif  // NOX_TESTS_E2E_E2E_SUPPORT_H_

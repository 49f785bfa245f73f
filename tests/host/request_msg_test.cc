#include "request_msg.h"

#include <gtest/gtest.h>

TEST(GetAllArgsTest, BodyValueWinsOverQueryArgument) {
  CRequestMsg request;
  request.setArg("name", "from-query");
  request.setArg("limit", "10");
  Json::Value body;
  body["name"] = "from-body";
  body["scope"] = "4";
  request.getBody().setJson(body);
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  ASSERT_EQ(args.size(), 3u);
  EXPECT_EQ(args["name"].value_, "from-body");
  EXPECT_EQ(args["name"].kind_, MsgValue::kBodyArg);
  EXPECT_EQ(args["limit"].value_, "10");
  EXPECT_EQ(args["limit"].kind_, MsgValue::kQueryArg);
  EXPECT_EQ(args["scope"].value_, "4");
}

TEST(GetAllArgsTest, EntriesAlreadyInTheMapStay) {
  CRequestMsg request;
  request.setArg("LANGUAGE", "zh");
  std::map<std::string, MsgValue> args;
  args["LANGUAGE"] = MsgValue("en", 7);
  request.getAllArgs(args);
  EXPECT_EQ(args["LANGUAGE"].value_, "en");
  EXPECT_EQ(args["LANGUAGE"].kind_, 7);
}

TEST(GetAllArgsTest, NonStringBodyMembersAreCompactJson) {
  CRequestMsg request;
  Json::Value body;
  body["limit"] = 5;
  body["filter"]["status"] = 2;
  body["none"] = Json::Value();
  request.getBody().setJson(body);
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  EXPECT_EQ(args["limit"].value_, "5");
  EXPECT_EQ(args["filter"].value_, "{\"status\":2}");
  EXPECT_EQ(args["none"].value_, "");
}

TEST(UploadTest, FilesInOrderWithStableContent) {
  CRequestMsg request;
  request.getBody().addUpload("ca.pem", "-----BEGIN CERTIFICATE-----");
  request.getBody().addUpload("second.der", std::string("\x30\x82\x00", 3));
  std::vector<CRequestMsgBody::UploadFileAddr> files;
  EXPECT_EQ(request.getBody().getUploadFileAddr(request.getSessionInfo(), files), 0);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].fileName_, "ca.pem");
  EXPECT_EQ(std::string(files[0].content_, files[0].length_), "-----BEGIN CERTIFICATE-----");
  EXPECT_EQ(files[1].length_, 3u);
  request.getBody().setUploadBroken(true);
  files.clear();
  EXPECT_EQ(request.getBody().getUploadFileAddr(request.getSessionInfo(), files), -1);
  EXPECT_EQ(files.size(), 2u);  // what was read is still listed
}

TEST(HttpRequestTest, HeadersIgnoreCaseAndResponseHeadersReplace) {
  HttpRequest connection("POST", "/kestrel_cert/import_crl", "127.0.0.1");
  connection.addHeader("X-Auth-Token", "abc");
  EXPECT_EQ(connection.getHeader("x-auth-token"), "abc");
  EXPECT_EQ(connection.getHeader("missing"), "");
  connection.setResponseHeader("Content-Type", "application/json");
  connection.setResponseHeader("content-type", "text/plain; charset=utf-8");
  ASSERT_EQ(connection.responseHeaders().size(), 1u);
  EXPECT_EQ(connection.responseHeaders()[0].second, "text/plain; charset=utf-8");
}

TEST(HttpSessionTest, AttributesAreJsonValues) {
  HttpSession session("s-1");
  EXPECT_EQ(session.getId(), "s-1");
  EXPECT_FALSE(session.hasAttribute(CSessionInfo::SESS_STAT_K));
  EXPECT_TRUE(session.getAttribute(CSessionInfo::SESS_STAT_K).isNull());
  session.setAttribute(CSessionInfo::SESS_STAT_K, Json::Value(8));
  EXPECT_EQ(session.getAttribute(CSessionInfo::SESS_STAT_K).asInt(), 8);
}

TEST(SessionInfoTest, LanguageDecidesIsZh) {
  CSessionInfo info;
  EXPECT_FALSE(info.isZh());
  info.setLanguage("zh");
  EXPECT_TRUE(info.isZh());
  info.setLanguage("ZH");
  EXPECT_FALSE(info.isZh());
}

TEST(RequestTest, FirstResIdFallsBackToNullResId) {
  CRequestMsg request;
  EXPECT_EQ(request.firstResID(), CRequestUri::m_nullResID);
  request.getResIDs().push_back("count");
  EXPECT_EQ(request.firstResID(), "count");
}

TEST(RequestUriTest, MethodNamesAndTimeout) {
  EXPECT_STREQ(CRequestUri::URI_ACT_GET, "GET");
  EXPECT_STREQ(CRequestUri::URI_ACT_POST, "POST");
  EXPECT_STREQ(CRequestUri::URI_ACT_PUT, "PUT");
  EXPECT_STREQ(CRequestUri::URI_ACT_DELETE, "DELETE");
  const int before = CRequestUri::getCfgTimeout();
  CRequestUri::setCfgTimeout(7);
  EXPECT_EQ(CRequestUri::getCfgTimeout(), 7);
  CRequestUri::setCfgTimeout(before);
}

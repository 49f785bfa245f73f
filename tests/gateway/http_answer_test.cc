// What every answer gets on its way out: the protective headers, the
// request identifier, HSTS and Secure cookies over HTTPS, and compression
// only where the client accepts it and no secret is at stake.
#include "http_answer.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "error_table.h"

namespace {

using gw::HttpOutput;

std::string header(const HttpOutput& out, const std::string& name) {
  return gw::headerValue(out.headers, name);
}

size_t count(const HttpOutput& out, const std::string& name) {
  size_t n = 0;
  for (const auto& h : out.headers) n += h.first == name ? 1 : 0;
  return n;
}

std::string gunzip(const std::string& packed) {
  z_stream stream{};
  inflateInit2(&stream, 15 + 16);
  std::string out(1 << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  inflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  inflateEnd(&stream);
  return out;
}

TEST(RequestIdTest, SaneIdsAreKeptOthersReplaced) {
  EXPECT_EQ(gw::requestIdFor("abc-123_X.y"), "abc-123_X.y");
  EXPECT_EQ(gw::requestIdFor(std::string(64, 'a')), std::string(64, 'a'));
  for (const std::string& bad : {std::string(), std::string(65, 'a'), std::string("a b"),
                                 std::string("a\r\nX-Evil: 1"), std::string("ü")}) {
    const std::string id = gw::requestIdFor(bad);
    EXPECT_EQ(id.size(), 32u) << bad;
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
  }
  EXPECT_NE(gw::requestIdFor(""), gw::requestIdFor("")) << "new ones differ";
}

TEST(ChooseEncodingTest, BrotliFirstThenGzipAndQZeroRefuses) {
  EXPECT_EQ(gw::chooseEncoding("gzip, deflate, br"), "br");
  EXPECT_EQ(gw::chooseEncoding("gzip"), "gzip");
  EXPECT_EQ(gw::chooseEncoding("br;q=0, gzip;q=0.5"), "gzip");
  EXPECT_EQ(gw::chooseEncoding("*"), "br");
  EXPECT_EQ(gw::chooseEncoding("*;q=0"), "");
  EXPECT_EQ(gw::chooseEncoding("deflate"), "");
  EXPECT_EQ(gw::chooseEncoding(""), "");
  EXPECT_EQ(gw::chooseEncoding(" GZIP ; q=1"), "gzip");
}

TEST(FinishAnswerTest, ProtectiveHeadersOnEveryAnswer) {
  HttpOutput out;
  out.body = "{}";
  gw::AnswerContext context;
  context.requestId = "r-1";
  gw::finishAnswer(&out, context);
  EXPECT_EQ(header(out, "X-Request-Id"), "r-1");
  EXPECT_EQ(header(out, "Cache-Control"), "no-store");
  EXPECT_EQ(header(out, "X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(header(out, "Content-Security-Policy"), "default-src 'none'; frame-ancestors 'none'");
  EXPECT_EQ(header(out, "Strict-Transport-Security"), "") << "plain HTTP";
  EXPECT_EQ(out.contentType, "application/json");
}

TEST(FinishAnswerTest, TheConsolesOwnPolicyAndCachingStay) {
  HttpOutput out;
  out.contentType = "text/html; charset=utf-8";
  out.headers = {{"Cache-Control", "no-cache"}, {"Content-Security-Policy", "default-src 'self'"}};
  gw::finishAnswer(&out, gw::AnswerContext());
  EXPECT_EQ(count(out, "Cache-Control"), 1u);
  EXPECT_EQ(header(out, "Cache-Control"), "no-cache");
  EXPECT_EQ(count(out, "Content-Security-Policy"), 1u);
  EXPECT_EQ(header(out, "Content-Security-Policy"), "default-src 'self'");
}

TEST(FinishAnswerTest, OverHttpsCookiesAreSecureAndHstsIsSent) {
  HttpOutput out;
  out.headers = {{"Set-Cookie", "NOX_SESSION=t; Path=/; HttpOnly; SameSite=Strict"},
                 {"Set-Cookie", "B=1; Secure"}};
  gw::AnswerContext context;
  context.secure = true;
  context.hstsMaxAge = 600;
  gw::finishAnswer(&out, context);
  EXPECT_EQ(out.headers[0].second, "NOX_SESSION=t; Path=/; HttpOnly; SameSite=Strict; Secure");
  EXPECT_EQ(out.headers[1].second, "B=1; Secure") << "never twice";
  EXPECT_EQ(header(out, "Strict-Transport-Security"), "max-age=600");
  HttpOutput none;
  context.hstsMaxAge = 0;
  gw::finishAnswer(&none, context);
  EXPECT_EQ(header(none, "Strict-Transport-Security"), "");
}

TEST(FinishAnswerTest, CompressedOnlyWhenAcceptedLargeEnoughAndFreeOfSecrets) {
  const std::string text = "{\"data\":[" + std::string(2000, ' ') + "]}";
  gw::AnswerContext context;
  context.acceptEncoding = "gzip";
  HttpOutput out;
  out.body = text;
  gw::finishAnswer(&out, context);
  EXPECT_EQ(header(out, "Content-Encoding"), "gzip");
  EXPECT_EQ(header(out, "Vary"), "Accept-Encoding");
  EXPECT_LT(out.body.size(), text.size());
  EXPECT_EQ(gunzip(out.body), text);

  context.acceptEncoding = "br, gzip";
  HttpOutput brotli;
  brotli.body = text;
  gw::finishAnswer(&brotli, context);
  EXPECT_EQ(header(brotli, "Content-Encoding"), "br");

  HttpOutput secret;  // a login answer
  secret.body = text;
  secret.compressible = false;
  gw::finishAnswer(&secret, context);
  EXPECT_EQ(header(secret, "Content-Encoding"), "");
  EXPECT_EQ(secret.body, text);

  HttpOutput small;
  small.body = "{\"data\":null}";
  gw::finishAnswer(&small, context);
  EXPECT_EQ(header(small, "Content-Encoding"), "");

  HttpOutput picture;
  picture.contentType = "image/png";
  picture.body = text;
  gw::finishAnswer(&picture, context);
  EXPECT_EQ(header(picture, "Content-Encoding"), "") << "already compressed types";

  context.acceptEncoding = "";
  HttpOutput plain;
  plain.body = text;
  gw::finishAnswer(&plain, context);
  EXPECT_EQ(plain.body, text);
}

TEST(RefusalTest, StatusAndEnvelope) {
  const HttpOutput out = gw::refusal(431, gw::kErrBadRequest, "The request header is too large.");
  EXPECT_EQ(out.status, 431);
  EXPECT_EQ(out.body,
            "{\"data\":null,\"error\":{\"code\":50331651,\"description\":\"The request header is "
            "too large.\"}}");
}

}  // namespace

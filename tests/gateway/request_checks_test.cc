// The server's rules for one request, as plain functions: header refusals,
// what a failed read answers, body decoding, the client behind a trusted
// proxy and the wire answer.
#include <boost/asio/error.hpp>
#include <boost/beast/http/error.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "error_table.h"
#include "http_server.h"
#include "metrics.h"
#include "request_checks.h"

namespace {

namespace http = boost::beast::http;

gw::BeastRequest request(http::verb verb, const std::string& target) {
  gw::BeastRequest req(verb, target, 11);
  req.set(http::field::host, "t");
  return req;
}

TEST(RequestChecksTest, HeadersTheServerRefuses) {
  gw::ServerConfig config;
  config.maxHeaders = 3;
  gw::BeastRequest trace = request(http::verb::trace, "/");
  ASSERT_TRUE(gw::headerRefusal(trace, false, config));
  EXPECT_EQ(gw::headerRefusal(trace, false, config)->status, 405);

  gw::BeastRequest many = request(http::verb::get, "/");
  for (const char* name : {"A", "B", "C"}) many.insert(name, "x");
  ASSERT_TRUE(gw::headerRefusal(many, false, config));
  EXPECT_EQ(gw::headerRefusal(many, false, config)->status, 431);
  EXPECT_EQ(gw::headerRefusal(many, false, config)->description,
            "The request carries too many headers.");

  gw::BeastRequest twice = request(http::verb::post, "/");
  twice.insert(http::field::content_length, "2");
  twice.insert(http::field::content_length, "2");
  ASSERT_TRUE(gw::headerRefusal(twice, false, config));
  EXPECT_EQ(gw::headerRefusal(twice, false, config)->description,
            "The request body is framed ambiguously.");

  gw::BeastRequest gzipped = request(http::verb::post, "/");
  gzipped.set(http::field::transfer_encoding, "gzip, chunked");
  EXPECT_EQ(gw::headerRefusal(gzipped, true, config)->status, 400);

  gw::BeastRequest getWithBody = request(http::verb::get, "/");
  EXPECT_EQ(gw::headerRefusal(getWithBody, true, config)->description,
            "This method takes no request body.");

  gw::BeastRequest post = request(http::verb::post, "/");
  post.set(http::field::transfer_encoding, "chunked");
  EXPECT_FALSE(gw::headerRefusal(post, true, config));
  EXPECT_FALSE(gw::headerRefusal(request(http::verb::get, "/"), false, config));
}

TEST(RequestChecksTest, WhatAFailedHeaderReadAnswers) {
  EXPECT_FALSE(gw::headerReadRefusal(http::error::end_of_stream, false));
  EXPECT_FALSE(gw::headerReadRefusal(boost::asio::error::connection_reset, true));
  EXPECT_EQ(gw::headerReadRefusal(http::error::header_limit, false)->status, 414);
  EXPECT_EQ(gw::headerReadRefusal(http::error::header_limit, true)->status, 431);
  EXPECT_EQ(gw::headerReadRefusal(http::error::body_limit, true)->status, 413);
  EXPECT_EQ(gw::headerReadRefusal(http::error::body_limit, true)->code, gw::kErrBodyTooLarge);
  const auto bad = gw::headerReadRefusal(http::error::bad_method, false);
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_EQ(bad->description, "The request could not be read.");
}

TEST(RequestChecksTest, BodiesAreDecodedOrRefused) {
  gw::HttpInput unknown;
  unknown.headers = {{"Content-Encoding", "compress"}};
  unknown.body = "x";
  EXPECT_EQ(gw::decodeRequestBody(&unknown, 100)->status, 415);

  gw::HttpInput noBoundary;
  noBoundary.headers = {{"Content-Type", "multipart/form-data"}};
  noBoundary.body = "x";
  EXPECT_EQ(gw::decodeRequestBody(&noBoundary, 100)->status, 400);

  gw::HttpInput form;
  form.headers = {{"content-type", "multipart/form-data; boundary=b"}};
  form.body =
      "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.pem\"\r\n\r\n"
      "PEM\r\n--b--\r\n";
  EXPECT_FALSE(gw::decodeRequestBody(&form, 1000));
  EXPECT_TRUE(form.multipart);
  ASSERT_EQ(form.parts.size(), 1u);
  EXPECT_EQ(form.parts[0].fileName, "a.pem");
  EXPECT_EQ(form.parts[0].content, "PEM");
  EXPECT_EQ(form.body, "");
}

TEST(RequestChecksTest, TheClientBehindATrustedProxy) {
  gw::BeastRequest req = request(http::verb::get, "/");
  req.insert("X-Forwarded-For", "198.51.100.7");
  EXPECT_EQ(gw::requestClientOf(req, "10.0.0.5", {}), "10.0.0.5");
  std::vector<gw::AddressRange> trusted;
  std::string error;
  ASSERT_TRUE(gw::parseAddressRanges("10.0.0.0/8", &trusted, &error)) << error;
  EXPECT_EQ(gw::requestClientOf(req, "10.0.0.5", trusted), "198.51.100.7");
  EXPECT_EQ(gw::requestClientOf(req, "203.0.113.1", trusted), "203.0.113.1");
}

TEST(RequestChecksTest, TheWireAnswer) {
  gw::HttpOutput out;
  out.status = 201;
  out.contentType = "text/plain";
  out.headers = {{"X-A", "1"}};
  out.body = "hello";
  gw::HttpOutput copy = out;
  const gw::BeastResponse head = gw::wireAnswer(copy, 11, true, true);
  EXPECT_EQ(head.result_int(), 201u);
  EXPECT_EQ(head[http::field::content_length], "5");
  EXPECT_EQ(head.body(), "");
  EXPECT_TRUE(head.keep_alive());
  const gw::BeastResponse get = gw::wireAnswer(out, 10, false, false);
  EXPECT_EQ(get.version(), 10u);
  EXPECT_EQ(get.body(), "hello");
  EXPECT_EQ(get[http::field::content_type], "text/plain");
  EXPECT_EQ(get["X-A"], "1");
  EXPECT_FALSE(get.keep_alive());
}

}  // namespace

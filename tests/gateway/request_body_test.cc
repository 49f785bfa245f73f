// Request bodies once the transport has them: content codings undone within
// the limit, and multipart/form-data split into its parts.
#include "request_body.h"

#include <brotli/encode.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace {

using gw::BodyStatus;

// `text` deflated with `windowBits` (15 + 16 gzip, 15 zlib, -15 raw).
std::string deflated(const std::string& text, int windowBits) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::string brotli(const std::string& text) {
  size_t size = BrotliEncoderMaxCompressedSize(text.size());
  std::string out(size, '\0');
  BrotliEncoderCompress(5, BROTLI_DEFAULT_WINDOW, BROTLI_MODE_TEXT, text.size(),
                        reinterpret_cast<const uint8_t*>(text.data()), &size,
                        reinterpret_cast<uint8_t*>(&out[0]));
  out.resize(size);
  return out;
}

TEST(DecodeContentTest, EveryCodingComesBackWhole) {
  const std::string text = "{\"username\":\"apiuser\",\"padding\":\"" + std::string(5000, 'x') + "\"}";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"gzip", deflated(text, 15 + 16)},  {"x-gzip", deflated(text, 15 + 16)},
      {"GZIP", deflated(text, 15 + 16)},  {"deflate", deflated(text, 15)},
      {"deflate", deflated(text, -15)},  // raw deflate, as some clients send it
      {"br", brotli(text)},               {"identity", text},
      {"", text},
  };
  for (const auto& c : cases) {
    std::string body = c.second;
    EXPECT_EQ(gw::decodeContent(c.first, &body, 1 << 20), BodyStatus::kOk) << c.first;
    EXPECT_EQ(body, text) << c.first;
  }
}

TEST(DecodeContentTest, TheLimitCountsWhatComesOut) {
  const std::string bomb = std::string(4 << 20, ' ');
  for (const auto& c : std::vector<std::pair<std::string, std::string>>{
           {"gzip", deflated(bomb, 15 + 16)}, {"br", brotli(bomb)}, {"", bomb}}) {
    std::string body = c.second;
    ASSERT_LT(c.first.empty() ? 0 : body.size(), 65536u) << "a small body: " << c.first;
    EXPECT_EQ(gw::decodeContent(c.first, &body, 65536), BodyStatus::kTooLarge) << c.first;
  }
}

TEST(DecodeContentTest, BrokenStreamsAndUnknownCodings) {
  std::string cut = deflated("hello, world", 15 + 16);
  cut.resize(cut.size() / 2);
  EXPECT_EQ(gw::decodeContent("gzip", &cut, 1024), BodyStatus::kMalformed);
  std::string junk = "not compressed at all";
  EXPECT_EQ(gw::decodeContent("gzip", &junk, 1024), BodyStatus::kMalformed);
  EXPECT_EQ(gw::decodeContent("br", &junk, 1024), BodyStatus::kMalformed);
  EXPECT_EQ(junk, "not compressed at all") << "left as it was";
  EXPECT_EQ(gw::decodeContent("compress", &junk, 1024), BodyStatus::kUnsupported);
  EXPECT_EQ(gw::decodeContent("gzip, br", &junk, 1024), BodyStatus::kUnsupported);
}

TEST(MultipartBoundaryTest, FromTheContentType) {
  EXPECT_EQ(gw::multipartBoundary("multipart/form-data; boundary=abc"), "abc");
  EXPECT_EQ(gw::multipartBoundary("Multipart/Form-Data;boundary=\"a b\""), "a b");
  EXPECT_EQ(gw::multipartBoundary("multipart/form-data; charset=x; BOUNDARY=z9"), "z9");
  EXPECT_EQ(gw::multipartBoundary("multipart/form-data"), "");
  EXPECT_EQ(gw::multipartBoundary("multipart/form-data; boundary="), "");
  EXPECT_EQ(gw::multipartBoundary("multipart/form-data; boundary=" + std::string(71, 'b')), "");
  EXPECT_EQ(gw::multipartBoundary("multipart/mixed; boundary=abc"), "");
  EXPECT_EQ(gw::multipartBoundary("application/json"), "");
}

TEST(ParseMultipartTest, FilesAndFieldsInOrder) {
  const std::string body =
      "preamble to ignore\r\n"
      "--XyZ\r\n"
      "Content-Disposition: form-data; name=\"file\"; filename=\"ca \\\"1\\\".pem\"\r\n"
      "Content-Type: application/x-pem-file\r\n"
      "\r\n"
      "-----BEGIN CERTIFICATE-----\r\n--XY not the boundary\r\n"
      "\r\n"
      "--XyZ  \r\n"
      "content-disposition: form-data; name=note\r\n"
      "\r\n"
      "plain field\r\n"
      "--XyZ\r\n"
      "Content-Disposition: form-data; name=\"empty\"; filename=\"\"\r\n"
      "\r\n"
      "\r\n"
      "--XyZ--\r\n"
      "epilogue";
  std::vector<gw::FormPart> parts;
  ASSERT_TRUE(gw::parseMultipart(body, "XyZ", &parts));
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[0].name, "file");
  EXPECT_EQ(parts[0].fileName, "ca \"1\".pem");
  EXPECT_EQ(parts[0].contentType, "application/x-pem-file");
  EXPECT_EQ(parts[0].content, "-----BEGIN CERTIFICATE-----\r\n--XY not the boundary\r\n");
  EXPECT_EQ(parts[1].name, "note");
  EXPECT_EQ(parts[1].fileName, "");
  EXPECT_EQ(parts[1].content, "plain field");
  EXPECT_EQ(parts[2].name, "empty");
  EXPECT_EQ(parts[2].content, "");
}

TEST(ParseMultipartTest, BinaryContentIsKeptByteForByte) {
  std::string content;
  for (int i = 0; i < 256; ++i) content += static_cast<char>(i);
  const std::string body = "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"x.der\"\r\n\r\n" +
                           content + "\r\n--b--";
  std::vector<gw::FormPart> parts;
  ASSERT_TRUE(gw::parseMultipart(body, "b", &parts));
  ASSERT_EQ(parts.size(), 1u);
  EXPECT_EQ(parts[0].content, content);
}

TEST(ParseMultipartTest, MalformedBodiesAreRefused) {
  const std::string part = "Content-Disposition: form-data; name=\"f\"\r\n\r\nx\r\n";
  const std::vector<std::string> bad = {
      "",                                                  // nothing at all
      "--b\r\n" + part,                                    // no closing delimiter
      "no delimiter anywhere",                             //
      "--b\r\nContent-Type: text/plain\r\n\r\nx\r\n--b--",  // no Content-Disposition
      "--b\r\nContent-Disposition: attachment; name=\"f\"\r\n\r\nx\r\n--b--",  // not form-data
      "--b\r\nContent-Disposition: form-data\r\n\r\nx\r\n--b--",  // no name
      "--b\r\n\r\nx\r\n--b--",                                   // no headers at all
      "--b\r\nContent-Disposition: form-data; name=\"f\"\r\nx\r\n--b--",  // headers never end
      "--bjunk\r\n" + part + "--b--",                      // the delimiter line goes on
      "--b\r\nbroken header line\r\n\r\nx\r\n--b--",       // a header line without a colon
  };
  for (const std::string& body : bad) {
    std::vector<gw::FormPart> parts;
    EXPECT_FALSE(gw::parseMultipart(body, "b", &parts)) << body;
  }
}

}  // namespace

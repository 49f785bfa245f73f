// The backend's wire format: every cell type survives a round trip, limits
// hold, and truncated, oversized or garbage frames are refused.
#include "tlv_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tlvwire::FrameHeader;
using tlvwire::FrameKind;

// Compares two packages cell by cell, bytes included.
void expectSamePackage(const CR3MPackageV3& a, const CR3MPackageV3& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t r = 0; r < a.size(); ++r) {
    const CR3MRecordV3& ra = a.recordAt(r);
    const CR3MRecordV3& rb = b.recordAt(r);
    EXPECT_EQ(ra.command(), rb.command());
    EXPECT_EQ(ra.word(), rb.word());
    ASSERT_EQ(ra.cellCount(), rb.cellCount());
    for (size_t c = 0; c < ra.cellCount(); ++c) {
      const CTLVCell& ca = ra.cellAt(c);
      const CTLVCell& cb = rb.cellAt(c);
      EXPECT_EQ(ca.getTag(), cb.getTag());
      EXPECT_EQ(ca.getType(), cb.getType());
      ASSERT_EQ(ca.getLength(), cb.getLength());
      if (ca.getLength() > 0) {
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(ca.data()), ca.getLength()),
                  std::string(reinterpret_cast<const char*>(cb.data()), cb.getLength()));
      }
    }
  }
}

// A package with one cell of every type, inline and heap values, and the
// highest tag.
CR3MPackageV3 everyCellType() {
  CR3MPackageV3 p;
  CR3MRecordV3& r = p.addRecord(0xE012C000, 13);
  r[1].setString(1, "text");                            // inline text, NUL counted
  r[2].setString(2, std::string(300, 'x'));             // heap text
  r[3].setUInt32(3, 0xDEADBEEF);
  r[4].setInt32(4, -5);
  unsigned char u8 = 200;
  r[5].set_i(CTLVCell::TLV_UINT8, 5, &u8, 1);
  unsigned char u16[2] = {0x34, 0x12};
  r[6].set_i(CTLVCell::TLV_UINT16, 6, u16, 2);
  std::string array = "[1,2,3]";
  r[7].set_i(CTLVCell::TLV_JSON_ARRAY, 7, &array[0], array.size());
  std::string object = "{\"code\":\"1610000001\",\"node\":\"n1\"}";
  r[8].set_i(CTLVCell::TLV_JSON, 8, &object[0], object.size());
  r[9].setUInt64(9, 0x0123456789ABCDEFull);
  unsigned char binary[3] = {0, 0xFF, 7};
  r[10].set_i(CTLVCell::TLV_BINARY, 10, binary, 3);
  r[11].set_i(CTLVCell::TLV_NONE, 11, nullptr, 0);  // a cell made by a lookup
  r[0xFFF].setUInt32(0xFFF, 1);                      // the highest tag
  p.addRecord(0x00C9009B, 7);                        // a record without cells
  return p;
}

TEST(TlvWireTest, EveryCellTypeRoundTrips) {
  const CR3MPackageV3 p = everyCellType();
  CR3MPackageV3 back;
  std::string error;
  ASSERT_TRUE(tlvwire::parsePackageBytes(tlvwire::packageBytes(p), &back, &error)) << error;
  expectSamePackage(p, back);
  // Readings through the cell's own conversions agree too.
  EXPECT_EQ(std::string(static_cast<const char*>(back.recordAt(0).cellAt(0))), "text");
  EXPECT_EQ(back.recordAt(0).find(4)->toInt64(), -5);
  EXPECT_EQ(back.recordAt(0).find(9)->toInt64(), 0x0123456789ABCDEFll);
  EXPECT_EQ(back.recordAt(0).find(6)->toInt64(), 0x1234);
}

TEST(TlvWireTest, EmptyPackageRoundTrips) {
  const CR3MPackageV3 empty;
  EXPECT_EQ(tlvwire::packageBytes(empty), std::string(4, '\0'));  // a zero record count
  CR3MPackageV3 back = everyCellType();  // parsing replaces what was there
  std::string error;
  ASSERT_TRUE(tlvwire::parsePackageBytes(tlvwire::packageBytes(empty), &back, &error)) << error;
  EXPECT_EQ(back.size(), 0u);
}

TEST(TlvWireTest, CallRoundTrips) {
  CDeviceID device{"dev-1", "10.0.0.1"};
  UserContext user{"apiuser", "3", "4", "127.0.0.1"};
  const TlvCall call{device, user, "V3", 17, CommunicationTarget::TARGET_EVENT};
  const CR3MPackageV3 request = everyCellType();
  tlvwire::WireCall got;
  CR3MPackageV3 back;
  std::string error;
  ASSERT_TRUE(tlvwire::parseCallBody(tlvwire::callBody(call, request), &got, &back, &error))
      << error;
  EXPECT_EQ(got.device.id_, "dev-1");
  EXPECT_EQ(got.device.address_, "10.0.0.1");
  EXPECT_EQ(got.user.userName_, "apiuser");
  EXPECT_EQ(got.user.userId_, "3");
  EXPECT_EQ(got.user.scope_, "4");
  EXPECT_EQ(got.user.clientAddress_, "127.0.0.1");
  EXPECT_EQ(got.interfaceVersion, "V3");
  EXPECT_EQ(got.timeout, 17);
  EXPECT_EQ(got.target, CommunicationTarget::TARGET_EVENT);
  expectSamePackage(request, back);
}

TEST(TlvWireTest, ReplyStoreCodeAndListBodiesRoundTrip) {
  std::string error;
  long long code = 0;
  CR3MPackageV3 back;
  ASSERT_TRUE(tlvwire::parseReplyBody(tlvwire::replyBody(0x60E01D12, everyCellType()), &code,
                                      &back, &error))
      << error;
  EXPECT_EQ(code, 0x60E01D12);
  expectSamePackage(everyCellType(), back);
  // A negative code keeps its sign.
  ASSERT_TRUE(tlvwire::parseCodeBody(tlvwire::codeBody(-2), &code, &error)) << error;
  EXPECT_EQ(code, -2);

  const std::string bytes("a\0b\xff", 4);
  std::string path;
  std::string data;
  ASSERT_TRUE(tlvwire::parseStoreFileBody(tlvwire::storeFileBody("/d/tmp/x.upload", bytes.data(),
                                                                  bytes.size()),
                                          &path, &data, &error))
      << error;
  EXPECT_EQ(path, "/d/tmp/x.upload");
  EXPECT_EQ(data, bytes);

  std::vector<std::string> texts;
  ASSERT_TRUE(tlvwire::parseStringListBody(tlvwire::stringListBody({"/d/tmp", "/d/crl/incoming"}),
                                           &texts, &error))
      << error;
  EXPECT_EQ(texts, (std::vector<std::string>{"/d/tmp", "/d/crl/incoming"}));
}

TEST(TlvWireTest, HeaderRoundTripsAndKnowsItsLimits) {
  const std::string f = tlvwire::frame(FrameKind::kCall, 0xA1B2C3D4, "xyz");
  ASSERT_EQ(f.size(), tlvwire::kHeaderBytes + 3);
  EXPECT_EQ(f.substr(4, 2), "NX");  // the magic reads as text on the wire
  FrameHeader h;
  std::string error;
  ASSERT_TRUE(tlvwire::parseHeader(f.data(), &h, &error)) << error;
  EXPECT_EQ(h.kind, FrameKind::kCall);
  EXPECT_EQ(h.callId, 0xA1B2C3D4u);
  EXPECT_EQ(h.bodyBytes(), 3u);

  // The largest frame is accepted, one byte more is not.
  std::string largest = tlvwire::frame(FrameKind::kStoreFile, 1, std::string());
  const uint32_t maxLength = tlvwire::kMaxFrameBytes - 4;
  for (int i = 0; i < 4; ++i) largest[i] = static_cast<char>((maxLength >> (8 * i)) & 0xFF);
  ASSERT_TRUE(tlvwire::parseHeader(largest.data(), &h, &error)) << error;
  EXPECT_EQ(h.bodyBytes(), tlvwire::kMaxFrameBytes - tlvwire::kHeaderBytes);
  std::string tooLarge = largest;
  tooLarge[0] = static_cast<char>(((maxLength + 1) >> 0) & 0xFF);
  tooLarge[1] = static_cast<char>(((maxLength + 1) >> 8) & 0xFF);
  tooLarge[2] = static_cast<char>(((maxLength + 1) >> 16) & 0xFF);
  EXPECT_FALSE(tlvwire::parseHeader(tooLarge.data(), &h, &error));
  EXPECT_NE(error.find("out of range"), std::string::npos) << error;
}

TEST(TlvWireTest, BadHeadersAreRefused) {
  const std::string good = tlvwire::frame(FrameKind::kPing, 1, std::string());
  struct Case {
    size_t at;
    char value;
    const char* reason;  // a piece of the error text
  } cases[] = {
      {4, 'H', "magic"},          // "HX": not our magic (an HTTP request, say)
      {6, 3, "version"},          // a later wire version
      {6, 1, "version"},          // the one before calls carried their language
      {7, 0, "kind"},             // kind 0
      {7, 9, "kind"},             // beyond the last kind
      {0, 7, "out of range"},     // shorter than the header's own fields
      {3, '\x7f', "out of range"},  // about 2 GiB
  };
  for (const Case& c : cases) {
    std::string bad = good;
    bad[c.at] = c.value;
    FrameHeader h;
    std::string error;
    EXPECT_FALSE(tlvwire::parseHeader(bad.data(), &h, &error)) << c.reason;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
  }
}

TEST(TlvWireTest, TruncatedBodiesAreRefusedAtEveryLength) {
  CDeviceID device{"d", "a"};
  UserContext user{"u", "1", "4", "127.0.0.1"};
  const TlvCall call{device, user, "V3", 5, CommunicationTarget::TARGET_BACKEND};
  const std::string body = tlvwire::callBody(call, everyCellType());
  // Every cut short of the whole body is refused, never read past its end.
  for (size_t n = 0; n < body.size(); ++n) {
    tlvwire::WireCall got;
    CR3MPackageV3 back;
    std::string error;
    EXPECT_FALSE(tlvwire::parseCallBody(body.substr(0, n), &got, &back, &error)) << n;
    EXPECT_FALSE(error.empty()) << n;
  }
  // One byte too many is refused as well.
  tlvwire::WireCall got;
  CR3MPackageV3 back;
  std::string error;
  EXPECT_FALSE(tlvwire::parseCallBody(body + "x", &got, &back, &error));
  EXPECT_NE(error.find("after the end"), std::string::npos) << error;
}

TEST(TlvWireTest, GarbagePackagesAreRefused) {
  const std::string valid = tlvwire::packageBytes(everyCellType());
  struct Case {
    std::string bytes;
    const char* reason;
  } cases[] = {
      // A record count of 2^32-1 with nothing behind it: refused before any
      // room is made for it.
      {std::string("\xff\xff\xff\xff", 4), "record count"},
      // One record claiming 2^32-1 cells.
      {std::string("\x01\0\0\0", 4) + std::string(8, '\0') + std::string("\xff\xff\xff\xff", 4),
       "cell count"},
      // One cell of type 15.
      {std::string("\x01\0\0\0", 4) + std::string(8, '\0') + std::string("\x01\0\0\0", 4) +
           std::string("\x1f\0", 2) + std::string(4, '\0'),
       "cell type"},
      // A cell claiming 2^32-1 bytes.
      {std::string("\x01\0\0\0", 4) + std::string(8, '\0') + std::string("\x01\0\0\0", 4) +
           std::string("\x13\0", 2) + std::string("\xff\xff\xff\xff", 4),
       "truncated cell value"},
      // Two cells with tag 1.
      {std::string("\x01\0\0\0", 4) + std::string(8, '\0') + std::string("\x02\0\0\0", 4) +
           std::string("\x13\0", 2) + std::string(4, '\0') + std::string("\x13\0", 2) +
           std::string(4, '\0'),
       "twice"},
      {valid.substr(0, valid.size() - 1), "truncated"},
      {std::string(), "truncated record count"},
  };
  for (const Case& c : cases) {
    CR3MPackageV3 back;
    std::string error;
    EXPECT_FALSE(tlvwire::parsePackageBytes(c.bytes, &back, &error)) << c.reason;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
  }
}

TEST(TlvWireTest, LargeCellsAtTheFrameLimitRoundTrip) {
  // A staged upload of 16 MiB, the largest a frame carries, and a package
  // with one cell of 1 MiB.
  const std::string big(16u * 1024 * 1024, 'q');
  const std::string body = tlvwire::storeFileBody("/d/tmp/big.upload", big.data(), big.size());
  EXPECT_LE(body.size() + tlvwire::kHeaderBytes, tlvwire::kMaxFrameBytes);
  std::string path;
  std::string data;
  std::string error;
  ASSERT_TRUE(tlvwire::parseStoreFileBody(body, &path, &data, &error)) << error;
  EXPECT_EQ(data.size(), big.size());

  CR3MPackageV3 p;
  std::string mib(1024 * 1024, 'b');
  p.addRecord(1, 13)[70].set_i(CTLVCell::TLV_BINARY, 70, &mib[0], mib.size());
  CR3MPackageV3 back;
  ASSERT_TRUE(tlvwire::parsePackageBytes(tlvwire::packageBytes(p), &back, &error)) << error;
  expectSamePackage(p, back);
}

}  // namespace

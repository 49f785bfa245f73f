// clientAddressOf: which address a request behind trusted proxies comes from.
#include "forwarded_for.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<gw::AddressRange> ranges(const std::string& text) {
  std::vector<gw::AddressRange> out;
  std::string error;
  EXPECT_TRUE(gw::parseAddressRanges(text, &out, &error)) << error;
  return out;
}

TEST(ForwardedForTest, TheRightMostUntrustedEntryIsTheClient) {
  const std::vector<gw::AddressRange> trusted = ranges("10.0.0.0/8,2001:db8:ffff::/48");
  const struct {
    const char* peer;
    const char* header;
    const char* client;
    const char* why;
  } cases[] = {
      {"10.0.0.5", "198.51.100.7", "198.51.100.7", "one proxy"},
      {"10.0.0.5", "198.51.100.7, 10.0.0.9", "198.51.100.7", "two proxies"},
      {"10.0.0.5", "6.6.6.6, 198.51.100.7", "198.51.100.7",
       "what the client wrote itself is not believed"},
      {"10.0.0.5", "6.6.6.6,198.51.100.7", "198.51.100.7", "no blanks"},
      {"10.0.0.5", "10.0.0.8, 10.0.0.9", "10.0.0.8", "only proxies: the left-most"},
      {"10.0.0.5", "", "10.0.0.5", "no header: the proxy itself"},
      {"10.0.0.5", "unknown", "10.0.0.5", "no address: the proxy itself"},
      {"10.0.0.5", "198.51.100.7, unknown", "10.0.0.5", "an unreadable hop stops the walk"},
      {"10.0.0.5", "6.6.6.6, garbage, 10.0.0.9", "10.0.0.9",
       "the last address read, never the garbage"},
      {"10.0.0.5", "198.51.100.7, ", "10.0.0.5", "an empty last entry"},
      {"10.0.0.5", "198.51.100.7:5123", "198.51.100.7", "IPv4 with a port"},
      {"10.0.0.5", "[2001:DB8::0001]:5123", "2001:db8::1", "IPv6 in brackets, canonical"},
      {"10.0.0.5", "2001:db8::1", "2001:db8::1", "IPv6"},
      {"10.0.0.5", "::ffff:198.51.100.7", "::ffff:198.51.100.7", "IPv4-mapped"},
      {"10.0.0.5", "198.51.100.7\r\nX-Evil: 1", "10.0.0.5", "no line breaks"},
      {"10.0.0.5", "198.51.100.7/8", "10.0.0.5", "no ranges"},
      {"203.0.113.1", "198.51.100.7", "203.0.113.1", "an untrusted peer: its header is ignored"},
      {"::ffff:10.0.0.5", "198.51.100.7", "198.51.100.7", "a proxy seen as IPv4-mapped"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(gw::clientAddressOf(c.peer, c.header, trusted), c.client) << c.why;
  }
}

TEST(ForwardedForTest, WithoutTrustedProxiesThePeerIsTheClient) {
  EXPECT_EQ(gw::clientAddressOf("127.0.0.1", "198.51.100.7", {}), "127.0.0.1");
}

}  // namespace

#include "forwarded_for.h"

#include <arpa/inet.h>

namespace gw {

namespace {

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// One list entry as an address in canonical text: "198.51.100.7",
// "198.51.100.7:5123", "2001:db8::1", "[2001:db8::1]:5123". False for
// anything else ("unknown", "_hidden", a name).
bool canonicalAddress(const std::string& entry, std::string* address) {
  std::string text = trimmed(entry);
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return false;
    text = text.substr(1, close - 1);
  } else if (text.find(':') != std::string::npos && text.find('.') != std::string::npos &&
             text.find(':') == text.rfind(':')) {
    text.resize(text.find(':'));  // IPv4 with a port
  }
  unsigned char bytes[16];
  char out[INET6_ADDRSTRLEN];
  const int family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
  if (inet_pton(family, text.c_str(), bytes) != 1) return false;
  if (inet_ntop(family, bytes, out, sizeof(out)) == nullptr) return false;
  *address = out;
  return true;
}

}  // namespace

std::string clientAddressOf(const std::string& peer, const std::string& forwardedFor,
                            const std::vector<AddressRange>& trusted) {
  if (trusted.empty() || !addressAllowed(trusted, peer)) return peer;
  std::string client = peer;
  size_t end = forwardedFor.size();
  for (;;) {
    const size_t comma = end == 0 ? std::string::npos : forwardedFor.rfind(',', end - 1);
    const size_t begin = comma == std::string::npos ? 0 : comma + 1;
    std::string address;
    if (!canonicalAddress(forwardedFor.substr(begin, end - begin), &address)) break;
    client = address;
    if (!addressAllowed(trusted, address) || comma == std::string::npos) break;
    end = comma;
  }
  return client;
}

}  // namespace gw

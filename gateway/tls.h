// HTTPS set-up: the TLS settings of the gateway's server context and a
// self-signed key pair for trial runs.
//
// Thread-safety: called on the main thread at start-up.
#ifndef NOX_GATEWAY_TLS_H_
#define NOX_GATEWAY_TLS_H_

#include <openssl/ssl.h>

#include <string>

namespace gw {

// TLS 1.2 and 1.3 only; TLS 1.2 limited to ECDHE key exchange with AEAD
// ciphers (AES-GCM, ChaCha20-Poly1305); no renegotiation, no compression, no
// session tickets.
extern const char kTls12Ciphers[];

// Applies those settings to `ctx` and loads the certificate chain and key
// (PEM files). Returns true on success; on failure stores the reason in
// *error.
bool configureTlsContext(SSL_CTX* ctx, const std::string& certFile, const std::string& keyFile,
                         std::string* error);

// Makes (or reuses, when both files exist) an EC P-256 key and a self-signed
// certificate for "localhost" and 127.0.0.1, valid for 365 days, in `dir`
// (created with mode 0700; the key file gets mode 0600). Stores the file paths
// in *certFile and *keyFile. Returns false with *error set on failure.
bool ensureSelfSignedPair(const std::string& dir, std::string* certFile, std::string* keyFile,
                          std::string* error);

}  // namespace gw

#endif  // NOX_GATEWAY_TLS_H_

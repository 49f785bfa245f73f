#include "tls.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace gw {

const char kTls12Ciphers[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";

namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* ext) const { X509_EXTENSION_free(ext); }
};
struct FileClose {
  void operator()(FILE* file) const { fclose(file); }
};

std::string opensslError() {
  const unsigned long code = ERR_get_error();
  if (code == 0) return "unknown OpenSSL error";
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  ERR_clear_error();
  return text;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool addExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, ExtFree> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// Opens `path` for writing with `mode`, replacing an earlier file.
std::unique_ptr<FILE, FileClose> createFile(const std::string& path, mode_t mode) {
  unlink(path.c_str());
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) close(fd);
  return std::unique_ptr<FILE, FileClose>(file);
}

// Makes the data folder (and its parent, which no backend may have made yet).
bool makeKeyFolder(const std::string& dir, std::string* error) {
  const size_t slash = dir.rfind('/');
  if (slash != std::string::npos && slash > 0) mkdir(dir.substr(0, slash).c_str(), 0700);
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot create " + dir;
    return false;
  }
  return true;
}

bool setRandomSerial(X509* cert) {
  unsigned char serial[16];
  if (RAND_bytes(serial, sizeof(serial)) != 1) return false;
  serial[0] &= 0x7F;  // a positive serial number
  BIGNUM* bn = BN_bin2bn(serial, sizeof(serial), nullptr);
  const bool set = bn != nullptr && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert));
  BN_free(bn);
  return set;
}

bool addNameEntry(X509_NAME* name, const char* field, const char* value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>(value), -1, -1,
                                    0) == 1;
}

// A year's server certificate for localhost, signed by its own key.
bool fillSelfSigned(X509* cert, EVP_PKEY* key) {
  X509_NAME* name = X509_get_subject_name(cert);
  return setRandomSerial(cert) && X509_set_version(cert, 2) == 1 &&
         X509_gmtime_adj(X509_getm_notBefore(cert), -60) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600) != nullptr &&
         X509_set_pubkey(cert, key) == 1 && addNameEntry(name, "O", "NOX gateway trial") &&
         addNameEntry(name, "CN", "localhost") && X509_set_issuer_name(cert, name) == 1 &&
         addExtension(cert, NID_basic_constraints, "critical,CA:FALSE") &&
         addExtension(cert, NID_key_usage, "critical,digitalSignature") &&
         addExtension(cert, NID_ext_key_usage, "serverAuth") &&
         addExtension(cert, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
         X509_sign(cert, key, EVP_sha256()) > 0;
}

bool writePair(EVP_PKEY* key, X509* cert, const std::string& certFile,
               const std::string& keyFile, std::string* error) {
  {
    std::unique_ptr<FILE, FileClose> out = createFile(keyFile, 0600);
    if (!out || PEM_write_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
      *error = "cannot write " + keyFile;
      return false;
    }
  }
  std::unique_ptr<FILE, FileClose> out = createFile(certFile, 0644);
  if (!out || PEM_write_X509(out.get(), cert) != 1) {
    *error = "cannot write " + certFile;
    return false;
  }
  return true;
}

}  // namespace

bool configureTlsContext(SSL_CTX* ctx, const std::string& certFile, const std::string& keyFile,
                         std::string* error) {
  if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(ctx, kTls12Ciphers) != 1) {
    *error = "cannot set the TLS protocol versions or ciphers: " + opensslError();
    return false;
  }
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                               SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_TICKET);
  if (SSL_CTX_use_certificate_chain_file(ctx, certFile.c_str()) != 1) {
    *error = "cannot read the TLS certificate " + certFile + ": " + opensslError();
    return false;
  }
  if (SSL_CTX_use_PrivateKey_file(ctx, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    *error = "cannot read the TLS key " + keyFile + ": " + opensslError();
    return false;
  }
  if (SSL_CTX_check_private_key(ctx) != 1) {
    *error = "the TLS key " + keyFile + " does not belong to the certificate " + certFile;
    return false;
  }
  return true;
}

bool ensureSelfSignedPair(const std::string& dir, std::string* certFile, std::string* keyFile,
                          std::string* error) {
  *certFile = dir + "/gateway-selfsigned.crt";
  *keyFile = dir + "/gateway-selfsigned.key";
  if (fileExists(*certFile) && fileExists(*keyFile)) return true;
  if (!makeKeyFolder(dir, error)) return false;
  std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_EC_gen("P-256"));
  std::unique_ptr<X509, X509Free> cert(X509_new());
  if (!key || !cert) {
    *error = "cannot make a key pair: " + opensslError();
    return false;
  }
  if (!fillSelfSigned(cert.get(), key.get())) {
    *error = "cannot make the self-signed certificate: " + opensslError();
    return false;
  }
  return writePair(key.get(), cert.get(), *certFile, *keyFile, error);
}

}  // namespace gw

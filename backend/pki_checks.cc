#include "pki_checks.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <memory>

#include "backend_protocol.h"
#include "password_hash.h"

namespace {

struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct CrlFree {
  void operator()(X509_CRL* c) const { X509_CRL_free(c); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using CrlPtr = std::unique_ptr<X509_CRL, CrlFree>;

// PEM is told apart from DER by its armour line; leading blanks are allowed
// because editors and mail clients add them.
bool looksLikePem(const std::string& bytes) {
  size_t i = 0;
  while (i < bytes.size() && std::isspace(static_cast<unsigned char>(bytes[i]))) ++i;
  return bytes.compare(i, 10, "-----BEGIN") == 0;
}

BioPtr memoryBio(const std::string& bytes) {
  return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

X509Ptr parseCertificate(const std::string& bytes) {
  if (bytes.empty()) return nullptr;
  if (looksLikePem(bytes)) {
    BioPtr bio = memoryBio(bytes);
    if (!bio) return nullptr;
    return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  }
  const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(bytes.size())));
  // Trailing bytes after the DER structure mean this is not one certificate.
  if (cert && p != reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size()) {
    return nullptr;
  }
  return cert;
}

CrlPtr parseCrl(const std::string& bytes) {
  if (bytes.empty()) return nullptr;
  if (looksLikePem(bytes)) {
    BioPtr bio = memoryBio(bytes);
    if (!bio) return nullptr;
    return CrlPtr(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
  }
  const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
  CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(bytes.size())));
  if (crl && p != reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size()) {
    return nullptr;
  }
  return crl;
}

std::string nameText(const X509_NAME* name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || name == nullptr) return std::string();
  X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253);
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
}

// Seconds since the epoch of an ASN.1 time, or 0 when it cannot be read.
long long epochOf(const ASN1_TIME* t) {
  if (t == nullptr) return 0;
  struct tm tm = {};
  if (ASN1_TIME_to_tm(t, &tm) != 1) return 0;
  return static_cast<long long>(timegm(&tm));
}

std::string sha256Hex(const unsigned char* der, int length) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (length <= 0 ||
      EVP_Digest(der, static_cast<size_t>(length), md, &size, EVP_sha256(), nullptr) != 1) {
    return std::string();
  }
  return toHex(std::string(reinterpret_cast<const char*>(md), size));
}

std::string certFingerprint(X509* cert) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(cert, &der);
  std::string hex = sha256Hex(der, length);
  OPENSSL_free(der);
  return hex;
}

template <typename Writer, typename Object>
std::string toPem(Writer write, Object* object) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || write(bio.get(), object) != 1) return std::string();
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
}

bool weakDigest(int mdnid) {
  return mdnid == NID_md5 || mdnid == NID_sha1 || mdnid == NID_md5_sha1 || mdnid == NID_md4 ||
         mdnid == NID_md2;
}

// Each check below answers 0, or the refusal code with its reason.
long long checkDates(X509* cert, std::time_t now, std::string* reason) {
  // X509_cmp_time: -1 when the time is before or at `now`, 1 after, 0 when
  // it cannot be read (treated as outside the dates).
  if (X509_cmp_time(X509_get0_notBefore(cert), &now) != -1) {
    *reason = "not valid yet";
    return proto::kErrCertExpired;
  }
  if (X509_cmp_time(X509_get0_notAfter(cert), &now) != 1) {
    *reason = "expired";
    return proto::kErrCertExpired;
  }
  return 0;
}

long long checkCaUsage(X509* cert, std::string* reason) {
  const uint32_t flags = X509_get_extension_flags(cert);
  if ((flags & EXFLAG_CA) == 0) {
    *reason = "no basic constraint CA:TRUE";
    return proto::kErrCertNotCa;
  }
  if ((flags & EXFLAG_KUSAGE) == 0 || (X509_get_key_usage(cert) & KU_KEY_CERT_SIGN) == 0) {
    *reason = "key usage without keyCertSign";
    return proto::kErrCertNotCa;
  }
  return 0;
}

long long checkKeyStrength(X509* cert, std::string* reason) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  if (key == nullptr) {
    *reason = "public key cannot be read";
    return proto::kErrCertUnreadable;
  }
  const int bits = EVP_PKEY_get_bits(key);
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
      if (bits >= 2048) return 0;
      *reason = "RSA key of " + std::to_string(bits) + " bits";
      return proto::kErrCertWeakKey;
    case EVP_PKEY_EC:
      if (bits >= 256) return 0;
      *reason = "EC key of " + std::to_string(bits) + " bits";
      return proto::kErrCertWeakKey;
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
      return 0;
    default:
      *reason = "key type not accepted";
      return proto::kErrCertWeakKey;
  }
}

long long checkSignature(X509* cert, std::string* reason) {
  int mdnid = NID_undef;
  int pknid = NID_undef;
  int secbits = 0;
  uint32_t sigflags = 0;
  if (X509_get_signature_info(cert, &mdnid, &pknid, &secbits, &sigflags) != 1) {
    *reason = "signature algorithm unknown";
    return proto::kErrCertNotSafe;
  }
  if (weakDigest(mdnid)) {
    *reason = std::string("signed with ") + OBJ_nid2sn(mdnid);
    return proto::kErrCertNotSafe;
  }
  return 0;
}

}  // namespace

long long checkCaCertificate(const std::string& bytes, std::time_t now, CaCertificate* out,
                             std::string* reason) {
  X509Ptr cert = parseCertificate(bytes);
  if (!cert) {
    *reason = "not a PEM or DER certificate";
    return proto::kErrCertUnreadable;
  }
  long long code = checkDates(cert.get(), now, reason);
  if (code == 0) code = checkCaUsage(cert.get(), reason);
  if (code == 0) code = checkKeyStrength(cert.get(), reason);
  if (code == 0) code = checkSignature(cert.get(), reason);
  if (code != 0) return code;
  out->pem = toPem(PEM_write_bio_X509, cert.get());
  out->fingerprint = certFingerprint(cert.get());
  out->subject = nameText(X509_get_subject_name(cert.get()));
  out->notAfter = epochOf(X509_get0_notAfter(cert.get()));
  if (out->pem.empty() || out->fingerprint.empty()) {
    *reason = "certificate cannot be re-encoded";
    return proto::kErrCertUnreadable;
  }
  return 0;
}

long long checkCrl(const std::string& bytes, const std::vector<std::string>& caPems,
                   std::time_t now, CrlInfo* out, std::string* reason) {
  CrlPtr crl = parseCrl(bytes);
  if (!crl) {
    *reason = "not a PEM or DER CRL";
    return proto::kErrCrlUnreadable;
  }
  const X509_NAME* issuer = X509_CRL_get_issuer(crl.get());
  bool issuerKnown = false;
  X509Ptr signer;
  for (const std::string& pem : caPems) {
    X509Ptr ca = parseCertificate(pem);
    if (!ca || X509_NAME_cmp(X509_get_subject_name(ca.get()), issuer) != 0) continue;
    issuerKnown = true;
    // Several imported CAs may share a name (a renewed CA); any of their keys
    // may have signed the list.
    if (X509_CRL_verify(crl.get(), X509_get0_pubkey(ca.get())) == 1) {
      signer = std::move(ca);
      break;
    }
  }
  if (!issuerKnown) {
    *reason = "issuer is not an imported CA";
    return proto::kErrCrlUnknownIssuer;
  }
  if (!signer) {
    *reason = "signature does not verify with the issuer's key";
    return proto::kErrCrlBadSignature;
  }
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl.get());
  if (next == nullptr) {
    *reason = "no next update";
    return proto::kErrCrlExpired;
  }
  if (X509_cmp_time(next, &now) != 1) {
    *reason = "next update is in the past";
    return proto::kErrCrlExpired;
  }
  unsigned char* der = nullptr;
  const int length = i2d_X509_CRL(crl.get(), &der);
  out->fingerprint = sha256Hex(der, length);
  OPENSSL_free(der);
  out->pem = toPem(PEM_write_bio_X509_CRL, crl.get());
  out->issuerFingerprint = certFingerprint(signer.get());
  out->issuer = nameText(issuer);
  out->thisUpdate = epochOf(X509_CRL_get0_lastUpdate(crl.get()));
  out->nextUpdate = epochOf(next);
  STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl.get());
  out->revoked = revoked != nullptr ? sk_X509_REVOKED_num(revoked) : 0;
  if (out->pem.empty() || out->fingerprint.empty()) {
    *reason = "CRL cannot be re-encoded";
    return proto::kErrCrlUnreadable;
  }
  return 0;
}

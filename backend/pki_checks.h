// The simulated backend's checks of uploaded CA certificates and CRLs, done
// for real with OpenSSL.
//
//   CaCertificate ca;
//   long long code = checkCaCertificate(fileBytes, time(nullptr), &ca, &reason);
//   // code == 0: ca.pem, ca.fingerprint, ca.subject are filled
//   // code == proto::kErrCertExpired etc.: refused, reason says why
//
// Both PEM and DER are recognised by content, never by file name.
//
// Thread-safety: the functions keep no state and may run on any thread.
#ifndef NOX_BACKEND_PKI_CHECKS_H_
#define NOX_BACKEND_PKI_CHECKS_H_

#include <ctime>
#include <string>
#include <vector>

// An accepted CA certificate.
struct CaCertificate {
  std::string pem;          // re-encoded PEM, what is kept on disk
  std::string fingerprint;  // lower-case hex SHA-256 of the DER encoding
  std::string subject;      // RFC 2253 text, for people
  long long notAfter = 0;   // seconds since the epoch
};

// Checks `bytes` as a CA certificate at time `now`, in this order:
//   1. PEM or DER certificate                  else proto::kErrCertUnreadable
//   2. now within notBefore .. notAfter        else proto::kErrCertExpired
//   3. basicConstraints CA:TRUE and a key
//      usage with keyCertSign                  else proto::kErrCertNotCa
//   4. RSA >= 2048 bits, EC >= 256 bits,
//      or an Edwards-curve key                 else proto::kErrCertWeakKey
//   5. signed with neither MD5 nor SHA-1
//      (nor MD2/MD4)                           else proto::kErrCertNotSafe
// Returns 0 and fills *out when all pass; otherwise the code of the first
// failed check, with *reason (never null) saying why in English.
long long checkCaCertificate(const std::string& bytes, std::time_t now, CaCertificate* out,
                             std::string* reason);

// An accepted CRL.
struct CrlInfo {
  std::string pem;
  std::string fingerprint;        // SHA-256 of the DER encoding, hex
  std::string issuerFingerprint;  // the CA whose key verified it
  std::string issuer;             // RFC 2253 text
  long long thisUpdate = 0;
  long long nextUpdate = 0;
  long long revoked = 0;  // number of revoked serials
};

// Checks `bytes` as a CRL against the accepted CAs `caPems` at time `now`:
//   1. PEM or DER CRL                          else proto::kErrCrlUnreadable
//   2. its issuer is the subject of a CA       else proto::kErrCrlUnknownIssuer
//   3. the signature verifies with the key of
//      one such CA                             else proto::kErrCrlBadSignature
//   4. next update present and after `now`     else proto::kErrCrlExpired
// Returns 0 and fills *out, or the code of the first failed check with
// *reason.
long long checkCrl(const std::string& bytes, const std::vector<std::string>& caPems,
                   std::time_t now, CrlInfo* out, std::string* reason);

#endif  // NOX_BACKEND_PKI_CHECKS_H_

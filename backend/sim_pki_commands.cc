// The simulated backend's PKI commands: upload paths, the certificate
// check, the CRL save and the import events.
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "data_folder.h"
#include "pki_checks.h"
#include "request_cells.h"
#include "sim_backend_impl.h"

using simbackend::nowSeconds;
using simbackend::storeWait;

long long SimulatedBackend::Impl::newUploadPath(const CR3MRecordV3& request, const std::string& dir,
                                                const char* prefix, CR3MPackageV3& reply) {
  requireImportTarget(request);
  // 128 random bits: unique without a lock, and nothing of the client's in it.
  const std::string path = dir + "/" + prefix + toHex(randomBytes(16)) + ".upload";
  CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
  r[proto::kTagPath].setString(proto::kTagPath, path);
  return 0;
}

long long SimulatedBackend::Impl::checkCertificate(const TlvCall& call, const CR3MRecordV3& request,
                                                   CQPNDebugKitGuard& guard) {
  requireImportTarget(request);
  const std::string path = requireText(request, proto::kTagPath);
  if (!directChild(tmpDir, path)) {
    guard.warn(0, "checkCertificate", __LINE__, "refused a path outside %s", tmpDir.c_str());
    return proto::kErrInvalidArgument;
  }
  std::string bytes;
  const ReadResult read = readUpload(path, &bytes);
  // The upload has served its purpose whatever the verdict.
  unlink(path.c_str());
  if (read == ReadResult::kMissing) return proto::kErrNotFound;
  if (read == ReadResult::kRefused) return proto::kErrCertUnreadable;

  CaCertificate ca;
  std::string reason;
  const long long verdict = checkCaCertificate(bytes, time(nullptr), &ca, &reason);
  if (verdict != 0) {
    guard.info(0, "checkCertificate", __LINE__, "certificate refused (0x%08llX): %s", verdict,
               reason.c_str());
    return verdict;
  }
  // The file is named by its fingerprint and written under a name of its
  // own before the rename, so concurrent imports need no lock for it; only
  // the database row does. A CA imported again finds its file already
  // there, byte for byte, and is not written (nor synced) again.
  const std::string file = caDir + "/" + ca.fingerprint + ".pem";
  if (!sameContent(file, ca.pem) && !writeWhole(file, ca.pem)) {
    guard.error(0, "checkCertificate", __LINE__, "cannot write %s: %s", file.c_str(),
                errnoText(errno).c_str());
    return proto::kErrStorage;
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO ca_certificates(fingerprint, subject, not_after, file, imported) "
                "VALUES(?,?,?,?,?) "
                "ON CONFLICT(fingerprint) DO UPDATE SET imported = excluded.imported")
            .bind(1, ca.fingerprint)
            .bind(2, ca.subject)
            .bind(3, ca.notAfter)
            .bind(4, file)
            .bind(5, nowSeconds())
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  guard.info(0, "checkCertificate", __LINE__, "CA %s accepted", ca.subject.c_str());
  return 0;
}

long long SimulatedBackend::Impl::saveCrl(const TlvCall& call, const CR3MRecordV3& request,
                                          CQPNDebugKitGuard& guard) {
  requireImportTarget(request);
  const std::string path = requireText(request, proto::kTagPath);
  if (!directChild(crlIncomingDir, path)) {
    guard.warn(0, "saveCrl", __LINE__, "refused a path outside %s", crlIncomingDir.c_str());
    return proto::kErrInvalidArgument;
  }
  std::string bytes;
  const ReadResult read = readUpload(path, &bytes);
  unlink(path.c_str());
  if (read == ReadResult::kMissing) return proto::kErrNotFound;
  if (read == ReadResult::kRefused) return proto::kErrCrlUnreadable;

  std::vector<std::string> caPems;
  {
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement cas = reader.statement("SELECT file FROM ca_certificates ORDER BY imported");
    while (cas.step()) {
      std::string pem;
      if (readUpload(cas.columnText(0), &pem) == ReadResult::kOk) caPems.push_back(pem);
    }
  }
  CrlInfo crl;
  std::string reason;
  const long long verdict = checkCrl(bytes, caPems, time(nullptr), &crl, &reason);
  if (verdict != 0) {
    guard.info(0, "saveCrl", __LINE__, "CRL refused (0x%08llX): %s", verdict, reason.c_str());
    return verdict;
  }
  const std::string file = crlDir + "/" + crl.fingerprint + ".crl";
  if (!sameContent(file, crl.pem) && !writeWhole(file, crl.pem)) {
    guard.error(0, "saveCrl", __LINE__, "cannot write %s: %s", file.c_str(), errnoText(errno).c_str());
    return proto::kErrStorage;
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO crls(fingerprint, issuer_fingerprint, issuer, this_update, "
                "next_update, revoked, file, imported) VALUES(?,?,?,?,?,?,?,?) "
                "ON CONFLICT(fingerprint) DO UPDATE SET imported = excluded.imported")
            .bind(1, crl.fingerprint)
            .bind(2, crl.issuerFingerprint)
            .bind(3, crl.issuer)
            .bind(4, crl.thisUpdate)
            .bind(5, crl.nextUpdate)
            .bind(6, crl.revoked)
            .bind(7, file)
            .bind(8, nowSeconds())
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  guard.info(0, "saveCrl", __LINE__, "CRL of %s accepted (%lld revoked)", crl.issuer.c_str(),
             crl.revoked);
  return 0;
}

long long SimulatedBackend::Impl::importEvent(const TlvCall& call, const CR3MRecordV3& request) {
  long long source = 0;
  if (readInt(request, 0, &source) && source != 2) throw BadRequest("unknown event source");
  const long long kind = requireInt(request, proto::kTagEventKind);
  const long long outcome = requireInt(request, proto::kTagEventOutcome);
  if ((kind != 100 && kind != 101) || (outcome != 0 && outcome != 1)) {
    throw BadRequest("unknown event kind or outcome");
  }
  const bool written = store.write(
      [&] {
        store
            .statement(
                "INSERT INTO import_events(time, user_name, client_address, kind, outcome) "
                "VALUES(?,?,?,?,?)")
            .bind(1, nowSeconds())
            .bind(2, call.user.userName_)
            .bind(3, call.user.clientAddress_)
            .bind(4, kind)
            .bind(5, outcome)
            .run();
      },
      storeWait(call));
  return written ? 0 : kErrBackendTimeout;
}

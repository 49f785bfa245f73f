#include "backend_fixture.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "password_hash.h"

TempFolder::TempFolder() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/nox-backend-test-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) std::abort();
  path_ = pattern;
}

TempFolder::~TempFolder() { removeTree(path_); }

void removeTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      while (struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") removeTree(path + "/" + name);
      }
      closedir(d);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

bool fileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> folderNames(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void writeText(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

void BackendTest::SetUp() {
  // Hashes stay real, only cheaper: every test logs in many times.
  setPbkdf2IterationsForTesting(1000);
  openBackend();
}

void BackendTest::TearDown() { backend_.reset(); }

void BackendTest::openBackend(const std::string& initPassword) {
  backend_.reset();
  std::string error;
  SimBackendOptions options;
  options.dataDir = dataDir();
  options.initPassword = initPassword;
  backend_ = SimulatedBackend::open(options, &error);
  ASSERT_NE(backend_, nullptr) << error;
}

long long BackendTest::send(uint32_t command, const Fill& fill, CR3MPackageV3* reply,
                            const std::string& user, uint32_t word) {
  CR3MPackageV3 request;
  CR3MRecordV3& record = request.addRecord(command, word);
  if (fill) fill(record);
  CR3MPackageV3 local;
  CDeviceID device;
  UserContext context;
  context.userName_ = user;
  context.clientAddress_ = "127.0.0.1";
  TlvCall call{device, context, "v1", 30, CommunicationTarget::TARGET_BACKEND};
  return backend_->handle(call, request, reply != nullptr ? *reply : local);
}

namespace {

void importTarget(CR3MRecordV3& r) { r[0].setUInt32(0, proto::kImportTarget); }

}  // namespace

std::string BackendTest::certTempPath() {
  CR3MPackageV3 reply;
  EXPECT_EQ(send(proto::kCertTempPath, importTarget, &reply), 0);
  return textCell(reply, 0, proto::kTagPath);
}

std::string BackendTest::crlImportPath() {
  CR3MPackageV3 reply;
  EXPECT_EQ(send(proto::kCrlImportPath, importTarget, &reply), 0);
  return textCell(reply, 0, proto::kTagPath);
}

long long BackendTest::checkCertAt(const std::string& path) {
  return send(proto::kCertCheck, [&](CR3MRecordV3& r) {
    importTarget(r);
    r[proto::kTagPath].setString(proto::kTagPath, path);
  });
}

long long BackendTest::saveCrlAt(const std::string& path) {
  return send(proto::kCrlSave, [&](CR3MRecordV3& r) {
    importTarget(r);
    r[proto::kTagPath].setString(proto::kTagPath, path);
  });
}

long long BackendTest::importCert(const std::string& bytes) {
  const std::string path = certTempPath();
  writeText(path, bytes);
  return checkCertAt(path);
}

long long BackendTest::importCrl(const std::string& bytes) {
  const std::string path = crlImportPath();
  writeText(path, bytes);
  return saveCrlAt(path);
}

std::string BackendTest::sql(const std::string& statement) {
  sqlite3* db = nullptr;
  const std::string path = dataDir() + "/nox.db";
  std::string result;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << path;
    sqlite3_close(db);
    return result;
  }
  sqlite3_busy_timeout(db, 5000);
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, statement.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << statement << ": " << sqlite3_errmsg(db);
  } else {
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr) {
      result = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
      ADD_FAILURE() << statement << ": " << sqlite3_errmsg(db);
    }
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return result;
}

long long BackendTest::intCell(CR3MPackageV3& package, size_t record, unsigned short tag) {
  const CTLVCell* cell = package[record].find(tag);
  if (cell == nullptr) {
    ADD_FAILURE() << "no cell " << tag << " in record " << record;
    return -1;
  }
  return cell->toInt64();
}

std::string BackendTest::textCell(CR3MPackageV3& package, size_t record, unsigned short tag) {
  const CTLVCell* cell = package[record].find(tag);
  if (cell == nullptr) {
    ADD_FAILURE() << "no cell " << tag << " in record " << record;
    return std::string();
  }
  return cell->toString();
}

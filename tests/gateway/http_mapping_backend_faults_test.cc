// Backend failures and malformed reply packages, seen through the gateway's
// dispatcher with the real plug-in routes (what an HTTP client gets): an
// error code, a throwing backend, a reply without a record, cells of the
// wrong type, truncated or empty texts and huge numbers. Each must end in a
// clean answer (the error envelope, or a well-formed 200 where the plug-in
// has a documented fallback), never a crash, and the log must say what
// happened.
#include <ftw.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "http_mapping.h"
#include "operation_base.h"
#include "scripted_backend.h"
#include "session_store.h"
#include "trace_capture.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

namespace {

constexpr uint32_t kTaskDetail = 0xE0120000;
constexpr uint32_t kTaskList = 0xE012C000;
constexpr uint32_t kTaskCount = 0xE012C001;
constexpr uint32_t kAlarmCount = 0x00C90096;
constexpr uint32_t kStorageConf = 0x006200DE;
constexpr uint32_t kCertPath = 0xE0000052;
constexpr uint32_t kCertCheck = 0xE0000049;
constexpr uint32_t kLogin = 0x00C90010;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

CR3MRecordV3& record(CR3MPackageV3& reply, uint32_t command) {
  return reply.addRecord(command, proto::kWord);
}

// A text cell whose length does not reach its terminating zero.
void truncatedText(CR3MRecordV3& r, unsigned short tag) {
  char bytes[] = {'1', '0', '0'};
  r[tag].set_i(CTLVCell::TLV_STRING, tag, bytes, sizeof(bytes));
}

// What the backend does for one row.
using Script = std::function<void(ScriptedBackend&, const std::string& uploadDir)>;

struct Row {
  const char* name;
  const char* route;  // "GET /x", "POST /sessions", "UPLOAD /x"
  Script script;
  int status;                // the answer's status
  long long code;            // its error code (0: a 200 with data)
  const char* log;           // the start of a log text the trace must hold ("" for none required)
  const char* bodyHas = "";  // a text the answer's body must hold
};

long long throwing(const CR3MPackageV3&, CR3MPackageV3&) {
  throw std::runtime_error("backend process crashed");
}

Script failWith(uint32_t command, long long code) {
  return [command, code](ScriptedBackend& b, const std::string&) { b.fail(command, code); };
}
Script throwOn(uint32_t command) {
  return [command](ScriptedBackend& b, const std::string&) { b.on(command, throwing); };
}
Script reply(uint32_t command, std::function<void(CR3MPackageV3&)> fill) {
  return [command, fill](ScriptedBackend& b, const std::string&) {
    b.on(command, [command, fill](const CR3MPackageV3&, CR3MPackageV3& out) {
      (void)command;
      fill(out);
      return 0LL;
    });
  };
}
// A certificate path inside the test's folder, then `check` for the check.
Script certPathThen(Script check) {
  return [check](ScriptedBackend& b, const std::string& dir) {
    const std::string path = dir + "/cert.upload";
    b.on(kCertPath, [path](const CR3MPackageV3&, CR3MPackageV3& out) {
      record(out, kCertPath)[proto::kTagPath].setString(proto::kTagPath, path);
      return 0LL;
    });
    if (check) check(b, dir);
  };
}

const std::vector<Row>& rows() {
  static const std::vector<Row> kRows = {
      // Task detail.
      {"detail_error_code", "GET /kestrel_task/1001", failWith(kTaskDetail, 0x03000020), 500,
       0x03000020, "command 0xE0120000 answered with code 50331680"},
      {"detail_throws", "GET /kestrel_task/1001", throwOn(kTaskDetail), 502, 0x03000103,
       "backend failed on command 0xE0120000: backend process crashed"},
      {"detail_no_record", "GET /kestrel_task/1001", reply(kTaskDetail, [](CR3MPackageV3&) {}), 500,
       0x03000204, "GET /kestrel_task/1001: the operation failed: "},
      {"detail_int_for_text", "GET /kestrel_task/1001",
       reply(kTaskDetail,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kTaskDetail);
               r[1].setUInt32(1, 1001);
               r[0x58].setUInt32(0x58, 7);
             }),
       500, 0x03000204, "GET /kestrel_task/1001: the operation failed: "},
      {"detail_text_for_int", "GET /kestrel_task/1001",
       reply(kTaskDetail,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kTaskDetail);
               r[1].setString(1, "1001");
               r[3].setString(3, "backup");
               r[6].setString(6, "yesterday");
             }),
       0, 0, "reply cell 3 (type) of object 0xE012 has type 2 where a number belongs; left out",
       R"({"data":{"taskId":"1001"},)"},
      {"detail_truncated_texts", "GET /kestrel_task/1001",
       reply(kTaskDetail,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kTaskDetail);
               truncatedText(r, 1);
               truncatedText(r, 0x58);
               r[2].setString(2, "");
             }),
       0, 0, "Failed to parse new errorInfo json from string.", R"("taskId":"100")"},
      // Task list.
      {"list_error_code", "GET /kestrel_task", failWith(kTaskList, 0x03000004), 404, 0x03000004,
       "command 0xE012C000 answered with code 50331652"},
      {"list_throws", "GET /kestrel_task", throwOn(kTaskList), 502, 0x03000103,
       "backend failed on command 0xE012C000: backend process crashed"},
      {"list_wrong_types", "GET /kestrel_task",
       reply(kTaskList,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kTaskList);
               r[1].setUInt64(1, 5);
               r[4].setString(4, "three");
               truncatedText(r, 2);
             }),
       0, 0, "reply cell 1 (taskId) of object 0xE012 has type 9 where a text belongs; left out",
       R"({"data":[{"name":"100"}],)"},
      // Task count: a 64-bit count keeps its value, a negative one is none.
      {"task_count_huge", "GET /kestrel_task/count",
       reply(kTaskCount,
             [](CR3MPackageV3& out) { record(out, kTaskCount)[9].setUInt64(9, UINT64_MAX); }),
       0, 0, "", R"("count":18446744073709551615)"},
      {"task_count_negative", "GET /kestrel_task/count",
       reply(kTaskCount, [](CR3MPackageV3& out) { record(out, kTaskCount)[9].setInt32(9, -5); }), 0,
       0, "", R"("count":0)"},
      {"task_count_text", "GET /kestrel_task/count",
       reply(kTaskCount, [](CR3MPackageV3& out) { record(out, kTaskCount)[9].setString(9, "26"); }),
       0, 0, "", R"("count":0)"},
      // Alarm count.
      {"count_error_code", "GET /alarm/historyalarm/count", failWith(kAlarmCount, 0x03000003), 200,
       0, "count history alarm failed", R"({"COUNT":0})"},
      {"count_throws", "GET /alarm/historyalarm/count", throwOn(kAlarmCount), 200, 0,
       "count history alarm failed", R"({"COUNT":0})"},
      // No backend to ask is not a count of 0: 503, as on every route.
      {"count_backend_unreachable", "GET /alarm/historyalarm/count",
       failWith(kAlarmCount, 0x03000101), 503, 0x03000101,
       "command 0x00C90096 answered with code 50331905"},
      {"v1_count_backend_unreachable", "GET /v1/alarm/historyalarm/count",
       failWith(kAlarmCount, 0x03000101), 503, 0x03000101,
       "command 0x00C90096 answered with code 50331905"},
      {"count_no_record", "GET /alarm/historyalarm/count",
       reply(kAlarmCount, [](CR3MPackageV3&) {}), 200, 0, "count history alarm failed",
       R"({"COUNT":0})"},
      {"count_text_for_int", "GET /alarm/historyalarm/count",
       reply(kAlarmCount,
             [](CR3MPackageV3& out) { record(out, kAlarmCount)[9].setString(9, "many"); }),
       200, 0, "count history alarm failed", R"({"COUNT":0})"},
      // The alarm count is the cell's int conversion: an 8-byte count is cut
      // to its low four bytes, so all bits set answers -1, without a warning.
      {"count_huge", "GET /alarm/historyalarm/count",
       reply(kAlarmCount,
             [](CR3MPackageV3& out) { record(out, kAlarmCount)[9].setUInt64(9, UINT64_MAX); }),
       200, 0, "", R"({"COUNT":-1})"},
      // Storage configuration.
      {"storage_error_code", "GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
       failWith(kStorageConf, 0x03000020), 500, 0x03000020, "get dbbak config failed."},
      {"storage_throws", "GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
       throwOn(kStorageConf), 502, 0x03000103,
       "backend failed on command 0x006200DE: backend process crashed"},
      {"storage_no_record", "GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
       reply(kStorageConf, [](CR3MPackageV3&) {}), 405, 0x03000202, "response message is empty."},
      {"storage_wrong_types", "GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
       reply(kStorageConf,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kStorageConf);
               r[9].setUInt32(9, 1620000001);
               r[10].setUInt32(10, 5);
               r[13].setString(13, "4096");
               truncatedText(r, 16);
             }),
       0, 0, "reply cell 13 (capacity) of object 0x62 has type 2 where a number belongs; left out",
       R"("resultParams":5)"},
      {"storage_huge", "GET /kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
       reply(kStorageConf,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kStorageConf);
               r[9].setString(9, "0");
               r[13].setUInt64(13, UINT64_MAX);
               r[14].setUInt64(14, UINT64_MAX);
             }),
       0, 0, "", R"("capacity":18446744073709551615)"},
      // Certificate import.
      {"cert_path_error", "UPLOAD /kestrel_cert/import_cert", failWith(kCertPath, 0x03000020), 500,
       0x03000020, "Failed to sendMessage."},
      {"cert_path_throws", "UPLOAD /kestrel_cert/import_cert", throwOn(kCertPath), 502, 0x03000103,
       "backend failed on command 0xE0000052: backend process crashed"},
      {"cert_path_no_record", "UPLOAD /kestrel_cert/import_cert",
       reply(kCertPath, [](CR3MPackageV3&) {}), 500, 0x03000204,
       "POST /kestrel_cert/import_cert: the operation failed: "},
      {"cert_path_int", "UPLOAD /kestrel_cert/import_cert",
       reply(kCertPath,
             [](CR3MPackageV3& out) {
               record(out, kCertPath)[proto::kTagPath].setUInt32(proto::kTagPath, 7);
             }),
       500, 0x03000204, "POST /kestrel_cert/import_cert: the operation failed: "},
      {"cert_path_empty", "UPLOAD /kestrel_cert/import_cert",
       reply(kCertPath,
             [](CR3MPackageV3& out) {
               record(out, kCertPath)[proto::kTagPath].setString(proto::kTagPath, "");
             }),
       500, 1000005, "Failed to upload certificate file, illegal uploading arguments."},
      {"cert_path_truncated", "UPLOAD /kestrel_cert/import_cert",
       [](ScriptedBackend& b, const std::string& dir) {
         // The path without its terminating zero and its last letter.
         const std::string path = dir + "/cert.upload";
         b.on(kCertPath, [path](const CR3MPackageV3&, CR3MPackageV3& out) {
           std::string bytes = path;
           record(out, kCertPath)[proto::kTagPath].set_i(CTLVCell::TLV_STRING, proto::kTagPath,
                                                         &bytes[0], bytes.size() - 1);
           return 0LL;
         });
         b.fail(kCertCheck, 0x03000003);  // what the backend says of a path it did not give
       },
       400, 0x03000003, "Failed to sendMessage."},
      {"cert_check_throws", "UPLOAD /kestrel_cert/import_cert", certPathThen(throwOn(kCertCheck)),
       502, 0x03000103, "backend failed on command 0xE0000049: backend process crashed"},
      {"cert_check_storage", "UPLOAD /kestrel_cert/import_cert",
       certPathThen(failWith(kCertCheck, 0x03000020)), 500, 0x03000020, "Failed to sendMessage."},
      // Login.
      {"login_error_code", "POST /sessions", failWith(kLogin, 0x03000020), 500, 0x03000020,
       "backend refused the login of user apiuser: code 0x3000020"},
      {"login_throws", "POST /sessions", throwOn(kLogin), 502, 0x03000103,
       "backend failed on command 0x00C90010: backend process crashed"},
      {"login_no_record", "POST /sessions", reply(kLogin, [](CR3MPackageV3&) {}), 500, 0x03000204,
       "could not label session "},
      {"login_wrong_types", "POST /sessions",
       reply(kLogin,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kLogin);
               r[6].setUInt32(6, 42);
               r[64].setString(64, "locked");
               r[78].setString(78, "2");
             }),
       500, 0x03000204, "could not label session "},
      {"login_truncated", "POST /sessions",
       reply(kLogin,
             [](CR3MPackageV3& out) {
               CR3MRecordV3& r = record(out, kLogin);
               truncatedText(r, 6);
               r[64].setUInt32(64, 0xFFFFFFFFu);
             }),
       0, 0, "", R"("userName":"apiuser")"},
  };
  return kRows;
}

class BackendFaultsTest : public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/nox-backend-faults-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    backend_ = std::make_unique<ScriptedBackend>();
    // The tests run in build/bin: the operations find ../conf as installed.
    NOXRegisterOperations(&registry_);
    gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
      if (token == "faults-token") {
        info.getUserContext().userName_ = "apiuser";
        info.getUserContext().scope_ = "4";
        return true;
      }
      return SessionStore::instance().lookup(token, info);
    };
    dispatcher_ = std::make_unique<gw::Dispatcher>(registry_, lookup, gw::DispatchOptions());
  }
  void TearDown() override {
    dispatcher_.reset();
    registry_.releaseAll();
    backend_.reset();
    SessionStore::instance().clear();
    if (!dir_.empty()) nftw(dir_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
  }

  gw::HttpOutput send(const std::string& route) {
    const size_t space = route.find(' ');
    const std::string verb = route.substr(0, space);
    gw::HttpInput in;
    in.target = route.substr(space + 1);
    in.clientAddress = "127.0.0.1";
    in.headers.emplace_back("X-Auth-Token", "faults-token");
    if (verb == "UPLOAD") {
      in.method = "POST";
      in.multipart = true;
      in.parts.push_back(gw::FormPart{"file", "ca.pem", "application/octet-stream",
                                      "-----BEGIN CERTIFICATE-----\nAAAA\n"});
    } else if (verb == "POST") {
      in.method = "POST";
      in.headers.emplace_back("Content-Type", "application/json");
      in.body = "{\"username\":\"apiuser\",\"password\":\"pw\",\"scope\":\"4\"}";
    } else {
      in.method = verb;
    }
    return dispatcher_->handle(in);
  }

  std::string dir_;
  std::unique_ptr<ScriptedBackend> backend_;
  CSpecifyProc registry_;
  std::unique_ptr<gw::Dispatcher> dispatcher_;
};

TEST_P(BackendFaultsTest, CleanAnswerAndLog) {
  const Row& row = GetParam();
  row.script(*backend_, dir_);
  TraceCapture trace(TraceLevel::kDebug);
  const gw::HttpOutput out = send(row.route);

  Json::Value body;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  const bool parsed =
      reader->parse(out.body.data(), out.body.data() + out.body.size(), &body, &errors);
  ASSERT_TRUE(parsed) << out.body;
  EXPECT_EQ(out.status, row.status ? row.status : 200) << out.body;
  EXPECT_EQ(body["error"]["code"].asInt64(), row.code) << out.body;
  if (row.code != 0) {
    EXPECT_TRUE(body["data"].isNull()) << out.body;
    // A refused login leaves no session behind.
    EXPECT_EQ(SessionStore::instance().size(), 0u);
  }
  EXPECT_NE(out.body.find(row.bodyHas), std::string::npos) << out.body;
  if (row.log[0] != '\0') {
    bool found = false;
    for (const TraceRecord& r : trace.records()) {
      if (r.level >= TraceLevel::kDebug && r.text.compare(0, strlen(row.log), row.log) == 0) {
        found = true;
      }
    }
    EXPECT_TRUE(found) << "no log \"" << row.log << "\"\n" << trace.dump();
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, BackendFaultsTest, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace

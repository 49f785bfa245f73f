// The plug-in loads and serves every route in a host written from include/
// alone (headers_only_host.cc), without the reference host's libucore_tlv.
//
// This program links the headers-only host, named libucore_tlv.so, and loads
// the real libucore_nox.so with RTLD_NOW: every symbol the plug-in imports
// must be resolved by that host at once, or the load fails.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "headers_only_host.h"
#include "login_op.h"
#include "operation_base.h"

namespace {

using Entry = int (*)(CSpecifyProc*);

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

bool called(const std::string& line) {
  const std::vector<std::string>& calls = stub_host::calls();
  return std::find(calls.begin(), calls.end(), line) != calls.end();
}

std::string callList() {
  std::string out;
  for (const std::string& line : stub_host::calls()) out += "  " + line + "\n";
  return out;
}

// Paths of the shared objects loaded into this process.
std::vector<std::string> loadedObjects() {
  std::vector<std::string> paths;
  dl_iterate_phdr(
      [](struct dl_phdr_info* info, size_t, void* data) {
        if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') {
          static_cast<std::vector<std::string>*>(data)->push_back(info->dlpi_name);
        }
        return 0;
      },
      &paths);
  return paths;
}

std::string realPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return path;
  std::string out(resolved);
  std::free(resolved);
  return out;
}

class HeadersOnlyHostTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TZ", "UTC", 1);
    tzset();
    dlerror();
    handle_ = dlopen(NOX_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) loadError_ = dlerror();
  }

  void SetUp() override {
    ASSERT_NE(handle_, nullptr) << "the plug-in does not load in a host written from the "
                                   "headers: "
                                << loadError_;
    entry_ = reinterpret_cast<Entry>(dlsym(handle_, "NOXRegisterOperations"));
    ASSERT_NE(entry_, nullptr);
    stub_host::reset();
    char folder[] = "/tmp/nox-headers-only-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    stub_host::uploadFolder() = folder;
  }

  void TearDown() override {
    for (const char* name : {"/ca.pem", "/list.crl"}) {
      unlink((stub_host::uploadFolder() + name).c_str());
    }
    rmdir(stub_host::uploadFolder().c_str());
  }

  // The operation registered for url on the interface.
  CSpecifyOp* route(const CSpecifyProc& proc, const std::string& url,
                    const std::string& version = "") {
    for (const CSpecifyProc::Route& r : proc.routes()) {
      if (r.url == url && r.interfaceVersion == version) return r.op;
    }
    return nullptr;
  }

  static void* handle_;
  static std::string loadError_;
  Entry entry_ = nullptr;
};

void* HeadersOnlyHostTest::handle_ = nullptr;
std::string HeadersOnlyHostTest::loadError_;

TEST_F(HeadersOnlyHostTest, PluginResolvesEveryImportWithoutTheReferenceHost) {
  const std::vector<std::string> loaded = loadedObjects();
  const std::string stub = realPath(NOX_STUB_HOST_PATH);
  const std::string reference = realPath(NOX_REFERENCE_HOST_PATH);
  bool stubLoaded = false;
  for (const std::string& path : loaded) {
    EXPECT_NE(realPath(path), reference) << "the reference host was loaded";
    if (realPath(path) == stub) stubLoaded = true;
  }
  EXPECT_TRUE(stubLoaded) << "the headers-only host is not the libucore_tlv.so in use";
}

// The exported mark the host reads: a pointer to "_IMPORT_CERT_MARK".
TEST_F(HeadersOnlyHostTest, ExportsTheImportCertMark) {
  const char* const* mark = static_cast<const char* const*>(dlsym(handle_, "IMPORT_CERT_MARK"));
  ASSERT_NE(mark, nullptr);
  ASSERT_NE(*mark, nullptr);
  EXPECT_STREQ(*mark, "_IMPORT_CERT_MARK");
}

struct Row {
  const char* url;
  const char* version;
  bool flag;
  const char* type;  // mangled class name, as typeid names it
};

// The whole route table, in registration order.
const Row kRows[] = {
    {"/sessions", "", true, "8NOXLogin"},
    {"/login", "", true, "24NOXLoginOpWithVerifyCode"},
    {"/kestrel_hypervisor/import_cert", "", true, "15NOXImportCertOp"},
    {"/kestrel_cert/import_cert", "", true, "15NOXImportCertOp"},
    {"/kestrel_cert/import_crl", "", true, "14NOXImportCrlOp"},
    {"/alarm/historyalarm", "", true, "17NOXHistoryAlarmOp"},
    {"/alarm/historyalarm", "v1", true, "17NOXHistoryAlarmOp"},
    {"/alarm/historyalarm/count", "", true, "22NOXHistoryAlarmCountOp"},
    {"/alarm/historyalarm/count", "v1", true, "22NOXHistoryAlarmCountOp"},
    {"/kestrel_task", "", false, "9NOXTaskOp"},
    {"/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf", "", true, "17NOXGetDBBakConfOp"},
};

TEST_F(HeadersOnlyHostTest, RegistersTheElevenRoutesInOrderEachWithItsOwnObject) {
  CSpecifyProc proc;
  ASSERT_EQ(entry_(&proc), 0);
  const std::vector<CSpecifyProc::Route>& routes = proc.routes();
  ASSERT_EQ(routes.size(), sizeof(kRows) / sizeof(kRows[0]));
  for (size_t i = 0; i < routes.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1));
    EXPECT_EQ(routes[i].url, kRows[i].url);
    EXPECT_EQ(routes[i].interfaceVersion, kRows[i].version);
    EXPECT_EQ(routes[i].flag, kRows[i].flag);
    ASSERT_NE(routes[i].op, nullptr);
    EXPECT_STREQ(typeid(*routes[i].op).name(), kRows[i].type);
    for (size_t j = 0; j < i; ++j) EXPECT_NE(routes[i].op, routes[j].op) << "shared with " << j + 1;
  }
  CMoSpecOp* task = dynamic_cast<CMoSpecOp*>(routes[9].op);
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->objType(), 0xE012u);
}

// A refused route changes nothing: the entry goes on and returns 0.
TEST_F(HeadersOnlyHostTest, ReturnsZeroWhenTheRegistryRefusesARoute) {
  stub_host::refuse() = {"/login", "/alarm/historyalarm/count"};
  CSpecifyProc proc;
  EXPECT_EQ(entry_(&proc), 0);
  std::vector<std::string> urls;
  for (const CSpecifyProc::Route& r : proc.routes()) urls.push_back(r.url + r.interfaceVersion);
  EXPECT_EQ(urls, (std::vector<std::string>{
                      "/sessions", "/kestrel_hypervisor/import_cert", "/kestrel_cert/import_cert",
                      "/kestrel_cert/import_crl", "/alarm/historyalarm", "/alarm/historyalarmv1",
                      "/kestrel_task", "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"}));
}

TEST_F(HeadersOnlyHostTest, SessionsLogsInThroughTheEightArgumentSlot) {
  CSpecifyProc proc;
  entry_(&proc);
  CRequestMsg request;
  request.getBody().setJson(Json::Value(Json::objectValue));
  Json::Value body;
  body["username"] = "u";
  body["password"] = "p";
  body["scope"] = "4";
  request.getBody().setJson(body);
  CResponseMsg response;
  stub_host::reset();
  EXPECT_EQ(route(proc, "/sessions")->op("post", "", request, response), 0);
  EXPECT_TRUE(called("login9 u p 4 en 127.0.0.1 'password' ''")) << callList();
  // Reply cell 64 = 3: state 1, registered before it is set, kind 7.
  EXPECT_TRUE(called("addSessionInfo prefix/s1 7")) << callList();
  EXPECT_TRUE(called("setAttribute state 1")) << callList();
  EXPECT_EQ(stub_host::traces(), (std::vector<std::string>{"enter NOXLogin::updateSessionFile...",
                                                           "leave NOXLogin::updateSessionFile: OK"}));
}

// The "/login" route's login is slot 13, the eight-argument one: the host's
// flow reaches its scope check, and the eighth argument is not passed on.
TEST_F(HeadersOnlyHostTest, ConsoleLoginIsTheEightArgumentSlotWithItsScopeCheck) {
  CSpecifyProc proc;
  entry_(&proc);
  CSpecifyOp* login = route(proc, "/login");
  Json::Value body;
  body["username"] = "u";
  body["password"] = "p";
  body["scope"] = "0";
  {
    CRequestMsg request;
    request.getBody().setJson(body);
    CResponseMsg response;
    SpecifyOpPrivData priv;
    EXPECT_TRUE(login->isSupport("POST", "", priv));
    EXPECT_EQ(login->op("POST", "", request, response), 0);
    EXPECT_TRUE(called("checkVerifyCode")) << callList();
    EXPECT_TRUE(called("login9 u p 0 en 127.0.0.1 '' ''")) << callList();
  }
  body["scope"] = "4";
  stub_host::reset();
  CRequestMsg request;
  request.getBody().setJson(body);
  CResponseMsg response;
  try {
    login->op("POST", "", request, response);
    ADD_FAILURE() << "scope 4 was accepted on /login";
  } catch (const QPNExceptionWithErrCode_& e) {
    EXPECT_EQ(e.getErrCode(), 0x03000003);
  }
  EXPECT_EQ(std::count_if(stub_host::calls().begin(), stub_host::calls().end(),
                          [](const std::string& c) { return c.rfind("login9", 0) == 0; }),
            0);
}

TEST_F(HeadersOnlyHostTest, CertificateAndCrlImportsWriteTheUploadAndAnswerAsText) {
  CSpecifyProc proc;
  entry_(&proc);
  struct Case {
    const char* url;
    const char* file;
    std::vector<uint32_t> commands;
  } cases[] = {
      {"/kestrel_hypervisor/import_cert", "ca.pem", {0xE0000052, 0xE0000049, 0x00C9009B}},
      {"/kestrel_cert/import_cert", "ca.pem", {0xE0000052, 0xE0000049, 0x00C9009B}},
      {"/kestrel_cert/import_crl", "list.crl", {0xE000006E, 0xE000006F, 0x00C9009B}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    stub_host::reset();
    CSpecifyOp* op = route(proc, c.url);
    CRequestMsg request;
    HttpRequest connection("POST", c.url, "127.0.0.1");
    request.getSessionInfo().setHttpConnection(&connection);
    request.getBody().addUpload(c.file, "-----BEGIN X-----\n");
    CResponseMsg response;
    SpecifyOpPrivData priv;
    ASSERT_TRUE(op->isSupport("POST", "", priv));
    EXPECT_EQ(priv.uploadMark_, 1u);
    ASSERT_EQ(op->op("POST", "", request, response), 0) << callList();
    EXPECT_EQ(stub_host::sent(), c.commands);
    const std::string written = stub_host::uploadFolder() + "/" + c.file;
    std::ifstream in(written);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "-----BEGIN X-----\n");
    struct stat st;
    ASSERT_EQ(stat(written.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(response.getContentKind(), 3u);
    EXPECT_EQ(compact(response.getJsonBody()["error"]), R"({"code":0,"description":"0"})");
    ASSERT_EQ(connection.responseHeaders().size(), 1u);
    EXPECT_EQ(connection.responseHeaders()[0].second, "text/plain; charset=utf-8");
  }
}

TEST_F(HeadersOnlyHostTest, AlarmListAndCountOnBothInterfaces) {
  CSpecifyProc proc;
  entry_(&proc);
  for (const char* version : {"", "v1"}) {
    SCOPED_TRACE(version);
    stub_host::reset();
    CRequestMsg request;
    request.setInterfaceVersion(version);
    CResponseMsg response;
    EXPECT_EQ(route(proc, "/alarm/historyalarm", version)->op("GET", "", request, response), 0);
    EXPECT_EQ(stub_host::calls(),
              (std::vector<std::string>{"queryAlarm 0xd00c90041 true", "parseAlarms true"}));

    stub_host::reset();
    CResponseMsg count;
    EXPECT_EQ(route(proc, "/alarm/historyalarm/count", version)->op("DELETE", "", request, count),
              0);
    EXPECT_EQ(stub_host::calls(), std::vector<std::string>{"queryAlarm 0xd00c90096 false"});
    EXPECT_EQ(compact(count.getJsonBody()), std::string(version) == "v1" ? R"({"count":7})"
                                                                         : R"({"COUNT":7})");
    EXPECT_EQ(count.getContentKind(), 1u);
    // The guard writes through the kit every time, whatever the kit keeps.
    EXPECT_EQ(stub_host::traces(), (std::vector<std::string>{"enter op...", "leave op: OK"}));
  }
}

TEST_F(HeadersOnlyHostTest, TaskListCountAndDetail) {
  CSpecifyProc proc;
  entry_(&proc);
  CSpecifyOp* task = route(proc, "/kestrel_task");
  SpecifyOpPrivData priv;
  EXPECT_TRUE(task->isSupport("get", "", priv));
  EXPECT_FALSE(task->isSupport("POST", "", priv));

  {
    CRequestMsg list;
    CResponseMsg response;
    EXPECT_EQ(task->op("GET", "", list, response), 0);
    EXPECT_TRUE(called("CGetBatchByFilterOp::exec")) << callList();
    ASSERT_EQ(response.size(), 2u);
    for (size_t i = 0; i < response.size(); ++i) {
      EXPECT_STREQ(static_cast<const char*>(response[i][0x58]), "");
    }
  }
  {
    stub_host::reset();
    CRequestMsg count;
    count.getResIDs().push_back("COUNT");
    CResponseMsg response;
    EXPECT_EQ(task->op("GET", "", count, response), 0);
    EXPECT_TRUE(called("CMoSpecOp::get COUNT")) << callList();
  }
  {
    stub_host::reset();
    CRequestMsg detail;
    detail.getResIDs().push_back("42");
    detail.setArg("LANGUAGE", "en");
    CResponseMsg response;
    EXPECT_EQ(task->op("GET", "", detail, response), 0);
    EXPECT_TRUE(called("CGetByIDFilterOp::exec 42")) << callList();
    EXPECT_EQ(detail.getMoType(), 0xE012u);
    const std::string text = static_cast<const char*>(response[0][0x58]);
    EXPECT_EQ(text, " 01/02/1970 00:00:00 Scanning the data of client client-7. ");
    const std::string error = response[0][0x62].toString();
    EXPECT_EQ(error,
              R"({"code":"1600000002","description":"Scanning the data of client client-7. ","retry":"no"})");
  }
}

TEST_F(HeadersOnlyHostTest, StorageConfigurationRewritesTheResultCode) {
  CSpecifyProc proc;
  entry_(&proc);
  CSpecifyOp* conf = route(proc, "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf");
  SpecifyOpPrivData priv;
  EXPECT_TRUE(conf->isSupport("GET", "", priv));
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(conf->op("GET", "", request, response), 0);
  EXPECT_EQ(stub_host::calls(), std::vector<std::string>{"GeneralNonMoOp::op 0x62 0xDE"});
  EXPECT_STREQ(static_cast<const char*>(response[0][9]), "");
  CResponseMsg refused;
  EXPECT_EQ(conf->op("POST", "", request, refused), -1);
  EXPECT_EQ(refused.size(), 0u);
}

}  // namespace

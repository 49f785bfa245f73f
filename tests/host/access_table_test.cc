// The access table: reading it, finding a call's rule, what is open to whom,
// and the table this project ships.
#include "access_table.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

AccessTable parsed(const std::string& text) {
  AccessTable table;
  std::string error;
  EXPECT_TRUE(AccessTable::parse(text, &table, &error)) << error;
  return table;
}

const char kSmall[] = R"({
  "scopes": {"0": "administrator", "1": "auditor"},
  "routes": [
    {"path": "/open", "methods": ["get", "POST"], "public": true, "secrets": true},
    {"path": "/up", "methods": ["POST"], "upload": true, "changes": true, "scopes": ["0"]},
    {"path": "/read", "methods": ["GET"], "scopes": ["0", "1"]},
    {"path": "/read", "methods": ["*"], "scopes": ["1"]},
    {"path": "/v1/read", "methods": ["GET"], "scopes": ["0"]}
  ]})";

TEST(AccessTableTest, RulesByPathAndMethod) {
  const AccessTable table = parsed(kSmall);
  EXPECT_TRUE(table.rule("/open", "GET").isPublic);
  EXPECT_TRUE(table.rule("/open", "post").isPublic);  // methods in any case
  EXPECT_TRUE(table.rule("/open", "POST").secrets);
  EXPECT_TRUE(table.rule("/up", "POST").upload);
  EXPECT_TRUE(table.rule("/up", "POST").changes);
  EXPECT_FALSE(table.rule("/up", "POST").allows("1"));
  EXPECT_TRUE(table.rule("/up", "POST").allows("0"));
  EXPECT_TRUE(table.rule("/read", "GET").allows("1"));
  // "*" stands for the methods no other rule of the path names.
  EXPECT_FALSE(table.rule("/read", "DELETE").allows("0"));
  EXPECT_TRUE(table.rule("/read", "DELETE").allows("1"));
  // The v1 interface is a path of its own.
  EXPECT_FALSE(table.rule("/v1/read", "GET").allows("1"));
  // Public rules let everyone through, scope or none.
  EXPECT_TRUE(table.rule("/open", "GET").allows(""));
}

TEST(AccessTableTest, HeadFollowsGetUnlessItHasARule) {
  const AccessTable table = parsed(kSmall);
  EXPECT_TRUE(table.rule("/read", "HEAD").allows("0"));  // GET's rule, not "*"'s
  EXPECT_TRUE(table.rule("/open", "HEAD").isPublic);
  const AccessTable own = parsed(R"({"routes": [
      {"path": "/r", "methods": ["GET"], "scopes": ["0", "1"]},
      {"path": "/r", "methods": ["HEAD"], "scopes": ["0"]}]})");
  EXPECT_FALSE(own.rule("/r", "HEAD").allows("1"));
}

// A call the table forgets is never open to more than the administrator.
TEST(AccessTableTest, UncoveredCallsAreTheAdministratorsOnly) {
  const AccessTable table = parsed(kSmall);
  for (const auto& call : std::vector<std::pair<std::string, std::string>>{
           {"/nowhere", "GET"}, {"/up", "GET"}, {"/open", "DELETE"}, {"", "GET"}}) {
    const AccessRule& rule = table.rule(call.first, call.second);
    EXPECT_FALSE(rule.isPublic) << call.second << " " << call.first;
    EXPECT_FALSE(rule.upload);
    EXPECT_TRUE(rule.allows("0"));
    EXPECT_FALSE(rule.allows("1"));
    EXPECT_FALSE(rule.allows(""));
  }
}

TEST(AccessTableTest, BadTablesAreRefusedWithTheirReason) {
  const struct {
    const char* text;
    const char* error;
  } kBad[] = {
      {"", "not JSON: "},
      {"[]", "the table must be an object with a list \"routes\""},
      {R"({"routes": {}})", "the table must be an object with a list \"routes\""},
      {R"({"scopes": [], "routes": []})", "\"scopes\" must be an object of scope and label"},
      {R"({"routes": [1]})", "rule 1: must be an object"},
      {R"({"routes": [{"methods": ["GET"], "public": true}]})",
       "rule 1: \"path\" must be a text that starts with /"},
      {R"({"routes": [{"path": "x", "methods": ["GET"], "public": true}]})",
       "rule 1: \"path\" must be a text that starts with /"},
      {R"({"routes": [{"path": "/x", "public": true}]})", "rule 1: \"methods\" must be a list of texts"},
      {R"({"routes": [{"path": "/x", "methods": [], "public": true}]})",
       "rule 1: \"methods\" must be a list of texts"},
      {R"({"routes": [{"path": "/x", "methods": [""], "public": true}]})",
       "rule 1: \"methods\" must be a list of texts"},
      {R"({"routes": [{"path": "/x", "methods": ["GET"], "public": "yes"}]})",
       "rule 1: \"public\" must be true or false"},
      {R"({"routes": [{"path": "/x", "methods": ["GET"], "upload": 1, "scopes": ["0"]}]})",
       "rule 1: \"upload\" must be true or false"},
      // Forgetting the scopes must not open a route to nobody or everybody.
      {R"({"routes": [{"path": "/x", "methods": ["GET"]}]})",
       "rule 1: a rule that is not public must name its \"scopes\""},
      {R"({"routes": [{"path": "/x", "methods": ["GET"], "scopes": "0"}]})",
       "rule 1: \"scopes\" must be a list of texts"},
      {R"({"routes": [{"path": "/x", "methods": ["GET"], "scopes": [0]}]})",
       "rule 1: \"scopes\" must be a list of texts"},
      // Two rules for one call: which one holds would be a guess.
      {R"({"routes": [{"path": "/x", "methods": ["GET"], "scopes": ["0"]},
                      {"path": "/x", "methods": ["get"], "scopes": ["1"]}]})",
       "rule 2: GET /x has a rule already"},
      {R"({"routes": [{"path": "/x", "methods": ["*", "*"], "scopes": ["0"]}]})",
       "rule 1: * /x has a rule already"},
      {R"({"routes": [], "routes": []})", "not JSON: "},  // duplicate members
  };
  for (const auto& bad : kBad) {
    AccessTable table;
    std::string error;
    EXPECT_FALSE(AccessTable::parse(bad.text, &table, &error)) << bad.text;
    EXPECT_EQ(error.compare(0, std::string(bad.error).size(), bad.error), 0)
        << bad.text << " -> " << error;
  }
}

TEST(AccessTableTest, LoadNamesTheFile) {
  AccessTable table;
  std::string error;
  EXPECT_FALSE(AccessTable::load("/nonexistent/access.json", &table, &error));
  EXPECT_EQ(error, "cannot read /nonexistent/access.json");
  const std::string path = ::testing::TempDir() + "access_table_test.json";
  std::ofstream(path) << R"({"routes": [{"path": "/x", "methods": ["GET"]}]})";
  EXPECT_FALSE(AccessTable::load(path, &table, &error));
  EXPECT_EQ(error, path + ": rule 1: a rule that is not public must name its \"scopes\"");
  std::ofstream(path) << kSmall;
  EXPECT_TRUE(AccessTable::load(path, &table, &error)) << error;
  EXPECT_TRUE(table.rule("/up", "POST").upload);
}

TEST(AccessTableTest, CoverageAgainstTheRegisteredRoutes) {
  const AccessTable table = parsed(kSmall);
  EXPECT_EQ(table.uncovered({"/open", "/up", "/new", "/v1/new"}),
            (std::vector<std::string>{"/new", "/v1/new"}));
  EXPECT_EQ(table.unknown({"/open", "/up"}), (std::vector<std::string>{"/read", "/v1/read"}));
}

TEST(AccessTableTest, PermissionsOfAScope) {
  const AccessTable table = parsed(kSmall);
  EXPECT_EQ(table.permissions("0"),
            (std::vector<std::string>{"POST /up", "GET /read", "GET /v1/read"}));
  EXPECT_EQ(table.permissions("1"), (std::vector<std::string>{"GET /read", "* /read"}));
  EXPECT_TRUE(table.permissions("9").empty());
}

// What this project ships: the administrator may do everything, the auditor
// reads and signs out, API clients read and import.
TEST(AccessTableTest, TheShippedTable) {
  const AccessTable table = AccessTable::defaults();
  EXPECT_EQ(table.scopeNames().at("0"), "administrator");
  EXPECT_EQ(table.scopeNames().at("1"), "auditor");
  EXPECT_EQ(table.scopeNames().at("4"), "API client");
  const char* kImports[] = {"/kestrel_hypervisor/import_cert", "/kestrel_cert/import_cert",
                            "/kestrel_cert/import_crl"};
  for (const char* path : kImports) {
    const AccessRule& rule = table.rule(path, "POST");
    EXPECT_TRUE(rule.upload && rule.changes) << path;
    EXPECT_TRUE(rule.allows("0") && rule.allows("4")) << path;
    EXPECT_FALSE(rule.allows("1")) << path;
  }
  const char* kReads[] = {"/alarm/historyalarm",
                          "/v1/alarm/historyalarm",
                          "/alarm/historyalarm/count",
                          "/v1/alarm/historyalarm/count",
                          "/kestrel_task",
                          "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"};
  for (const char* path : kReads) {
    for (const char* method : {"GET", "HEAD"}) {
      const AccessRule& rule = table.rule(path, method);
      EXPECT_TRUE(rule.allows("0") && rule.allows("1") && rule.allows("4")) << path;
      EXPECT_FALSE(rule.isPublic || rule.upload || rule.changes || rule.secrets) << path;
    }
    // The count counts for every method; only GET and HEAD are reads.
    EXPECT_FALSE(table.rule(path, "POST").allows("1")) << path;
    EXPECT_FALSE(table.rule(path, "POST").allows("4")) << path;
    EXPECT_TRUE(table.rule(path, "POST").allows("0")) << path;
  }
  for (const char* path : {"/sessions", "/login"}) {
    EXPECT_TRUE(table.rule(path, "POST").isPublic && table.rule(path, "POST").login) << path;
    EXPECT_TRUE(table.rule(path, "GET").isPublic) << path;
    EXPECT_FALSE(table.rule(path, "GET").login) << path;
    const AccessRule& logout = table.rule(path, "DELETE");
    EXPECT_FALSE(logout.isPublic) << path;
    EXPECT_TRUE(logout.allows("0") && logout.allows("1") && logout.allows("4")) << path;
    for (const char* method : {"GET", "POST", "DELETE"}) {
      EXPECT_TRUE(table.rule(path, method).secrets) << method << " " << path;
    }
  }
  EXPECT_TRUE(table.uncovered({"/sessions", "/login", "/kestrel_hypervisor/import_cert",
                               "/kestrel_cert/import_cert", "/kestrel_cert/import_crl",
                               "/alarm/historyalarm", "/v1/alarm/historyalarm",
                               "/alarm/historyalarm/count", "/v1/alarm/historyalarm/count",
                               "/kestrel_task",
                               "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"})
                  .empty());
}

// The built-in table is conf/access.json as compiled in: both say the same.
TEST(AccessTableTest, TheBuiltInTableIsTheShippedFile) {
  AccessTable file;
  std::string error;
  ASSERT_TRUE(AccessTable::load(NOX_SOURCE_DIR "/conf/access.json", &file, &error)) << error;
  const AccessTable builtIn = AccessTable::defaults();
  for (const char* scope : {"0", "1", "4", "9", ""}) {
    EXPECT_EQ(file.permissions(scope), builtIn.permissions(scope)) << scope;
  }
  EXPECT_EQ(file.scopeNames(), builtIn.scopeNames());
}

// docs/openapi.json tells clients who may call each operation
// (x-nox-scopes, x-nox-public); it must say what the shipped table does.
TEST(AccessTableTest, TheApiDocumentNamesTheTablesScopes) {
  std::ifstream file(NOX_SOURCE_DIR "/docs/openapi.json");
  Json::Value doc;
  Json::CharReaderBuilder builder;
  std::string errors;
  ASSERT_TRUE(Json::parseFromStream(builder, file, &doc, &errors)) << errors;
  const AccessTable table = AccessTable::defaults();
  int checked = 0;
  for (const std::string& path : doc["paths"].getMemberNames()) {
    // "/kestrel_task/{id}" and "/kestrel_task/count" are the task route's.
    const std::string route = path.compare(0, 14, "/kestrel_task/") == 0 ? "/kestrel_task" : path;
    for (const std::string& method : doc["paths"][path].getMemberNames()) {
      const Json::Value& operation = doc["paths"][path][method];
      if (!operation.isObject()) continue;  // "parameters" and the like
      if (!operation.isMember("x-nox-scopes") && !operation.isMember("x-nox-public")) continue;
      const AccessRule& rule = table.rule(route, method);
      EXPECT_EQ(operation["x-nox-public"].asBool(), rule.isPublic) << method << " " << path;
      std::set<std::string> scopes;
      for (const Json::Value& scope : operation["x-nox-scopes"]) scopes.insert(scope.asString());
      EXPECT_EQ(scopes, rule.isPublic ? std::set<std::string>() : rule.scopes)
          << method << " " << path;
      if (!rule.isPublic) {
        EXPECT_TRUE(operation["responses"].isMember("403")) << method << " " << path;
      }
      ++checked;
    }
  }
  // Every operation of the plug-in's routes: 3 + 3 on the logins, 3 imports,
  // 4 alarm reads, 3 task reads, the storage configuration; and the
  // gateway's event stream on both interfaces.
  EXPECT_EQ(checked, 19);
}

TEST(AccessTableTest, TheInstalledTableIsTheDefaultUntilReplaced) {
  EXPECT_EQ(installedAccessTable()->permissions("1"), AccessTable::defaults().permissions("1"));
  installAccessTable(std::make_shared<const AccessTable>(parsed(kSmall)));
  EXPECT_EQ(installedAccessTable()->permissions("1"),
            (std::vector<std::string>{"GET /read", "* /read"}));
  installAccessTable(nullptr);
  EXPECT_EQ(installedAccessTable()->permissions("1"), AccessTable::defaults().permissions("1"));
}

}  // namespace

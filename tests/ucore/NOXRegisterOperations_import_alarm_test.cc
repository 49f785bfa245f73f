// The import and alarm rows of the route table: what NOXRegisterOperations
// registers for them, and how each registered object answers the methods.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "NOXHistoryAlarmOp.h"
#include "NOXImportCert.h"
#include "NOXImportCrlOp.h"
#include "abi/abi_slots.h"
#include "scripted_backend.h"
#include "operation_base.h"
#include "ucore/import_test_util.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

namespace {

enum class Kind { kCert, kCrl, kList, kCount };

struct Row {
  const char* url;
  const char* version;  // "" default interface, "v1"
  Kind kind;
};

// Rows 3 to 9, in registration order.
const Row kRows[] = {
    {"/kestrel_hypervisor/import_cert", "", Kind::kCert},
    {"/kestrel_cert/import_cert", "", Kind::kCert},
    {"/kestrel_cert/import_crl", "", Kind::kCrl},
    {"/alarm/historyalarm", "", Kind::kList},
    {"/alarm/historyalarm", "v1", Kind::kList},
    {"/alarm/historyalarm/count", "", Kind::kCount},
    {"/alarm/historyalarm/count", "v1", Kind::kCount},
};
constexpr size_t kRowCount = sizeof(kRows) / sizeof(kRows[0]);

bool hasKind(CSpecifyOp* op, Kind kind) {
  switch (kind) {
    case Kind::kCert:
      return dynamic_cast<NOXImportCertOp*>(op) != nullptr;
    case Kind::kCrl:
      return dynamic_cast<NOXImportCrlOp*>(op) != nullptr;
    case Kind::kList:
      return dynamic_cast<NOXHistoryAlarmOp*>(op) != nullptr;
    case Kind::kCount:
      return dynamic_cast<NOXHistoryAlarmCountOp*>(op) != nullptr;
  }
  return false;
}

// The position of the first import row among the registered routes.
size_t firstRow(const CSpecifyProc& proc) {
  const std::vector<CSpecifyProc::Route>& routes = proc.routes();
  for (size_t i = 0; i < routes.size(); ++i) {
    if (routes[i].url == kRows[0].url && routes[i].interfaceVersion == kRows[0].version) return i;
  }
  return routes.size();
}

TEST(RegistrationRowsTest, ImportAndAlarmRowsAreRegisteredInOrder) {
  CSpecifyProc proc;
  EXPECT_EQ(NOXRegisterOperations(&proc), 0);
  const std::vector<CSpecifyProc::Route>& routes = proc.routes();
  const size_t first = firstRow(proc);
  ASSERT_LE(first + kRowCount, routes.size());
  // Only the login rows come before them.
  for (size_t i = 0; i < first; ++i) {
    EXPECT_TRUE(routes[i].url == "/sessions" || routes[i].url == "/login") << routes[i].url;
  }
  std::set<CSpecifyOp*> objects;
  for (size_t i = 0; i < kRowCount; ++i) {
    const CSpecifyProc::Route& route = routes[first + i];
    EXPECT_EQ(route.url, kRows[i].url) << "row " << i + 3;
    EXPECT_EQ(route.interfaceVersion, kRows[i].version) << "row " << i + 3;
    EXPECT_TRUE(route.flag) << "row " << i + 3;
    EXPECT_TRUE(hasKind(route.op, kRows[i].kind)) << "row " << i + 3;
    objects.insert(route.op);
  }
  EXPECT_EQ(objects.size(), kRowCount);  // every row has its own object
}

// How every registered object answers GET, PUT and a lower-case "post".
TEST(RegistrationRowsTest, EachRouteAnswersTheMethods) {
  struct Expect {
    bool supported;
    uint32_t mark;
    int result;
  };
  struct MethodTable {
    Expect get, put, post;
  };
  auto table = [](Kind kind) -> MethodTable {
    switch (kind) {
      case Kind::kCert:  // takes every method, marks and serves only POST
        return {{true, 0, -1}, {true, 0, -1}, {true, 1, 0}};
      case Kind::kCrl:  // refuses all but POST already in isSupport
        return {{false, 0, -1}, {false, 0, -1}, {true, 1, 0}};
      case Kind::kList:  // GET only
        return {{true, 0, 0}, {true, 0, -1}, {true, 0, -1}};
      case Kind::kCount:  // every method counts
        return {{true, 0, 0}, {true, 0, 0}, {true, 0, 0}};
    }
    return {};
  };

  import_test::ScratchDir dir;
  ASSERT_FALSE(dir.path().empty());
  ScriptedBackend backend;
  import_test::answerPath(backend, 0xE0000052, dir.file("cert.tmp"));
  import_test::answerPath(backend, 0xE000006E, dir.file("crl.tmp"));
  CSpecifyProc proc;
  NOXRegisterOperations(&proc);
  const size_t first = firstRow(proc);
  ASSERT_LE(first + kRowCount, proc.routes().size());

  for (size_t i = 0; i < kRowCount; ++i) {
    CSpecifyOp* op = proc.routes()[first + i].op;
    const MethodTable expected = table(kRows[i].kind);
    const std::pair<const char*, Expect> methods[] = {
        {"GET", expected.get}, {"PUT", expected.put}, {"post", expected.post}};
    for (const auto& m : methods) {
      SpecifyOpPrivData priv;
      EXPECT_EQ(op->isSupport(m.first, "", priv), m.second.supported)
          << kRows[i].url << " " << kRows[i].version << " " << m.first;
      EXPECT_EQ(priv.uploadMark_, m.second.mark) << kRows[i].url << " " << m.first;

      HttpRequest connection;
      CRequestMsg request;
      import_test::prepareRequest(request, connection);
      request.setInterfaceVersion(kRows[i].version);
      request.getBody().addUpload(kRows[i].kind == Kind::kCrl ? "ca.crl" : "ca.pem", "DATA");
      CResponseMsg response;
      EXPECT_EQ(op->op(m.first, "", request, response), m.second.result)
          << kRows[i].url << " " << kRows[i].version << " " << m.first;
    }
  }
}

// The host calls these operations by virtual slot; their own members are
// plain functions.
TEST(RegistrationRowsTest, OperationsOverrideTheHostsSlots) {
  EXPECT_EQ(virtualSlot(&NOXImportCertOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&NOXImportCertOp::op), 4);
  EXPECT_EQ(virtualSlot(&NOXImportCertOp::importCert), -1);
  EXPECT_EQ(virtualSlot(&NOXImportCertOp::SendEvent), -1);
  EXPECT_EQ(virtualSlot(&NOXImportCrlOp::isSupport), 3);
  EXPECT_EQ(virtualSlot(&NOXImportCrlOp::op), 4);
  EXPECT_EQ(virtualSlot(&NOXImportCrlOp::importCrl), -1);
  EXPECT_EQ(virtualSlot(&NOXImportCrlOp::CheckUploadCrl), -1);
  EXPECT_EQ(virtualSlot(&NOXHistoryAlarmOp::op), 4);
  EXPECT_EQ(virtualSlot(&NOXHistoryAlarmCountOp::op), 4);
}

}  // namespace

// Alarm, task and storage configuration queries, import events, and the
// answers to unknown commands, bad cells and a failing store.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <set>

#include "backend_fixture.h"
#include "trace_capture.h"

namespace {

const uint32_t kAlarmListCommand = static_cast<uint32_t>(proto::kAlarmList);
const uint32_t kAlarmCountCommand = static_cast<uint32_t>(proto::kAlarmCount);
const uint32_t kTaskList = proto::moCommand(proto::kTaskObjType, proto::kMoList);
const uint32_t kTaskCount = proto::moCommand(proto::kTaskObjType, proto::kMoCount);
const uint32_t kTaskById = proto::moCommand(proto::kTaskObjType, proto::kMoGetById);
const uint32_t kStorageConf =
    proto::moCommand(proto::kStorageConfObjType, proto::kStorageConfOpCode);

class QueryTest : public BackendTest {};

Json::Value parseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << text;
  return root;
}

TEST_F(QueryTest, AlarmCommandsAreTheLowWordsWithWord13) {
  EXPECT_EQ(kAlarmListCommand, 0x00C90041u);
  EXPECT_EQ(kAlarmCountCommand, 0x00C90096u);
  EXPECT_EQ(proto::kAlarmList >> 32, proto::kWord);
}

TEST_F(QueryTest, AlarmCountAndFullList) {
  CR3MPackageV3 count;
  ASSERT_EQ(send(kAlarmCountCommand, nullptr, &count), 0);
  ASSERT_EQ(count.size(), 1u);
  const long long total = intCell(count, 0, proto::kTagTotal);
  EXPECT_GE(total, 100);

  CR3MPackageV3 list;
  ASSERT_EQ(send(kAlarmListCommand, nullptr, &list), 0);
  EXPECT_EQ(intCell(list, 0, proto::kTagTotal), total);
  ASSERT_EQ(static_cast<long long>(list.size()), total + 1);
  std::set<long long> severities;
  int cleared = 0;
  long long previous = LLONG_MAX;
  for (size_t i = 1; i < list.size(); ++i) {
    const long long severity = intCell(list, i, proto::kTagAlarmSeverity);
    severities.insert(severity);
    const long long occur = intCell(list, i, proto::kTagAlarmOccurTime);
    EXPECT_LE(occur, previous) << "newest first";
    previous = occur;
    EXPECT_GE(occur, time(nullptr) - 31 * 86400);
    if (intCell(list, i, proto::kTagAlarmClearTime) != 0) ++cleared;
    EXPECT_FALSE(textCell(list, i, proto::kTagAlarmName).empty());
    EXPECT_FALSE(textCell(list, i, proto::kTagAlarmSource).empty());
    EXPECT_FALSE(textCell(list, i, proto::kTagAlarmDetail).empty());
    EXPECT_EQ(list[i].find(proto::kTagAlarmId)->getType(), CTLVCell::TLV_UINT64);
  }
  EXPECT_EQ(severities, (std::set<long long>{1, 2, 3, 4}));
  EXPECT_GT(cleared, 0);
  EXPECT_LT(cleared, total);
}

TEST_F(QueryTest, AlarmPagingIsASliceOfTheList) {
  CR3MPackageV3 all;
  ASSERT_EQ(send(kAlarmListCommand, nullptr, &all), 0);
  CR3MPackageV3 page;
  ASSERT_EQ(send(
                kAlarmListCommand,
                [](CR3MRecordV3& r) {
                  r[proto::kTagStart].setUInt32(proto::kTagStart, 10);
                  r[proto::kTagLimit].setUInt32(proto::kTagLimit, 5);
                  r[proto::kTagHistory].setUInt32(proto::kTagHistory, 1);
                },
                &page),
            0);
  ASSERT_EQ(page.size(), 6u);
  EXPECT_EQ(intCell(page, 0, proto::kTagTotal), intCell(all, 0, proto::kTagTotal));
  for (size_t i = 1; i < page.size(); ++i) {
    EXPECT_EQ(intCell(page, i, proto::kTagAlarmId), intCell(all, 10 + i, proto::kTagAlarmId));
  }
  CR3MPackageV3 beyond;
  ASSERT_EQ(
      send(
          kAlarmListCommand,
          [](CR3MRecordV3& r) { r[proto::kTagStart].setUInt32(proto::kTagStart, 5000); }, &beyond),
      0);
  EXPECT_EQ(beyond.size(), 1u);
}

TEST_F(QueryTest, AlarmFilters) {
  for (uint32_t severity = 1; severity <= 4; ++severity) {
    auto fill = [&](CR3MRecordV3& r) {
      r[proto::kTagSeverity].setUInt32(proto::kTagSeverity, severity);
    };
    CR3MPackageV3 list;
    CR3MPackageV3 count;
    ASSERT_EQ(send(kAlarmListCommand, fill, &list), 0);
    ASSERT_EQ(send(kAlarmCountCommand, fill, &count), 0);
    EXPECT_EQ(static_cast<long long>(list.size()) - 1, intCell(count, 0, proto::kTagTotal));
    for (size_t i = 1; i < list.size(); ++i) {
      EXPECT_EQ(intCell(list, i, proto::kTagAlarmSeverity), severity);
    }
  }
  const uint64_t now = static_cast<uint64_t>(time(nullptr));
  const uint64_t begin = now - 10 * 86400;
  const uint64_t end = now - 5 * 86400;
  CR3MPackageV3 window;
  ASSERT_EQ(send(
                kAlarmListCommand,
                [&](CR3MRecordV3& r) {
                  r[proto::kTagBeginTime].setUInt64(proto::kTagBeginTime, begin);
                  r[proto::kTagEndTime].setUInt64(proto::kTagEndTime, end);
                },
                &window),
            0);
  EXPECT_GT(window.size(), 1u);
  for (size_t i = 1; i < window.size(); ++i) {
    const long long t = intCell(window, i, proto::kTagAlarmOccurTime);
    EXPECT_GE(t, static_cast<long long>(begin));
    EXPECT_LE(t, static_cast<long long>(end));
  }
  CR3MPackageV3 reversed;
  ASSERT_EQ(send(
                kAlarmCountCommand,
                [&](CR3MRecordV3& r) {
                  r[proto::kTagBeginTime].setUInt64(proto::kTagBeginTime, end);
                  r[proto::kTagEndTime].setUInt64(proto::kTagEndTime, begin);
                },
                &reversed),
            0);
  EXPECT_EQ(intCell(reversed, 0, proto::kTagTotal), 0);
}

TEST_F(QueryTest, AlarmBadCells) {
  const struct {
    const char* what;
    std::function<void(CR3MRecordV3&)> fill;
  } cases[] = {
      {"severity 0", [](CR3MRecordV3& r) { r[3].setUInt32(3, 0); }},
      {"severity 5", [](CR3MRecordV3& r) { r[3].setUInt32(3, 5); }},
      {"severity as text", [](CR3MRecordV3& r) { r[3].setString(3, "1"); }},
      {"negative start", [](CR3MRecordV3& r) { r[1].setInt32(1, -1); }},
      {"limit as text", [](CR3MRecordV3& r) { r[2].setString(2, "10"); }},
      {"begin time without value", [](CR3MRecordV3& r) { r[4]; }},
      {"history as text", [](CR3MRecordV3& r) { r[6].setString(6, "yes"); }},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(send(kAlarmListCommand, c.fill), proto::kErrInvalidArgument) << c.what;
    EXPECT_EQ(send(kAlarmCountCommand, c.fill), proto::kErrInvalidArgument) << c.what;
  }
}

TEST_F(QueryTest, TaskListHasEveryTaskWithItsCells) {
  CR3MPackageV3 list;
  ASSERT_EQ(send(kTaskList, nullptr, &list), 0);
  ASSERT_GE(list.size(), 20u);
  CR3MPackageV3 count;
  ASSERT_EQ(send(kTaskCount, nullptr, &count), 0);
  EXPECT_EQ(intCell(count, 0, proto::kTagTotal), static_cast<long long>(list.size()));
  std::set<long long> statuses;
  std::set<long long> types;
  for (size_t i = 0; i < list.size(); ++i) {
    EXPECT_EQ(list[i].command(), kTaskList);
    EXPECT_EQ(list[i].word(), proto::kWord);
    statuses.insert(intCell(list, i, proto::kTagTaskStatus));
    types.insert(intCell(list, i, proto::kTagTaskType));
    const Json::Value detail = parseJson(textCell(list, i, proto::kTagTaskDetail));
    EXPECT_TRUE(detail.isArray());
    EXPECT_GE(detail.size(), 1u);
    EXPECT_FALSE(textCell(list, i, proto::kTagTaskName).empty());
  }
  // queued, running, succeeded, partially succeeded, failed, cancelled
  EXPECT_EQ(statuses, (std::set<long long>{1, 2, 3, 4, 5, 6}));
  // backup, restore, copy, database backup
  EXPECT_EQ(types, (std::set<long long>{1, 2, 3, 4}));
}

TEST_F(QueryTest, TaskPagingAndSorting) {
  CR3MPackageV3 byName;
  ASSERT_EQ(
      send(
          kTaskList, [](CR3MRecordV3& r) { r[proto::kTagSort].setString(proto::kTagSort, "name"); },
          &byName),
      0);
  std::vector<std::string> names;
  for (size_t i = 0; i < byName.size(); ++i) names.push_back(textCell(byName, i, 2));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));

  CR3MPackageV3 page;
  ASSERT_EQ(send(
                kTaskList,
                [](CR3MRecordV3& r) {
                  r[proto::kTagSort].setString(proto::kTagSort, "name");
                  r[proto::kTagStart].setUInt32(proto::kTagStart, 3);
                  r[proto::kTagLimit].setUInt32(proto::kTagLimit, 4);
                },
                &page),
            0);
  ASSERT_EQ(page.size(), 4u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(textCell(page, i, 2), names[3 + i]);

  CR3MPackageV3 byProgress;
  ASSERT_EQ(send(
                kTaskList,
                [](CR3MRecordV3& r) { r[proto::kTagSort].setString(proto::kTagSort, "-progress"); },
                &byProgress),
            0);
  for (size_t i = 1; i < byProgress.size(); ++i) {
    EXPECT_GE(intCell(byProgress, i - 1, 5), intCell(byProgress, i, 5));
  }
}

TEST_F(QueryTest, TaskFilters) {
  const struct {
    const char* filter;
    unsigned short tag;
    std::string value;
  } cases[] = {
      {R"({"status":5})", proto::kTagTaskStatus, "5"},
      {R"({"status":"5"})", proto::kTagTaskStatus, "5"},
      {R"({"type":2,"status":3})", proto::kTagTaskType, "2"},
      {R"({"resource":"mail-01"})", proto::kTagTaskResource, "mail-01"},
      {R"({"id":"1001"})", proto::kTagTaskId, "1001"},
      {R"({"name":"db-crm-full"})", proto::kTagTaskName, "db-crm-full"},
  };
  for (const auto& c : cases) {
    auto fill = [&](CR3MRecordV3& r) {
      r[proto::kTagFilter].setString(proto::kTagFilter, c.filter);
    };
    CR3MPackageV3 list;
    CR3MPackageV3 count;
    ASSERT_EQ(send(kTaskList, fill, &list), 0) << c.filter;
    ASSERT_EQ(send(kTaskCount, fill, &count), 0) << c.filter;
    EXPECT_GE(list.size(), 1u) << c.filter;
    EXPECT_EQ(intCell(count, 0, proto::kTagTotal), static_cast<long long>(list.size()));
    for (size_t i = 0; i < list.size(); ++i) EXPECT_EQ(textCell(list, i, c.tag), c.value);
  }
  CR3MPackageV3 none;
  ASSERT_EQ(send(
                kTaskList, [](CR3MRecordV3& r) { r[4].setString(4, R"({"name":"no such task"})"); },
                &none),
            0);
  EXPECT_EQ(none.size(), 0u);
}

TEST_F(QueryTest, TaskBadCells) {
  const char* const filters[] = {
      "not json",
      "[1,2]",                    // not an object
      R"({"password":"x"})",      // unknown field
      R"({"progress":5})",        // sortable, not filterable
      R"({"status":"running"})",  // a status is a number
      R"({"status":1.5})",
      R"({"status":"5\n"})",        // digits with a line feed after them
      R"({"status":" 5"})",         // a blank before the digits
      R"({"name":7})",               // a name is text
      R"({"id":"1' OR '1'='1"} x)",  // trailing garbage
  };
  for (const char* f : filters) {
    auto fill = [&](CR3MRecordV3& r) { r[proto::kTagFilter].setString(proto::kTagFilter, f); };
    EXPECT_EQ(send(kTaskList, fill), proto::kErrInvalidArgument) << f;
    EXPECT_EQ(send(kTaskCount, fill), proto::kErrInvalidArgument) << f;
  }
  const char* const sorts[] = {"password", "-", "name; DROP TABLE tasks", "--name"};
  for (const char* s : sorts) {
    EXPECT_EQ(send(kTaskList, [&](CR3MRecordV3& r) { r[3].setString(3, s); }),
              proto::kErrInvalidArgument)
        << s;
  }
  EXPECT_EQ(send(kTaskList, [](CR3MRecordV3& r) { r[4].setUInt32(4, 1); }),
            proto::kErrInvalidArgument);
  EXPECT_EQ(send(kTaskList, [](CR3MRecordV3& r) { r[2].setString(2, "5"); }),
            proto::kErrInvalidArgument);
  // The store is untouched by all of that.
  CR3MPackageV3 count;
  ASSERT_EQ(send(kTaskCount, nullptr, &count), 0);
  EXPECT_GE(intCell(count, 0, proto::kTagTotal), 20);
}

TEST_F(QueryTest, FilterValuesAreDataNotSql) {
  CR3MPackageV3 list;
  ASSERT_EQ(
      send(
          kTaskList, [](CR3MRecordV3& r) { r[4].setString(4, R"({"id":"1' OR '1'='1"})"); }, &list),
      0);
  EXPECT_EQ(list.size(), 0u);
}

TEST_F(QueryTest, FailedTaskDetailAndErrorInformation) {
  CR3MPackageV3 failed;
  ASSERT_EQ(send(
                kTaskList, [](CR3MRecordV3& r) { r[4].setString(4, R"({"status":5})"); }, &failed),
            0);
  ASSERT_GE(failed.size(), 3u);
  for (size_t i = 0; i < failed.size(); ++i) {
    const std::string id = textCell(failed, i, proto::kTagTaskId);
    CR3MPackageV3 one;
    ASSERT_EQ(send(
                  kTaskById, [&](CR3MRecordV3& r) { r[0].setString(0, id); }, &one),
              0);
    ASSERT_EQ(one.size(), 1u);
    const CTLVCell* error = one[0].find(proto::kTagTaskErrorInfo);
    ASSERT_NE(error, nullptr) << id;
    EXPECT_EQ(error->getType(), CTLVCell::TLV_JSON);
    const std::string text = error->toString();
    EXPECT_EQ(error->getLength(), text.size()) << "no terminating zero counted";
    const Json::Value info = parseJson(text);
    ASSERT_TRUE(info.isMember("code"));
    EXPECT_TRUE(info.isMember("node"));
    // The plug-in finds the failure's description through a progress entry
    // with the same identifier.
    const Json::Value detail = parseJson(textCell(one, 0, proto::kTagTaskDetail));
    bool matched = false;
    for (const Json::Value& entry : detail) {
      if (entry["id"].asString() == info["code"].asString()) matched = true;
      ASSERT_TRUE(entry["params"].isArray());
      ASSERT_GE(entry["params"].size(), 1u);
      const std::string stamp = entry["params"][0]["param"].asString();
      EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << stamp;
    }
    EXPECT_TRUE(matched) << text;
  }
}

TEST_F(QueryTest, SucceededTaskCarriesTheNoErrorObject) {
  CR3MPackageV3 one;
  ASSERT_EQ(send(
                kTaskById, [](CR3MRecordV3& r) { r[0].setString(0, "1001"); }, &one),
            0);
  EXPECT_EQ(intCell(one, 0, proto::kTagTaskStatus), 3);
  // The backend's object for "no error", a JSON cell as for a failure.
  ASSERT_NE(one[0].find(proto::kTagTaskErrorInfo), nullptr);
  EXPECT_EQ(one[0].find(proto::kTagTaskErrorInfo)->toString(), R"({"code":"0","node":"node-01"})");
  EXPECT_GT(intCell(one, 0, proto::kTagTaskEndTime), intCell(one, 0, proto::kTagTaskStartTime));
}

TEST_F(QueryTest, TaskByIdRefusals) {
  EXPECT_EQ(send(kTaskById, [](CR3MRecordV3& r) { r[0].setString(0, "9999"); }),
            proto::kErrNotFound);
  EXPECT_EQ(send(kTaskById, [](CR3MRecordV3& r) { r[0].setString(0, ""); }), proto::kErrNotFound);
  EXPECT_EQ(send(kTaskById, nullptr), proto::kErrInvalidArgument);
  EXPECT_EQ(
      send(kTaskById, [](CR3MRecordV3& r) { r[0].set_i(CTLVCell::TLV_BINARY, 0, nullptr, 4); }),
      proto::kErrInvalidArgument);
  // A numeric identifier means the same task.
  CR3MPackageV3 one;
  EXPECT_EQ(send(
                kTaskById, [](CR3MRecordV3& r) { r[0].setUInt32(0, 1002); }, &one),
            0);
  EXPECT_EQ(textCell(one, 0, proto::kTagTaskId), "1002");
}

TEST_F(QueryTest, OtherTaskOperationsAreUnknown) {
  EXPECT_EQ(send(proto::moCommand(proto::kTaskObjType, 0xC002), nullptr),
            proto::kErrUnknownCommand);
  EXPECT_EQ(send(proto::moCommand(0xE013, proto::kMoList), nullptr), proto::kErrUnknownCommand);
}

TEST_F(QueryTest, StorageConfigurationWhenHealthy) {
  EXPECT_EQ(kStorageConf, 0x006200DEu);
  CR3MPackageV3 reply;
  ASSERT_EQ(send(kStorageConf, nullptr, &reply), 0);
  ASSERT_EQ(reply.size(), 1u);
  EXPECT_EQ(textCell(reply, 0, proto::kTagResultCode), "0");
  EXPECT_EQ(textCell(reply, 0, proto::kTagResultParams), "");
  EXPECT_EQ(intCell(reply, 0, proto::kTagStorageType), 2);
  EXPECT_EQ(textCell(reply, 0, proto::kTagStoragePath), "/mnt/nox/dbbackup");
  EXPECT_GT(intCell(reply, 0, proto::kTagStorageCapacity),
            intCell(reply, 0, proto::kTagStorageUsed));
  EXPECT_EQ(intCell(reply, 0, proto::kTagStorageRetention), 30);
  EXPECT_EQ(textCell(reply, 0, proto::kTagStorageName), "dbbackup-nfs-01");
}

TEST_F(QueryTest, StorageConfigurationProblems) {
  const struct {
    const char* change;
    const char* code;
    const char* params;
  } cases[] = {
      {"UPDATE storage_conf SET used = capacity - 50 * 1073741824", "1620000005",
       "dbbackup-nfs-01#@#50#@#3#@#100#@#3"},
      {"UPDATE storage_conf SET type = 5", "1620000003", "dbbackup-nfs-01#@#5"},
      {"UPDATE storage_conf SET retention_days = 0", "1620000009", "0#@#1#@#3650"},
      {"UPDATE storage_conf SET capacity = 0", "1620000001", ""},
  };
  for (const auto& c : cases) {
    closeBackend();
    removeTree(dataDir());
    openBackend();
    sql(c.change);
    CR3MPackageV3 reply;
    ASSERT_EQ(send(kStorageConf, nullptr, &reply), 0);
    EXPECT_EQ(textCell(reply, 0, proto::kTagResultCode), c.code) << c.change;
    EXPECT_EQ(textCell(reply, 0, proto::kTagResultParams), c.params) << c.change;
  }
  sql("DELETE FROM storage_conf");
  CR3MPackageV3 reply;
  ASSERT_EQ(send(kStorageConf, nullptr, &reply), 0);
  EXPECT_EQ(textCell(reply, 0, proto::kTagResultCode), "1620000001");
  EXPECT_EQ(reply[0].find(proto::kTagStoragePath), nullptr);
}

TEST_F(QueryTest, ImportEventsAreStoredWithUserAndOutcome) {
  auto event = [](long long kind, long long outcome) {
    return [=](CR3MRecordV3& r) {
      r[0].setUInt32(0, 2);
      r[1].setUInt32(1, static_cast<uint32_t>(kind));
      r[3].setUInt32(3, static_cast<uint32_t>(outcome));
    };
  };
  EXPECT_EQ(send(proto::kImportEvent, event(100, 0), nullptr, "admin"), 0);
  EXPECT_EQ(send(proto::kImportEvent, event(101, 1), nullptr, "apiuser"), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM import_events"), "2");
  EXPECT_EQ(sql("SELECT user_name || ',' || kind || ',' || outcome FROM import_events ORDER BY id"),
            "admin,100,0");
  EXPECT_EQ(sql("SELECT user_name || ',' || kind || ',' || outcome FROM import_events "
                "ORDER BY id DESC"),
            "apiuser,101,1");
  const long long stamp = std::stoll(sql("SELECT time FROM import_events ORDER BY id DESC"));
  EXPECT_LE(std::llabs(stamp - static_cast<long long>(time(nullptr))), 60);

  EXPECT_EQ(send(proto::kImportEvent, event(102, 0)), proto::kErrInvalidArgument);
  EXPECT_EQ(send(proto::kImportEvent, event(100, 2)), proto::kErrInvalidArgument);
  EXPECT_EQ(send(proto::kImportEvent, [](CR3MRecordV3& r) { r[1].setUInt32(1, 100); }),
            proto::kErrInvalidArgument);
  EXPECT_EQ(send(proto::kImportEvent,
                 [](CR3MRecordV3& r) {
                   r[1].setString(1, "100");
                   r[3].setUInt32(3, 0);
                 }),
            proto::kErrInvalidArgument);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM import_events"), "2");
}

TEST_F(QueryTest, UnknownCommandsAndWords) {
  EXPECT_EQ(send(0x12345678, nullptr), proto::kErrUnknownCommand);
  EXPECT_EQ(send(kAlarmCountCommand, nullptr, nullptr, "admin", 12), proto::kErrUnknownCommand);
  CR3MPackageV3 empty;
  CR3MPackageV3 reply;
  CDeviceID device;
  UserContext user;
  TlvCall call{device, user, "", 5, CommunicationTarget::TARGET_BACKEND};
  EXPECT_EQ(backend_->handle(call, empty, reply), proto::kErrInvalidArgument);
}

TEST_F(QueryTest, StoreFailureIsReportedAndTraced) {
  TraceCapture trace;
  sql("DROP TABLE alarms");
  CR3MPackageV3 reply;
  EXPECT_EQ(send(kAlarmCountCommand, nullptr, &reply), proto::kErrStorage);
  EXPECT_EQ(reply.size(), 0u) << "nothing half-answered";
  bool logged = false;
  for (const TraceRecord& r : trace.records()) {
    if (r.module == 30 && r.level == TraceLevel::kError &&
        r.text.find("no such table: alarms") != std::string::npos) {
      logged = true;
    }
  }
  EXPECT_TRUE(logged) << trace.dump();
  // Other commands still work.
  EXPECT_EQ(send(kTaskCount, nullptr), 0);
}

}  // namespace

namespace {

TEST_F(QueryTest, DatabaseHeldByAnotherProcessIsAStorageError) {
  // A second connection takes the write lock and keeps it; a write of the
  // backend gives up after its busy time-out instead of hanging.
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((dataDir() + "/nox.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  CR3MPackageV3 request;
  CR3MRecordV3& r = request.addRecord(proto::kImportEvent, proto::kWord);
  r[1].setUInt32(1, 100);
  r[3].setUInt32(3, 0);
  CR3MPackageV3 reply;
  CDeviceID device;
  UserContext user;
  TlvCall call{device, user, "", 1, CommunicationTarget::TARGET_BACKEND};
  EXPECT_EQ(backend_->handle(call, request, reply), proto::kErrStorage);
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(backend_->handle(call, request, reply), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM import_events"), "1");
}

}  // namespace

namespace {

TEST_F(QueryTest, EndTimeBeyondTheSignedRangeMeansNoLimit) {
  CR3MPackageV3 all;
  CR3MPackageV3 open;
  ASSERT_EQ(send(kAlarmCountCommand, nullptr, &all), 0);
  ASSERT_EQ(send(
                kAlarmCountCommand,
                [](CR3MRecordV3& r) { r[proto::kTagEndTime].setUInt64(proto::kTagEndTime, ~0ULL); },
                &open),
            0);
  EXPECT_EQ(intCell(open, 0, proto::kTagTotal), intCell(all, 0, proto::kTagTotal));
}

TEST_F(QueryTest, CellsOfAnyShapeNeverCrash) {
  // Every command, every tag it reads, every cell type at lengths that are
  // too short, too long or unterminated: the answer is a code, never a crash
  // (the sanitizer builds run this too).
  const uint32_t commands[] = {
      proto::kCertTempPath, proto::kCertCheck, proto::kCrlImportPath, proto::kCrlSave,
      proto::kImportEvent,  kAlarmListCommand, kAlarmCountCommand,    kTaskList,
      kTaskCount,           kTaskById,         kStorageConf,          proto::kLogin,
      proto::kLogout};
  const unsigned short tags[] = {0, 1, 2, 3, 4, 5, 6, proto::kTagPath};
  const unsigned long lengths[] = {0, 1, 2, 3, 4, 7, 8, 9, 64};
  const std::set<long long> allowed = {0,
                                       proto::kErrInvalidArgument,
                                       proto::kErrNotFound,
                                       proto::kErrLoginFailed,
                                       proto::kErrLoginThrottled,
                                       proto::kErrNotLoggedIn,
                                       proto::kErrScopeDenied};
  std::string bytes(64, 'A');
  for (uint32_t command : commands) {
    for (unsigned short tag : tags) {
      for (int type = 0; type <= 9; ++type) {
        for (unsigned long length : lengths) {
          const long long code = send(command, [&](CR3MRecordV3& r) {
            r[tag].set_i(static_cast<CTLVCell::ETLVType>(type), tag, &bytes[0], length);
          });
          EXPECT_EQ(allowed.count(code), 1u)
              << std::hex << command << " tag " << std::dec << tag << " type " << type << " length "
              << length << " -> " << std::hex << code;
        }
      }
    }
  }
}

}  // namespace

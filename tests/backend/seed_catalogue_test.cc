// The demo data speaks the catalogue's language: every message identifier it
// uses exists in conf/ in English and in Chinese with as many parameters as
// the data gives, and every enumeration code it stores has a text.
#include <gtest/gtest.h>
#include <json/json.h>
#include <tinyxml2.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "demo_seed.h"

namespace {

// Identifier -> number of parameters the template refers to (highest
// "##<digits>" index + 1).
std::map<std::string, int> loadMessages(const std::string& file) {
  std::map<std::string, int> out;
  tinyxml2::XMLDocument doc;
  const std::string path = std::string(NOX_CONF_DIR) + "/" + file;
  if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
    ADD_FAILURE() << "cannot read " << path;
    return out;
  }
  const tinyxml2::XMLElement* messages = doc.RootElement()->FirstChildElement("messages");
  for (const tinyxml2::XMLElement* m = messages != nullptr ? messages->FirstChildElement("message")
                                                           : nullptr;
       m != nullptr; m = m->NextSiblingElement("message")) {
    const char* id = m->Attribute("id");
    const char* text = m->Attribute("template");
    if (id == nullptr || *id == '\0' || out.count(id) != 0) continue;  // first one wins
    const std::string t = text != nullptr ? text : "";
    int params = 0;
    for (size_t at = t.find("##"); at != std::string::npos; at = t.find("##", at + 2)) {
      size_t end = at + 2;
      while (end < t.size() && end - at - 2 < 6 &&
             std::isdigit(static_cast<unsigned char>(t[end]))) {
        ++end;
      }
      const size_t digits = end - at - 2;
      if (digits >= 1 && digits <= 5)
        params = std::max(params, std::stoi(t.substr(at + 2, digits)) + 1);
    }
    out[id] = params;
  }
  return out;
}

// Enumeration name -> codes.
std::map<std::string, std::set<int>> loadEnums(const std::string& file) {
  std::map<std::string, std::set<int>> out;
  tinyxml2::XMLDocument doc;
  const std::string path = std::string(NOX_CONF_DIR) + "/" + file;
  if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
    ADD_FAILURE() << "cannot read " << path;
    return out;
  }
  const tinyxml2::XMLElement* root = doc.RootElement()->FirstChildElement("param_enum");
  for (const tinyxml2::XMLElement* e = root != nullptr ? root->FirstChildElement("enum_type")
                                                       : nullptr;
       e != nullptr; e = e->NextSiblingElement("enum_type")) {
    std::set<int>& codes = out[e->Attribute("name") != nullptr ? e->Attribute("name") : ""];
    for (const tinyxml2::XMLElement* m = e->FirstChildElement("enum_member"); m != nullptr;
         m = m->NextSiblingElement("enum_member")) {
      if (m->Attribute("value") != nullptr) codes.insert(std::atoi(m->Attribute("value")));
    }
  }
  return out;
}

Json::Value parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << text;
  return root;
}

class SeedCatalogueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    languages_["en"] = loadMessages("task_extra_info_en.xml");
    languages_["zh"] = loadMessages("task_extra_info_zh.xml");
    for (const SeedMessage& m : seedMessages()) table_[m.id] = m.params;
  }
  std::map<std::string, std::map<std::string, int>> languages_;
  std::map<std::string, int> table_;
};

TEST_F(SeedCatalogueTest, EveryIdentifierExistsWithItsParameterCount) {
  ASSERT_FALSE(seedMessages().empty());
  EXPECT_EQ(table_.size(), seedMessages().size()) << "an identifier is listed twice";
  for (const auto& lang : languages_) {
    ASSERT_FALSE(lang.second.empty()) << lang.first;
    for (const SeedMessage& m : seedMessages()) {
      auto it = lang.second.find(m.id);
      ASSERT_NE(it, lang.second.end()) << m.id << " missing in " << lang.first;
      EXPECT_EQ(it->second, m.params) << m.id << " in " << lang.first;
    }
  }
}

TEST_F(SeedCatalogueTest, TaskProgressUsesTheTable) {
  const std::vector<SeedTask> tasks = demoTasks(1763700000);
  ASSERT_GE(tasks.size(), 20u);
  for (const SeedTask& t : tasks) {
    const Json::Value detail = parse(t.detail);
    ASSERT_TRUE(detail.isArray()) << t.id;
    std::set<std::string> ids;
    for (const Json::Value& entry : detail) {
      const std::string id = entry["id"].asString();
      ids.insert(id);
      ASSERT_EQ(table_.count(id), 1u) << id;
      EXPECT_EQ(static_cast<int>(entry["params"].size()), table_[id] + 1) << id << " in " << t.id;
      for (const Json::Value& p : entry["params"]) {
        const std::string value = p["param"].asString();
        // Values are joined with "#@#" and may end up inside a JSON text that
        // is built without escaping.
        EXPECT_EQ(value.find("#@#"), std::string::npos) << value;
        EXPECT_EQ(value.find_first_of("\"\\"), std::string::npos) << value;
      }
    }
    if (t.status == task_status::kFailed) {
      const Json::Value error = parse(t.errorInfo);
      const std::string code = error["code"].asString();
      EXPECT_EQ(code.compare(0, 4, "1610"), 0) << code << ": a failure reason";
      EXPECT_EQ(ids.count(code), 1u) << "a progress entry carries the failure " << code;
    } else {
      // The backend's object for "no error", never an empty text.
      EXPECT_EQ(parse(t.errorInfo)["code"].asString(), "0") << t.id;
    }
  }
}

// Free-text parameters are names and numbers; a reason is a code of an
// enumeration, so that a Chinese task detail holds no English sentence
// ("文件 ... 已跳过：the file is in use").
TEST_F(SeedCatalogueTest, ReasonsAreEnumerationCodesNotEnglishText) {
  const std::regex prose("[A-Za-z]+ [A-Za-z]+ [A-Za-z]+");
  int reasons = 0;
  for (const SeedTask& t : demoTasks(1763700000)) {
    for (const Json::Value& entry : parse(t.detail)) {
      for (const Json::Value& p : entry["params"]) {
        const std::string value = p["param"].asString();
        EXPECT_FALSE(std::regex_search(value, prose)) << entry["id"] << " in " << t.id << ": "
                                                      << value;
      }
      const std::string id = entry["id"].asString();
      if (id == "1600000107" || id == "1610000011") ++reasons;
    }
  }
  EXPECT_GT(reasons, 0) << "the demo data shows a skipped file or a refused replication";
  auto en = loadEnums("enum_en.xml");
  auto zh = loadEnums("enum_zh.xml");
  for (const char* name : {"skip_reason", "refusal_reason"}) {
    EXPECT_EQ(en[name].count(1), 1u) << name;
    EXPECT_EQ(zh[name], en[name]) << name;
  }
}

TEST_F(SeedCatalogueTest, StorageResultCodesExist) {
  StorageConfig c = demoStorage();
  EXPECT_EQ(checkStorage(c).code, "0");
  std::vector<StorageConfig> broken(4, c);
  broken[0].capacity = 0;
  broken[1].type = 5;
  broken[2].retentionDays = 4000;
  broken[3].used = broken[3].capacity;
  for (const StorageConfig& b : broken) {
    const StorageResult r = checkStorage(b);
    ASSERT_EQ(table_.count(r.code), 1u) << r.code;
    EXPECT_EQ(static_cast<int>(r.params.size()), table_[r.code]) << r.code;
    EXPECT_EQ(r.code.compare(0, 4, "1620"), 0);
  }
}

TEST_F(SeedCatalogueTest, EnumerationCodesHaveTexts) {
  for (const char* file : {"enum_en.xml", "enum_zh.xml"}) {
    auto enums = loadEnums(file);
    for (int s :
         {task_status::kQueued, task_status::kRunning, task_status::kSucceeded,
          task_status::kPartiallySucceeded, task_status::kFailed, task_status::kCancelled}) {
      EXPECT_EQ(enums["task_status"].count(s), 1u) << file << " task_status " << s;
    }
    for (int t :
         {task_type::kBackup, task_type::kRestore, task_type::kCopy, task_type::kDatabaseBackup}) {
      EXPECT_EQ(enums["task_type"].count(t), 1u) << file << " task_type " << t;
    }
    EXPECT_EQ(enums["storage_type"].count(demoStorage().type), 1u) << file;
    for (const SeedAlarm& a : demoAlarms(1763700000)) {
      EXPECT_EQ(enums["alarm_severity"].count(a.severity), 1u) << file;
    }
  }
}

TEST(JoinParamsTest, JoinsWithTheCatalogueSeparator) {
  EXPECT_EQ(joinParams({}), "");
  EXPECT_EQ(joinParams({"a"}), "a");
  EXPECT_EQ(joinParams({"a", "", "b"}), "a#@##@#b");
}

}  // namespace

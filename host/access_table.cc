#include "access_table.h"

#include <json/json.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>
#include <sstream>

// conf/access.json, compiled in by host/CMakeLists.txt.
extern const char kNoxAccessTableText[];

namespace {

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool readFlag(const Json::Value& rule, const char* name, bool* flag, std::string* error) {
  if (!rule.isMember(name)) return true;
  if (!rule[name].isBool()) {
    *error = std::string("\"") + name + "\" must be true or false";
    return false;
  }
  *flag = rule[name].asBool();
  return true;
}

bool readTexts(const Json::Value& list, const char* name, std::vector<std::string>* texts,
               std::string* error) {
  if (!list.isArray() || list.empty()) {
    *error = std::string("\"") + name + "\" must be a list of texts";
    return false;
  }
  for (const Json::Value& item : list) {
    if (!item.isString() || item.asString().empty()) {
      *error = std::string("\"") + name + "\" must be a list of texts";
      return false;
    }
    texts->push_back(item.asString());
  }
  return true;
}

// One rule of "routes" into its AccessRule, its path and its methods.
bool readRule(const Json::Value& json, AccessRule* rule, std::string* path,
              std::vector<std::string>* methods, std::string* error) {
  if (!json.isObject()) {
    *error = "must be an object";
    return false;
  }
  if (!json["path"].isString() || json["path"].asString().empty() ||
      json["path"].asString()[0] != '/') {
    *error = "\"path\" must be a text that starts with /";
    return false;
  }
  *path = json["path"].asString();
  if (!readTexts(json["methods"], "methods", methods, error)) return false;
  if (!readFlag(json, "public", &rule->isPublic, error) ||
      !readFlag(json, "upload", &rule->upload, error) ||
      !readFlag(json, "secrets", &rule->secrets, error) ||
      !readFlag(json, "login", &rule->login, error) ||
      !readFlag(json, "changes", &rule->changes, error)) {
    return false;
  }
  if (json.isMember("scopes")) {
    std::vector<std::string> scopes;
    if (!readTexts(json["scopes"], "scopes", &scopes, error)) return false;
    rule->scopes.insert(scopes.begin(), scopes.end());
  } else if (!rule->isPublic) {
    *error = "a rule that is not public must name its \"scopes\"";
    return false;
  }
  return true;
}

std::mutex g_installedMutex;
std::shared_ptr<const AccessTable> g_installed;

}  // namespace

bool AccessRule::allows(const std::string& scope) const {
  return isPublic || scopes.count(scope) > 0;
}

AccessTable AccessTable::defaults() {
  AccessTable table;
  std::string error;
  // The text is this project's own and is checked by its tests; a broken
  // one must not start a gateway that guards nothing.
  if (!parse(kNoxAccessTableText, &table, &error)) {
    throw std::logic_error("the compiled-in access table is broken: " + error);
  }
  return table;
}

bool AccessTable::parse(const std::string& text, AccessTable* table, std::string* error) {
  Json::Value json;
  Json::CharReaderBuilder builder;
  builder["rejectDupKeys"] = true;
  std::string errors;
  std::istringstream in(text);
  if (!Json::parseFromStream(builder, in, &json, &errors)) {
    *error = "not JSON: " + errors.substr(0, errors.find('\n'));
    return false;
  }
  if (!json.isObject() || !json["routes"].isArray()) {
    *error = "the table must be an object with a list \"routes\"";
    return false;
  }
  AccessTable result;
  result.fallback_.scopes.insert(kAdministratorScope);
  if (json.isMember("scopes")) {
    if (!json["scopes"].isObject()) {
      *error = "\"scopes\" must be an object of scope and label";
      return false;
    }
    for (const std::string& scope : json["scopes"].getMemberNames()) {
      result.scopeNames_[scope] = json["scopes"][scope].asString();
    }
  }
  for (Json::ArrayIndex i = 0; i < json["routes"].size(); ++i) {
    AccessRule rule;
    std::string path;
    std::vector<std::string> methods;
    std::string why;
    if (!readRule(json["routes"][i], &rule, &path, &methods, &why)) {
      *error = "rule " + std::to_string(i + 1) + ": " + why;
      return false;
    }
    for (const std::string& name : methods) {
      const std::string method = upper(name);
      const Entry* same = result.find(path, method);
      if (same != nullptr && same->method == method) {
        *error = "rule " + std::to_string(i + 1) + ": ";
        error->append(method).append(" ").append(path).append(" has a rule already");
        return false;
      }
      result.entries_.push_back(Entry{path, method, rule});
    }
  }
  *table = std::move(result);
  return true;
}

bool AccessTable::load(const std::string& path, AccessTable* table, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *error = "cannot read " + path;
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  std::string why;
  if (!parse(text.str(), table, &why)) {
    *error = path + ": " + why;
    return false;
  }
  return true;
}

const AccessTable::Entry* AccessTable::find(const std::string& path,
                                           const std::string& method) const {
  const Entry* any = nullptr;
  for (const Entry& entry : entries_) {
    if (entry.path != path) continue;
    if (entry.method == method) return &entry;
    if (entry.method == "*") any = &entry;
  }
  return any;
}

const AccessRule& AccessTable::rule(const std::string& path, const std::string& method) const {
  const std::string wanted = upper(method);
  const Entry* entry = find(path, wanted);
  // HEAD reads what GET reads.
  if ((entry == nullptr || entry->method == "*") && wanted == "HEAD") {
    if (const Entry* get = find(path, "GET"); get != nullptr && get->method == "GET") {
      entry = get;
    }
  }
  return entry != nullptr ? entry->rule : fallback_;
}

std::vector<std::string> AccessTable::uncovered(const std::vector<std::string>& registered) const {
  std::vector<std::string> paths;
  for (const std::string& path : registered) {
    const bool named = std::any_of(entries_.begin(), entries_.end(),
                                   [&](const Entry& e) { return e.path == path; });
    if (!named) paths.push_back(path);
  }
  return paths;
}

std::vector<std::string> AccessTable::unknown(const std::vector<std::string>& registered) const {
  std::vector<std::string> paths;
  for (const Entry& entry : entries_) {
    if (std::find(registered.begin(), registered.end(), entry.path) == registered.end() &&
        std::find(paths.begin(), paths.end(), entry.path) == paths.end()) {
      paths.push_back(entry.path);
    }
  }
  return paths;
}

std::vector<std::string> AccessTable::permissions(const std::string& scope) const {
  std::vector<std::string> calls;
  for (const Entry& entry : entries_) {
    if (!entry.rule.isPublic && entry.rule.allows(scope)) {
      calls.push_back(entry.method + " " + entry.path);
    }
  }
  return calls;
}

void installAccessTable(std::shared_ptr<const AccessTable> table) {
  std::lock_guard<std::mutex> lock(g_installedMutex);
  g_installed = std::move(table);
}

std::shared_ptr<const AccessTable> installedAccessTable() {
  std::lock_guard<std::mutex> lock(g_installedMutex);
  if (!g_installed) g_installed = std::make_shared<const AccessTable>(AccessTable::defaults());
  return g_installed;
}

// The message catalogue: loading the XML files, lookups and placeholder
// parsing. Every traced function uses module 18.
#include <tinyxml2.h>

#include <utility>

#include "qpn_debug_kit.h"
#include "string_utils.h"
#include "xml_config_parser.h"

namespace {

const int kModule = 18;
// What parseXmlEnumItem answers when it stored the enumeration asked for.
const int kFoundNamed = 101;
// What the number conversion gives for an enumeration code that is no number.
const long long kNoCode = -100;

const char kMessagesRoot[] = "messages";
const char kMessageItem[] = "message";
const char kEnumRoot[] = "param_enum";
const char kEnumType[] = "enum_type";
const char kEnumMember[] = "enum_member";

// "Open xml config file(PATH) failed.\nerrno: CODE)." and its enumeration
// twin. The closing ")." has no opening partner and "errno" is the tinyxml2
// error code; log readers and tests know the line in exactly this form.
std::string openFailedText(const char* what, const std::string& path, int code) {
  return std::string("Open ") + what + " config file(" + path + ") failed.\n" +
         "errno: " + std::to_string(code) + ").";
}

}  // namespace

void MessageInfo::init() {
  router_.rootName_ = kMessagesRoot;
  router_.itemName_ = kMessageItem;
  router_.fields_.reserve(2);
  router_.fields_.emplace_back("id", &MessageInfo::id_, true);
  router_.fields_.emplace_back("template", &MessageInfo::template_, false);
}

template <typename Info>
CXmlConfigParser<Info>::~CXmlConfigParser() {
  infoMap_.clear();
  enumMap_.clear();
}

template <typename Info>
void CXmlConfigParser<Info>::init(const std::string& xmlPath, const std::string& enumPath) {
  CQPNDebugKitGuard guard(kModule, "init");
  guard.debug(0, "init", __LINE__, "init begin XML path: %s, Enum path: %s.", xmlPath.c_str(),
              enumPath.c_str());
  if (parseXmlCfg(xmlPath, "0") != 0) {
    guard.error(0, "init", __LINE__, "Parse xml configured file failed.");
    return;
  }
  xmlPath_ = xmlPath;
  if (parseXmlEnum(enumPath, "") != 0) {
    guard.error(0, "init", __LINE__, "Parse xml enum configured file failed.");
    return;
  }
  enumPath_ = enumPath;
  guard.debug(0, "init", __LINE__, "init end....");
}

template <typename Info>
int CXmlConfigParser<Info>::parseXmlCfg(const std::string& path, const std::string& id) {
  CQPNDebugKitGuard guard(kModule, "parseXmlCfg");
  // The identifier is kept for the record only: the whole file is read.
  const std::string wanted = id;
  (void)wanted;

  tinyxml2::XMLDocument doc;
  tinyxml2::XMLError loaded = doc.LoadFile(path.c_str());
  if (loaded != tinyxml2::XML_SUCCESS) {
    guard.error(openFailedText("xml", path, static_cast<int>(loaded)));
    return -1;
  }
  tinyxml2::XMLElement* root = doc.FirstChildElement();
  if (root == nullptr) {
    guard.error(0, "parseXmlCfg", __LINE__, "Parse root element failed!");
    return -1;
  }
  Info shape;
  shape.init();
  tinyxml2::XMLElement* messages = root->FirstChildElement(shape.router_.rootName_.c_str());

  CQPNDebugKitGuard itemsGuard(kModule, "parseXmlCfgItems");
  itemsGuard.debug(0, "parseXmlCfg", __LINE__, "parseXmlCfgItems begin..");
  if (messages == nullptr) {
    itemsGuard.error(0, "parseXmlCfg", __LINE__, "Parse event definition element failed!");
    return -1;
  }
  for (tinyxml2::XMLElement* item = messages->FirstChildElement(shape.router_.itemName_.c_str());
       item != nullptr; item = item->NextSiblingElement(shape.router_.itemName_.c_str())) {
    // A fresh record per element, read through the router learnt above
    // (every initialised record has the same one).
    Info info;
    std::string key;
    for (const XmlField& field : shape.router_.fields_) {
      const char* value = item->Attribute(field.name_.c_str());
      info.*(field.target_) = value != nullptr ? value : "";
      if (field.isKey_) key = info.*(field.target_);
    }
    itemsGuard.debug(0, "parseXmlCfg", __LINE__, "insert  into map, key=%s", key.c_str());
    if (key.empty()) continue;
    // The first entry of an identifier wins, in one file and across reloads.
    // Files are usually sorted, so the end is the likely place of a new key.
    auto before = infoMap_.size();
    auto slot = infoMap_.try_emplace(infoMap_.end(), std::move(key));
    bool inserted = infoMap_.size() != before;
    if (inserted) {
      slot->second.id_ = std::move(info.id_);
      slot->second.template_ = std::move(info.template_);
    }
  }
  itemsGuard.debug(0, "parseXmlCfg", __LINE__, "parseXmlCfgItems end..");
  return 0;
}

template <typename Info>
int CXmlConfigParser<Info>::parseXmlEnum(const std::string& path, const std::string& enumName) {
  CQPNDebugKitGuard guard(kModule, "parseXmlEnum");
  tinyxml2::XMLDocument doc;
  tinyxml2::XMLError loaded = doc.LoadFile(path.c_str());
  if (loaded != tinyxml2::XML_SUCCESS) {
    guard.error(openFailedText("enum", path, static_cast<int>(loaded)));
    return -1;
  }
  tinyxml2::XMLElement* root = doc.FirstChildElement();
  if (root == nullptr) {
    guard.error(0, "parseXmlEnum", __LINE__, "Parse root element failed!");
    return -1;
  }
  return parseXmlEnumItems(root->FirstChildElement(kEnumRoot), enumName);
}

template <typename Info>
int CXmlConfigParser<Info>::parseXmlEnumItems(tinyxml2::XMLElement* element,
                                              const std::string& enumName) {
  CQPNDebugKitGuard guard(kModule, "parseXmlEnumItems");
  if (element == nullptr) {
    guard.error(0, "parseXmlEnumItems", __LINE__, "Parse param enum element failed!");
    return -1;
  }
  for (tinyxml2::XMLElement* type = element->FirstChildElement(kEnumType); type != nullptr;
       type = type->NextSiblingElement(kEnumType)) {
    // A bad enum_type is skipped; the walk goes on with the next one.
    if (parseXmlEnumItem(type, enumName) == kFoundNamed) return 0;
  }
  if (enumName.empty()) return 0;
  guard.error(0, "parseXmlEnumItems", __LINE__,
              "Parse param enum element failed! Not fount enum(%s) in enum file.",
              enumName.c_str());
  return -1;
}

template <typename Info>
int CXmlConfigParser<Info>::parseXmlEnumItem(tinyxml2::XMLElement* enumType,
                                             const std::string& enumName) {
  CQPNDebugKitGuard guard(kModule, "parseXmlEnumItem");
  if (enumType == nullptr) {
    guard.error(0, "parseXmlEnumItem", __LINE__, "Parse enum type element failed!");
    return -1;
  }
  const char* nameAttr = enumType->Attribute("name");
  if (nameAttr == nullptr) {
    guard.error(0, "parseXmlEnumItem", __LINE__, "Enum name is null.");
    return -1;
  }
  const std::string name = nameAttr;
  if (name.empty()) {
    guard.error(0, "parseXmlEnumItem", __LINE__, "Enum name is empty.");
    return -1;
  }
  guard.debug(0, "parseXmlEnumItem", __LINE__, "parseXmlEnumItem ,enumName:%s", name.c_str());

  XmlEnum local;
  local.name_ = name;
  for (tinyxml2::XMLElement* member = enumType->FirstChildElement(kEnumMember); member != nullptr;
       member = member->NextSiblingElement(kEnumMember)) {
    const char* value = member->Attribute("value");
    if (value == nullptr) continue;
    guard.debug(0, "parseXmlEnumItem", __LINE__, "parseXmlEnumItem ,convertToNum:%s ", value);
    // -100 marks "not a number", so a member whose value really is -100 is
    // dropped as well.
    long long code = convertToNum(value, kNoCode);
    if (code == kNoCode) continue;
    const char* text = member->GetText();
    int32_t key = static_cast<int32_t>(code);
    local.items_[key] = text != nullptr ? text : "";
    guard.debug(0, "parseXmlEnumItem", __LINE__, "parseXmlEnumItem ,enumName:%s :%d,%s",
                name.c_str(), key, local.items_[key].c_str());
  }
  // The last enum_type of a name replaces the earlier one whole.
  if (enumName.empty()) {
    enumMap_[name] = local;
    return 0;
  }
  if (enumName == name) {
    enumMap_[name] = local;
    return kFoundNamed;
  }
  return 0;
}

template <typename Info>
int CXmlConfigParser<Info>::getXmlInfo(std::string xmlId, const std::string& parameter, Info& info,
                                       std::string separator) {
  CQPNDebugKitGuard guard(kModule, "getXmlInfo");
  guard.debug(0, "getXmlInfo", __LINE__, "xmlId=%s,parameter=%s", xmlId.c_str(), parameter.c_str());
  int r = getXmlInfoFromCache(xmlId, info);
  guard.debug(0, "getXmlInfo", __LINE__, "getXmlInfoFromCache 0-ok,-1-error :%d", r);
  if (r != 0) {
    r = getXmlInfoFromFile(xmlId, info);
    guard.debug(0, "getXmlInfo", __LINE__, "getXmlInfoFromFile 0-ok,-1-error :%d", r);
    if (r != 0) return -1;
  }
  return parseXml(parameter, info, separator);
}

template <typename Info>
int CXmlConfigParser<Info>::getXmlInfoFromCache(std::string xmlId, Info& info) {
  CQPNDebugKitGuard guard(kModule, "getXmlInfoFromCache");
  guard.debug(0, "getXmlInfoFromCache", __LINE__, "Get xml info from cache begin.");
  auto found = infoMap_.find(xmlId);
  if (found == infoMap_.end()) return -1;
  info.id_ = found->second.id_;
  info.template_ = found->second.template_;
  guard.debug(0, "getXmlInfoFromCache", __LINE__, "Get xml info from cache is ok.");
  return 0;
}

template <typename Info>
int CXmlConfigParser<Info>::getXmlInfoFromFile(std::string xmlId, Info& info) {
  CQPNDebugKitGuard guard(kModule, "getXmlInfoFromFile");
  // "0" is what init loads with and never names a message: no file access.
  if (xmlId.empty() || xmlId == "0") return -1;
  if (parseXmlCfg(xmlPath_, xmlId) != 0) return -1;
  if (getXmlInfoFromCache(xmlId, info) != 0) return -1;
  guard.debug(0, "getXmlInfoFromFile", __LINE__, "Get xml info from file is ok.");
  return 0;
}

// The separator is taken by value as the catalogue's interface has it.
template <typename Info>
int CXmlConfigParser<Info>::parseXml(const std::string& parameter, Info& info,
                                     std::string separator) {  // NOLINT(performance-unnecessary-value-param)
  CQPNDebugKitGuard guard(kModule, "parseXml");
  std::vector<std::string> params;
  CCommon::splitUsingRegex(parameter, separator, params, false);
  for (const XmlField& field : info.router_.fields_) {
    if (field.isKey_) continue;
    std::string& value = info.*(field.target_);
    // The blank lets a placeholder end the template; it stays in the text.
    std::string text = value + " ";
    value = StringUtil::replaceParameter(text, params, &CXmlConfigParser::getEnumString, *this);
    guard.debug(0, "parseXml", __LINE__, "content : %s", value.c_str());
  }
  guard.debug(0, "parseXml", __LINE__, "parseXml: end");
  return 0;
}

template <typename Info>
int CXmlConfigParser<Info>::getXmlEnum(std::string enumName, XmlEnum& out) {
  CQPNDebugKitGuard guard(kModule, "getXmlEnum");
  auto found = enumMap_.find(enumName);
  if (found == enumMap_.end()) {
    if (enumName.empty()) return -1;
    if (parseXmlEnum(enumPath_, enumName) != 0) return -1;
    found = enumMap_.find(enumName);
    if (found == enumMap_.end()) return -1;
  }
  out.name_ = found->second.name_;
  out.items_ = found->second.items_;
  return 0;
}

template <typename Info>
std::string CXmlConfigParser<Info>::getEnumString(const std::string& enumName,
                                                  const std::string& value) {
  CQPNDebugKitGuard guard(kModule, "getEnumString");
  guard.debug(0, "getEnumString", __LINE__, "getEnumString begin: %s :%s", enumName.c_str(),
              value.c_str());
  XmlEnum e;
  if (getXmlEnum(enumName, e) != 0) return std::string();
  guard.debug(0, "getEnumString", __LINE__, "getEnumString getXmlEnum: %s :%s", enumName.c_str(),
              value.c_str());
  long long code = convertToNum(value, kNoCode);
  if (code == kNoCode) return std::string();
  guard.debug(0, "getEnumString", __LINE__, "getEnumString to find value: %s :%s", enumName.c_str(),
              value.c_str());
  auto item = e.items_.find(static_cast<int32_t>(code));
  if (item == e.items_.end()) return std::string();
  guard.debug(0, "getEnumString", __LINE__, "getEnumString end:%s,  %s :%s", enumName.c_str(),
              value.c_str(), item->second.c_str());
  return item->second;
}

template class CXmlConfigParser<MessageInfo>;

namespace StringUtil {

int getParameter(const std::string& text, size_t pos, size_t& end, std::string& enumName) {
  return detail::getParameterAt(text, 0, pos, end, enumName);
}

void getEnumName(const std::string& text, size_t pos, size_t& end, std::string& enumName) {
  detail::getEnumNameAt(text, 0, pos, end, enumName);
}

// The texts are taken by value as StringUtil's interface has them.
std::string replace(std::string text, std::string from,  // NOLINT(performance-unnecessary-value-param)
                    std::string to) {                     // NOLINT(performance-unnecessary-value-param)
  size_t at = text.find(from);
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

}  // namespace StringUtil

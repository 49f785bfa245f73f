// nox-catalog: checks a message catalogue folder and renders messages the way
// the gateway does.
//
//   nox-catalog check DIR
//   nox-catalog render --lang en|zh [--conf DIR] ID [PARAMS]
//
// `check` reads DIR/task_extra_info_{en,zh}.xml and DIR/enum_{en,zh}.xml and
// prints one line per finding, "FILE:LINE: ID: text" (ID is "-" where no
// identifier or enumeration applies), then exits with 1 when there was any
// finding, else 0. `render` loads one language with the gateway's own
// catalogue code and prints the finished text of message ID with PARAMS
// (values joined by "#@#"), then a line feed.
#include <tinyxml2.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "string_utils.h"
#include "trace_sink.h"
#include "xml_config_parser.h"

namespace {

const char kUsage[] =
    "usage: nox-catalog check DIR\n"
    "       nox-catalog render --lang en|zh [--conf DIR] ID [PARAMS]\n";

// The attribute that lets a message keep placeholders that are shown literally.
const char kIntendedAttr[] = "intended";
const char kIntendedLiteral[] = "literal";
const long long kDropped = -100;

struct Finding {
  std::string file;
  int line;
  std::string id;
  std::string text;
};

// One message as the checker sees it.
struct Message {
  int line = 0;
  std::string tpl;
  std::set<int> indexes;                 // placeholder indexes
  std::set<std::string> references;      // "N{name}" enumeration references
  std::map<std::string, int> enumNames;  // referenced enumeration -> first index using it
};

struct Enumeration {
  int line = 0;
  std::map<int32_t, std::string> items;
};

struct Language {
  Language(const std::string& c, const std::string& m, const std::string& e)
      : code(c), messagesFile(m), enumFile(e) {}
  std::string code;
  std::string messagesFile;
  std::string enumFile;
  std::map<std::string, Message> messages;   // first entry of each identifier
  std::vector<std::string> order;            // identifiers in file order
  std::map<std::string, Enumeration> enums;  // last enum_type of each name
  bool messagesRead = false;
  bool enumsRead = false;
};

class Checker {
 public:
  explicit Checker(const std::string& dir) : dir_(dir) {}

  int run() {
    Language en("en", "task_extra_info_en.xml", "enum_en.xml");
    Language zh("zh", "task_extra_info_zh.xml", "enum_zh.xml");
    for (Language* lang : {&en, &zh}) {
      readMessages(*lang);
      readEnums(*lang);
      checkReferences(*lang);
    }
    if (en.messagesRead && zh.messagesRead) compareMessages(en, zh);
    if (en.enumsRead && zh.enumsRead) compareEnums(en, zh);
    for (const Finding& f : findings_) {
      std::printf("%s:%d: %s: %s\n", f.file.c_str(), f.line, f.id.empty() ? "-" : f.id.c_str(),
                  f.text.c_str());
    }
    if (findings_.empty()) {
      std::printf("%s: %zu messages, %zu enumerations per language, no findings\n", dir_.c_str(),
                  en.messages.size(), en.enums.size());
      return 0;
    }
    return 1;
  }

 private:
  void add(const std::string& file, int line, const std::string& id, const std::string& text) {
    findings_.push_back({dir_ + "/" + file, line, id, text});
  }

  // Loads `file`; reports and returns null when it is missing or not well-formed.
  tinyxml2::XMLElement* load(tinyxml2::XMLDocument& doc, const std::string& file) {
    std::string path = dir_ + "/" + file;
    if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
      const char* why = doc.ErrorStr();
      add(file, doc.ErrorLineNum(), "",
          std::string("not well-formed XML or unreadable: ") + (why ? why : "unknown error"));
      return nullptr;
    }
    tinyxml2::XMLElement* root = doc.FirstChildElement();
    if (root == nullptr) add(file, 1, "", "no root element");
    return root;
  }

  void readMessages(Language& lang) {
    tinyxml2::XMLDocument doc;
    tinyxml2::XMLElement* root = load(doc, lang.messagesFile);
    if (root == nullptr) return;
    tinyxml2::XMLElement* messages = root->FirstChildElement("messages");
    if (messages == nullptr) {
      add(lang.messagesFile, root->GetLineNum(), "",
          "no <messages> element under the root <" + std::string(root->Name()) +
              ">: the whole file would fail to load");
      return;
    }
    lang.messagesRead = true;
    for (tinyxml2::XMLElement* extra = messages->NextSiblingElement("messages"); extra != nullptr;
         extra = extra->NextSiblingElement("messages")) {
      add(lang.messagesFile, extra->GetLineNum(), "",
          "second <messages> element is ignored: only the first is read");
    }
    for (tinyxml2::XMLElement* item = messages->FirstChildElement(); item != nullptr;
         item = item->NextSiblingElement()) {
      if (std::strcmp(item->Name(), "message") != 0) {
        add(lang.messagesFile, item->GetLineNum(), "",
            "<" + std::string(item->Name()) + "> inside <messages> is ignored");
        continue;
      }
      const char* idAttr = item->Attribute("id");
      std::string id = idAttr != nullptr ? idAttr : "";
      if (id.empty()) {
        add(lang.messagesFile, item->GetLineNum(), "",
            "message without an id (or with an empty one) is skipped");
        continue;
      }
      if (item->FirstChild() != nullptr) {
        add(lang.messagesFile, item->GetLineNum(), id,
            "text or elements inside <message> are ignored; the text belongs in the template "
            "attribute");
      }
      auto known = lang.messages.find(id);
      if (known != lang.messages.end()) {
        add(lang.messagesFile, item->GetLineNum(), id,
            "repeated message id: the entry at line " + std::to_string(known->second.line) +
                " is used and this one is silently ignored");
        continue;
      }
      const char* tplAttr = item->Attribute("template");
      Message message;
      message.line = item->GetLineNum();
      message.tpl = tplAttr != nullptr ? tplAttr : "";
      const char* intended = item->Attribute(kIntendedAttr);
      bool literalOk = intended != nullptr && std::strcmp(intended, kIntendedLiteral) == 0;
      scanTemplate(lang.messagesFile, id, literalOk, message);
      lang.messages.emplace(id, message);
      lang.order.push_back(id);
    }
  }

  // Walks the template as the substitution pass does and records its
  // placeholders; reports the ones that would be shown literally by accident.
  void scanTemplate(const std::string& file, const std::string& id, bool literalOk,
                    Message& message) {
    // The gateway appends a blank before substituting.
    const std::string text = message.tpl + " ";
    size_t base = 0;
    size_t pos = text.find("##");
    while (pos != std::string::npos) {
      size_t end = 0;
      std::string enumName;
      int index = StringUtil::detail::getParameterAt(text, base, pos, end, enumName);
      size_t next;
      if (index == -1) {
        size_t digits = 0;
        while (pos + 2 + digits < text.size() &&
               isdigit(static_cast<unsigned char>(text[pos + 2 + digits])))
          ++digits;
        if (digits > 5 && !literalOk) {
          add(file, message.line, id,
              "\"" + text.substr(pos, 2 + digits) +
                  "\" has more than five digits and is shown literally (mark the message "
                  "intended=\"literal\" if that is wanted)");
        }
        next = pos + 1;
      } else {
        message.indexes.insert(index);
        size_t afterDigits = pos + 2;
        while (afterDigits < text.size() && isdigit(static_cast<unsigned char>(text[afterDigits])))
          ++afterDigits;
        size_t brace = afterDigits;
        while (brace < text.size() && text[brace] == ' ') ++brace;
        bool hasBrace = brace < text.size() && text[brace] == '{';
        if (!enumName.empty()) {
          size_t inner = brace + 1;
          while (inner < text.size() && text[inner] == ' ') ++inner;
          bool empty = inner < text.size() && text[inner] == '}';
          if (empty) {
            if (!literalOk) {
              add(file, message.line, id,
                  "\"" + text.substr(pos, end - pos) +
                      "\" has empty braces: the value is shown as empty text");
            }
          } else {
            message.references.insert(std::to_string(index) + "{" + enumName + "}");
            message.enumNames.emplace(enumName, index);
          }
        } else if (hasBrace && !literalOk) {
          size_t close = text.find('}', brace);
          std::string shown =
              close == std::string::npos ? text.substr(pos) : text.substr(pos, close + 1 - pos);
          while (!shown.empty() && shown.back() == ' ') shown.pop_back();
          add(file, message.line, id,
              "\"" + shown + "\" is no enumeration reference (" +
                  (close == std::string::npos ? "braces never closed"
                                              : "more than one word in braces") +
                  ") and is shown literally with the raw value");
        }
        next = end != 0 ? end : pos + 2;
      }
      if (next >= text.size()) next = text.size() - 1;
      base = next;
      pos = text.find("##", base);
    }
  }

  void readEnums(Language& lang) {
    tinyxml2::XMLDocument doc;
    tinyxml2::XMLElement* root = load(doc, lang.enumFile);
    if (root == nullptr) return;
    tinyxml2::XMLElement* paramEnum = root->FirstChildElement("param_enum");
    if (paramEnum == nullptr) {
      add(lang.enumFile, root->GetLineNum(), "",
          "no <param_enum> element under the root <" + std::string(root->Name()) +
              ">: the whole file would fail to load");
      return;
    }
    lang.enumsRead = true;
    for (tinyxml2::XMLElement* type = paramEnum->FirstChildElement("enum_type"); type != nullptr;
         type = type->NextSiblingElement("enum_type")) {
      const char* nameAttr = type->Attribute("name");
      std::string name = nameAttr != nullptr ? nameAttr : "";
      if (name.empty()) {
        add(lang.enumFile, type->GetLineNum(), "",
            "enum_type without a name (or with an empty one) is skipped");
        continue;
      }
      auto known = lang.enums.find(name);
      if (known != lang.enums.end()) {
        add(lang.enumFile, type->GetLineNum(), name,
            "repeated enumeration: this one replaces the one at line " +
                std::to_string(known->second.line) + " completely");
      }
      Enumeration e;
      e.line = type->GetLineNum();
      std::map<int32_t, int> codeLines;
      for (tinyxml2::XMLElement* member = type->FirstChildElement("enum_member"); member != nullptr;
           member = member->NextSiblingElement("enum_member")) {
        const char* value = member->Attribute("value");
        if (value == nullptr) {
          add(lang.enumFile, member->GetLineNum(), name, "enum_member without a value is dropped");
          continue;
        }
        long long code = convertToNum(value, kDropped);
        if (code == kDropped) {
          add(lang.enumFile, member->GetLineNum(), name,
              std::string("enum_member value \"") + value +
                  "\" is dropped (not 1 to 18 digits, or -100)");
          continue;
        }
        if (code > INT32_MAX) {
          add(lang.enumFile, member->GetLineNum(), name,
              std::string("enum_member value \"") + value + "\" does not fit a 32-bit code");
        }
        int32_t key = static_cast<int32_t>(code);
        auto seen = codeLines.find(key);
        if (seen != codeLines.end()) {
          add(lang.enumFile, member->GetLineNum(), name,
              "code " + std::to_string(key) + " repeated: this text replaces the one at line " +
                  std::to_string(seen->second));
        }
        codeLines[key] = member->GetLineNum();
        const char* text = member->GetText();
        e.items[key] = text != nullptr ? text : "";
      }
      lang.enums[name] = e;
    }
  }

  void checkReferences(const Language& lang) {
    if (!lang.messagesRead || !lang.enumsRead) return;
    for (const std::string& id : lang.order) {
      const Message& m = lang.messages.at(id);
      for (const auto& ref : m.enumNames) {
        if (lang.enums.count(ref.first) == 0) {
          add(lang.messagesFile, m.line, id,
              "references enumeration \"" + ref.first + "\", which " + lang.enumFile + " lacks");
        }
      }
    }
  }

  static std::string join(const std::set<std::string>& items) {
    std::string out;
    for (const std::string& s : items) out += (out.empty() ? "" : " ") + s;
    return out.empty() ? "none" : out;
  }
  static std::string join(const std::set<int>& items) {
    std::string out;
    for (int i : items) out += (out.empty() ? "##" : " ##") + std::to_string(i);
    return out.empty() ? "none" : out;
  }

  void compareMessages(const Language& en, const Language& zh) {
    for (const Language* a : {&en, &zh}) {
      const Language* b = a == &en ? &zh : &en;
      for (const std::string& id : a->order) {
        if (b->messages.count(id) == 0) {
          add(a->messagesFile, a->messages.at(id).line, id, "missing from " + b->messagesFile);
        }
      }
    }
    for (const std::string& id : zh.order) {
      auto other = en.messages.find(id);
      if (other == en.messages.end()) continue;
      const Message& z = zh.messages.at(id);
      const Message& e = other->second;
      if (z.indexes != e.indexes) {
        add(zh.messagesFile, z.line, id,
            "placeholders " + join(z.indexes) + " differ from " + en.messagesFile + ":" +
                std::to_string(e.line) + " (" + join(e.indexes) + ")");
      }
      if (z.references != e.references) {
        add(zh.messagesFile, z.line, id,
            "enumeration references " + join(z.references) + " differ from " + en.messagesFile +
                ":" + std::to_string(e.line) + " (" + join(e.references) + ")");
      }
    }
  }

  void compareEnums(const Language& en, const Language& zh) {
    for (const Language* a : {&en, &zh}) {
      const Language* b = a == &en ? &zh : &en;
      for (const auto& e : a->enums) {
        if (b->enums.count(e.first) == 0) {
          add(a->enumFile, e.second.line, e.first, "enumeration missing from " + b->enumFile);
        }
      }
    }
    for (const auto& z : zh.enums) {
      auto e = en.enums.find(z.first);
      if (e == en.enums.end()) continue;
      std::set<int32_t> zc;
      std::set<int32_t> ec;
      for (const auto& item : z.second.items) zc.insert(item.first);
      for (const auto& item : e->second.items) ec.insert(item.first);
      if (zc != ec) {
        auto codes = [](const std::set<int32_t>& s) {
          std::string out;
          for (int32_t c : s) out += (out.empty() ? "" : ",") + std::to_string(c);
          return out.empty() ? std::string("none") : out;
        };
        add(zh.enumFile, z.second.line, z.first,
            "codes " + codes(zc) + " differ from " + en.enumFile + ":" +
                std::to_string(e->second.line) + " (" + codes(ec) + ")");
      }
    }
  }

  std::string dir_;
  std::vector<Finding> findings_;
};

std::string defaultConfDir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return "../conf";
  std::string exe(buf, static_cast<size_t>(n));
  size_t slash = exe.rfind('/');
  return (slash == std::string::npos ? std::string(".") : exe.substr(0, slash)) + "/../conf";
}

int render(int argc, char** argv) {
  std::string lang;
  std::string conf;
  std::vector<std::string> rest;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--lang" && i + 1 < argc) {
      lang = argv[++i];
    } else if (arg == "--conf" && i + 1 < argc) {
      conf = argv[++i];
    } else {
      rest.push_back(arg);
    }
  }
  if ((lang != "en" && lang != "zh") || rest.empty() || rest.size() > 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (conf.empty()) conf = defaultConfDir();
  // Errors of the catalogue code (unreadable files, unknown enumerations)
  // still reach stderr; the debug chatter does not.
  setTraceLevel(TraceLevel::kError);
  CXmlConfigParser<MessageInfo> parser;
  parser.init(conf + "/task_extra_info_" + lang + ".xml", conf + "/enum_" + lang + ".xml");
  MessageInfo info;
  info.init();
  const std::string params = rest.size() > 1 ? rest[1] : "";
  if (parser.getXmlInfo(rest[0], params, info, "#@#") != 0) {
    std::fprintf(stderr, "nox-catalog: no message %s in %s/task_extra_info_%s.xml\n",
                 rest[0].c_str(), conf.c_str(), lang.c_str());
    return 1;
  }
  std::fwrite(info.template_.data(), 1, info.template_.size(), stdout);
  std::fputc('\n', stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "check") == 0 && argc == 3) {
    // The checker reads the files itself; the number conversion it shares
    // with the catalogue must not chatter.
    setTraceLevel(TraceLevel::kError);
    return Checker(argv[2]).run();
  }
  if (argc >= 2 && std::strcmp(argv[1], "render") == 0) return render(argc, argv);
  std::fputs(kUsage, stderr);
  return 2;
}

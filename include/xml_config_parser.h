// The bilingual message catalogue: one language's messages and enumerations,
// read from two XML files, and the substitution of parameters into message
// templates.
//
// A messages file maps message identifiers to text templates:
//
//   <catalogue><messages>
//     <message id="1600000015" template="Task ##0 ended: ##1{task_status}"/>
//   </messages></catalogue>
//
// An enumerations file maps enumeration names to tables of numeric codes and
// display texts:
//
//   <enumerations><param_enum>
//     <enum_type name="task_status"><enum_member value="3">Succeeded</enum_member></enum_type>
//   </param_enum></enumerations>
//
// With both loaded, getXmlInfo("1600000015", "daily#@#3", info, "#@#") leaves
// "Task daily ended: Succeeded " in info.template_ (every finished text ends
// with one blank).
//
// Thread-safety: a CXmlConfigParser holds no lock of its own, and lookups may
// insert into its maps (a cache miss reads the files again). Its owner must
// keep calls into one parser from overlapping, e.g. under the owner's ACE
// thread mutex. Distinct parsers are independent. The StringUtil functions are
// safe to call concurrently on distinct data.
#ifndef NOX_INCLUDE_XML_CONFIG_PARSER_H_
#define NOX_INCLUDE_XML_CONFIG_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "string_utils.h"

namespace tinyxml2 {
class XMLElement;
}

struct MessageInfo;

// One attribute to read from an item element into a record.
class XmlField {
 public:
  XmlField() : target_(nullptr), isKey_(false) {}
  XmlField(const std::string& name, std::string MessageInfo::*target, bool isKey)
      : name_(name), target_(target), isKey_(isKey) {}
  virtual ~XmlField() {}

  std::string name_;                  // the XML attribute
  std::string MessageInfo::*target_;  // the record's string it fills (not owned)
  bool isKey_;                        // the value is also the record's map key
};

// How the item elements of a file are read into records.
class FieldRouter {
 public:
  virtual ~FieldRouter() {}

  std::vector<XmlField> fields_;  // attributes to read, in reading order
  std::string rootName_;          // the element holding the items ("messages")
  std::string itemName_;          // each item element ("message")
};

// One catalogue message. After a lookup, template_ holds the finished text.
struct MessageInfo {
  // Sets up router_: items "message" under "messages", the attribute "id"
  // into id_ (the key), then "template" into template_. Lookups substitute
  // parameters only into the non-key fields of an initialised record, so a
  // record that was not initialised comes back with the raw template.
  void init();

  std::string id_;
  std::string template_;
  FieldRouter router_;
};

// One enumeration: codes and their display texts.
// A plain record of its two members (no virtual table: 80 bytes).
class XmlEnum {
 public:
  std::string name_;
  std::map<int32_t, std::string> items_;
};

// One language's catalogue. Only CXmlConfigParser<MessageInfo> exists.
//
// Every function reports through the trace log (module 18) and return codes;
// none throws.
template <typename Info>
class CXmlConfigParser {
 public:
  CXmlConfigParser() {}
  virtual ~CXmlConfigParser();

  CXmlConfigParser(const CXmlConfigParser&) = delete;
  CXmlConfigParser& operator=(const CXmlConfigParser&) = delete;

  // Loads the messages file, then the enumerations file. A failure is logged
  // and stops the load; what was read before it stays cached. xmlPath_ is set
  // only when the messages file was read, enumPath_ only when both were.
  void init(const std::string& xmlPath, const std::string& enumPath);

  // Reads every message of the file at `path` into the cache; identifiers
  // already cached keep their entry (the first entry of an identifier wins).
  // `id` does not narrow the load. Returns 0, or -1 when the file cannot be
  // loaded or lacks the "messages" element under its root.
  int parseXmlCfg(const std::string& path, const std::string& id);

  // Reads the enumerations of the file at `path`: all of them when `enumName`
  // is empty (a later enumeration of a name replaces an earlier one), else
  // only the one of that name. Returns 0, or -1 (file unreadable, no
  // "param_enum" element, or the named enumeration absent or malformed).
  int parseXmlEnum(const std::string& path, const std::string& enumName);

  // Walks the "enum_type" children of a "param_enum" element (null: -1).
  int parseXmlEnumItems(tinyxml2::XMLElement* element, const std::string& enumName);

  // Reads one "enum_type". Returns 101 when it stored the enumeration asked
  // for by name, 0 when it stored one during a load-all or skipped one of
  // another name, -1 on an element without a usable name.
  int parseXmlEnumItem(tinyxml2::XMLElement* enumType, const std::string& enumName);

  // Fills `info` with message `xmlId`, its template's placeholders replaced by
  // the values of `parameter` split at the regular expression `separator`.
  // A cache miss reads the messages file again (never for "0" or ""). Returns
  // 0, or -1 when the identifier is unknown (then `info` is left as passed).
  //
  //   template "Disk ##0 is full", parameter "d1"  ->  "Disk d1 is full "
  int getXmlInfo(std::string xmlId, const std::string& parameter, Info& info,
                 std::string separator);

  // Copies the cached entry's id_ and template_ into `info`. 0, or -1 when
  // not cached.
  int getXmlInfoFromCache(std::string xmlId, Info& info);

  // Reads the messages file (xmlPath_) again and retries the cache. -1 for
  // the identifiers "0" and "" without reading anything.
  int getXmlInfoFromFile(std::string xmlId, Info& info);

  // Replaces the placeholders of every non-key field of `info` (a blank is
  // appended first). Always 0.
  int parseXml(const std::string& parameter, Info& info, std::string separator);

  // Copies enumeration `enumName` into `out`, reading it from enumPath_ when
  // it is not cached. 0, or -1.
  int getXmlEnum(std::string enumName, XmlEnum& out);

  // The text of code `value` in enumeration `enumName`; the empty string for
  // an unknown enumeration, a value that is not a number or an unknown code.
  std::string getEnumString(const std::string& enumName, const std::string& value);

  std::string xmlPath_;
  std::string enumPath_;
  std::map<std::string, Info> infoMap_;
  std::map<std::string, XmlEnum> enumMap_;
};

extern template class CXmlConfigParser<MessageInfo>;

namespace StringUtil {

// The opener of a placeholder (PARAM_OPENER of nox_constants.h), and its
// length.
inline constexpr char kPlaceholderOpener[] = "##";
inline constexpr size_t kPlaceholderOpenerSize = sizeof(kPlaceholderOpener) - 1;

namespace detail {
// The first "##" at or after `from`, like text.find("##", from) but without a
// memcmp call per candidate.
inline size_t findOpener(const std::string& text, size_t from) {
  const size_t size = text.size();
  while (from + 1 < size) {
    const void* hit = std::memchr(text.data() + from, '#', size - from - 1);
    if (hit == nullptr) return std::string::npos;
    size_t at = static_cast<size_t>(static_cast<const char*>(hit) - text.data());
    if (text[at + 1] == '#') return at;
    from = at + 1;
  }
  return std::string::npos;
}

// getParameter and getEnumName on a text whose logical start is `base`:
// replaceParameter scans one text at growing offsets instead of copying its
// rest, and empty braces name the text from that start (see getEnumName).
// Inline because they run once per placeholder.
inline void getEnumNameAt(const std::string& text, size_t base, size_t pos, size_t& end,
                          std::string& enumName) {
  const size_t size = text.size();
  if (pos >= size) return;
  size_t i = pos;
  while (i < size && text[i] == ' ') ++i;
  if (i >= size || text[i] != '{') return;
  ++i;
  // Empty braces record no start of a name; the name then runs from the start
  // of the text, a name no enumeration has.
  size_t nameStart = base;
  size_t nameEnd = std::string::npos;
  bool inName = false;
  for (; i < size; ++i) {
    const char c = text[i];
    if (c == '}') {
      const size_t stop = nameEnd != std::string::npos ? nameEnd : i;
      enumName = text.substr(nameStart, stop - nameStart);
      end = i + 1;
      return;
    }
    if (c == ' ') {
      if (inName && nameEnd == std::string::npos) nameEnd = i;
      continue;
    }
    if (!inName) {
      inName = true;
      nameStart = i;
    } else if (nameEnd != std::string::npos) {
      return;  // a second word: not a reference
    }
  }
  // No "}" before the end of the text: not a reference.
}

inline int getParameterAt(const std::string& text, size_t base, size_t pos, size_t& end,
                          std::string& enumName) {
  const size_t size = text.size();
  if (pos >= size) return -1;  // nothing to read; also keeps pos + 2 from wrapping
  const size_t first = pos + kPlaceholderOpenerSize;
  size_t i = first;
  int digits = 0;
  while (i < size && text[i] >= '0' && text[i] <= '9') {
    if (digits == 5) return -1;  // six digits are no index
    ++digits;
    ++i;
    end = i;
  }
  if (i < size) {
    if (digits == 0) return -1;
    getEnumNameAt(text, base, i, end, enumName);
  } else {
    getEnumNameAt(text, base, first, end, enumName);
  }
  if (digits == 0) return -1;
  // The index is the digits' value by the number conversion, -1 for text
  // that is not a number (one to five digits always are one).
  return static_cast<int>(convertToNum(text.substr(first, static_cast<size_t>(digits)), -1));
}

}  // namespace detail

// Parses the placeholder whose "##" starts at `pos`: one to five digits (the
// parameter index, leading zeros allowed), then optionally blanks and an
// enumeration reference in braces. Returns the index, or -1 when no digit
// follows "##" or a sixth digit does. `end` is set behind the last digit, or
// behind "}" when a reference was read; `enumName` receives the reference's
// name.
//
//   getParameter("x##12 {level} y", 1, end, name) == 12, end == 13, name == "level"
//   getParameter("##123456", 0, end, name) == -1
int getParameter(const std::string& text, size_t pos, size_t& end, std::string& enumName);

// Parses an optional enumeration reference at `pos`: blanks, "{", blanks, one
// word, blanks, "}". On success sets `enumName` and `end` (behind "}"). Two
// words, or no "}" before the end, leave both untouched. Empty braces take as
// name the text from its first character up to "}" (a name no enumeration
// has, so the value shows as empty text).
//
//   getEnumName("0 { level }!", 1, end, name): name == "level", end == 11
void getEnumName(const std::string& text, size_t pos, size_t& end, std::string& enumName);

// `text` with its first occurrence of `from` replaced by `to`; unchanged when
// `from` does not occur. Only the first occurrence is replaced, on purpose (an
// empty `from` occurs at the start, so `to` is put in front).
//
//   replace("a-b-c", "-", "+") == "a+b-c"
std::string replace(std::string text, std::string from, std::string to);

// `text` with every placeholder replaced, in one pass from left to right:
// "##N" by params[N] (empty text past the end of params), "##N{name}" by
// (object.*enumText)(name, params[N]). Text that is not a placeholder is
// copied as it is, and inserted values are never scanned again. A placeholder
// that ends the text repeats its last character, which is why the catalogue
// appends a blank to every template before substituting.
//
//   replaceParameter("Disk ##0 is full ", {"d1"}, ...) == "Disk d1 is full "
//   replaceParameter("##0{level} ", {"2"}, &P::getEnumString, p) == "High "
template <typename T>
std::string replaceParameter(const std::string& text, const std::vector<std::string>& params,
                             std::string (T::*enumText)(const std::string&, const std::string&),
                             T& object) {
  if (text.empty()) return std::string();
  std::string out;
  // Room for values a little longer than their placeholders.
  out.reserve(text.size() + text.size() / 4);
  // `rest` of the original algorithm is text[base, end): scanning by offset
  // keeps the pass linear instead of copying the rest after every placeholder.
  size_t base = 0;
  size_t pos = detail::findOpener(text, base);
  std::string enumName;
  while (pos != std::string::npos) {
    out.append(text, base, pos - base);
    size_t end = 0;
    enumName.clear();
    int index = detail::getParameterAt(text, base, pos, end, enumName);
    size_t next;
    if (index == -1) {
      out.push_back(text[pos]);
      next = pos + 1;
    } else {
      static const std::string kEmpty;
      const std::string& value =
          static_cast<size_t>(index) < params.size() ? params[index] : kEmpty;
      if (enumName.empty()) {
        out.append(value);
      } else {
        out.append((object.*enumText)(enumName, value));
      }
      next = end != 0 ? end : pos + kPlaceholderOpenerSize;
    }
    // Keep the last character of the text when the placeholder reached its end.
    if (next >= text.size()) next = text.size() - 1;
    base = next;
    pos = detail::findOpener(text, base);
  }
  out.append(text, base, std::string::npos);
  return out;
}

}  // namespace StringUtil

#endif  // NOX_INCLUDE_XML_CONFIG_PARSER_H_

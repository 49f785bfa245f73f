// Text utilities of the plug-in, exported for the host as well.
//
// Free functions over std::string and NUL-terminated texts:
//   - trimming (lStrStrip, rStrStrip);
//   - search and common prefixes under an exchangeable equality (findCase,
//     comPrefixLen, findPrefix), chosen with STR_EQUAL_PRE (exact) or
//     STR_CASE_EQUAL_PRE (ASCII case ignored);
//   - backslash escapes (addEscape, parseEscape, replaceEscape,
//     getLenWithEscape, splitString_Escape) and joining (joinString);
//   - number tests and formatting (isNum, isNumber, convertToNum,
//     format_num_str) and UTF-8 counting (getUTF8CharByteNum,
//     getUTF8ChineseCharNum);
//   - splitting by a literal separator or a regular expression (CCommon).
//
// None of these functions throws for bad input; only allocation failures
// propagate. Escape errors are reported through return values and leave the
// text unchanged. isNumber (and through it convertToNum), CCommon::split and
// CCommon::splitUsingRegex write trace records through a CQPNDebugKitGuard of
// module 18; all other functions are silent.
//
// Thread-safety: the functions hold no state and may be called from any thread
// on distinct arguments. The six comparison objects are immutable after the
// library is loaded and may be shared freely.
#ifndef NOX_INCLUDE_STRING_UTILS_H_
#define NOX_INCLUDE_STRING_UTILS_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "nox_visibility.h"

// ---------------------------------------------------------------------------
// Comparison classes
// ---------------------------------------------------------------------------

// An exchangeable equality. It exists for std::string and for char only (the
// two definitions below); each class's first virtual slot is the call
// operator, followed by the destructor.
template <typename T>
class vequal_to;

// Exact string equality: equal when the lengths and all bytes are equal (two
// empty strings are equal; embedded NULs take part in the comparison).
template <>
class NOX_EXPORT vequal_to<std::string> {
 public:
  constexpr vequal_to() {}
  virtual bool operator()(const std::string& a, const std::string& b) const;
  virtual ~vequal_to();
};

// Exact character equality: equal when the bytes are equal.
template <>
class NOX_EXPORT vequal_to<char> {
 public:
  constexpr vequal_to() {}
  virtual bool operator()(const char& a, const char& b) const;
  virtual ~vequal_to();
};

// Case-blind string equality: equal when strcasecmp() of the two
// NUL-terminated texts is 0. The comparison therefore stops at the first
// embedded NUL and ignores ASCII case only:
//   STR_CASE_EQUAL("Alarm", "ALARM") == true
//   STR_CASE_EQUAL(std::string("a\0x", 3), std::string("a\0y", 3)) == true
class NOX_EXPORT EqualCaseStr : public vequal_to<std::string> {
 public:
  constexpr EqualCaseStr() {}
  bool operator()(const std::string& a, const std::string& b) const override;
  ~EqualCaseStr() override;
};

// Case-blind character equality: equal when tolower() of both is equal.
class NOX_EXPORT EqualCaseChar : public vequal_to<char> {
 public:
  constexpr EqualCaseChar() {}
  bool operator()(const char& a, const char& b) const override;
  ~EqualCaseChar() override;
};

// A pair of comparators: one for strings, one for characters. It does not own
// them; both must outlive the pair (the exported pairs refer to the exported
// comparators, which live as long as the library).
class NOX_EXPORT CStrEqualPred {
 public:
  constexpr CStrEqualPred(const vequal_to<std::string>* strEqu, const vequal_to<char>* charEqu)
      : strEqu_(strEqu), charEqu_(charEqu) {}
  virtual ~CStrEqualPred();

  const vequal_to<std::string>* getStrEqu() const { return strEqu_; }
  const vequal_to<char>* getCharEqu() const { return charEqu_; }

 private:
  const vequal_to<std::string>* strEqu_;
  const vequal_to<char>* charEqu_;
};

// The exported comparison objects, made when the library is loaded. They have
// C linkage so that their symbols carry their plain names (a C++ name of an
// object whose type involves std::string would get an ABI tag).
extern "C" {
extern NOX_EXPORT const vequal_to<std::string> STR_EQUAL;
extern NOX_EXPORT const vequal_to<char> CHAR_EQUAL;
extern NOX_EXPORT const EqualCaseStr STR_CASE_EQUAL;
extern NOX_EXPORT const EqualCaseChar CHAR_CASE_EQUAL;
// STR_EQUAL and CHAR_EQUAL: exact comparison.
extern NOX_EXPORT const CStrEqualPred STR_EQUAL_PRE;
// STR_CASE_EQUAL and CHAR_CASE_EQUAL: ASCII case ignored.
extern NOX_EXPORT const CStrEqualPred STR_CASE_EQUAL_PRE;
}

// ---------------------------------------------------------------------------
// Trimming
// ---------------------------------------------------------------------------

// Returns `text` without its leading characters that occur in `chars`.
//   lStrStrip("  \tab ", " \t") == "ab "
//   lStrStrip("xxx", "x") == ""
// A null `text` gives "", a null `chars` strips nothing.
NOX_EXPORT std::string lStrStrip(const char* text, const char* chars);

// Returns `text` without its trailing characters that occur in `chars`, but
// the first character is never tested and always survives:
//   rStrStrip(" ab  ", " ") == " ab"
//   rStrStrip("   ", " ") == " "      // one blank is left
//   rStrStrip("x", "x") == "x"
// Callers rely on a non-empty text never becoming empty, so this is kept.
// A null `text` gives "", a null `chars` strips nothing.
NOX_EXPORT std::string rStrStrip(const char* text, const char* chars);

// ---------------------------------------------------------------------------
// Search and common prefixes
// ---------------------------------------------------------------------------

// Returns the first position p where text.substr(p, pattern.size()) equals
// `pattern` under pred.getStrEqu(), or std::string::npos (-1) when there is
// none. An empty pattern is found at 0.
//   findCase("xxABCxx", "abc", STR_CASE_EQUAL_PRE) == 2
//   findCase("xxABCxx", "abc", STR_EQUAL_PRE) == std::string::npos
// Cost: one comparator call per candidate position, O(n * m).
NOX_EXPORT size_t findCase(const std::string& text, const std::string& pattern,
                           const CStrEqualPred& pred);

// Returns the length of the common prefix of `a` and `b` under
// pred.getCharEqu().
//   comPrefixLen("Alarm", "alert", STR_CASE_EQUAL_PRE) == 2
//   comPrefixLen("Alarm", "alert", STR_EQUAL_PRE) == 0
NOX_EXPORT unsigned comPrefixLen(const std::string& a, const std::string& b,
                                 const CStrEqualPred& pred);

// Returns the common prefix of `a` and `b` under pred.getCharEqu(), taken from
// `a`.
//   findPrefix("ALARM1", "alarm2", STR_CASE_EQUAL_PRE) == "ALARM"
NOX_EXPORT std::string findPrefix(const std::string& a, const std::string& b,
                                  const CStrEqualPred& pred);

// Returns the common prefix of all strings of `list` under pred.getCharEqu(),
// taken from the first string. An empty list, or an empty string anywhere in
// it, gives "". `list` is not modified.
//   findPrefix({"backup1", "backup2", "back"}, STR_EQUAL_PRE) == "back"
//   findPrefix({"x"}, STR_EQUAL_PRE) == "x"
NOX_EXPORT std::string findPrefix(std::vector<std::string>& list, const CStrEqualPred& pred);

// ---------------------------------------------------------------------------
// Backslash escapes
// ---------------------------------------------------------------------------
//
// The escape character of addEscape, parseEscape, getLenWithEscape and
// splitString_Escape is the backslash. `specials` lists the characters that
// must be escaped and `codes` the character written after the backslash for
// each, position by position: the k-th special is written as backslash and
// k-th code. Both lists are extended internally by a backslash, so a backslash
// is always written as two backslashes.
//
// A character is looked up in a list by its first occurrence; a NUL character
// that the list does not hold counts as found just past the list's end, where
// the other (extended) list holds its terminating NUL when both lists have the
// same length. So with lists of equal length a NUL is escaped as backslash-NUL
// and unescaped back to NUL. Lists of different lengths are accepted; a
// position past the end of the other list reads as NUL.

// Escapes `text` in place.
//   std::string s = "a,b\\c";            // a , b \ c
//   addEscape(s, ",", "c");
//   // s == "a\\cb\\\\c"                  // a \ c b \ \ c
// parseEscape(s, codes, specials, false) restores the text when `codes` holds
// no duplicate, no backslash and no NUL and both lists have the same length.
NOX_EXPORT void addEscape(std::string& text, const std::string& specials, const std::string& codes);

// Unescapes `text` in place. A backslash followed by the k-th character of
// `codes` (or a second backslash) becomes the k-th character of `specials`
// (or one backslash); other characters are copied.
// Returns 0 on success and replaces `text`. On failure `text` is unchanged and
// the result is the position of the offending backslash, or -1 when it is at
// position 0 (0 means success). Failures: a backslash as the last character;
// a backslash followed by a character not in `codes` when `keepUnknown` is
// false (with `keepUnknown` both characters are copied unchanged).
//   std::string s = "a\\cb";  parseEscape(s, "c", ",", false) == 0, s == "a,b"
//   std::string t = "ab\\";   parseEscape(t, "c", ",", false) == 2
//   std::string u = "\\q";    parseEscape(u, "c", ",", false) == -1
//                             parseEscape(u, "c", ",", true) == 0, u == "\\q"
NOX_EXPORT int parseEscape(std::string& text, const std::string& codes, const std::string& specials,
                           bool keepUnknown);

// Rewrites the escape sequences introduced by `esc`: `esc` followed by the
// k-th character of `from` becomes the k-th character of `to`; `esc` followed
// by `esc` becomes one `esc` (both lists are extended by `esc`).
// An escape with a character not in `from` is copied whole with `keepUnknown`
// and dropped silently without it (unlike parseEscape, which reports it: this
// function cleans texts rather than checking them).
// Returns 0 on success and replaces `text`; -1 when `to` is shorter than
// `from`; the position of an `esc` that ends the text (-1 at position 0) on
// failure. `text` is unchanged on failure.
//   std::string s = "a%nb%%c%x";
//   replaceEscape(s, "n", "\n", '%', false) == 0   // s == "a\nb%c"
NOX_EXPORT int replaceEscape(std::string& text, std::string from, std::string to, char esc,
                             bool keepUnknown);

// Returns the length of the first `count` characters of `text` once escaped
// with `specials`: `count` plus one for each of those characters that is a
// backslash, a special or a NUL. A `count` of -1 means the whole text.
//   getLenWithEscape("a,b\\", ",", -1) == 6
//   getLenWithEscape("a,b\\", ",", 2) == 3
// `count` is not checked against the text. The text is read as a
// NUL-terminated text, so the character at its end is its terminating NUL,
// which counts like any NUL: getLenWithEscape("a,", ",", 3) == 5. Past the
// terminator there are no characters and nothing more is added:
// getLenWithEscape("a,", ",", 5) == 7. Any other negative `count` is
// returned as it is.
NOX_EXPORT int getLenWithEscape(const std::string& text, const std::string& specials, int count);

// Joins `parts` into `out` (cleared first) with `separator` after every part
// that is not the last element of the whole list. `count` limits the number of
// parts joined when it is neither 0 nor at least parts.size(), and a limited
// join therefore ends with a separator:
//   joinString({"a", "b", "c"}, out, ",", 0) -> out == "a,b,c"
//   joinString({"a", "b", "c"}, out, ",", 2) -> out == "a,b,"
// Callers that page through a list append the next page directly, so the
// trailing separator is kept.
NOX_EXPORT void joinString(const std::vector<std::string>& parts, std::string& out,
                           const std::string& separator, unsigned int count);

// Splits `text` at the characters of `separators` that are not escaped by a
// backslash, appending each part to `parts` and its span (start, length) in
// `text` to `spans`. Escapes stay in the parts as they are (a backslash and
// the character after it are never split and never removed). A NUL character
// in `text` is a separator. Spans count raw characters of `text`, backslashes
// included, and part k == text.substr(spans[k].first, spans[k].second).
// With `skipEmpty` empty parts are left out; without it every separator ends
// a part, an empty text gives one empty part with span (0, 0), and a trailing
// separator gives a last empty part whose span is (text.size() - 1, 0).
//   splitString_Escape("a,,b", parts, spans, ",", false)
//   // parts == {"a", "", "b"}, spans == {(0,1), (2,0), (3,1)}
//   splitString_Escape("a,,b", parts, spans, ",", true)
//   // parts == {"a", "b"},     spans == {(0,1), (3,1)}
//   splitString_Escape("a\\,b,c", parts, spans, ",", false)
//   // parts == {"a\\,b", "c"}
// `parts` and `spans` are appended to, not cleared.
NOX_EXPORT void splitString_Escape(const std::string& text, std::vector<std::string>& parts,
                                   std::vector<std::pair<unsigned int, unsigned int>>& spans,
                                   const std::string& separators, bool skipEmpty);

// The same without the spans.
NOX_EXPORT void splitString_Escape(const std::string& text, std::vector<std::string>& parts,
                                   const std::string& separators, bool skipEmpty);

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

// Whether `text`, up to the first `terminator`, is an optionally signed run of
// decimal digits of any length. The empty text is a number (the callers test
// for emptiness themselves where it matters); a bare sign is not.
//   isNum("", '\0') == true       isNum("-", '\0') == false
//   isNum("+12", '\0') == true    isNum("12a", '\0') == false
//   isNum("12,5", ',') == true    // only "12" is looked at
// The walk also ends at the NUL that ends `text`: with another terminator,
// a text without it answers false (the NUL is no digit), isNum("12", ',').
// A null `text` answers false.
NOX_EXPORT bool isNum(const char* text, char terminator);

// Whether `text` is 1 to 18 decimal digits without a sign, so that its value
// always fits a long long; leading zeros are allowed ("007"). The bool is
// accepted and ignored.
// Trace (module 18, "isNumber"): debug "string is null, not a number." for the
// empty text, debug "string[%s] is a number." on success, nothing otherwise.
//   isNumber("123456789012345678", false) == true
//   isNumber("1234567890123456789", false) == false
//   isNumber("-1", false) == false
NOX_EXPORT bool isNumber(const std::string& text, bool);

// The same test; on success stores the value in `value`, on failure leaves
// `value` untouched and logs debug "string[%s] is not a number." (module 18).
// `strict` is passed on to the first form.
NOX_EXPORT bool isNumber(const std::string& text, long long& value, bool strict);

// The value of `text` when isNumber(text, false) accepts it, else
// `defaultValue`.
//   convertToNum("42", 7) == 42       convertToNum("4x", 7) == 7
NOX_EXPORT long long convertToNum(const std::string& text, long long defaultValue);

// `digits` left-padded with '0' to `width` characters. A `width` below 2 or
// not above digits.size() returns `digits` unchanged. Signs get no special
// treatment: the zeros go in front of them.
//   format_num_str("5", 3) == "005"        format_num_str("12345", 3) == "12345"
//   format_num_str("5", 1) == "5"          format_num_str("-5", 4) == "00-5"
NOX_EXPORT std::string format_num_str(const std::string& digits, int width);

// ---------------------------------------------------------------------------
// UTF-8 counting
// ---------------------------------------------------------------------------

// The byte length that a UTF-8 lead byte announces: the number of 1 bits from
// the most significant bit down to the first 0 bit, or 1 when there are none.
// Nothing is validated, so a continuation byte (10xxxxxx) gives 1 and 0xFF
// gives 8.
//   getUTF8CharByteNum('a') == 1    getUTF8CharByteNum(0xE4) == 3
NOX_EXPORT int getUTF8CharByteNum(unsigned char lead);

// Counts the multi-byte characters of `text` (the system's texts are English
// or Chinese, so these are counted as Chinese characters) and stores their
// total byte length in `bytes`. Each lead byte announcing L > 1 bytes counts
// one character of L bytes and the next L - 1 bytes are passed over unread;
// a sequence cut off by the end of the text still counts its full length, so
// `bytes` may exceed text.size() by up to 7.
//   int bytes;
//   getUTF8ChineseCharNum("a\xe4\xb8\xad" "b", bytes) == 1, bytes == 3
//   getUTF8ChineseCharNum("\xe4\xb8", bytes) == 1, bytes == 3   // cut off
// Limit: `text` must be shorter than 2 GiB (the counts are ints).
NOX_EXPORT int getUTF8ChineseCharNum(const std::string& text, int& bytes);

// ---------------------------------------------------------------------------
// Splitting
// ---------------------------------------------------------------------------

// Cuts strings into fields. Both functions write trace records through a
// guard of module 18 named after them; neither throws for bad input.
// Thread-safety: stateless; safe from any thread.
class NOX_EXPORT CCommon {
 public:
  // Replaces the contents of `out` with the fields of `text` between
  // occurrences of the literal `separator`; with `skipEmpty` empty fields are
  // left out. An empty text gives no field at all. After each occurrence the
  // search goes on one character further, not past the whole separator, so a
  // separator of more than one character leaves its tail in the next field:
  //   split("a,,b", ",", out, false) -> {"a", "", "b"}
  //   split("a,", ",", out, false)   -> {"a", ""}
  //   split("a##b", "##", out, false) -> {"a", "#b"}
  //   split("a###b", "##", out, false) -> {"a", "", "#b"}
  // Use splitUsingRegex for separators of more than one character.
  // An empty separator does not cut: a non-empty text becomes one field.
  // Trace: debug "the split string is [%s], separator is [%s]."
  static void split(const std::string& text, const std::string& separator,
                    std::vector<std::string>& out, bool skipEmpty);

  // Appends to `out` (without clearing it) the fields of `text` between the
  // matches of the PCRE2 regular expression `pattern` (8-bit code units, no
  // options). Empty fields between separators and before a leading separator
  // are kept; a trailing separator gives no trailing empty field; a text
  // without a match (the empty text included) gives itself as the only field.
  //   splitUsingRegex("a##b##c", "##", out, false) -> appends {"a", "b", "c"}
  //   splitUsingRegex("##a", "##", ...)   -> {"", "a"}
  //   splitUsingRegex("a####b", "##", ...) -> {"a", "", "b"}
  //   splitUsingRegex("a##", "##", ...)   -> {"a"}
  //   splitUsingRegex("", "##", ...)      -> {""}
  // The pattern is compiled on every call. A pattern that does not compile
  // leaves `out` unchanged and is logged at debug level only
  // ("%s pcre2 compilation failed.Error code : %d."); a failure to get match
  // data leaves `out` unchanged and is logged at error level
  // ("Failed to get pcre2 match data."). A match error ends the walk as if
  // there were no further match.
  //
  // Empty matches: a pattern that can match the empty string never makes the
  // walk stand still. After an empty match the next search starts one
  // character further on, while the next field still starts where the empty
  // match was, so no text is lost:
  //   splitUsingRegex("abc", "x*", ...) -> {"", "a", "b", "c"}
  // The rest of the text after the last match is not appended while the field
  // start is still 0, so a pattern that matches only the empty string at the
  // very start gives one empty field: splitUsingRegex("abc", "^", ...) -> {""}.
  // `flag` is accepted and ignored.
  static void splitUsingRegex(const std::string& text, const std::string& pattern,
                              std::vector<std::string>& out, bool flag);
};

#endif  // NOX_INCLUDE_STRING_UTILS_H_

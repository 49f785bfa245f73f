// The access table: per registered route and method, what the host must know
// of it. Whether it is served without a session, whether it takes uploads,
// whether its answer may carry a secret, whether it opens a session, whether
// it changes state (and so is audited), and which user scopes may call it.
//
// The table is read from a JSON file (conf/access.json by default; its format
// is in docs/operations.md):
//
//   {"scopes": {"0": "administrator", "1": "auditor", "4": "API client"},
//    "routes": [
//      {"path": "/sessions", "methods": ["POST"], "public": true, "login": true,
//       "secrets": true},
//      {"path": "/kestrel_cert/import_crl", "methods": ["POST"], "upload": true,
//       "changes": true, "scopes": ["0", "4"]},
//      {"path": "/kestrel_task", "methods": ["GET"], "scopes": ["0", "1", "4"]}]}
//
// A path is the one a client sends, "/v1/..." for the v1 interface; a route
// registered to serve paths below it (flag false) is named by its own URL.
// "methods" lists HTTP methods (any case) or "*", which stands for every
// method no other rule of the path names. HEAD follows GET unless it has a
// rule of its own. A method no rule covers is session-bound and open to
// scope "0" (administrator) only: a route the table forgets is never open to
// more than the administrator.
//
//   AccessTable table = AccessTable::defaults();
//   const AccessRule& rule = table.rule("/kestrel_cert/import_crl", "POST");
//   rule.upload == true;  rule.allows("1") == false;
//
// Thread-safety: immutable once built; any number of threads may read one.
// installAccessTable() and installedAccessTable() may be called from any
// thread.
#ifndef NOX_HOST_ACCESS_TABLE_H_
#define NOX_HOST_ACCESS_TABLE_H_

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "nox_visibility.h"

struct HOST_API AccessRule {
  bool isPublic = false;  // served without a session; no scope check
  bool upload = false;    // takes multipart/form-data uploads
  bool secrets = false;   // the answer may carry a token, a session id or a code
  bool login = false;     // opens a session (runs on the logins' own threads)
  bool changes = false;   // changes state: every call is audited with its outcome
  std::set<std::string> scopes;  // the scopes a session must have

  // Whether a session of `scope` may make the call (always for public rules).
  bool allows(const std::string& scope) const;
};

class HOST_API AccessTable {
 public:
  // The scope that a call no rule covers is open to.
  static constexpr char kAdministratorScope[] = "0";

  // The table the gateway uses when no file is given: the same as the
  // conf/access.json this project ships.
  static AccessTable defaults();

  // Reads the table from JSON text. On failure returns false and stores a
  // one-line reason in *error ("rule 3: \"scopes\" must be a list of texts").
  static bool parse(const std::string& text, AccessTable* table, std::string* error);
  // Reads the table from the file at `path`; the same failures, and "cannot
  // read PATH: REASON".
  static bool load(const std::string& path, AccessTable* table, std::string* error);

  // The rule for `method` on `path` (see the header comment); never null.
  const AccessRule& rule(const std::string& path, const std::string& method) const;

  // The registered paths ("/v1/..." for v1) that no rule names, and the
  // paths of rules that name no registered route: a table that does not
  // match the plug-in it guards.
  std::vector<std::string> uncovered(const std::vector<std::string>& registered) const;
  std::vector<std::string> unknown(const std::vector<std::string>& registered) const;

  // "METHOD PATH" of every call a session of `scope` may make, in the
  // table's order ("*" rules as "* PATH").
  std::vector<std::string> permissions(const std::string& scope) const;

  // The scopes the table names, with their labels ("0" -> "administrator").
  const std::map<std::string, std::string>& scopeNames() const { return scopeNames_; }

 private:
  struct Entry {
    std::string path;
    std::string method;  // upper case, or "*"
    AccessRule rule;
  };
  const Entry* find(const std::string& path, const std::string& method) const;

  std::vector<Entry> entries_;
  std::map<std::string, std::string> scopeNames_;
  AccessRule fallback_;
};

// The table the host's operations consult (GET /sessions lists the
// session's permissions from it); the defaults until one is installed.
HOST_API void installAccessTable(std::shared_ptr<const AccessTable> table);
HOST_API std::shared_ptr<const AccessTable> installedAccessTable();

#endif  // NOX_HOST_ACCESS_TABLE_H_

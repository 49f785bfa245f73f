// The host's view of one HTTP request and its answer.
//
// CRequestMsg: method, URL, interface version ("" or "v1"), resource
// identifiers, query arguments, the body (JSON members and uploaded files)
// and the session. CResponseMsg: the reply package (it *is* a TLV package),
// the JSON body, the reply template map, the content kind and the command
// identity.
//
// Thread-safety: a request and its response belong to one request thread.
// An HttpSession may be shared by concurrent requests of the same client and
// locks its attributes.
#ifndef NOX_INCLUDE_REQUEST_MSG_H_
#define NOX_INCLUDE_REQUEST_MSG_H_

#include <json/json.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "nox_visibility.h"
#include "tlv_package.h"

// One value of the request's argument map.
struct HOST_API MsgValue {
  MsgValue() = default;
  MsgValue(std::string value, int kind) : value_(std::move(value)), kind_(kind) {}
  std::string value_;
  int kind_ = 0;  // kQueryArg or kBodyArg
  static constexpr int kQueryArg = 0;
  static constexpr int kBodyArg = 1;
};

class HOST_API CRequestUri {
 public:
  static const char* const URI_ACT_GET;
  static const char* const URI_ACT_POST;
  static const char* const URI_ACT_PUT;
  static const char* const URI_ACT_DELETE;
  // The resource identifier that stands for "no single resource".
  static const std::string m_nullResID;

  // The backend time-out, in seconds, for requests to the gateway's URIs.
  static int getCfgTimeout();
  static void setCfgTimeout(int seconds);
};

// The HTTP connection of a request: its headers in, the headers to send out.
class HOST_API HttpRequest {
 public:
  HttpRequest() = default;
  HttpRequest(std::string method, std::string path, std::string clientAddress)
      : method_(std::move(method)), path_(std::move(path)), clientAddress_(std::move(clientAddress)) {}

  const std::string& method() const { return method_; }
  const std::string& path() const { return path_; }
  const std::string& clientAddress() const { return clientAddress_; }

  // Request headers; names compare case-insensitively.
  void addHeader(const std::string& name, const std::string& value);
  // The header's value, or "" when absent.
  std::string getHeader(const std::string& name) const;

  // Sets (or replaces) a header of the answer.
  void setResponseHeader(const std::string& name, const std::string& value);
  const std::vector<std::pair<std::string, std::string>>& responseHeaders() const {
    return responseHeaders_;
  }

 private:
  std::string method_;
  std::string path_;
  std::string clientAddress_;
  std::vector<std::pair<std::string, std::string>> headers_;
  std::vector<std::pair<std::string, std::string>> responseHeaders_;
};

// A logged-in client's session: an identifier and attributes as JSON values.
class HOST_API HttpSession {
 public:
  explicit HttpSession(std::string id) : id_(std::move(id)) {}
  virtual ~HttpSession() {}

  const std::string& getId() const { return id_; }
  void setAttribute(const std::string& name, const Json::Value& value);
  // The attribute, or a null value when absent.
  Json::Value getAttribute(const std::string& name) const;
  bool hasAttribute(const std::string& name) const;

 private:
  std::string id_;
  mutable std::mutex mutex_;
  std::map<std::string, Json::Value> attributes_;
};

// The session side of a request: who is asking, in which language, on which
// connection.
class HOST_API CSessionInfo {
 public:
  // The session attribute that holds the session state after a login.
  static const char* const SESS_STAT_K;

  bool isZh() const { return language_ == "zh"; }
  const std::string& language() const { return language_; }
  void setLanguage(const std::string& language) { language_ = language; }

  CDeviceID& getDeviceID() { return device_; }
  const CDeviceID& getDeviceID() const { return device_; }
  UserContext& getUserContext() { return user_; }
  const UserContext& getUserContext() const { return user_; }

  // The HTTP connection (never null for requests that came over HTTP).
  HttpRequest* getHttpConnection() const { return connection_; }
  void setHttpConnection(HttpRequest* connection) { connection_ = connection; }

  // The logged-in session, or null for a request without one.
  const std::shared_ptr<HttpSession>& getHttpSession() const { return session_; }
  void setHttpSession(std::shared_ptr<HttpSession> session) { session_ = std::move(session); }

 private:
  std::string language_ = "en";
  CDeviceID device_;
  UserContext user_;
  HttpRequest* connection_ = nullptr;
  std::shared_ptr<HttpSession> session_;
};

// The request body: JSON members and uploaded files.
class HOST_API CRequestMsgBody {
 public:
  // One uploaded file. content_ points into storage the body owns (or to a
  // text the caller substituted); length_ is its size in bytes.
  struct UploadFileAddr {
    std::string fileName_;
    const char* content_ = nullptr;
    unsigned int length_ = 0;
  };

  // Lists the uploaded files, in upload order. Returns 0, or -1 when the body
  // could not be read as an upload (the list then holds what was read).
  int getUploadFileAddr(CSessionInfo& session, std::vector<UploadFileAddr>& files);
  // Adds the body's JSON members to `args` (strings as they are, other values
  // as compact JSON), without replacing keys `args` already holds.
  void toMap(std::map<std::string, MsgValue>& args) const;

  void setJson(const Json::Value& json) { json_ = json; }
  const Json::Value& json() const { return json_; }
  void addUpload(const std::string& fileName, std::string content);
  // Marks the body as unreadable: getUploadFileAddr reports failure.
  void setUploadBroken(bool broken) { uploadBroken_ = broken; }

 private:
  Json::Value json_;
  // std::list keeps each file's bytes at a fixed address.
  std::list<std::pair<std::string, std::string>> uploads_;
  bool uploadBroken_ = false;
};

class HOST_API CRequestMsg {
 public:
  // Fills `args` with every argument of the request: first the body's, then
  // each query argument whose key the body does not hold.
  void getAllArgs(std::map<std::string, MsgValue>& args) {
    body_.toMap(args);
    for (const auto& entry : args_) {
      if (args.find(entry.first) == args.end()) args.insert(entry);
    }
  }

  // "v1" for requests that came through a V1 registration, else "".
  std::string getInterfaceVersion() const { return interfaceVersion_; }
  void setInterfaceVersion(const std::string& version) { interfaceVersion_ = version; }

  const std::string& method() const { return method_; }
  void setMethod(const std::string& method) { method_ = method; }
  const std::string& url() const { return url_; }
  void setUrl(const std::string& url) { url_ = url; }

  // Resource identifiers parsed from the path below the route ("count", an id).
  std::vector<std::string>& getResIDs() { return resIDs_; }
  const std::vector<std::string>& getResIDs() const { return resIDs_; }
  // The first identifier, or CRequestUri::m_nullResID when there is none.
  const std::string& firstResID() const {
    return resIDs_.empty() ? CRequestUri::m_nullResID : resIDs_.front();
  }

  // Query arguments.
  std::map<std::string, MsgValue>& args() { return args_; }
  const std::map<std::string, MsgValue>& args() const { return args_; }
  void setArg(const std::string& key, const std::string& value) {
    args_[key] = MsgValue(value, MsgValue::kQueryArg);
  }
  // The query argument, or "" when absent.
  std::string getArg(const std::string& key) const {
    auto it = args_.find(key);
    return it == args_.end() ? std::string() : it->second.value_;
  }

  CRequestMsgBody& getBody() { return body_; }
  CSessionInfo& getSessionInfo() { return session_; }
  const CSessionInfo& getSessionInfo() const { return session_; }

  // The managed-object type of the operation serving the request.
  unsigned int getMoType() const { return moType_; }
  void setMoType(unsigned int type) { moType_ = type; }

 private:
  std::string method_;
  std::string url_;
  std::string interfaceVersion_;
  std::vector<std::string> resIDs_;
  std::map<std::string, MsgValue> args_;
  CRequestMsgBody body_;
  CSessionInfo session_;
  unsigned int moType_ = 0;
};

class HOST_API CResponseMsg : public CR3MPackageV3 {
 public:
  // Content kinds.
  static constexpr uint32_t kContentGeneric = 0;  // the reply package, converted
  static constexpr uint32_t kContentJson = 1;     // the JSON body as it stands
  static constexpr uint32_t kContentText = 3;     // the JSON body, sent as text/plain

  // The JSON body an operation writes itself (null when it wrote none).
  Json::Value& getJsonBody() { return jsonBody_; }
  const Json::Value& getJsonBody() const { return jsonBody_; }
  // Named JSON values the host merges into the rendered reply.
  std::map<std::string, Json::Value>& getReplyTemplates() { return replyTemplates_; }
  const std::map<std::string, Json::Value>& getReplyTemplates() const { return replyTemplates_; }

  uint32_t getContentKind() const { return contentKind_; }
  void setContentKind(uint32_t kind) { contentKind_ = kind; }
  // Low word: command code; high word: header word.
  uint64_t getCommandId() const { return commandId_; }
  void setCommandId(uint64_t id) { commandId_ = id; }

 private:
  Json::Value jsonBody_;
  std::map<std::string, Json::Value> replyTemplates_;
  uint32_t contentKind_ = kContentGeneric;
  uint64_t commandId_ = 0;
};

// Per-call data an operation may set in isSupport.
struct HOST_API SpecifyOpPrivData {
  uint32_t uploadMark_ = 0;  // 1: the request carries an uploaded file
};

#endif  // NOX_INCLUDE_REQUEST_MSG_H_

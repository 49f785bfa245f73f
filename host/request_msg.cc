#include "request_msg.h"

#include <strings.h>

#include "session_token.h"

const char* const CRequestUri::URI_ACT_GET = "GET";
const char* const CRequestUri::URI_ACT_POST = "POST";
const char* const CRequestUri::URI_ACT_PUT = "PUT";
const char* const CRequestUri::URI_ACT_DELETE = "DELETE";
const std::string CRequestUri::m_nullResID;

namespace {
int g_cfgTimeout = 30;
}  // namespace

int CRequestUri::getCfgTimeout() { return g_cfgTimeout; }
void CRequestUri::setCfgTimeout(int seconds) { g_cfgTimeout = seconds; }

const char* const CSessionInfo::SESS_STAT_K = "SESS_STAT";

void HttpRequest::addHeader(const std::string& name, const std::string& value) {
  // Cookie lines are one list (a client may split it over several lines,
  // HTTP/2 always does): the later lines join the first, as "a=1; b=2".
  if (strcasecmp(name.c_str(), kCookieHeader) == 0) {
    for (auto& header : headers_) {
      if (strcasecmp(header.first.c_str(), kCookieHeader) != 0) continue;
      header.second += "; " + value;
      return;
    }
  }
  headers_.emplace_back(name, value);
}

std::string HttpRequest::getHeader(const std::string& name) const {
  for (const auto& header : headers_) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
  }
  return std::string();
}

void HttpRequest::setResponseHeader(const std::string& name, const std::string& value) {
  for (auto& header : responseHeaders_) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) {
      header.second = value;
      return;
    }
  }
  responseHeaders_.emplace_back(name, value);
}

void HttpSession::setAttribute(const std::string& name, const Json::Value& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  attributes_[name] = value;
}

Json::Value HttpSession::getAttribute(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = attributes_.find(name);
  return it == attributes_.end() ? Json::Value() : it->second;
}

bool HttpSession::hasAttribute(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return attributes_.count(name) != 0;
}

int CRequestMsgBody::getUploadFileAddr(CSessionInfo& session, std::vector<UploadFileAddr>& files) {
  (void)session;
  for (const auto& upload : uploads_) {
    UploadFileAddr addr;
    addr.fileName_ = upload.first;
    addr.content_ = upload.second.data();
    addr.length_ = static_cast<unsigned int>(upload.second.size());
    files.push_back(addr);
  }
  return uploadBroken_ ? -1 : 0;
}

void CRequestMsgBody::toMap(std::map<std::string, MsgValue>& args) const {
  if (!json_.isObject()) return;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  for (const std::string& name : json_.getMemberNames()) {
    if (args.count(name) != 0) continue;
    const Json::Value& value = json_[name];
    std::string text;
    if (value.isString()) {
      text = value.asString();
    } else if (!value.isNull()) {
      text = Json::writeString(writer, value);
    }
    args.emplace(name, MsgValue(text, MsgValue::kBodyArg));
  }
}

void CRequestMsgBody::addUpload(const std::string& fileName, std::string content) {
  uploads_.emplace_back(fileName, std::move(content));
}


#include "operation_base.h"

CSpecifyProc::~CSpecifyProc() { releaseAll(); }

int CSpecifyProc::regReqProc(const std::string& url, CSpecifyOp* op, bool flag) {
  return add(url, "", op, flag);
}

int CSpecifyProc::regReqProcV1(const std::string& url, CSpecifyOp* op, bool flag) {
  return add(url, "v1", op, flag);
}

int CSpecifyProc::add(const std::string& url, const std::string& version, CSpecifyOp* op,
                      bool flag) {
  if (op == nullptr) return -1;
  if (url.empty() || url[0] != '/' || find(url, version) != nullptr) {
    // The registry owns what it is given, refused or not.
    op->release();
    return -1;
  }
  routes_.push_back(Route{url, version, op, flag});
  return 0;
}

const CSpecifyProc::Route* CSpecifyProc::find(const std::string& url,
                                              const std::string& interfaceVersion) const {
  for (const Route& route : routes_) {
    if (route.url == url && route.interfaceVersion == interfaceVersion) return &route;
  }
  return nullptr;
}

void CSpecifyProc::releaseAll() {
  std::vector<Route> routes;
  routes.swap(routes_);
  for (Route& route : routes) route.op->release();
}

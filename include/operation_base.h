// Operations and their registry.
//
// The host calls isSupport, then op, on the operation registered for a route.
// Slot order of CSpecifyOp (fixed; plug-ins override by slot):
//   destructor (complete, deleting), release, isSupport, op.
// Host bases add slots after these:
//   CRestSepcOp / CMoSpecOp: get, post, put, del
//   GeneralNonMoOp:          get
//   CHistoryAlarmOp, CHistoryAlarmCountOp: none
//
// Thread-safety: operation objects are shared by all request threads; those
// without data are safe as they are, those with data lock it themselves. The
// registry is filled once at start-up and read-only afterwards.
#ifndef NOX_INCLUDE_OPERATION_BASE_H_
#define NOX_INCLUDE_OPERATION_BASE_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "request_msg.h"

class HOST_API CSpecifyOp {
 public:
  virtual ~CSpecifyOp() {}
  // Destroys the object; the host calls it when it lets the operation go.
  virtual void release() { delete this; }
  // Whether the operation takes the request; may mark privData. Default: yes.
  virtual bool isSupport(const std::string& action, const std::string& resource,
                         SpecifyOpPrivData& privData) {
    (void)action;
    (void)resource;
    (void)privData;
    return true;
  }
  // Serves the request: 0 when handled, -1 for a method it does not serve.
  virtual int op(const std::string& action, const std::string& resource, CRequestMsg& request,
                 CResponseMsg& response) = 0;
};

// The route registry. It owns what it registers and releases each object
// through CSpecifyOp::release when it is destroyed (or refuses a route).
class HOST_API CSpecifyProc {
 public:
  struct Route {
    std::string url;
    std::string interfaceVersion;  // "" (default interface) or "v1"
    CSpecifyOp* op;
    // false: the route also serves "/URL/<id>" requests, the extra segments
    // becoming the request's resource identifiers.
    bool flag;
  };

  CSpecifyProc() = default;
  CSpecifyProc(const CSpecifyProc&) = delete;
  CSpecifyProc& operator=(const CSpecifyProc&) = delete;
  ~CSpecifyProc();

  // Registers `op` for `url` on the default interface. Returns 0; -1 when the
  // URL is already taken on that interface or op is null (op is then released).
  int regReqProc(const std::string& url, CSpecifyOp* op, bool flag);
  // The same for the "v1" interface.
  int regReqProcV1(const std::string& url, CSpecifyOp* op, bool flag);

  // Routes in registration order.
  const std::vector<Route>& routes() const { return routes_; }
  // The route for `url` on `interfaceVersion`, or null.
  const Route* find(const std::string& url, const std::string& interfaceVersion) const;
  // Releases every registered object (done by the destructor too).
  void releaseAll();

 private:
  int add(const std::string& url, const std::string& version, CSpecifyOp* op, bool flag);
  std::vector<Route> routes_;
};

// Generic REST dispatch by method: GET -> get, POST -> post, PUT -> put,
// DELETE -> del (case-insensitive); -1 for any other method.
class HOST_API CRestSepcOp : public CSpecifyOp {
 public:
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;
  virtual int get(CRequestMsg& request, CResponseMsg& response);
  virtual int post(CRequestMsg& request, CResponseMsg& response);
  virtual int put(CRequestMsg& request, CResponseMsg& response);
  virtual int del(CRequestMsg& request, CResponseMsg& response);
};

// An operation on one type of managed object of the backend.
class HOST_API CMoSpecOp : public CRestSepcOp {
 public:
  explicit CMoSpecOp(unsigned int objType) : objType_(objType) {}

  // Stores the object type in the request, then dispatches by method.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override {
    request.setMoType(objType_);
    return CRestSepcOp::op(action, resource, request, response);
  }

  // Host: "count" as first resource identifier -> the number of objects;
  // another identifier -> that object; none -> the list.
  int get(CRequestMsg& request, CResponseMsg& response) override;
  // Host: objects of this type are read-only through the gateway; these
  // answer with the "method not allowed" code.
  int post(CRequestMsg& request, CResponseMsg& response) override;
  int put(CRequestMsg& request, CResponseMsg& response) override;
  int del(CRequestMsg& request, CResponseMsg& response) override;

  unsigned int objType() const { return objType_; }

 protected:
  unsigned int objType_;
};

// A query of the backend that is not about a managed object: one command
// formed from (objType_, opCode_), sent for requests whose method is method_.
class HOST_API GeneralNonMoOp : public CSpecifyOp {
 public:
  GeneralNonMoOp(uint32_t objType, uint32_t opCode, const std::string& method, uint32_t flags)
      : objType_(objType), opCode_(opCode), method_(method), flags_(flags) {}

  // True when the method equals method_ (case-insensitive).
  bool isSupport(const std::string& action, const std::string& resource,
                 SpecifyOpPrivData& privData) override;
  // Sends the query and leaves the reply package in the response. Returns 0
  // or the backend's error code (the exception is not let through).
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;
  // Called by subclasses after op; the host's does nothing and returns 0.
  virtual int get(CRequestMsg& request, CResponseMsg& response);

 protected:
  uint32_t objType_;
  uint32_t opCode_;
  std::string method_;
  uint32_t flags_;
};

// Generic reads of managed objects. exec sends the query and leaves the reply
// package in the response; it returns 0 or the backend's error code.
class HOST_API CGetBatchOp {
 public:
  CGetBatchOp(uint32_t opCode, uint32_t word, uint32_t objType)
      : opCode_(opCode), word_(word), objType_(objType) {}
  virtual ~CGetBatchOp() {}
  virtual int exec(CRequestMsg& request, CResponseMsg& response);

 protected:
  uint32_t opCode_;
  uint32_t word_;
  uint32_t objType_;
};

// A list read that passes the request's paging ("start", "limit"), sorting
// ("sort") and filter ("filter" and per-field) arguments to the backend.
class HOST_API CGetBatchByFilterOp : public CGetBatchOp {
 public:
  CGetBatchByFilterOp(uint32_t opCode, uint32_t word, uint32_t objType,
                      const std::map<std::string, MsgValue>& args)
      : CGetBatchOp(opCode, word, objType), args_(args) {}
  int exec(CRequestMsg& request, CResponseMsg& response) override;

 protected:
  std::map<std::string, MsgValue> args_;
};

class HOST_API CGetByIDOp {
 public:
  CGetByIDOp(uint32_t opCode, uint32_t word, uint32_t objType, const std::string& id)
      : opCode_(opCode), word_(word), objType_(objType), id_(id) {}
  virtual ~CGetByIDOp() {}
  virtual int exec(CRequestMsg& request, CResponseMsg& response);

 protected:
  uint32_t opCode_;
  uint32_t word_;
  uint32_t objType_;
  std::string id_;
};

class HOST_API CGetByIDFilterOp : public CGetByIDOp {
 public:
  CGetByIDFilterOp(uint32_t opCode, uint32_t word, uint32_t objType, const std::string& id,
                   const std::map<std::string, MsgValue>& args)
      : CGetByIDOp(opCode, word, objType, id), args_(args) {}
  int exec(CRequestMsg& request, CResponseMsg& response) override;

 protected:
  std::map<std::string, MsgValue> args_;
};

// Sends the alarm query `command` (high word: header word, low word: command
// code) with the request's paging and filter arguments ("start", "limit",
// "severity", "begintime", "endtime") and leaves the reply in the response.
// Returns 0 or the backend's error code.
HOST_API int queryAlarm(unsigned long long command, CRequestMsg& request, CResponseMsg& response,
                        bool history);
// Turns the alarm records of the reply into the response's JSON body,
// {"data": {"total": n, "alarms": [...]}, "error": {...}}. Returns 0 or -1.
HOST_API int parseAlarms(CRequestMsg& request, CResponseMsg& response, bool history);

// The host's alarm operations. Their own op answers as the plug-in's would
// without the plug-in (list: GET only; count: any method).
class HOST_API CHistoryAlarmOp : public CSpecifyOp {
 public:
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;
};

class HOST_API CHistoryAlarmCountOp : public CSpecifyOp {
 public:
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;
};

#endif  // NOX_INCLUDE_OPERATION_BASE_H_

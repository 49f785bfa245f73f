// The host's login machinery.
//
// CLoginOp serves a login route: POST logs in (handleLogin), DELETE logs out
// (handleLogout), GET issues a login token / verification challenge
// (handleGetLoginToken); subclasses may dispatch differently. Slot order after
// CSpecifyOp's five:
//   updateSessionFile, postCheckDevice, checkVerifyCode, handleLogin,
//   handleLogout, handleGetLoginToken, handleCheckCode,
//   login (nine arguments), login (eight arguments)
// CLoginOpWithVerifyCode derives from CLoginOp with the same slots; it
// replaces isSupport and checkVerifyCode. A route that needs a verification
// code overrides the eight-argument login like any other login route.
//
// Thread-safety: the operations hold no per-request state; sessions and the
// redirect table lock themselves.
#ifndef NOX_INCLUDE_LOGIN_OP_H_
#define NOX_INCLUDE_LOGIN_OP_H_

#include <string>

#include "nox_visibility.h"
#include "request_msg.h"
#include "operation_base.h"
#include "tlv_package.h"

// Session information that other gateway nodes look up (key, kind).
class HOST_API RedirectInfoMgr {
 public:
  // Records `kind` for `key` (replacing an earlier entry). Returns 0.
  static int addSessionInfo(const std::string& key, int kind);
  // The kind recorded for `key`, or -1.
  static int getSessionInfo(const std::string& key);
  // Forgets `key`.
  static void removeSessionInfo(const std::string& key);
};

class HOST_API CLoginOp : public CSpecifyOp {
 public:
  CLoginOp();
  ~CLoginOp() override;

  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // Labels `session` after a successful login from the backend's login reply.
  // `prefix` + session id is the key of the session in RedirectInfoMgr.
  virtual void updateSessionFile(const std::string& prefix, HttpSession& session,
                                 CR3MPackageV3& loginReply);
  // Fills the device identity and user context of a new session from the
  // connection. Returns 0, or an error code that refuses the login.
  virtual int postCheckDevice(HttpRequest& connection, CDeviceID& device, UserContext& user);
  // Checks a verification code for the login; the host's accepts every login.
  // Returns 0 or an error code.
  virtual int checkVerifyCode(HttpSession& session, CRequestMsg& request);
  virtual int handleLogin(CRequestMsg& request, CResponseMsg& response);
  virtual int handleLogout(CRequestMsg& request, CResponseMsg& response);
  virtual int handleGetLoginToken(CRequestMsg& request, CResponseMsg& response);
  virtual int handleCheckCode(CRequestMsg& request, CResponseMsg& response);

  // Sends the login command to the backend and leaves its reply in `reply`.
  // Throws QPNExceptionWithErrCode_ when the backend refuses the login.
  virtual int login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType, const std::string& verifyCode);
  // The route's own form: the host's login flow calls this slot; the host's
  // passes on with an empty verification code.
  virtual int login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType);
};

class HOST_API CLoginOpWithVerifyCode : public CLoginOp {
 public:
  CLoginOpWithVerifyCode();
  ~CLoginOpWithVerifyCode() override;

  bool isSupport(const std::string& action, const std::string& resource,
                 SpecifyOpPrivData& privData) override;
  // Requires the answer to a live, unused verification challenge.
  int checkVerifyCode(HttpSession& session, CRequestMsg& request) override;

  // Whether handleGetLoginToken also answers the challenge's code in clear
  // (member "code"). Off by default; a gateway turns it on only for test rigs
  // that must log in without reading the image. Safe from any thread.
  static void setExposeCodeForTests(bool expose);
  static bool exposeCodeForTests();
};

#endif  // NOX_INCLUDE_LOGIN_OP_H_

// NOXLogin: the "/sessions" route, for API clients (user scope "4").
//
// POST logs in, DELETE logs out, GET reports the current session; any other
// method is not served. Only scope "4" may log in here. After a login the
// session is labelled from the backend's reply: cell 76 (3 or 4) marks it
// state 8, kind 8; otherwise cell 64 gives the state (3 -> 1, 4 -> 3,
// 5 -> 4, else 0), cell 78 = 2 overrides it with 2, and the kind is 7.
//
// Thread-safety: no data of its own; one object serves every request thread.
#ifndef NOX_SRC_UCORE_NOXLOGIN_H_
#define NOX_SRC_UCORE_NOXLOGIN_H_

#include <string>

#include "login_op.h"

class NOXLogin : public CLoginOp {
 public:
  NOXLogin() {}
  ~NOXLogin() override {}

  // CSpecifyOp
  // Dispatches on `action`, the HTTP method, compared without regard to case
  // and tried in this order: POST -> handleLogin, DELETE -> handleLogout,
  // GET -> handleCheckCode, each through its virtual slot, whose result is
  // returned unchanged. Any other method returns -1 and does nothing.
  // `resource` is not looked at.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // CLoginOp
  // Labels `session` after a login from record 0 of `loginReply` (see the
  // class comment) and registers prefix + session id with RedirectInfoMgr,
  // then pauses the request thread for one second. Throws the cell's
  // QPNException when cell 76, 64 or 78 is present but not numeric, and
  // "record don't exist, index is 0" for a reply without records.
  void updateSessionFile(const std::string& prefix, HttpSession& session,
                         CR3MPackageV3& loginReply) override;

  using CLoginOp::login;
  // Accepts only the user scope "4" (any other, the empty one included,
  // throws code 0x03000003 before anything is sent); then passes every
  // argument on unchanged to the host's nine-argument login with an empty
  // verification code, and returns its result.
  int login(const std::string& userName, const std::string& password, const std::string& scope,
            const std::string& language, CDeviceID& device, CR3MPackageV3& reply,
            const std::string& clientAddress, const std::string& loginType) override;
};

#endif  // NOX_SRC_UCORE_NOXLOGIN_H_

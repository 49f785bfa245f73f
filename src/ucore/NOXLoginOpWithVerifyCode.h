// NOXLoginOpWithVerifyCode: the "/login" route, for people at the management
// console (user scopes "0" and "1").
//
// Everything but the scope check is the host's: GET issues a verification
// challenge, POST logs in with its answer, DELETE logs out; isSupport takes
// those three methods only.
//
// Thread-safety: no data of its own; one object serves every request thread.
#ifndef NOX_SRC_UCORE_NOXLOGINOPWITHVERIFYCODE_H_
#define NOX_SRC_UCORE_NOXLOGINOPWITHVERIFYCODE_H_

#include <string>

#include "login_op.h"

class NOXLoginOpWithVerifyCode : public CLoginOpWithVerifyCode {
 public:
  NOXLoginOpWithVerifyCode() {}
  ~NOXLoginOpWithVerifyCode() override {}

  // CLoginOpWithVerifyCode
  using CLoginOpWithVerifyCode::login;
  // Accepts only the user scopes "0" and "1" (any other, the empty one
  // included, throws code 0x03000003 before anything is sent); then passes
  // every argument on unchanged to the host's nine-argument login with an
  // empty login type and an empty verification code, and returns its result.
  int login(const std::string& userName, const std::string& password, const std::string& scope,
            const std::string& language, CDeviceID& device, CR3MPackageV3& reply,
            const std::string& clientAddress) override;
};

#endif  // NOX_SRC_UCORE_NOXLOGINOPWITHVERIFYCODE_H_

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

  // CLoginOp
  using CLoginOpWithVerifyCode::login;
  // The route's login slot, the same eight-argument slot NOXLogin overrides.
  // Accepts only the user scopes "0" and "1" (any other, the empty one
  // included, throws code 0x03000003 before anything is sent); then passes
  // the first seven arguments on unchanged to the host's nine-argument login
  // with "" as login type and verification code (the code was checked by the
  // host before), and returns its result. `loginType` is not used.
  int login(const std::string& userName, const std::string& password, const std::string& scope,
            const std::string& language, CDeviceID& device, CR3MPackageV3& reply,
            const std::string& clientAddress, const std::string& loginType) override;
};

#endif  // NOX_SRC_UCORE_NOXLOGINOPWITHVERIFYCODE_H_

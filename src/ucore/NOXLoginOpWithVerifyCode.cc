#include "NOXLoginOpWithVerifyCode.h"

#include <strings.h>

int NOXLoginOpWithVerifyCode::login(const std::string& userName, const std::string& password,
                                    const std::string& scope, const std::string& language,
                                    CDeviceID& device, CR3MPackageV3& reply,
                                    const std::string& clientAddress,
                                    const std::string& loginType) {
  (void)loginType;
  if (strcasecmp(scope.c_str(), "0") != 0 && strcasecmp(scope.c_str(), "1") != 0) {
    // The text stands where other operations give their source name.
    throw QPNExceptionWithErrCode_(0x03000003, "The user scope is invalid.", __LINE__, false,
                                   nullptr);
  }
  return CLoginOp::login(userName, password, scope, language, device, reply, clientAddress, "",
                         "");
}

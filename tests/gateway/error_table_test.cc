#include "error_table.h"

#include <gtest/gtest.h>

#include "backend_protocol.h"
#include "plugin_codes.h"
#include "state_store.h"
#include "tlv_backend.h"

namespace {

TEST(ErrorTableTest, StatusAndDescriptionOfNamedCodes) {
  const struct {
    long long code;
    int status;
    const char* description;
  } cases[] = {
      {proto::kErrInvalidArgument, 400, "Invalid argument."},
      {proto::kErrNotLoggedIn, 401, "A valid session is required. Log in first."},
      {kErrBackendTimeout, 504, "The backend did not answer in time."},
      {kErrStateUnavailable, 503, "The session store is not available. Try again later."},
      {proto::kErrCertNotSafe, 422, "The certificate is not safe."},
      {proto::kErrUploadTooLarge, 413, "The file is larger than 1048576 bytes."},
      {proto::kErrUploadWriteFailed, 500, "The file could not be written."},
      // A verdict without a name of its own.
      {proto::kCertVerdictBase + 0x77, 422, "The certificate or CRL was refused."},
      {gw::kErrBusy, 503, "The gateway is busy. Try again shortly."},
      {0x7FFFFFFF, 500, ""},  // unknown: a server-side failure without a text
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_EQ(gw::httpStatusForCode(c.code), c.status);
    EXPECT_EQ(gw::describeCode(c.code), c.description);
  }
  // The gateway's own names for the codes it shares with the backend.
  EXPECT_EQ(gw::kErrBadRequest, proto::kErrInvalidArgument);
  EXPECT_EQ(gw::kErrSessionRequired, proto::kErrNotLoggedIn);
}

TEST(ErrorTableTest, UploadRefusalReasons) {
  const struct {
    long long code;
    int status;
    const char* reason;
  } cases[] = {
      {proto::kErrUploadTooLarge, 413, "too_large"},
      {gw::kErrBodyTooLarge, 413, "too_large"},
      {gw::kErrInternal, 413, "too_large"},  // a 413 whatever its code
      {proto::kErrInvalidArgument, 400, "no_file"},
      {proto::kErrCertExpired, 422, "refused_by_check"},
      {proto::kCertVerdictBase + 0x77, 422, "refused_by_check"},  // unnamed verdict
      {proto::kErrUploadWriteFailed, 500, "write_failed"},
      {gw::kErrCsrfHeaderMissing, 403, "console_header"},
      {gw::kErrScopeForbidden, 403, "other"},
      {kErrBackendUnavailable, 503, "other"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_STREQ(gw::uploadRefusalReason(c.code, c.status), c.reason);
  }
}

}  // namespace

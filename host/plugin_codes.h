// Error codes the plug-in answers with on its own, named for the reference
// host and the gateway, which describe them to clients. The plug-in keeps its
// own copies (src/ucore/NOXImportCommon.h): it is compiled against include/
// only. The codes the plug-in shares with the backend (kErrInvalidArgument
// for "no file", the certificate and CRL verdicts) are in backend_protocol.h.
//
// Thread-safety: constants only.
#ifndef NOX_HOST_PLUGIN_CODES_H_
#define NOX_HOST_PLUGIN_CODES_H_

namespace proto {

// An uploaded certificate or CRL is larger than the plug-in takes (1048576 bytes).
constexpr long long kErrUploadTooLarge = 2000000001;  // 0x77359401
// The plug-in could not write the uploaded file to the backend's folder.
constexpr long long kErrUploadWriteFailed = 1000005;  // 0xF4245
// The certificate and CRL verdicts of the backend's check: every code
// 0x60E01D00 ... 0x60E01DFF, whether or not it has a name above.
constexpr long long kCertVerdictBase = 0x60E01D00;
inline bool isCertVerdict(long long code) { return (code & ~0xFFLL) == kCertVerdictBase; }

}  // namespace proto

#endif  // NOX_HOST_PLUGIN_CODES_H_

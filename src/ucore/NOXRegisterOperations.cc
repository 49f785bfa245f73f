// The plug-in's entry: the host calls NOXRegisterOperations once after
// loading the library; it creates one operation object per route and hands
// each to the host's registry, which owns it from then on.
#include "NOXGetDBBakConfOp.h"
#include "NOXHistoryAlarmOp.h"
#include "NOXImportCert.h"
#include "NOXImportCrlOp.h"
#include "NOXLogin.h"
#include "NOXLoginOpWithVerifyCode.h"
#include "NOXTaskOp.h"
#include "nox_visibility.h"
#include "operation_base.h"

extern "C" NOX_EXPORT const char* IMPORT_CERT_MARK;
const char* IMPORT_CERT_MARK = "_IMPORT_CERT_MARK";

// Registers the library's routes in this order; every row gets its own
// object, also where one URL is registered for both interfaces. The
// registry's answers are not looked at. Always returns 0; an allocation or
// constructor failure leaves by exception, rows before it staying registered.
extern "C" NOX_EXPORT int NOXRegisterOperations(CSpecifyProc* proc) {
  proc->regReqProc("/sessions", new NOXLogin(), true);
  proc->regReqProc("/login", new NOXLoginOpWithVerifyCode(), true);
  proc->regReqProc("/kestrel_hypervisor/import_cert", new NOXImportCertOp(), true);
  proc->regReqProc("/kestrel_cert/import_cert", new NOXImportCertOp(), true);
  proc->regReqProc("/kestrel_cert/import_crl", new NOXImportCrlOp(), true);
  proc->regReqProc("/alarm/historyalarm", new NOXHistoryAlarmOp(), true);
  proc->regReqProcV1("/alarm/historyalarm", new NOXHistoryAlarmOp(), true);
  proc->regReqProc("/alarm/historyalarm/count", new NOXHistoryAlarmCountOp(), true);
  proc->regReqProcV1("/alarm/historyalarm/count", new NOXHistoryAlarmCountOp(), true);
  // The task route is the only one that also serves "/kestrel_task/<id>".
  proc->regReqProc("/kestrel_task", new NOXTaskOp(0xE012), false);
  proc->regReqProc("/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf",
                   new NOXGetDBBakConfOp(), true);
  return 0;
}

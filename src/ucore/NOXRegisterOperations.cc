// The plug-in's entry: the host calls NOXRegisterOperations once after
// loading the library; it creates one operation object per route and hands
// each to the host's registry, which owns it from then on.
#include "NOXHistoryAlarmOp.h"
#include "NOXImportCert.h"
#include "NOXImportCrlOp.h"
#include "nox_visibility.h"
#include "specify_op.h"

extern "C" NOX_EXPORT const char* IMPORT_CERT_MARK;
const char* IMPORT_CERT_MARK = "_IMPORT_CERT_MARK";

// Registers the library's routes in this order (the registry's answers are
// not looked at; every row gets its own object). Always returns 0.
extern "C" NOX_EXPORT int NOXRegisterOperations(CSpecifyProc* proc) {
  // Routes are added here, in order, as their operations are built:
  //   1 "/sessions", 2 "/login",
  //   3 "/kestrel_hypervisor/import_cert", 4 "/kestrel_cert/import_cert",
  //   5 "/kestrel_cert/import_crl",
  //   6-7 "/alarm/historyalarm" (default, v1), 8-9 "/alarm/historyalarm/count" (default, v1),
  //   10 "/kestrel_task" (flag false), 11 "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf".
  proc->regReqProc("/kestrel_hypervisor/import_cert", new NOXImportCertOp(), true);
  proc->regReqProc("/kestrel_cert/import_cert", new NOXImportCertOp(), true);
  proc->regReqProc("/kestrel_cert/import_crl", new NOXImportCrlOp(), true);
  proc->regReqProc("/alarm/historyalarm", new NOXHistoryAlarmOp(), true);
  proc->regReqProcV1("/alarm/historyalarm", new NOXHistoryAlarmOp(), true);
  proc->regReqProc("/alarm/historyalarm/count", new NOXHistoryAlarmCountOp(), true);
  proc->regReqProcV1("/alarm/historyalarm/count", new NOXHistoryAlarmCountOp(), true);
  return 0;
}

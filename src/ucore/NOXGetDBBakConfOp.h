// NOXGetDBBakConfOp: the "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"
// route.
//
// A GET asks the backend for the database-backup storage configuration
// through the host's non-managed-object query (0x62 / 0xDE) and then turns the
// result code of the reply (record 0, cell 9) into a readable sentence in the
// caller's language: "0" (success) becomes the empty text, a known code its
// catalogue message with the parameters of cell 10 filled in, an unknown one
// "Unknow Error: " followed by the code. The host turns the reply package
// into the JSON response.
//
// Thread-safety: one object serves every request thread at once; the reply is
// rewritten under the object's mutex, which also keeps the two shared
// catalogues to one caller at a time.
#ifndef NOX_SRC_UCORE_NOXGETDBBAKCONFOP_H_
#define NOX_SRC_UCORE_NOXGETDBBAKCONFOP_H_

#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>

#include <string>

#include "request_msg.h"
#include "operation_base.h"
#include "xml_config_parser.h"

class NOXGetDBBakConfOp : public GeneralNonMoOp {
 public:
  // Loads both catalogues; a catalogue that fails to load is only logged.
  NOXGetDBBakConfOp();
  ~NOXGetDBBakConfOp() override;

  NOXGetDBBakConfOp(const NOXGetDBBakConfOp&) = delete;
  NOXGetDBBakConfOp& operator=(const NOXGetDBBakConfOp&) = delete;

  // --- CSpecifyOp ---

  // GET only (any case): sends the query and rewrites the reply with get.
  // Returns -1 for another method (logged, nothing sent), the host query's
  // code when it failed, else get's result.
  int op(const std::string& action, const std::string& resource, CRequestMsg& request,
         CResponseMsg& response) override;

  // --- GeneralNonMoOp ---

  // Replaces cell 9 of the reply's record 0 with its text. Returns 0 (also
  // when the reply has no cell 9, which is then left alone), or -1 when the
  // reply holds no record or the mutex could not be taken.
  int get(CRequestMsg& request, CResponseMsg& response) override;

 private:
  CXmlConfigParser<MessageInfo> enMessageParser_;
  CXmlConfigParser<MessageInfo> zhMessageParser_;
  ACE_Thread_Mutex mutex_;
};

#endif  // NOX_SRC_UCORE_NOXGETDBBAKCONFOP_H_

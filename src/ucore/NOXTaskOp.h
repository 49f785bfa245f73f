// NOXTaskOp: the "/kestrel_task" route (object type 0xE012).
//
// A read without a resource identifier lists the backup tasks (with their
// detail cells emptied), "/kestrel_task/count" counts them, and
// "/kestrel_task/<id>" gives one task whose progress entries are rendered
// into dated, readable lines in the caller's language and whose error
// information gains a "description". The operation edits the backend's reply
// package (cells 0x58 and 0x62); the host turns the package into JSON.
//
// The object owns an English and a Chinese catalogue, loaded once in the
// constructor from "../conf/...", and a mutex under which the catalogues are
// used (the catalogue has no lock of its own and may reload on a miss).
//
// Thread-safety: one object serves every request thread at once; rendering
// (doBuildTaskInfo) runs one request at a time under the mutex, everything
// else works on per-request data only.
#ifndef NOX_SRC_UCORE_NOXTASKOP_H_
#define NOX_SRC_UCORE_NOXTASKOP_H_

#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>

#include <memory>
#include <string>

#include "request_msg.h"
#include "operation_base.h"
#include "tlv_package.h"
#include "xml_config_parser.h"

namespace Json {
class CharReader;
}

// A jsoncpp reader with the default settings for the task texts. The
// settings are built once: building them for every parse cost as much as
// parsing a task's detail.
std::unique_ptr<Json::CharReader> newTaskJsonReader();

class NOXTaskOp : public CMoSpecOp {
 public:
  // Loads both catalogues; a catalogue that fails to load is only logged.
  explicit NOXTaskOp(unsigned int objType);
  ~NOXTaskOp() override;

  NOXTaskOp(const NOXTaskOp&) = delete;
  NOXTaskOp& operator=(const NOXTaskOp&) = delete;

  // --- CSpecifyOp ---

  // True exactly for GET (any case); privData is not touched.
  bool isSupport(const std::string& action, const std::string& resource,
                 SpecifyOpPrivData& privData) override;

  // --- CRestSepcOp ---

  // Every read: the list (no resource identifier; the host's list with every
  // task detail cell emptied, also when the query failed), the count (first
  // identifier "count" in any case; the host's generic count) or one task
  // (getDetail). Returns 0 or the code the host query returned.
  int get(CRequestMsg& request, CResponseMsg& response) override;

  // One task, the request's first resource identifier. On success record 0
  // of the reply holds the rendered detail text in cell 0x58 and, when the
  // error information could be rebuilt, the error information with its
  // "description" in cell 0x62. Returns the host query's code when it failed
  // (reply untouched), else doBuildTaskInfo's result (0, or -1 when the
  // mutex could not be taken; the cells are rewritten all the same).
  int getDetail(CRequestMsg& request, CResponseMsg& response);

  // Renders the progress entries of record's cell 0x58 (a JSON array of
  // {"id", "params": [{"param": seconds}, {"param": p1}, ...]}) into `detail`:
  // one line per entry with catalogue text, " " + date + " " + text, each but
  // the one of the last array element followed by backslash, "n", line feed.
  // Chinese (isZh) uses the Chinese catalogue and "%Y-%m-%d %H:%M:%S",
  // English the English one and "%m/%d/%Y %H:%M:%S" (local time).
  //   [{"id":"a","params":[{"param":"0"},{"param":"x"}]},
  //    {"id":"b","params":[{"param":"60"}]}]  with a = "Saw ##0", b = "Done"
  //   -> " 01/01/1970 00:00:00 Saw x " + "\\n\n" + " 01/01/1970 00:01:00 Done "
  //   (English, UTC; the catalogue ends every message with a blank)
  // errorCode is in/out: the first entry whose id equals it and that has a
  // text replaces it with that text. Returns 0 (detail = "" when the cell is
  // not JSON) or -1 when the mutex could not be taken (detail unchanged).
  // A root that is not an array, or an entry that is not an object, throws
  // jsoncpp's logic error; the mutex is released on the way out.
  int doBuildTaskInfo(CR3MRecordV3& record, std::string& detail, bool isZh, std::string& errorCode);

 private:
  CXmlConfigParser<MessageInfo> enMessageParser_;
  CXmlConfigParser<MessageInfo> zhMessageParser_;
  std::string zhDateFormat_;
  std::string enDateFormat_;
  ACE_Thread_Mutex mutex_;
};

#endif  // NOX_SRC_UCORE_NOXTASKOP_H_

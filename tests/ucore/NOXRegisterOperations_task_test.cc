// The task and storage configuration routes as NOXRegisterOperations
// registers them.
#include <gtest/gtest.h>

#include "NOXGetDBBakConfOp.h"
#include "NOXTaskOp.h"
#include "catalogue_dir.h"
#include "operation_base.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

namespace {

TEST(TaskRoutesTest, TaskAndStorageConfigurationRows) {
  CatalogueDir dir;
  CSpecifyProc proc;
  EXPECT_EQ(NOXRegisterOperations(&proc), 0);

  const CSpecifyProc::Route* task = proc.find("/kestrel_task", "");
  ASSERT_NE(task, nullptr);
  // The only route that also serves "/kestrel_task/<id>".
  EXPECT_FALSE(task->flag);
  const NOXTaskOp* taskOp = dynamic_cast<NOXTaskOp*>(task->op);
  ASSERT_NE(taskOp, nullptr);
  EXPECT_EQ(taskOp->objType(), 0xE012u);

  const CSpecifyProc::Route* conf =
      proc.find("/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf", "");
  ASSERT_NE(conf, nullptr);
  EXPECT_TRUE(conf->flag);
  EXPECT_NE(dynamic_cast<NOXGetDBBakConfOp*>(conf->op), nullptr);

  // Registration order: the task row comes right before the storage row.
  const std::vector<CSpecifyProc::Route>& routes = proc.routes();
  size_t taskIndex = routes.size(), confIndex = routes.size();
  for (size_t i = 0; i < routes.size(); ++i) {
    if (routes[i].url == "/kestrel_task") taskIndex = i;
    if (routes[i].url == "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf") confIndex = i;
  }
  EXPECT_EQ(confIndex, taskIndex + 1);
  EXPECT_EQ(proc.find("/kestrel_task", "v1"), nullptr);
}

}  // namespace

// Small English and Chinese catalogues for the task and storage configuration
// tests, independent of the installed conf/ content.
//
//   CatalogueDir dir;
//   writeTaskCatalogues(dir);
//   NOXTaskOp op(0xE012);
//
// Messages (English / Chinese):
//   1001  "Task ##0 started on ##1"        / "任务 ##0 已在 ##1 上启动"
//   1002  "Copied ##0 files to ##1 (##2)"  / "已复制 ##0 个文件到 ##1（##2）"
//   1003  "Task ##0 failed: ##1"           / "任务 ##0 失败：##1"
//   2001  "Disk ##0 is full"               / "磁盘 ##0 已满"
//   2002  "Path "##0" is not writable"     / "路径 "##0" 不可写"   (holds quotes)
// Every finished message ends with one blank (the catalogue appends it).
#ifndef NOX_TESTS_SUPPORT_TASK_CATALOGUES_H_
#define NOX_TESTS_SUPPORT_TASK_CATALOGUES_H_

#include "catalogue_dir.h"

inline void writeTaskCatalogues(const CatalogueDir& dir) {
  dir.write("task_extra_info_en.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<catalogue><messages>\n"
            "  <message id=\"1001\" template=\"Task ##0 started on ##1\"/>\n"
            "  <message id=\"1002\" template=\"Copied ##0 files to ##1 (##2)\"/>\n"
            "  <message id=\"1003\" template=\"Task ##0 failed: ##1\"/>\n"
            "  <message id=\"2001\" template=\"Disk ##0 is full\"/>\n"
            "  <message id=\"2002\" template=\"Path &quot;##0&quot; is not writable\"/>\n"
            "</messages></catalogue>\n");
  dir.write("task_extra_info_zh.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<catalogue><messages>\n"
            "  <message id=\"1001\" template=\"任务 ##0 已在 ##1 上启动\"/>\n"
            "  <message id=\"1002\" template=\"已复制 ##0 个文件到 ##1（##2）\"/>\n"
            "  <message id=\"1003\" template=\"任务 ##0 失败：##1\"/>\n"
            "  <message id=\"2001\" template=\"磁盘 ##0 已满\"/>\n"
            "  <message id=\"2002\" template=\"路径 &quot;##0&quot; 不可写\"/>\n"
            "</messages></catalogue>\n");
  dir.write("enum_en.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<catalogue><param_enum>\n"
            "  <enum_type name=\"task_status\"><enum_member value=\"2\">failed</enum_member>"
            "</enum_type>\n"
            "</param_enum></catalogue>\n");
  dir.write("enum_zh.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<catalogue><param_enum>\n"
            "  <enum_type name=\"task_status\"><enum_member value=\"2\">失败</enum_member>"
            "</enum_type>\n"
            "</param_enum></catalogue>\n");
}

#endif  // NOX_TESTS_SUPPORT_TASK_CATALOGUES_H_

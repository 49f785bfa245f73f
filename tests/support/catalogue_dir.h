// CatalogueDir: a throw-away installation layout for tests of operations that
// read the catalogues from "../conf/...".
//
//   CatalogueDir dir;                          // <tmp>/bin (the cwd) and <tmp>/conf
//   dir.write("task_extra_info_en.xml", "<c><messages>...</messages></c>");
//   NOXTaskOp op(0xE012);                      // loads ../conf/... from <tmp>/bin
//   // the previous working directory is restored and <tmp> removed at the end
//
// Header-only; not thread-safe (it changes the process's working directory).
#ifndef NOX_TESTS_SUPPORT_CATALOGUE_DIR_H_
#define NOX_TESTS_SUPPORT_CATALOGUE_DIR_H_

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

class CatalogueDir {
 public:
  CatalogueDir() {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) throw std::runtime_error("getcwd failed");
    previous_ = cwd;
    char pattern[] = "/tmp/nox_catalogue_XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    if (std::system(("mkdir -p '" + root_ + "/bin' '" + root_ + "/conf'").c_str()) != 0 ||
        chdir((root_ + "/bin").c_str()) != 0) {
      throw std::runtime_error("cannot lay out " + root_);
    }
  }
  ~CatalogueDir() {
    if (chdir(previous_.c_str()) != 0) std::perror("chdir");
    if (std::system(("rm -rf '" + root_ + "'").c_str()) != 0) std::perror("rm");
  }
  CatalogueDir(const CatalogueDir&) = delete;
  CatalogueDir& operator=(const CatalogueDir&) = delete;

  // Writes conf/<name> with `content` (replacing it).
  void write(const std::string& name, const std::string& content) const {
    std::ofstream out(root_ + "/conf/" + name, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write conf/" + name);
  }
  const std::string& root() const { return root_; }

 private:
  std::string previous_;
  std::string root_;
};

#endif  // NOX_TESTS_SUPPORT_CATALOGUE_DIR_H_

// Protected manifests for tests: a scratch directory below /tmp removed
// with its owner, signing JSON text into a protected (.ejs) file at run
// time with the build's secret key (QIV_EJS_BUILD_SECRET_KEY, whose public
// key every library of the build trusts), and spoiling such a file so that
// it no longer authenticates.
#ifndef TARN_TEST_MANIFESTS_H
#define TARN_TEST_MANIFESTS_H

#include <filesystem>
#include <string>
#include <system_error>

#include <qiv_ejs/qiv_ejs.h>

#include "files.h"

namespace tarn_test {

// A fresh directory /tmp/<prefix>_XXXXXX, removed with everything in it
// when the object goes.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string &prefix) : path_(make_temp_directory(prefix)) {}
  ~ScratchDirectory() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  ScratchDirectory(const ScratchDirectory &) = delete;
  ScratchDirectory &operator=(const ScratchDirectory &) = delete;

  const std::string &path() const { return path_; }
  // The path of name inside the directory.
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Signs json (taken as it stands, not checked) with the build's key into
// the protected file path.
inline bool seal_manifest(const std::string &path, const std::string &json) {
  return qiv_ejs_sign_file(path.c_str(), json.data(), json.size(), QIV_EJS_BUILD_SECRET_KEY) == 0;
}

// Changes the last byte of the file at path, so that a protected file fails
// its signature check when it is opened.
inline bool tamper_file(const std::string &path) {
  std::string content = read_file(path);
  if (content.empty() || content == "<missing>") return false;
  content.back() = (char)(content.back() ^ 0x5a);
  return write_file(path, content);
}

}  // namespace tarn_test

#endif

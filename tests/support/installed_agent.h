// installed_agent.h -- an agent laid out below the install root as the app
// home reduction finds it: an installed service that answers " -v" and an
// app home holding the manifests of the agent's components.
#ifndef TARN_TEST_INSTALLED_AGENT_H
#define TARN_TEST_INSTALLED_AGENT_H

#include <gtest/gtest.h>

#include <string>

#include "install_root.h"
#include "manifests.h"

namespace tarn_test {

constexpr char kServiceVersion[] = "3.1.4.159";

// Installs the service script, whose body answers with kServiceVersion
// unless service_body is given, and makes the app home name (operational,
// with its spare flag) holding the manifests that reduction looks for.
inline void install_agent(const std::string &name, const std::string &service_body = "") {
  const std::string body = service_body.empty() ? std::string("echo ") + kServiceVersion : service_body;
  ASSERT_TRUE(write_file(kServicePath, "#!/bin/sh\n" + body + "\n", 0755));
  make_apphome(name, true, true);
  const std::string dir = under_root(name) + "/config/component_info";
  ASSERT_TRUE(make_dirs(dir));
  for (const char *component : {"tarn_base", "tarn_sys", "tarn_service"}) {
    ASSERT_TRUE(seal_manifest(dir + "/" + component + ".ejs",
                              std::string("{\"package\": \"") + component + "\", \"version\": \"" +
                                  kServiceVersion + "\", \"files\": []}"));
  }
}

}  // namespace tarn_test

#endif

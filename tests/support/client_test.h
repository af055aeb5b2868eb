#pragma once

// The ground of the clients' tests: the process's configuration, without TLS and authentication.

#include "common/config/configuration.h"
#include "support/captured_log.h"
#include "support/scripted_service.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vyn::test {

/// Returns: the process's configuration, loaded from a file at the first use.
inline common::Ref<common::Configuration> PlainConfiguration() {
  static const TempDir folder;
  return common::Configuration::GetInstance(folder.Write(
      "vyn.conf", "vyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"));
}

}  // namespace vyn::test

#pragma once

// The ground of the clients' tests: the process's configuration, without TLS and authentication, and the
// table of operations that each client is tested by.

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

/// One operation of a typed client.
struct OperationRow {
  std::string name;
  unsigned int opcode;
  std::function<std::uint32_t()> call;
  /// Reads the received request and checks its fields.
  std::function<void(const std::string& body)> sent;
  /// The body of the service's answer, and the check of what the caller got from it; may be empty.
  std::string reply = {};
  std::function<void()> taken = {};
  /// What the caller gets and the log says when the call fails; "{code}" stands for the service's code.
  std::uint32_t failure = 0;
  std::string words = {};
  /// Arguments that are refused: the status and the words; nothing is sent.
  struct Refusal {
    std::function<std::uint32_t()> call;
    std::uint32_t status;
    std::string words;
  };
  std::vector<Refusal> refusals = {};
  /// Milliseconds that the call may take.
  long timeout = 0;
};

inline std::ostream& operator<<(std::ostream& out, const OperationRow& row) { return out << row.name; }

/// Runs one row against the service that the client is connected to.
inline void CheckOperation(const OperationRow& row, ScriptedService& service) {
  SCOPED_TRACE(row.name);
  CapturedLog log;

  for (const auto& refusal : row.refusals) {
    service.Clear();
    EXPECT_EQ(refusal.call(), refusal.status) << refusal.words;
    EXPECT_TRUE(log.Has(4, refusal.words)) << refusal.words;
    EXPECT_TRUE(service.Requests().empty()) << refusal.words;
  }

  service.Clear();
  service.Answer(row.opcode, {0, row.reply});
  EXPECT_EQ(row.call(), 0U);
  ASSERT_EQ(service.Requests().size(), 1U);
  EXPECT_EQ(service.Requests()[0].opcode, row.opcode);
  row.sent(service.Requests()[0].body);
  if (row.taken) {
    row.taken();
  }

  // Another code than those that have a meaning of their own.
  service.Clear();
  log.Clear();
  service.Answer(row.opcode, {2060011, ""});
  EXPECT_EQ(row.call(), row.failure);
  EXPECT_EQ(service.Requests().size(), 1U);
  if (!row.words.empty()) {
    std::string words = row.words;
    if (const auto place = words.find("{code}"); place != std::string::npos) {
      words.replace(place, 6, "2060011");
    }
    EXPECT_TRUE(log.Has(4, words)) << words << testing::PrintToString(log.Texts(4));
  }

  // The transport's own line tells the time that the call was given.
  log.Clear();
  service.Answer(row.opcode, {0, "", ScriptedService::Reply::kNoAnswer});
  EXPECT_EQ(row.call(), row.failure);
  EXPECT_THAT(log.Texts(4),
              testing::Contains(testing::AllOf(
                  testing::StartsWith("rpc error. opcode: " + std::to_string(row.opcode) + ", "),
                  testing::EndsWith(" timeout " + std::to_string(row.timeout) + "ms."))));
}

}  // namespace vyn::test

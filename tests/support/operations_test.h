#pragma once

// The ground on which the operations of the three clients are tested. One source file a program includes it: it
// replaces an operator new.

#include "support/all_messages.h"
#include "support/client_test.h"
#include "support/seed.h"
#include "support/test.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tuning/rpc/tuning_rpc_engine.h"

/// The allocation of this thread that fails, counted from 1 among those that may fail.
inline thread_local int gFailingAllocation = 0;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return gFailingAllocation != 0 && --gFailingAllocation == 0 ? nullptr : ::operator new(size);
}

namespace vyn::test {

using common::BaseMessage;
using common::Ref;
using tessel::ShuffleBlob;

using Call = std::function<std::uint32_t()>;
#define CALL(...) [&] { return __VA_ARGS__; }
#define INTO(...) [&](auto& got) { return __VA_ARGS__; }  // got: the caller's object for the answer

/// A message with these values, in the order in which the class names its members.
template <typename Class, typename... Values>
Ref<Class> Make(Values... values) {
  Ref<Class> message(new Class);
  message->Fields() = std::make_tuple(values...);
  return message;
}

inline Ref<ShuffleBlob> Blob(unsigned int bag, unsigned long inner) {
  Ref<ShuffleBlob> blob(new ShuffleBlob);
  blob->mId = new tessel::ShuffleBlobId(bag, inner);
  return blob;
}

/// No object, where a caller may hand in its own.
template <typename Class>
Ref<Class>& Null() {
  static Ref<Class> none;
  return none;
}

/// The answer of the service.
struct Answer {
  std::string bytes = {};
  std::function<bool()> taken = [] { return true; };  ///< whether the caller got what the bytes say
};

/// How the operations of a client fail, or one that differs from the others in it.
struct Failure {
  std::uint32_t status = 0;  ///< what the caller gets
  long timeout = 0;          ///< milliseconds
  std::uint32_t passed = 0;  ///< the service's own answer that the caller gets as it is
  bool isTold = true;        ///< by an ERROR line of the operation's own
};

class OperationsTest : public testing::Test {
 protected:
  OperationsTest() {
    const auto conf = PlainConfiguration();
    for (const char* key : {"vyn.tessel.rpc.shuffle_server.port", "vyn.tessel.rpc.shuffle_meta.port",
                            "vyn.tuning.rpc.server.port"}) {
      conf->Set(key, int{mService.Port()});
    }
    conf->Set("vyn.tessel.rpc.local_blob.get.timeout", 7001L);
    conf->Set("vyn.tessel.rpc.local_blob.commit.timeout", 7002L);
    conf->Set("vyn.tessel.broadcast.variable.create.timeout", 7003L);
    conf->Set("vyn.tessel.broadcast.variable.fetch.timeout", 7004L);
    tessel::SetLeader("127.0.0.1");
  }

  /// What follows is about a client with these names of its codes and this failure.
  template <typename Code>
  void Client(const std::map<Code, std::string>& names, std::uint32_t refusal, const Failure& failure) {
    mNames = {names.begin(), names.end()};
    mRefusal = refusal;
    mFailure = failure;
  }

  /// The operation `opcode`, whose code has the name `name`, sends `request`.
  void Check(unsigned int opcode, const std::string& name, const Call& call, const Ref<BaseMessage>& request,
             const Answer& answer = {}, Failure failure = {}) {
    SCOPED_TRACE(std::to_string(opcode) + " " + name + ", VYN_SEED=" + std::to_string(mSeed));
    EXPECT_EQ(mNames[opcode], name);
    CapturedLog log;
    const auto run = [&](const ScriptedService::Reply& reply) {
      log.Clear();
      mService.Clear();
      mService.Answer(opcode, reply);
      return call();
    };

    EXPECT_EQ(run({0, answer.bytes}), 0U);
    ASSERT_EQ(mService.Requests().size(), 1U);
    EXPECT_EQ(mService.Requests()[0].opcode, opcode);
    EXPECT_EQ(mService.Requests()[0].body, BytesOf(*request));
    EXPECT_TRUE(answer.taken());
    EXPECT_TRUE(log.Texts(4).empty());

    for (int allocation = 1;; ++allocation) {
      gFailingAllocation = allocation;
      const std::uint32_t status = run({0, answer.bytes});
      if (std::exchange(gFailingAllocation, 0) != 0) {
        break;  // there is no such allocation
      }
      EXPECT_TRUE(Failed(status)) << "without memory for allocation " << allocation;
    }

    failure.status = failure.status != 0 ? failure.status : mFailure.status;
    failure.timeout = failure.timeout != 0 ? failure.timeout : mFailure.timeout;
    for (const std::uint32_t code : {1U, 2060203U, 2060011U}) {
      const bool passed = code == failure.passed;
      EXPECT_EQ(run({code, ""}), passed ? code : failure.status);
      EXPECT_EQ(mService.Requests().size(), 1U);
      EXPECT_EQ(log.Texts(4).size(), passed || !failure.isTold ? 2U : 3U) << "two are the transport's";
    }
    EXPECT_EQ(run({0, "", ScriptedService::Reply::kNoAnswer}), failure.status);
    EXPECT_THAT(log.Texts(4),
                testing::Contains(testing::EndsWith(" " + std::to_string(failure.timeout) + "ms.")));
  }
  /// As Check; the answer is a random `Reply`, which the caller's object must hold afterwards.
  template <typename Reply, typename CallInto>
  void CheckInto(unsigned int opcode, const std::string& name, const CallInto& call,
                 const Ref<BaseMessage>& request, const Failure& failure = {}) {
    Reply reply;
    Fill(reply, mRandom);
    const std::string bytes = Bytes(reply);
    Ref<Reply> got(new Reply);
    Check(opcode, name, CALL(call(got)), request, {bytes, CALL(Bytes(*got) == bytes)}, failure);
  }

  /// Calls whose arguments are refused.
  template <typename... Calls>
  void Refuse(const Calls&... calls) {
    for (const Call& call : {Call(calls)...}) {
      const CapturedLog log;
      mService.Clear();
      EXPECT_EQ(call(), mRefusal);
      EXPECT_TRUE(mService.Requests().empty());
      EXPECT_FALSE(log.Texts(4).empty());
    }
  }

  std::map<unsigned int, std::string> mNames;
  std::uint32_t mRefusal = 0;
  Failure mFailure;
  const unsigned long mSeed = Seeds(1)[0];
  test::Random mRandom{mSeed};
  ScriptedService mService;
  Ref<tessel::ShuffleServerRPCEngine> mServer = tessel::ShuffleServerRPCEngine::CreateInstance();
  Ref<tessel::ShuffleMetaRPCEngine> mMeta = tessel::ShuffleMetaRPCEngine::CreateInstance(8001, true, nullptr);
  Ref<tuning::TuningRpcEngine> mTuning = tuning::TuningRpcEngine::CreateInstance(9001, false, 3);
};

}  // namespace vyn::test

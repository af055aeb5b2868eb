#include "support/rpc_load.h"

#include <gtest/gtest.h>

TEST(RpcLoad, RandomDisconnectsForAMinute) { vyn::test::RunRpcLoad(std::chrono::seconds(60), false); }

TEST(RpcLoad, RandomDisconnectsUnderTlsForAMinute) { vyn::test::RunRpcLoad(std::chrono::seconds(60), true); }

#include "support/rpc_load.h"

#include <gtest/gtest.h>

TEST(RpcLoad, RandomDisconnects) { vyn::test::RunRpcLoad(std::chrono::seconds(2), false); }

TEST(RpcLoad, RandomDisconnectsUnderTls) { vyn::test::RunRpcLoad(std::chrono::seconds(2), true); }

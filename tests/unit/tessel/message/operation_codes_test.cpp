// The numbers of the operations are the wire: each name at its number, none missing.

#include "tessel/message/operation_codes.h"

#include "tuning/message/tuning_operation_codes.h"

#include <gtest/gtest.h>

namespace vyn::test {
namespace {

/// The names in the order of their numbers, which count from 0.
template <typename Operation>
std::string InOrder(const std::map<Operation, std::string>& names) {
  std::string list;
  for (std::size_t code = 0; code < names.size(); ++code) {
    list += (code == 0 ? "" : " ") + names.at(static_cast<Operation>(code));
  }
  return list;
}

TEST(OperationCodes, StandInOrder) {
  EXPECT_EQ(InOrder(gShuffleServerNames),
            "APP_REGISTER APP_UNREGISTER BLOB_CREATE BLOB_BATCH_DELETE LOCAL_BLOB_GET LOCAL_BLOB_COMMIT "
            "META_LEADER_INFO BROADCAST_BLOCK_BATCH_CREATE BROADCAST_BLOCK_BATCH_FETCH");
  EXPECT_EQ(InOrder(gShuffleMetaNames),
            "APP_REMOVE BAG_GETID BAG_BATCH_DISTRIBUTE BAG_BATCH_GETID BAG_BATCH_NEW BAG_BATCH_REMOVE "
            "BLOB_LIST_MARK_READING BLOB_BATCH_REMOVE BLOB_BATCH_UPDATE STAGE_DAG_SET STAGE_SHUFFLEID_SET "
            "MAP_TASK_STATUS_UPDATE BAG_BATCH_LIST_GET BLOB_BATCH_MARK_AND_FETCH MARK_WORKER_REMOVED "
            "FIND_WORKER EXECUTORS_GET CHECK_VALID_APP MARK_STAGE_HAS_FAILED_TASK "
            "MARK_STAGE_ALL_TASKS_DONE GET_UNAVAILABLE_NODE_LIST HEART_BEAT BROADCAST_VAR_NEW "
            "BROADCAST_VAR_REMOVE BROADCAST_VAR_GET BROADCAST_VAR_INFO_ADD BROADCAST_BLOCK_INFO_ADD "
            "BROADCAST_BLOCK_INFO_GET BROADCAST_REMOTE_NODE_GET IS_MF_NODE GET_MF_CAPACITY_LIST");
  EXPECT_EQ(InOrder(gFetchOpsNames),
            "GET_BLOCK_META INDEX_SHUFFLE BM_COPY SET_STATUS GET_STATUS GET_CONTEXT REPLY BLOCK_TOTAL");
  EXPECT_EQ(InOrder(tuning::gTuningServerNames),
            "SQL_HISTORY_REGISTER SQL_HISTORY_UNREGISTER TUNING_HEART_BEAT REPORT_TUNING_METRICS "
            "INFER_BY_HISTORY");
  EXPECT_EQ(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, 8);
  EXPECT_EQ(ShuffleMeta::STAGE_DAG_SET, 9);
  EXPECT_EQ(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, 28);
  EXPECT_EQ(ShuffleMeta::BLOB_LIST_CAS, 31);
  EXPECT_EQ(gShuffleMetaNames.count(ShuffleMeta::BLOB_LIST_CAS), 0U);
}

}  // namespace
}  // namespace vyn::test

#pragma once

// The operation codes of the node server, the metadata service and the block fetch service, and their names
// for logs. A call carries the code outside the message. The port that the client has connected to decides
// which table applies.

#include "common/message/operation_table.h"

/// Operations of the node server.
#define VYN_SHUFFLE_SERVER_OPERATIONS(OPERATION) \
  OPERATION(APP_REGISTER, 0)                     \
  OPERATION(APP_UNREGISTER, 1)                   \
  OPERATION(BLOB_CREATE, 2)                      \
  OPERATION(BLOB_BATCH_DELETE, 3)                \
  OPERATION(LOCAL_BLOB_GET, 4)                   \
  OPERATION(LOCAL_BLOB_COMMIT, 5)                \
  OPERATION(META_LEADER_INFO, 6)                 \
  OPERATION(BROADCAST_BLOCK_BATCH_CREATE, 7)     \
  OPERATION(BROADCAST_BLOCK_BATCH_FETCH, 8)
VYN_OPERATION_TABLE(ShuffleServer, gShuffleServerNames, VYN_SHUFFLE_SERVER_OPERATIONS)

/// Operations of the metadata service.
#define VYN_SHUFFLE_META_OPERATIONS(OPERATION) \
  OPERATION(APP_REMOVE, 0)                     \
  OPERATION(BAG_GETID, 1)                      \
  OPERATION(BAG_BATCH_DISTRIBUTE, 2)           \
  OPERATION(BAG_BATCH_GETID, 3)                \
  OPERATION(BAG_BATCH_NEW, 4)                  \
  OPERATION(BAG_BATCH_REMOVE, 5)               \
  OPERATION(BLOB_LIST_MARK_READING, 6)         \
  OPERATION(BLOB_BATCH_REMOVE, 7)              \
  OPERATION(BLOB_BATCH_UPDATE, 8)              \
  OPERATION(STAGE_DAG_SET, 9)                  \
  OPERATION(STAGE_SHUFFLEID_SET, 10)           \
  OPERATION(MAP_TASK_STATUS_UPDATE, 11)        \
  OPERATION(BAG_BATCH_LIST_GET, 12)            \
  OPERATION(BLOB_BATCH_MARK_AND_FETCH, 13)     \
  OPERATION(MARK_WORKER_REMOVED, 14)           \
  OPERATION(FIND_WORKER, 15)                   \
  OPERATION(EXECUTORS_GET, 16)                 \
  OPERATION(CHECK_VALID_APP, 17)               \
  OPERATION(MARK_STAGE_HAS_FAILED_TASK, 18)    \
  OPERATION(MARK_STAGE_ALL_TASKS_DONE, 19)     \
  OPERATION(GET_UNAVAILABLE_NODE_LIST, 20)     \
  OPERATION(HEART_BEAT, 21)                    \
  OPERATION(BROADCAST_VAR_NEW, 22)             \
  OPERATION(BROADCAST_VAR_REMOVE, 23)          \
  OPERATION(BROADCAST_VAR_GET, 24)             \
  OPERATION(BROADCAST_VAR_INFO_ADD, 25)        \
  OPERATION(BROADCAST_BLOCK_INFO_ADD, 26)      \
  OPERATION(BROADCAST_BLOCK_INFO_GET, 27)      \
  OPERATION(BROADCAST_REMOTE_NODE_GET, 28)     \
  OPERATION(IS_MF_NODE, 29)                    \
  OPERATION(GET_MF_CAPACITY_LIST, 30)
VYN_OPERATION_TABLE(ShuffleMeta, gShuffleMetaNames, VYN_SHUFFLE_META_OPERATIONS, BLOB_LIST_CAS = 31,
                    BROADCAST_VAR_CLAIM = 32, BROADCAST_VAR_GIVE_UP = 33)

/// Operations of the block fetch service, which is not part of this system.
#define VYN_FETCH_OPERATIONS(OPERATION) \
  OPERATION(GET_BLOCK_META, 0)          \
  OPERATION(INDEX_SHUFFLE, 1)           \
  OPERATION(BM_COPY, 2)                 \
  OPERATION(SET_STATUS, 3)              \
  OPERATION(GET_STATUS, 4)              \
  OPERATION(GET_CONTEXT, 5)             \
  OPERATION(REPLY, 6)                   \
  OPERATION(BLOCK_TOTAL, 7)
VYN_OPERATION_TABLE(FetchOps, gFetchOpsNames, VYN_FETCH_OPERATIONS)

#pragma once

// The handle of libbmclient.so, which is opened at run time, and pointers to its functions.
//
// Threads: only the thread that initialises the library writes the pointers. Only the Bm... functions read
// them, after IsBmUp() has returned true (binding.h). Closing the library does not reset them.

#include "platform/fabric/client/bm_functions.h"

#include <string>

namespace vyn::common {

class BigMemoryClientApi {
 public:
  /// Null while the library is not open.
  static void* handle;

  static decltype(&BM_Init) apiBmInit;
  static decltype(&BM_CreateLink) apiBmCreateLink;
  static decltype(&BM_CreateNSSec) apiBmCreateNs;
  static decltype(&BM_DestroyNSSec) apiBmDestroyNs;
  static decltype(&BM_AllocSec) apiBmAlloc;
  static decltype(&BM_ExpandSec) apiBmExpand;
  static decltype(&BM_FreeSec) apiBmFree;
  static decltype(&BM_BatchFreeSec) apiBmBatchFree;
  static decltype(&BM_MapSec) apiBmMap;
  static decltype(&BM_Unmap) apiBmUnmap;
  static decltype(&BM_QueryResAttri) apiBmQueryResAttri;
  static decltype(&BM_CopySec) apiBmCopy;
  static decltype(&BM_ReadSec) apiBmRead;
  static decltype(&BM_WriteSec) apiBmWrite;
  static decltype(&BM_SpecificObjSwapInSec) apiBmSpecificObjectSwapIn;
  static decltype(&BM_GatherSec) apiBmGather;
  // Null when the library that was opened does not have them.
  static decltype(&BM_MappedLength) apiBmMappedLength;
  static decltype(&BM_MapAtSec) apiBmMapAt;
  static decltype(&BM_QueryNode) apiBmQueryNode;
  static decltype(&BM_AllocBatchSec) apiBmAllocBatch;
  static decltype(&BM_KeepBatchSec) apiBmKeepBatch;
  static decltype(&BM_EndBatch) apiBmEndBatch;

  /// Returns: the real path of libbmclient.so in the installation that the environment names; empty after a
  /// failure.
  static std::string GetBmClientPath();

  /// Returns: the address of a symbol of the open library; null, with the reason in `error`, when it has none
  /// of that name.
  static void* LoadFunction(const char* name, std::string& error);

  /// Opens the library and sets all pointers. Returns: whether it found all required functions. After a
  /// failure `error` has the reason, or is empty when the library's file was not found; call Close then.
  static bool Open(std::string& error);

  /// Closes the library if it is open.
  static void Close();
};

}  // namespace vyn::common

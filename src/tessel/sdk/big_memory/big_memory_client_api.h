#pragma once

// The run-time binding of libbmclient.so: its handle and the table of its functions.
//
// The table is written only by the thread that brings the library up and is published by IsBmUp() turning
// true (binding.h); nothing but the Bm... wrappers reads it, and only while the library is up. Closing the
// library leaves the pointers as they are.

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

  /// Returns: the real path of the library in the installation that the environment names, or the empty text.
  static std::string GetBmClientPath();

  /// Returns: the address of a symbol of the open library, or null with `error` filled.
  static void* LoadFunction(const char* name, std::string& error);

  /// Opens the library and fills the table. Returns: whether all of it is there. Otherwise `error` tells what
  /// failed, or is empty when there is no library, and the handle is left as it was then.
  static bool Open(std::string& error);

  /// Closes the library if it is open.
  static void Close();
};

}  // namespace vyn::common

#pragma once

// The level of the process logger that platform/ulog/ulog.h has made. Any thread may call it, also while
// others log.

extern "C" {

/// Changes the level of the process logger, 0 to 5. \return 0, or the result of a failure as in ULOG_Init.
int ULOG_SetLevel(int level);

}  // extern "C"

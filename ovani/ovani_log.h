// The daemon's log: every message carries the function it comes from and its source line, and is filed under
// the module name "lanmgr". Faults go out at VELM_LOG_ERR, traces at VELM_LOG_DEBUG.
//
// Message texts are a contract with the people who read and search gateway logs: they stay as they are,
// misspellings included, also where a text names another function than the one that logs it.
//
// Two marks can be searched for in the sources: KEPT beside a surprise that others rely on, UNUSED beside
// what nothing in this daemon calls and its interface has all the same.
#pragma once

#include "platform/zk_log.h"

inline constexpr char OVANI_LOG_MODULE[] = "lanmgr";

// Names of the log files; the log manager decides whether it opens them.
inline constexpr char OVANI_LOG_FILE_PATH[] = "/var/ovanilog.txt";
inline constexpr char OVANI_BAK_LOG_FILE_PATH[] = "/var/ovanilogbak.txt";

#define ovani_log(level, fmt, ...) ovani_log_as(__func__, level, fmt __VA_OPT__(, ) __VA_ARGS__)

// The same under another function's name. A step that logs for its caller takes that name as its last
// argument, `const char *function = __builtin_FUNCTION()`, so that the compiler fills it in.
#define ovani_log_as(function, level, fmt, ...)                                                              \
    zk_mod_log_printf(OVANI_LOG_MODULE, (level), "[%s][%d]" fmt, (function),                                 \
                      __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Hook for log configuration; there is none. Returns 0.
int ovani_log_init(int argc, char **argv);

/*
 * Log manager.
 */
#ifndef PLATFORM_ZK_LOG_H
#define PLATFORM_ZK_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    VELM_LOG_EMERG = 0,
    VELM_LOG_ALERT = 1,
    VELM_LOG_CRIT = 2,
    VELM_LOG_ERR = 3,
    VELM_LOG_WARNING = 4,
    VELM_LOG_NOTICE = 5,
    VELM_LOG_INFO = 6,
    VELM_LOG_DEBUG = 7,
    VELM_LOG_MAX = 8,
} VELM_LOG_LEVEL;

enum {
    ZKLOG_LEVEL_FATAL = VELM_LOG_EMERG,
    ZKLOG_LEVEL_ERROR = VELM_LOG_ERR,
    ZKLOG_LEVEL_WARN = VELM_LOG_WARNING,
    ZKLOG_LEVEL_INFO = VELM_LOG_INFO,
    ZKLOG_LEVEL_DEBUG = VELM_LOG_DEBUG,
};

enum { ZKLOG_MODE_SCREEN = 0, ZKLOG_MODE_FILE = 1, ZKLOG_MODE_BOTH = 2 };

/* Files a message under `module` at `level`; printf's formats. May be called from any thread. */
void zk_mod_log_printf(const char *module, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif

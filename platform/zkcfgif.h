/*
 * Configuration store: the gateway's TR-098 tree under "InternetGatewayDevice.".
 *
 * Paths are dotted; a path that names an object or a table ends in ".", one that names a parameter does not.
 * Values are text, zero-terminated. Buffers given for reading hold at least 256 bytes: the store keeps no
 * value longer than 255 in a parameter that the daemon reads. A failed read leaves the buffer as it was.
 *
 * Every call returns 0 on success and a non-zero code on failure, unless it says otherwise, and may be made
 * from two threads.
 *
 * The last argument of most calls says how long to wait for the store's lock: a number of milliseconds, or
 * one of the constants below.
 */
#ifndef PLATFORM_ZKCFGIF_H
#define PLATFORM_ZKCFGIF_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    NO_NEED_LOCK = -2,   /* the caller needs no lock */
    ALL_BLOCK_LOCK = -1, /* wait without limit */
    NO_BLOCK_LOCK = 0,   /* do not wait */
};

/* What a batch session does with the parameters queued in it. Codes 10 to 19 (attributes, export) belong to
 * other daemons. NO_OP: without the device function bound to the parameter; NOFLASH: not saved to flash;
 * NOINFORM: without a change notification. */
typedef enum {
    OBJ_ADD = 0,
    OBJ_DEL = 1,
    OBJ_GET = 2,
    OBJ_SET = 3,
    OBJ_GET_NO_OP = 4,
    OBJ_SET_NO_OP = 5,
    OBJ_SET_NOFLASH = 6,
    OBJ_SET_NOOP_NOFLASH = 7,
    OBJ_SET_NOINFORM = 8,
    OBJ_SET_NOOP_NOINFORM = 9,
} OBJ_OP;

/* The same choice for single values and objects: whether the store runs the parameter's device function
 * (CALL), saves the change to flash, and tells others of it. */
typedef enum {
    DEVFUNC_CALL = 0,
    DEVFUNC_NOCALL = 1,
    DEVFUNC_NOFLASH = 2,
    DEVFUNC_NOCALL_NOFLASH = 3,
    DEVFUNC_CALL_NOINFORM = 4,
    DEVFUNC_NOCALL_NOINFORM = 5,
} OP_DEVFUNC;

/* The instance numbers of a path, outermost first: "...LANDevice.1.Hosts.Host.7." gives depth 2, {1, 7}. */
typedef struct {
    int currentDepth;
    int instance[8];
} InstIdStack;

/* Batch sessions: create, prepare any number of parameters, process them all in one transaction, destroy.
 * `fullpath` is a parameter's path. `data` is a text buffer that must outlive the processing, which reads it
 * (set) or fills it (get). */
int zkapi_multinode_sessioncreate(void **session, OBJ_OP op, int wait);
int zkapi_multinode_sessionprepare(void *session, const char *fullpath, void *data);
int zkapi_multinode_sessionprocess(void *session);
int zkapi_multinode_sessiondestroy(void *session);

/* One parameter by its full path. */
int zkapi_singlevalue_get(const char *path, char *value, OP_DEVFUNC mode, int wait);
int zkapi_singlevalue_set(const char *path, const char *value, OP_DEVFUNC mode, int wait);

/* Creates an instance in the table `objpath` and stores its number in `*instance`. */
int zkapi_obj_add(const char *objpath, int *instance, OP_DEVFUNC mode, int wait);

/* Deletes instance `instance` of the table `objpath` with all below it. */
int zkapi_obj_del(const char *objpath, int instance, OP_DEVFUNC mode, int wait);

/* Returns 1 when the instance `objpath` (its path ending in the number and ".") exists, 0 when not, a
 * negative code when the store cannot tell. */
int zkapi_obj_checkexist(const char *objpath, int wait);

/* Fills `ids` with the instance numbers in `path`, at most 8 of them. */
void zkapi_getobjidbyobjpath(const char *path, InstIdStack *ids);

/* One parameter by its object's path and its name. */
int zkcfg_getsingleparamval(const char *objpath, const char *param, char *value, int wait);
int zkcfg_setsingleparamval(const char *objpath, const char *param, const char *value, int wait);

#ifdef __cplusplus
}
#endif

#endif

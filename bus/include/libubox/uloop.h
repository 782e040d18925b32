/*
 * The event loop: descriptors and timers, for one thread. Other threads may exist but keep away from it.
 *
 * The records are the caller's; they must stay where they are while they are registered. A callback may add,
 * delete and free any record, its own included.
 */
#pragma once

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3) /* leave the descriptor as it is; without this it becomes non-blocking */

/*
 * A descriptor that is waited for. `eof`: the peer writes no more; `error`: the descriptor failed or was hung
 * up. After the callback that is told of an error, the descriptor is no longer waited for.
 */
struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;
    bool error;
    bool registered;
    uint8_t flags;
};

/* A timer that runs once. `time` is its moment on the monotonic clock. */
struct uloop_timeout {
    struct list_head list;
    bool pending;

    uloop_timeout_handler cb;
    struct timeval time;
};

/* Set to end the loop after the current callback; SIGINT and SIGTERM do. */
extern bool uloop_cancelled;

/* Whether uloop_init may take SIGCHLD. libubox's loop then reaps every child of the process; this one never
 * takes it. */
extern bool uloop_handle_sigchld;

/*
 * Prepares the loop: until uloop_done, SIGINT and SIGTERM end it and SIGPIPE is ignored, each only if it had
 * its default disposition. May be called again without harm. 0, or -1.
 */
int uloop_init(void);

/* Runs until the loop is ended; gives the number of the signal that ended it, or 0. The second form ends
 * after one round that waits at most `timeout` milliseconds (below 0: as the first). */
int uloop_run_timeout(int timeout);
static inline int uloop_run(void)
{
    return uloop_run_timeout(-1);
}

static inline void uloop_end(void)
{
    uloop_cancelled = true;
}

/* Whether a running loop is about to end. */
bool uloop_cancelling(void);

/* Gives back the signals, forgets timers and closes what uloop_init opened. */
void uloop_done(void);

/* Waits for the events in `flags` from now on instead of any others (neither READ nor WRITE: as delete). 0,
 * or -1 with errno. Deleting what is not registered does nothing. */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *sock);

/* Sets the timer to `msecs` from now, whether or not it is running; add uses its `time`, and is -1 while it
 * runs. */
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
int uloop_timeout_add(struct uloop_timeout *timeout);

/* -1 when it is not running. */
int uloop_timeout_cancel(struct uloop_timeout *timeout);

/* Milliseconds left (below 0 when it is late); -1 when it is not running. */
int uloop_timeout_remaining(struct uloop_timeout *timeout);
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

/* Milliseconds to the next timer, 0 when it is due, -1 without one. */
int uloop_get_next_timeout(void);

#ifdef __cplusplus
}
#endif

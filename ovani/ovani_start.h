// Start-up, in its fixed order: the tables and facts are in place before the first event can arrive.
#pragma once

// Starts a thread with a body, as pthread_create does; returns 0 or an error number.
using StartThread = int (*)(void *(*body)(void *));

// Everything before the bus. Every module is at its beginning afterwards, whatever was before: this is also
// how tests get a fresh daemon.
void ovani_start(int argc, char **argv, StartThread start_thread);

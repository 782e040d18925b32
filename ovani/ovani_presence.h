// Who is on line, as the bus has been told. Kept here and not taken from the host nodes or the store: a node
// is active from its creation, and a stored "Active" outlives a crash. Main thread only.
#pragma once

struct host_node;

// Called after a host's object was written, and after it was retired. Sends one "lanhost_event" when that
// changes what was last announced of the host, and keeps the node's Active true to it.
void ovani_presence_online(host_node &host);
void ovani_presence_offline(host_node &host);

// Forgets everybody, as at the start.
void ovani_presence_init();

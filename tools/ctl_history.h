// The journal's history, for several of ovanictl's commands.
#pragma once

#include "tools/history.h"

// Reads a directory's journal, up to now if it is still kept. Ends the command when there is none.
void load_history(const std::string &directory, History &history);

struct HostStays {
    std::string label; // the host's name, or else MAC; any bytes
    std::vector<const Stay *> stays;
};
// A host each, in the order in which they came. It points into `stays`.
std::vector<HostStays> stays_by_host(const std::vector<Stay> &stays);

// "90", "30s", "15m", "2h" or "3d", in microseconds; ends the command for anything else.
int64_t duration_argument(const std::string &text);

// "12:30:01", after the date where that is not today's.
std::string time_text(int64_t wall, int64_t now);

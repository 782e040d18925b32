// The journal's history, for several of ovanictl's commands.
#pragma once

#include "tools/history.h"

// Reads a directory's journal, up to now if it is still kept. Ends the command when there is none.
void load_history(const std::string &directory, History &history);

std::string label_of(const Stay &stay); // its host's name, or else MAC; any bytes

// "12:30:01", after the date where that is not today's.
std::string time_text(int64_t wall, int64_t now);

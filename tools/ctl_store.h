// Parameters of the store written as the gateway's front ends do.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/ovanictl.h"

using Pairs = std::vector<std::pair<std::string, std::string>>;

// "NAME=VALUE".
std::pair<std::string, std::string> pair_of(const std::string &text);

// Writes an object's parameters, if all of them can have their values, and calls the method of the daemon by
// which such objects are told. Ends the command when that fails: with NO_ANSWER when nobody is there to be
// told.
void set_parameters(const std::string &object, const Pairs &pairs, const CtlOptions &options);

// Other programs, and the file this one is.
#pragma once

#include <optional>
#include <string>
#include <vector>

// The arguments of a command as exec wants them; they are the command's own.
std::vector<char *> exec_arguments(const std::vector<std::string> &command);

// What a command prints, up to 16 MiB. Nothing when it cannot be run or fails, or takes longer than 10
// seconds.
std::optional<std::string> output_of(const std::vector<std::string> &command);

// This program and the directory that it is in.
std::string own_path();
std::string own_directory();

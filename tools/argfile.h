// argfile.h: arguments read from files (@FILE), one per line.
#pragma once

#include <string>
#include <vector>

namespace lumora_fuse {

// Replaces every argument "@FILE" by the lines of FILE, one argument a line,
// taken whole (spaces included, a carriage return at the end dropped); blank
// lines are ignored and the arguments read are not expanded again. False with
// a one-line message when a file cannot be read.
bool expandArgumentFiles(std::vector<std::string> &args, std::string &error);

}  // namespace lumora_fuse

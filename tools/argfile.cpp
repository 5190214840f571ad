// argfile.cpp: @FILE arguments.
#include "argfile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace lumora_fuse {

bool expandArgumentFiles(std::vector<std::string> &args, std::string &error) {
    std::vector<std::string> out;
    for (const std::string &arg : args) {
        if (arg.size() < 2 || arg[0] != '@') {
            out.push_back(arg);
            continue;
        }
        const std::string path = arg.substr(1);
        std::ifstream in(path);
        if (!in) {
            error = path + ": cannot read the arguments: " + strerror(errno);
            return false;
        }
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (line.find_first_not_of(" \t") != std::string::npos)
                out.push_back(line);
        }
        if (in.bad()) {
            error = path + ": cannot read the arguments: " + strerror(errno);
            return false;
        }
    }
    args = std::move(out);
    return true;
}

}  // namespace lumora_fuse

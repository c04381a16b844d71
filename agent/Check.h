// What `ihproxyd --check` says of a configuration file, and of the machine that is to serve it.
#pragma once

#include <string>

namespace Agent {

struct Check {
    std::string file;
    /// As JSON, for programs.
    bool json = false;
    /// Also whether this machine, and this process, have what the file needs.
    bool live = false;
};

/// What is to be printed, and whether all is good.
struct CheckReport {
    std::string text;
    bool good = false;
};

CheckReport checkReport(Check const& check);

} // namespace Agent

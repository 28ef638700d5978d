// Starting a helper program that must outlive the node: the front-end is started this way
// when the node finds it not running, and it keeps every connection open across node
// restarts, so it must not be the node's child in any sense that ties their lives together.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace qx {

// Starts program with args (argv[0] is the program path) detached from this process: a new
// session, no controlling terminal, standard input from /dev/null, standard output and error
// appended to log_file (or /dev/null when it is empty), and none of this process's other
// open files.  True once the program has been executed; false with a reason in *error when
// it could not be started (the exec failure of the program itself is reported too).
bool LaunchDetached(const std::filesystem::path& program, const std::vector<std::string>& args,
                    std::string* error, const std::filesystem::path& log_file = {});

}  // namespace qx

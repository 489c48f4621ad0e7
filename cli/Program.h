// The hostroute program and its list of commands.
#pragma once

#include <string>

namespace Cli {

/// Runs the program with the arguments of main(). \returns its exit status.
int runProgram(int argc, char** argv, const std::string& version);

}  // namespace Cli

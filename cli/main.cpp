#include "cli/Program.h"

int main(int argc, char** argv) {
  return Cli::runProgram(argc, argv, HOSTROUTE_VERSION);
}

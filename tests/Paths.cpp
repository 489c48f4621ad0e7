#include "tests/Paths.h"

std::string sourcePath(const std::string& file) {
  return SOURCE_DIR "/" + file;
}

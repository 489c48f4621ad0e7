// The golden model as a program: dumps the result of a replay, and generates random replays.
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/model/Generator.h"
#include "tests/model/Model.h"

namespace {

void print(const std::vector<nlohmann::json>& records) {
  for (const auto& record : records) std::cout << record.dump() << '\n';
}

int replay(std::istream& in, bool settle) {
  Golden::Model model(settle);
  for (std::string line; std::getline(in, line);) {
    const auto start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#') continue;
    const auto event = nlohmann::json::parse(line);
    model.apply(event);
    if (event.at("op") == "dump") print(model.dumps(event));
  }
  print(model.dumps());
  return 0;
}

int generate(const char* seed, const char* count, const char* universe) {
  Golden::Generator generator(std::stoull(seed), Golden::weightsOf(universe));
  for (auto left = std::stoull(count); left > 0; --left) std::cout << generator.next() << '\n';
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if ((argc == 4 || argc == 5) && std::strcmp(argv[1], "--generate") == 0) {
    return generate(argv[2], argv[3], argc == 5 ? argv[4] : "");
  }
  const bool settle = argc == 3 && std::strcmp(argv[2], "--settle") == 0;
  if (argc != 2 && !settle) {
    std::cerr
        << "usage: model FILE [--settle]\n       model --generate SEED COUNT [crowded|apart]\n";
    return 2;
  }
  if (std::strcmp(argv[1], "-") == 0) return replay(std::cin, settle);
  std::ifstream file(argv[1]);
  if (!file) {
    std::cerr << argv[1] << ": cannot be read\n";
    return 2;
  }
  return replay(file, settle);
}

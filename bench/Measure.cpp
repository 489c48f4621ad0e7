// Measuring and reporting for the engine benchmark.
#include "bench/Measure.h"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <stdexcept>

namespace Bench {
namespace {

std::ofstream jsonLines;

}  // namespace

double residentBytes(bool isTrimmed) {
  if (isTrimmed) malloc_trim(0);
  double total = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

std::vector<double> inProcess(const std::function<std::vector<double>()>& measure) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    close(ends[0]);
    int status = 1;
    try {
      const auto figures = measure();
      const size_t bytes = figures.size() * sizeof(double);
      if (write(ends[1], figures.data(), bytes) == static_cast<ssize_t>(bytes)) status = 0;
    } catch (const std::exception& failure) {
      std::cerr << failure.what() << '\n';
    }
    _exit(status);
  }
  close(ends[1]);
  std::vector<double> figures;
  for (double figure = 0; read(ends[0], &figure, sizeof figure) == sizeof figure;) {
    figures.push_back(figure);
  }
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("a measurement failed");
  }
  return figures;
}

void reportTo(const std::string& path) {
  jsonLines.open(path);
  if (!jsonLines) throw std::runtime_error("cannot write " + path);
}

void report(const std::string& name, double size, const Figures& figures) {
  std::cout << std::left << std::setw(28) << name << std::right << std::setw(9)
            << std::setprecision(7) << size << std::setprecision(3);
  for (const auto& [what, value] : figures) std::cout << "  " << what << ' ' << value;
  std::cout << std::endl;
  if (!jsonLines.is_open()) return;
  jsonLines << "{\"name\": \"" << name << "\", \"size\": " << size;
  for (const auto& [what, value] : figures) jsonLines << ", \"" << what << "\": " << value;
  jsonLines << '}' << std::endl;
}

}  // namespace Bench

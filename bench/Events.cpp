// The events of neighbours in rounds that somebody else begins, so that two engines can take turns.
#include <array>
#include <iostream>
#include <random>
#include <string>
#include <type_traits>

#include "bench/Neighbors.h"

namespace Bench {
namespace {

constexpr size_t kHosts = 100'000;
constexpr size_t kBatch = 2'000;

/// Nanoseconds of each kind of event, without a history and with one.
using Figures = std::array<std::vector<double>[kEvents], 2>;

template <class F>
class Subject {
 public:
  Subject() : engine_(kHosts) {
    for (size_t host = 0; host < kHosts; ++host) engine_.learn(host);
  }

  /// Prints one round's figures.
  void round() {
    Figures figures;
    for (const size_t keepsHistory : order()) {
      engine_.historyIs(keepsHistory != 0 ? kHistory : 0);
      std::vector<double> warmUp[kEvents];
      timeEvents(engine_, drawn(kBatch / 4, kHosts, random_), warmUp);
      timeEvents(engine_, drawn(kBatch, kHosts, random_), figures[keepsHistory]);
    }
    for (const auto& ofEvents : figures) {
      for (const auto& nanoseconds : ofEvents) std::cout << nanoseconds[0] << ' ';
    }
  }

 private:
  /// Which comes first changes from round to round.
  std::array<size_t, 2> order() {
    isOdd_ = !isOdd_;
    return isOdd_ ? std::array<size_t, 2>{0, 1} : std::array<size_t, 2>{1, 0};
  }

  Engine<F> engine_;
  std::mt19937_64 random_{1};
  bool isOdd_ = false;
};

}  // namespace
}  // namespace Bench

/// Does a round for each line of standard input, and prints its figures on one line: for IPv4 and
/// IPv6, without history and with it, of each kind of event.
int main() {
  Bench::Subject<Daemon::Ipv4> ipv4;
  Bench::Subject<Daemon::Ipv6> ipv6;
  for (std::string line; std::getline(std::cin, line);) {
    ipv4.round();
    ipv6.round();
    std::cout << std::endl;
  }
}

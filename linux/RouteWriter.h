// How requests for host routes get to the kernel: at once, or while their user goes on.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "linux/RouteRequest.h"

namespace Linux {

/// Requests that go to the kernel together, and then what became of each. Keeps its memory when it
/// is emptied.
class RouteBatch {
 public:
  void clear() { count_ = 0; }
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  /// A request at the end. Its next hops and its preferred source are none as yet.
  RouteRequest& add(RouteRequest::Verb verb, const RouteKey& key, uint32_t metric) {
    if (count_ == requests_.size()) requests_.emplace_back();
    auto& request = requests_[count_++];
    request.verb = verb;
    request.key = key;
    request.value.vias.clear();
    request.value.metric = metric;
    request.value.preferredSource.reset();
    return request;
  }
  /// Takes the memory that performOn() needs.
  void reserveResults() { results_.resize(count_); }
  /// \pre reserveResults()
  void performOn(RouteChannel& channel) {
    channel.perform(std::span(requests_).first(count_), results_);
  }
  /// Gives each request the same result.
  void resultsAre(int result) { std::ranges::fill(results_, result); }
  /// One for each request, once they were performed: see RouteChannel::perform().
  std::span<const int> results() const { return results_; }

 private:
  std::vector<RouteRequest> requests_;
  std::vector<int> results_;
  size_t count_ = 0;
};

/// Takes batches to the kernel one after the other, perhaps while its user does something else. Its
/// batches are the writer's own.
///
/// A batch is filled, submitted, finished and released; batches finish in the order in which they
/// were submitted.
class RouteWriter {
 public:
  virtual ~RouteWriter() = default;
  /// A batch to fill; null while too many are under way.
  virtual RouteBatch* vacant() = 0;
  /// Sends the vacant batch on its way.
  virtual void submit() = 0;
  /// The oldest batch that was submitted and not released, once it was carried out; null before,
  /// and when there is none.
  virtual RouteBatch* finished() = 0;
  /// Waits for it. Null when there is none.
  virtual RouteBatch* await() = 0;
  /// Lets the finished batch be filled again.
  virtual void release() = 0;
};

}  // namespace Linux

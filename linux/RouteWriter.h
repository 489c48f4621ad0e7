// Batches of requests for host routes, and the interface that carries them out.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "linux/RouteRequest.h"

namespace Linux {

/// Requests that are sent to the kernel together, and their results. clear() keeps the memory.
class RouteBatch {
 public:
  void clear() { count_ = 0; }
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  /// Appends a request without next hops and preferred source.
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
  /// Allocates the memory for the results.
  void reserveResults() { results_.resize(count_); }
  /// \pre reserveResults()
  void performOn(RouteChannel& channel) {
    channel.perform(std::span(requests_).first(count_), results_);
  }
  /// Sets the result of all requests.
  void resultsAre(int result) { std::ranges::fill(results_, result); }
  /// The result of each request after performOn(): see RouteChannel::perform().
  std::span<const int> results() const { return results_; }

 private:
  std::vector<RouteRequest> requests_;
  std::vector<int> results_;
  size_t count_ = 0;
};

/// Carries out batches in order, perhaps in another thread. The writer owns the batches.
///
/// The user fills a vacant batch and submits it. After the batch is finished, the user reads its
/// results and releases it. Batches finish in the order of their submission.
class RouteWriter {
 public:
  virtual ~RouteWriter() = default;
  /// A batch to fill; null while too many batches are under way.
  virtual RouteBatch* vacant() = 0;
  /// Submits the vacant batch.
  virtual void submit() = 0;
  /// The oldest batch that was submitted and not released, if it was carried out; null otherwise.
  virtual RouteBatch* finished() = 0;
  /// Waits until that batch is carried out, and returns it. Null when no batch is under way.
  virtual RouteBatch* await() = 0;
  /// Makes the finished batch vacant.
  virtual void release() = 0;
};

}  // namespace Linux

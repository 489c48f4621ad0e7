// All counters, for users and for monitoring systems.
#include "hostrouted/Metrics.h"

#include <map>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

namespace Hostrouted {
namespace {

using Json = nlohmann::ordered_json;
using Daemon::CounterInfo;

/// Samples by name, in the order of the first samples.
class Families {
 public:
  void add(const CounterInfo& info, Json labels, uint64_t value) {
    const auto [place, isNew] = places_.try_emplace(info.name, families_.size());
    if (isNew) {
      families_.push_back({{"name", std::string("hostroute_") + info.name},
                           {"type", info.kind == CounterInfo::Kind::Counter ? "counter" : "gauge"},
                           {"help", info.help},
                           {"samples", Json::array()}});
    }
    families_[place->second]["samples"].push_back(
        {{"labels", std::move(labels)}, {"value", value}});
  }
  void add(Json family) { families_.push_back(std::move(family)); }
  Json take() { return std::move(families_); }

 private:
  Json families_ = Json::array();
  std::map<std::string, size_t, std::less<>> places_;
};

double seconds(uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) * 1e-9;
}

Json histogramJson(const Router::Times& times) {
  // From a microsecond to four seconds, with factors of four.
  constexpr unsigned kFirstBits = 10;
  constexpr unsigned kLastBits = 32;
  const auto& histogram = times.histogram;
  Json buckets = Json::array();
  for (unsigned bits = kFirstBits; bits <= kLastBits; bits += 2) {
    const uint64_t end = (uint64_t{1} << bits) - 1;
    buckets.push_back({{"le", seconds(end)}, {"count", histogram.countUpTo(end)}});
  }
  Json quantiles = Json::object();
  for (const auto& [name, share] : {std::pair{"0.5", 0.5}, {"0.99", 0.99}, {"0.9999", 0.9999}}) {
    quantiles[name] = seconds(histogram.quantile(share));
  }
  return {{"name", std::string("hostroute_") + times.name},
          {"type", "histogram"},
          {"help", times.help},
          {"buckets", std::move(buckets)},
          {"count", histogram.count()},
          {"sum", seconds(histogram.sum())},
          {"max", seconds(histogram.max())},
          {"quantiles", std::move(quantiles)}};
}

}  // namespace

Json metrics(const Router& router) {
  Families families;
  static constexpr CounterInfo kReady{"ready", "", CounterInfo::Kind::Gauge,
                                      "1 when the kernel's state is known, 0 while it is read."};
  families.add(kReady, Json::object(), router.phase() == Phase::Ready ? 1 : 0);
  for (const auto& [vrf, tables] : router.sw().vrfs()) {
    for (const auto& counter : router.sw().counters(vrf).values) {
      Json labels{{"vrf", vrf}, {"family", "ipv" + std::to_string(counter.family)}};
      if (counter.info->label[0] != '\0') labels[counter.info->label] = counter.labelValue;
      families.add(*counter.info, std::move(labels), counter.value);
    }
  }
  for (const auto& number : router.numbers()) {
    Json labels = Json::object();
    if (number.info->label[0] != '\0') labels[number.info->label] = number.labelValue;
    families.add(*number.info, std::move(labels), number.value);
  }
  for (const auto& times : router.times()) families.add(histogramJson(times));
  return families.take();
}

}  // namespace Hostrouted

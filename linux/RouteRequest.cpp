#include "linux/RouteRequest.h"

#include <algorithm>

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

}  // namespace

RouteValue normalized(const Prefix& prefix, RouteValue value) {
  if (value.vias.size() > 1) {
    std::ranges::sort(value.vias);
    value.vias.erase(std::unique(value.vias.begin(), value.vias.end()), value.vias.end());
  }
  if (familyOf(prefix) == 6) {
    if (value.metric == 0) value.metric = kDefaultMetric6;
    const auto direct =
        std::ranges::find_if(value.vias, [](const auto& via) { return !via.gateway; });
    if (direct != value.vias.end()) value.vias = std::vector(1, *direct);
  }
  return value;
}

std::string toString(const RouteRequest& request,
                     const std::function<std::string(LinkIndex)>& nameOf) {
  const bool adds = request.verb == Verb::Add || request.verb == Verb::AddBlackhole;
  const bool isBlackhole =
      request.verb == Verb::AddBlackhole || request.verb == Verb::DeleteBlackhole;
  std::string text = adds ? "route add " : "route del ";
  if (isBlackhole) text += "blackhole ";
  text += toString(request.key.prefix);
  if (request.verb == Verb::Add) {
    const bool isMultipath = request.value.vias.size() > 1;
    for (const auto& via : request.value.vias) {
      if (isMultipath) text += " nexthop";
      if (via.gateway) text += " via " + toString(*via.gateway);
      text += " dev " + (nameOf ? nameOf(via.link) : std::to_string(via.link));
    }
    if (request.value.preferredSource) text += " src " + toString(*request.value.preferredSource);
  }
  text += " table " + std::to_string(request.key.table);
  if (request.value.metric != 0) text += " metric " + std::to_string(request.value.metric);
  return text;
}

}  // namespace Linux

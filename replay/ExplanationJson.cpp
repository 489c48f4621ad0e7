// Explanations as JSON.
#include "replay/ExplanationJson.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Replay {
namespace {

using Json = nlohmann::ordered_json;

void addText(Json& object, const char* name, const std::string& text) {
  if (!text.empty()) object[name] = text;
}

void addNumber(Json& object, const char* name, uint64_t number) {
  if (number != 0) object[name] = number;
}

void addVias(Json& object, const std::vector<Daemon::ExplainedVia>& vias) {
  if (vias.empty()) return;
  auto& list = object["vias"] = Json::array();
  for (const auto& via : vias) list.push_back({{"hop", via.hop}, {"intf", via.intf}});
}

Json toJson(const Daemon::Finding& finding) {
  Json object = {{"kind", nameOf(finding.kind)}, {"text", finding.text}};
  addText(object, "vrf", finding.vrf);
  addText(object, "intf", finding.intf);
  addText(object, "prefix", finding.prefix);
  addText(object, "type", finding.type);
  addNumber(object, "fec", finding.fec);
  addVias(object, finding.vias);
  addNumber(object, "adjacency", finding.adjacency);
  addNumber(object, "references", finding.references);
  return object;
}

Json toJson(const Daemon::Candidate& candidate) {
  Json object = {{"source", candidate.source}, {"type", candidate.type}};
  addNumber(object, "fec", candidate.fec);
  addVias(object, candidate.vias);
  object["reason"] = candidate.reason;
  return object;
}

Json toJson(const Daemon::Missing& missing) {
  Json object = {{"kind", nameOf(missing.kind)}, {"text", missing.text}, {"mend", missing.mend}};
  addText(object, "vrf", missing.vrf);
  addText(object, "intf", missing.intf);
  addText(object, "prefix", missing.prefix);
  addNumber(object, "fec", missing.fec);
  addVias(object, missing.vias);
  return object;
}

}  // namespace

nlohmann::ordered_json toJson(const Daemon::Explanation& explanation) {
  Json object = {{"address", explanation.address},
                 {"vrf", explanation.vrf},
                 {"family", explanation.family},
                 {"hasRoute", explanation.winner.has_value()}};
  auto& findings = object["findings"] = Json::array();
  for (const auto& finding : explanation.findings) findings.push_back(toJson(finding));
  if (explanation.winner) object["winner"] = toJson(*explanation.winner);
  auto& losers = object["losers"] = Json::array();
  for (const auto& loser : explanation.losers) losers.push_back(toJson(loser));
  if (explanation.missing) object["missing"] = toJson(*explanation.missing);
  addText(object, "pending", explanation.pending);
  return object;
}

}  // namespace Replay

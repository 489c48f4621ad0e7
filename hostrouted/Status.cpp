// The daemon's status, for users and programs.
#include "hostrouted/Status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "platform/tovan/Reports.h"
#include "replay/Time.h"

namespace Hostrouted {
namespace {

using Json = nlohmann::ordered_json;

Json problemsJson(const Router& router) {
  Json problems = Json::array();
  for (const auto& problem : router.kernelRoutes().problems(kMostProblems)) {
    Json row{{"table", problem.key.table},
             {"prefix", Linux::toString(problem.key.prefix)},
             {"reason", reasonOf(problem)}};
    if (problem.error != 0) row["errno"] = problem.error;
    problems.push_back(std::move(row));
  }
  return problems;
}

Json vrfsJson(const Router& router) {
  Json vrfs = Json::array();
  const auto& tables = router.config().tables;
  for (const auto& [name, vrf] : router.sw().vrfs()) {
    Json row{{"vrf", name}};
    const auto output = tables.find(name);
    Daemon::forEachFamily([&, &routings = vrf](auto family) {
      using F = decltype(family);
      const auto* machine = routings.template routing<F>().machine();
      const auto table = output == tables.end()
                             ? 0
                             : (F::kNumber == 4 ? output->second.table4 : output->second.table6);
      row["ipv" + std::to_string(F::kNumber)] = {
          {"initialized", machine != nullptr && machine->initialized()}, {"table", table}};
    });
    vrfs.push_back(std::move(row));
  }
  return vrfs;
}

/// The shared tables with damage or refusals.
Json tablesJson() {
  Json tables = Json::array();
  for (const auto& table : Tovan::tableReports()) {
    Json row{{"table", table.table}, {"corruptions", table.corruptions}};
    if (table.corruptions != 0) row["lastCorruption"] = table.lastCorruption;
    row["refusals"] = table.refusals;
    if (table.refusals != 0) {
      row["lastRefusal"] = table.lastRefusal;
      row["bytes"] = table.bytes;
    }
    tables.push_back(std::move(row));
  }
  return tables;
}

}  // namespace

std::string reasonOf(const Linux::KernelRoutes::Problem& problem) {
  return problem.error == 0 ? "damped" : std::strerror(problem.error);
}

std::vector<std::string> warnings(const Router& router, const ProcessStatus& process) {
  std::vector<std::string> warnings;
  switch (router.phase()) {
    case Phase::Starting:
      warnings.emplace_back("the kernel's state is being read; no route is written yet");
      break;
    case Phase::Resynchronising:
      warnings.emplace_back(
          "the kernel's state is being read again; routes stay as they are meanwhile");
      break;
    case Phase::Ready:
      break;
  }
  if (router.counters().failures != 0) {
    warnings.push_back("the engine did not finish " + std::to_string(router.counters().failures) +
                       " changes; the log says which");
  }
  const auto& tables = router.config().tables;
  for (const auto& [name, vrf] : router.sw().vrfs()) {
    if (tables.find(name) == tables.end()) {
      warnings.push_back("VRF " + name +
                         " has no table in the configuration: its host routes go "
                         "nowhere");
    }
  }
  if (router.isIncomplete()) {
    warnings.emplace_back("a shared table is full or damaged: host routes are missing from it");
  }
  if (!process.advertisedIsSound) {
    warnings.emplace_back("the list of advertised routes cannot be written; the log says why");
  }
  if (!process.recordingProblem.empty()) warnings.push_back(process.recordingProblem);
  if (!process.reloadProblem.empty()) warnings.push_back(process.reloadProblem);
  return warnings;
}

Json status(const Router& router, const ProcessStatus& process) {
  const auto& routes = router.kernelRoutes();
  const auto& written = routes.counters();
  const auto& done = router.counters();
  const auto& config = router.config();
  Json status{{"phase", phaseName(router.phase())},
              {"ready", router.phase() == Phase::Ready},
              {"warnings", warnings(router, process)},
              {"version", process.version},
              {"pid", process.pid},
              {"started", Replay::timeText(process.startedAt)},
              {"logLevel", logLevelName(process.logLevel)},
              {"interfaces", config.feed.interfaces},
              {"protocol", config.protocol},
              {"vrfs", vrfsJson(router)},
              {"routes", routes.installedCount()},
              {"problems", problemsJson(router)},
              {"complete", !router.isIncomplete()},
              {"tables", tablesJson()},
              {"counters",
               {{"changes", done.changes},
                {"operations", done.operations},
                {"failures", done.failures},
                {"resynchronisations", done.resynchronisations},
                {"probes", done.probes},
                {"added", written.added},
                {"deleted", written.deleted},
                {"refused", written.refused},
                {"repaired", written.repaired},
                {"adopted", written.adopted},
                {"damped", written.damped},
                {"silentLosses", written.silentLosses}}}};
  if (!process.recording.empty()) status["recording"] = process.recording;
  if (!config.sharedName.empty()) status["sharedTables"] = config.sharedName;
  return status;
}

std::string statusLine(const Router& router) {
  const auto& routes = router.kernelRoutes();
  const auto problems = routes.problems(kMostProblems).size();
  return std::string(phaseName(router.phase())) + ": " + std::to_string(routes.installedCount()) +
         " host routes, " + std::to_string(problems) +
         (problems == kMostProblems ? " or more" : "") + " not as they should be" +
         (router.isIncomplete() ? ", others missing: a shared table is full or was damaged" : "");
}

bool replaceFile(const std::string& path, const std::string& text) {
  const std::string fresh = path + ".new";
  const int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const ssize_t written = ::write(fd, text.data(), text.size());
  const int problem = written < 0 ? errno : ENOSPC;
  const bool isWhole = written == static_cast<ssize_t>(text.size());
  if (::close(fd) == 0 && isWhole && std::rename(fresh.c_str(), path.c_str()) == 0) return true;
  if (!isWhole) errno = problem;
  return false;
}

}  // namespace Hostrouted

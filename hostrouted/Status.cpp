// How the daemon is, for people and programs.
#include "hostrouted/Status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "platform/tovan/Reports.h"

namespace Hostrouted {

std::string statusJson(const Router& router) {
  using Json = nlohmann::ordered_json;
  const auto& routes = router.kernelRoutes();
  const auto& written = routes.counters();
  const auto& done = router.counters();
  Json problems = Json::array();
  for (const auto& problem : routes.problems(kMostProblems)) {
    Json row{{"table", problem.key.table}, {"prefix", Linux::toString(problem.key.prefix)}};
    if (problem.error == 0) {
      row["reason"] = "damped";
    } else {
      row["reason"] = std::strerror(problem.error);
      row["errno"] = problem.error;
    }
    problems.push_back(std::move(row));
  }
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
  const Json status{{"phase", phaseName(router.phase())},
                    {"routes", routes.installedCount()},
                    {"problems", std::move(problems)},
                    {"complete", !router.isIncomplete()},
                    {"tables", std::move(tables)},
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
  return status.dump(2) + "\n";
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

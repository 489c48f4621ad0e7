// The conversion. The documents take the same way as the messages of a live kernel.
#include "cli/Import.h"

#include <string>
#include <variant>

#include "linux/Feed.h"
#include "linux/Mirror.h"
#include "replay/Recording.h"

namespace Cli {
namespace {

/// The name of the document that a warning is about.
const std::string& nameOf(const IpDocuments& documents, Linux::FeedWarning::About about) {
  static const std::string kNone = "ip";
  using About = Linux::FeedWarning::About;
  const auto name = [](const std::optional<IpDocument>& document,
                       const std::optional<IpDocument>& other) -> const std::string& {
    return document ? document->name : other ? other->name : kNone;
  };
  switch (about) {
    case About::Links:
      return name(documents.link, documents.addr);
    case About::Addresses:
      return name(documents.addr, documents.link);
    case About::Neighbors:
      return name(documents.neigh, {});
    case About::Routes4:
      return name(documents.route4, documents.route6);
    case About::Routes6:
      return name(documents.route6, documents.route4);
  }
  return kNone;
}

}  // namespace

void importReplay(const IpDocuments& documents, std::ostream& replay, std::ostream& warnings) {
  Linux::Mirror mirror;
  mirror.beginDump();
  Linux::readIpDocuments(
      documents, [&](const Linux::Change& change) { mirror.apply(change); },
      [&](const std::string& warning) { warnings << warning << '\n'; });
  mirror.endDump();

  Linux::FeedOptions options;
  options.hasManagementPorts = true;
  Linux::Feed feed(mirror, options);
  feed.setWarningSink(
      [&](const Linux::FeedWarning& warning) {
        warnings << nameOf(documents, warning.about) << ": warning: " << warning.text << '\n';
      },
      true);
  feed.setComplete();
  feed.flush([&](const Daemon::Operation& operation) {
    // The documents do not tell whether the routing daemons have written all their routes.
    if (std::holds_alternative<Daemon::SetRibReady>(operation)) return;
    replay << Replay::linesOf(operation);
  });
}

}  // namespace Cli

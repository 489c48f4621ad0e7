// The `hostroute import` command: finds the documents and reports errors.
#include "cli/ImportCommand.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "cli/Command.h"
#include "cli/Import.h"
#include "replay/Json.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

/// A document: its option, its name in a directory, and the command that prints it.
struct Source {
  std::optional<IpDocument> IpDocuments::*document;
  const char* option;
  const char* fileName;
  const char* command;
};

// With -N, ip prints numbers. The names of tables and protocols differ between machines.
constexpr std::array kSources{
    Source{&IpDocuments::link, "--link", "link.json", "ip -N -d -j link"},
    Source{&IpDocuments::addr, "--addr", "addr.json", "ip -N -j addr"},
    Source{&IpDocuments::neigh, "--neigh", "neigh.json", "ip -N -j neigh"},
    Source{&IpDocuments::route4, "--route4", "route4.json", "ip -N -4 -j route show table all"},
    Source{&IpDocuments::route6, "--route6", "route6.json", "ip -N -6 -j route show table all"},
    Source{&IpDocuments::nexthop, "--nexthop", "nexthop.json", "ip -N -j nexthop"},
};

struct ImportOptions {
  std::optional<std::string> directory;
  std::array<std::string, kSources.size()> files;
};

constexpr const char* kImportDescription =
    R"(Converts the output of `ip -j` into a replay on standard output. Without an option it runs
`ip` in the present network namespace.)";

constexpr const char* kImportFooter = R"(Imported:
  - Interfaces with a layer 3. Ports of a bridge or a bond have none. An interface is in the VRF of
    its master of kind vrf (which only `ip -d` shows), else in the VRF "default". A VRF device is an
    interface of its own VRF. A VRF device with the name default is the VRF "linux:default". A
    switch has no host routes on interfaces whose names begin with "Management". An interface whose
    name is not UTF-8 is not imported.
  - Addresses, except 127.0.0.0/8 and ::1, addresses that duplicate address detection has not yet
    confirmed, and addresses of interfaces that are down. One IPv4 address of an interface is the
    primary one, the others are secondary. An address with a peer is a host address.
  - Neighbours in the states REACHABLE, STALE, DELAY, PROBE or PERMANENT, except link-local
    (169.254.0.0/16 and fe80::/10) and multicast addresses, proxies and entries of a control plane.
  - Unicast routes of the table main (VRF "default") and of the VRFs' tables, also host routes, with
    the FEC of their next hops. Of several routes to one prefix, the one with the lowest metric.
    Blackhole, unreachable and prohibit routes have FEC 0, because no host is behind them. An IPv4
    route via an IPv6 next hop has the hop "ipv6". A next hop that is tunnelled (encap), dead or
    without a carrier is left out. A route without another next hop keeps its prefix, with FEC 0.
Not imported, without a warning: the kernel's local, broadcast, anycast and multicast routes and its
host routes to own IPv6 addresses, which follow from the addresses; link-local prefixes. Not
imported, with a warning on standard error: other tables, throw routes, local routes of the
administrator, routes by TOS or source, and the mentioned next hops, their weights, and addresses.

Since 5.14, Linux allows the lowest address of an IPv4 subnet (10.0.0.0 of 10.0.0.0/24) for a host.
A switch uses it as the address of the subnet. If an interface address gives it a receive route, a
neighbour with this address gets no host route.

Route types: connected_ (kernel, no gateway), staticConfig_ (static, boot), ebgp_ (BGP, IPv4),
bgp_ (BGP, IPv6), ospfIntraArea_ (OSPF, IPv4), ospf_ (OSPF, IPv6), isisL1_, rip_, redirect_,
kernel_ (the kernel's others, router advertisements), unknown_ (any other protocol).

Examples:
  hostroute import | hostroute replay -      the host routes of this machine
  ip netns exec blue hostroute import        the replay of another network namespace
  hostroute import --dir capture             from files, which these commands make:
    ip -N -d -j link > link.json               ip -N -4 -j route show table all > route4.json
    ip -N -j addr > addr.json                  ip -N -6 -j route show table all > route6.json
    ip -N -j neigh > neigh.json                ip -N -j nexthop > nexthop.json (may be missing)

Exit status: 0 done, also with warnings; 1 the output cannot be written; 2 an input cannot be read
or is no JSON list.)";

std::string readAll(std::FILE* file) {
  std::string text;
  std::array<char, 65536> buffer;
  while (const auto size = std::fread(buffer.data(), 1, buffer.size(), file)) {
    text.append(buffer.data(), size);
  }
  return text;
}

std::string readFile(const std::string& path) {
  if (path == "-") return readAll(stdin);
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw ImportError(path, "is a directory");
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw ImportError(path, std::strerror(errno));
  auto text = readAll(file);
  const int problem = std::ferror(file) != 0 ? errno : 0;
  std::fclose(file);
  if (problem != 0) throw ImportError(path, std::strerror(problem));
  return text;
}

/// The standard output of a command. Its standard error is not redirected.
std::string readCommand(const std::string& command) {
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) throw ImportError(command, std::strerror(errno));
  auto text = readAll(pipe);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
    throw ImportError(command, "there is no ip command here; take the files on the machine itself");
  }
  if (status != 0) throw ImportError(command, "it failed");
  return text;
}

IpDocuments readDocuments(const ImportOptions& options) {
  bool isHere = !options.directory;
  if (options.directory && options.directory->empty()) {
    throw CommandError("hostroute import", "--dir names no directory", kMisused);
  }
  for (const auto& file : options.files) isHere = isHere && file.empty();
  IpDocuments documents;
  for (size_t i = 0; i < kSources.size(); ++i) {
    const auto& source = kSources[i];
    // Kernels before 5.3 have no nexthop objects.
    const bool isOptional = source.document == &IpDocuments::nexthop;
    auto& document = documents.*source.document;
    auto path = options.files[i];
    if (path.empty() && options.directory) {
      path = std::filesystem::path(*options.directory) / source.fileName;
      if (isOptional && !std::filesystem::exists(path)) continue;
    }
    if (!path.empty()) {
      document = {path, readFile(path)};
    } else if (isHere) {
      try {
        document = {source.command, readCommand(source.command)};
      } catch (const ImportError&) {
        if (!isOptional) throw;
        std::cerr << source.command << ": warning: failed; there are no nexthop objects then\n";
      }
    }
    if (document && Replay::nestsTooDeep(document->text)) {
      throw ImportError(document->name,
                        "nested deeper than " + std::to_string(Replay::kMaxDepth) + " levels");
    }
  }
  return documents;
}

/// Refuses files without the list of links, and standard input for more than one file.
void checkFiles(const ImportOptions& options) {
  const auto isGiven = [&](auto IpDocuments::*document) {
    const auto source = std::find_if(kSources.begin(), kSources.end(),
                                     [&](const auto& known) { return known.document == document; });
    return !options.files[static_cast<size_t>(source - kSources.begin())].empty();
  };
  const bool anyGiven = std::any_of(options.files.begin(), options.files.end(),
                                    [](const auto& file) { return !file.empty(); });
  if (anyGiven && !options.directory && !isGiven(&IpDocuments::link)) {
    throw CommandError("hostroute import",
                       "--link is missing: nothing else tells which interfaces there are",
                       kMisused);
  }
  if (std::count(options.files.begin(), options.files.end(), "-") > 1) {
    throw CommandError("hostroute import", "only one of the files can be standard input", kMisused);
  }
}

}  // namespace

void addImportCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("import", kImportDescription);
  const auto options = std::make_shared<ImportOptions>();
  command->add_option("--dir", options->directory, "Directory with link.json, addr.json ...")
      ->type_name("DIR");
  for (size_t i = 0; i < kSources.size(); ++i) {
    command
        ->add_option(
            kSources[i].option, options->files[i],
            std::string("The output of `") + kSources[i].command + "`; - for standard input")
        ->type_name("FILE");
  }
  command->footer(kImportFooter);
  command->callback([options, &exitCode] {
    try {
      checkFiles(*options);
      importReplay(readDocuments(*options), std::cout, std::cerr);
      requireOutput();
    } catch (const ImportError& error) {
      std::cout.flush();
      std::cerr << Replay::printable(error.what()) << '\n';
      exitCode = kMisused;
    }
  });
}

}  // namespace Cli

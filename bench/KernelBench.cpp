// From a neighbour in the kernel to its route in the kernel: hostrouted beside a relay that does
// nothing but turn each neighbour notification into a route message.
//
// Needs root. Each measurement runs in a network namespace of its own.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint32_t kTable = 10;
constexpr uint8_t kProtocol = 205;
constexpr uint32_t kFirstAddress = 0x0A400100;  // 10.64.1.0
constexpr int kReceiveBuffer = 512 << 20;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

/// A netlink socket that gathers messages and sends them in batches.
class Socket {
 public:
  explicit Socket(unsigned groups) {
    socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket_ == nullptr || mnl_socket_bind(socket_, groups, MNL_SOCKET_AUTOPID) < 0) {
      fail("netlink");
    }
    const int size = kReceiveBuffer;
    ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    ::setsockopt(fd(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { mnl_socket_close(socket_); }

  int fd() const { return mnl_socket_get_fd(socket_); }
  /// The memory of the messages that wait to be read, in bytes.
  uint32_t waiting() const {
    std::array<uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t size = sizeof memory;
    if (::getsockopt(fd(), SOL_SOCKET, SO_MEMINFO, memory.data(), &size) != 0) fail("SO_MEMINFO");
    return memory[SK_MEMINFO_RMEM_ALLOC];
  }

  /// Room for a message at the end of the batch.
  nlmsghdr* next(uint16_t type, uint16_t flags) {
    if (used_ + 256 > batch_.size()) flush();
    nlmsghdr* message = mnl_nlmsg_put_header(batch_.data() + used_);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    return message;
  }
  void add(const nlmsghdr* message) { used_ += NLMSG_ALIGN(message->nlmsg_len); }
  void flush() {
    if (used_ == 0) return;
    if (mnl_socket_sendto(socket_, batch_.data(), used_) < 0) fail("send");
    used_ = 0;
  }
  /// Reads what there is and hands each message to `take`. \return false when there was nothing.
  bool read(int flags, const std::function<void(const nlmsghdr*)>& take) {
    const ssize_t size = ::recv(fd(), input_.data(), input_.size(), flags);
    if (size < 0) {
      if (errno == EAGAIN || errno == EINTR) return false;
      fail("receive");
    }
    auto left = static_cast<int>(size);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(input_.data());
         mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      take(message);
    }
    return true;
  }

 private:
  mnl_socket* socket_ = nullptr;
  size_t used_ = 0;
  std::array<char, 64 << 10> batch_{};
  std::array<char, 256 << 10> input_{};
};

/// The IPv4 address in attribute `type` behind a header of `headerSize` bytes, in network order.
uint32_t addressOf(const nlmsghdr* message, size_t headerSize, uint16_t type) {
  const auto* attribute =
      static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(message, headerSize));
  const char* end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(message));
  while (mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
    if (mnl_attr_get_type(attribute) == type) return mnl_attr_get_u32(attribute);
    attribute = mnl_attr_next(attribute);
  }
  return 0;
}

/// The program to compare with: no table, no check, a route for each notification.
[[noreturn]] void relay(const char* interface) {
  const auto index = static_cast<int>(::if_nametoindex(interface));
  Socket socket(RTMGRP_NEIGH);
  Socket writer(0);
  const auto take = [&](const nlmsghdr* message) {
    if (message->nlmsg_type != RTM_NEWNEIGH && message->nlmsg_type != RTM_DELNEIGH) return;
    const auto* neighbor = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(message));
    if (neighbor->ndm_family != AF_INET || neighbor->ndm_ifindex != index) return;
    const bool isThere = message->nlmsg_type == RTM_NEWNEIGH &&
                         (neighbor->ndm_state & (NUD_REACHABLE | NUD_PERMANENT | NUD_STALE)) != 0;
    auto* request =
        writer.next(isThere ? RTM_NEWROUTE : RTM_DELROUTE, isThere ? NLM_F_CREATE | NLM_F_EXCL : 0);
    auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = AF_INET;
    route->rtm_dst_len = 32;
    route->rtm_table = kTable;
    route->rtm_protocol = kProtocol;
    route->rtm_scope = RT_SCOPE_LINK;
    route->rtm_type = RTN_UNICAST;
    mnl_attr_put_u32(request, RTA_DST, addressOf(message, sizeof(ndmsg), NDA_DST));
    mnl_attr_put_u32(request, RTA_OIF, static_cast<uint32_t>(index));
    writer.add(request);
  };
  auto* dump = socket.next(RTM_GETNEIGH, NLM_F_DUMP);
  mnl_nlmsg_put_extra_header(dump, sizeof(ndmsg));
  socket.add(dump);
  socket.flush();
  for (;;) {
    socket.read(0, take);
    while (socket.read(MSG_DONTWAIT, take)) {
    }
    writer.flush();
    while (writer.read(MSG_DONTWAIT, [](const nlmsghdr*) {})) {
    }
  }
}

void run(const std::string& command) {
  if (std::system(command.c_str()) != 0) fail(command.c_str());
}

/// A router in a namespace of this process's own, and the program that is measured on it.
class Router {
 public:
  Router() : writer_(0), routes_(RTMGRP_IPV4_ROUTE) {
    run("ip link set lo up && ip link add p1 type veth peer name p2 && ip link set p1 up && "
        "ip link set p2 up && ip addr add 10.64.0.1/10 dev p1");
    index_ = ::if_nametoindex("p1");
    count();
  }

  void setNeighbors(uint32_t first, uint32_t count, bool present) {
    for (uint32_t i = first; i < first + count; ++i) {
      auto* request = writer_.next(present ? RTM_NEWNEIGH : RTM_DELNEIGH,
                                   present ? NLM_F_CREATE | NLM_F_REPLACE : 0);
      auto* neighbor = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ndmsg)));
      neighbor->ndm_family = AF_INET;
      neighbor->ndm_ifindex = static_cast<int>(index_);
      neighbor->ndm_state = NUD_PERMANENT;
      mnl_attr_put_u32(request, NDA_DST, htonl(kFirstAddress + i));
      constexpr std::array<uint8_t, 6> kMac{2, 0, 0, 0, 0, 1};
      if (present) mnl_attr_put(request, NDA_LLADDR, kMac.size(), kMac.data());
      writer_.add(request);
    }
    writer_.flush();
  }
  void start(const std::vector<std::string>& command) {
    child_ = ::fork();
    if (child_ != 0) return;
    std::vector<char*> words;
    for (const auto& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    ::execv(words[0], words.data());
    fail(words[0]);
  }
  void stop() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  /// Its peak memory, in kilobytes.
  size_t kilobytes() const { return numberIn(processFiles() / "status", "VmHWM:"); }
  /// How often its threads have waited so far.
  size_t wakeUps() const {
    size_t count = 0;
    for (const auto& thread : std::filesystem::directory_iterator(processFiles() / "task")) {
      count += numberIn(thread.path() / "status", "voluntary_ctxt_switches:");
    }
    return count;
  }
  /// Ends the measurement unless the routes that came since count(), less those that went, are
  /// `count`.
  void expect(long count, const char* otherwise) {
    while (routes_.read(MSG_DONTWAIT, counter_)) {
    }
    if (seen_ == count) return;
    std::fprintf(stderr, "%ld %s\n", seen_ - count, otherwise);
    std::exit(1);
  }
  /// Processor time of its threads so far, in the kernel and outside, in seconds.
  double processorSeconds() const {
    double sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator(processFiles() / "task")) {
      std::ifstream status(thread.path() / "schedstat");
      double nanoseconds = 0;
      status >> nanoseconds;
      sum += nanoseconds;
    }
    return sum / 1e9;
  }
  /// Waits until so many routes came, or went when `count` is below zero.
  /// \return the seconds since `since`.
  double await(long count, Clock::time_point since) {
    auto last = Clock::now();
    while (count < 0 ? seen_ > count : seen_ < count) {
      if (Seconds(Clock::now() - since).count() > 120) {
        std::fprintf(stderr, "only %ld of %ld changes came\n", seen_, count);
        std::exit(1);
      }
      if (count == 1) {
        if (!routes_.read(MSG_DONTWAIT, counter_)) std::this_thread::yield();
        last = Clock::now();
      } else {
        last = awaitPause();
        while (routes_.read(MSG_DONTWAIT, counter_)) {
        }
      }
    }
    return Seconds(last - since).count();
  }
  /// Forgets what was counted.
  void count() {
    while (routes_.read(MSG_DONTWAIT, [](const nlmsghdr*) {})) {
    }
    seen_ = 0;
  }

 private:
  /// Waits until no notification has come for a while. They are not read before that, so the
  /// measured program has the processors to itself.
  /// \return when the last one came, to a millisecond.
  Clock::time_point awaitPause() const {
    auto last = Clock::now();
    auto now = last;
    for (uint32_t known = routes_.waiting(); now - last < kPause; now = Clock::now()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (const uint32_t waiting = routes_.waiting(); waiting != known) {
        known = waiting;
        last = Clock::now();
      }
    }
    return last;
  }
  static constexpr std::chrono::milliseconds kPause{20};

  /// See proc(5).
  std::filesystem::path processFiles() const { return "/proc/" + std::to_string(child_); }
  static size_t numberIn(const std::filesystem::path& file, std::string_view key) {
    std::ifstream status(file);
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(key)) return std::strtoul(line.c_str() + key.size(), nullptr, 10);
    }
    return 0;
  }

  Socket writer_;
  Socket routes_;
  unsigned index_ = 0;
  pid_t child_ = 0;
  long seen_ = 0;
  std::function<void(const nlmsghdr*)> counter_ = [this](const nlmsghdr* message) {
    const auto* route = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
    if (route->rtm_table != kTable || route->rtm_protocol != kProtocol) return;
    seen_ += message->nlmsg_type == RTM_NEWROUTE ? 1 : -1;
  };
};

struct Figures {
  double start = 0, withdrawn = 0, live = 0, median = 0, p99 = 0, kilobytes = 0;
  // The same in processor time of the program; of one host the mean.
  double startWork = 0, withdrawnWork = 0, liveWork = 0, oneWork = 0;
  double flapWork = 0;  ///< of hosts that flap, mean for one change
  double wakeUps = 0;   ///< while nothing happens, in a minute
};

Figures measure(const std::vector<std::string>& command, uint32_t neighbors) {
  Figures figures;
  Router router;
  router.setNeighbors(0, neighbors, true);
  auto begin = Clock::now();
  router.start(command);
  figures.start = router.await(neighbors, begin);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  double worked = router.processorSeconds();
  figures.startWork = worked;
  const auto workSince = [&] {
    const double before = std::exchange(worked, router.processorSeconds());
    return worked - before;
  };

  router.count();
  begin = Clock::now();
  router.setNeighbors(0, neighbors, false);
  figures.withdrawn = router.await(-static_cast<long>(neighbors), begin);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  figures.withdrawnWork = workSince();

  router.count();
  begin = Clock::now();
  router.setNeighbors(0, neighbors, true);
  figures.live = router.await(neighbors, begin);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  figures.liveWork = workSince();

  constexpr uint32_t kHosts = 500;
  std::vector<double> latencies;
  for (uint32_t i = 0; i < kHosts; ++i) {
    router.count();
    begin = Clock::now();
    router.setNeighbors(neighbors + i, 1, true);
    latencies.push_back(router.await(1, begin));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::ranges::sort(latencies);
  figures.median = latencies[latencies.size() / 2];
  figures.p99 = latencies[latencies.size() * 99 / 100];
  figures.oneWork = workSince() / kHosts;

  constexpr uint32_t kFlapping = 4096;
  constexpr int kFlaps = 20;
  router.count();
  for (int i = 0; i < kFlaps; ++i) {
    router.setNeighbors(0, kFlapping, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    router.setNeighbors(0, kFlapping, true);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));
  router.expect(0, "routes too many after the flaps");
  figures.flapWork = workSince() / (2 * kFlaps * kFlapping);

  constexpr int kIdleSeconds = 10;
  const auto woken = router.wakeUps();
  std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
  figures.wakeUps = static_cast<double>(router.wakeUps() - woken) * 60 / kIdleSeconds;
  figures.kilobytes = static_cast<double>(router.kilobytes());
  router.stop();
  return figures;
}

/// Runs measure() in a child with a network namespace of its own.
Figures measureApart(const std::vector<std::string>& command, uint32_t neighbors) {
  int pipe[2];
  if (::pipe(pipe) != 0) fail("pipe");
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNET) != 0) fail("unshare");
    const Figures figures = measure(command, neighbors);
    if (::write(pipe[1], &figures, sizeof figures) != sizeof figures) fail("write");
    std::_Exit(0);
  }
  ::close(pipe[1]);
  Figures figures;
  const bool isWhole = ::read(pipe[0], &figures, sizeof figures) == sizeof figures;
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!isWhole || status != 0) std::exit(1);
  return figures;
}

Figures median(std::vector<Figures> runs) {
  Figures result;
  for (double Figures::*member :
       {&Figures::start, &Figures::withdrawn, &Figures::live, &Figures::median, &Figures::p99,
        &Figures::kilobytes, &Figures::startWork, &Figures::withdrawnWork, &Figures::liveWork,
        &Figures::oneWork, &Figures::flapWork, &Figures::wakeUps}) {
    std::ranges::sort(runs, {}, member);
    result.*member = runs[runs.size() / 2].*member;
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "relay") relay(argv[2]);
  if (argc < 3) {
    std::fprintf(stderr,
                 "usage: kernel_bench HOSTROUTED DIRECTORY [NEIGHBORS [RUNS]]\n"
                 "HOSTROUTED keeps its files in DIRECTORY. Needs root.\n");
    return 2;
  }
  const uint32_t neighbors = argc > 3 ? static_cast<uint32_t>(std::atoi(argv[3])) : 100000;
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 3;
  const std::string directory = argv[2];
  const std::vector<std::string> relayed{"/proc/self/exe", "relay", "p1"};
  std::vector<Figures> ours;
  std::vector<Figures> bare;
  for (int i = 0; i < rounds; ++i) {
    const auto own = directory + "/" + std::to_string(i);
    ours.push_back(measureApart({argv[1], "--interfaces", "p1", "--run-dir", own + "/run",
                                 "--state-dir", own + "/state", "--log-level", "error"},
                                neighbors));
    bare.push_back(measureApart(relayed, neighbors));
  }
  const Figures a = median(ours);
  const Figures b = median(bare);
  const auto row = [](const char* name, double mine, double theirs, const char* unit) {
    std::printf("%-32s %10.3f %10.3f %-3s %8.2f\n", name, mine, theirs, unit, mine / theirs);
  };
  std::printf("%-32s %10s %10s     %8s\n", "", "hostrouted", "relay", "ratio");
  row("present at the start", a.start, b.start, "s");
  row("  processor time", a.startWork, b.startWork, "s");
  row("withdrawn in one burst", a.withdrawn, b.withdrawn, "s");
  row("  processor time", a.withdrawnWork, b.withdrawnWork, "s");
  row("learned in one burst", a.live, b.live, "s");
  row("  processor time", a.liveWork, b.liveWork, "s");
  row("one host, median", a.median * 1e6, b.median * 1e6, "us");
  row("one host, p99", a.p99 * 1e6, b.p99 * 1e6, "us");
  row("  processor time, mean", a.oneWork * 1e6, b.oneWork * 1e6, "us");
  row("4,096 hosts flap, per change", a.flapWork * 1e6, b.flapWork * 1e6, "us");
  row("peak memory", a.kilobytes / 1024, b.kilobytes / 1024, "MiB");
  std::printf("%-32s %10.0f %10.0f /min\n", "wake-ups while nothing happens", a.wakeUps, b.wakeUps);
  return 0;
}

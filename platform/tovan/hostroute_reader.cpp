// The readers of routes for other languages: statuses for exceptions, bytes for values.
#include "platform/tovan/hostroute_reader.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tovan/RouteTableReader.h"

/// The functions, for either family.
struct hostroute_reader {
  hostroute_reader() = default;
  hostroute_reader(const hostroute_reader&) = delete;
  hostroute_reader& operator=(const hostroute_reader&) = delete;
  virtual ~hostroute_reader() = default;

  virtual void state(hostroute_state& to) = 0;
  virtual int find(const uint8_t* addr, uint32_t len, hostroute_route& to) = 0;
  virtual int match(const uint8_t* addr, hostroute_route& to) = 0;
  virtual int walk() = 0;
  virtual int next(hostroute_route& to) = 0;
  virtual int via(uint32_t index, hostroute_via& to) = 0;
  virtual int wait(uint32_t timeoutMs, int& news) = 0;

  /// Notes why a call fails, and returns its status.
  int fails(int status, const char* why) noexcept {
    try {
      error = why;
    } catch (...) {
      error.clear();
    }
    return status;
  }

  std::string error;
};

namespace {

using Tovan::TableNews;

/// Copies a text and ends it with a zero byte, cut if it is too long.
void copyText(std::string_view text, char* to, size_t bytes) {
  const size_t length = std::min(text.size(), bytes - 1);
  std::copy_n(text.data(), length, to);
  to[length] = '\0';
}

uint64_t readBytes(const uint8_t* from, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | from[i];
  return value;
}
void writeBytes(uint64_t value, size_t count, uint8_t* to) {
  for (size_t i = count; i > 0; --i, value >>= 8) to[i - 1] = static_cast<uint8_t>(value);
}

template <class Addr>
Addr addrOf(const uint8_t* bytes);
template <>
Zemit::IpAddr addrOf(const uint8_t* bytes) {
  return Zemit::IpAddr(static_cast<uint32_t>(readBytes(bytes, 4)));
}
template <>
Zemit::Ip6Addr addrOf(const uint8_t* bytes) {
  return {readBytes(bytes, 8), readBytes(bytes + 8, 8)};
}
void copyAddr(const Zemit::IpAddr& addr, uint8_t* to) {
  writeBytes(addr.value(), 4, to);
}
void copyAddr(const Zemit::Ip6Addr& addr, uint8_t* to) {
  writeBytes(addr.high(), 8, to);
  writeBytes(addr.low(), 8, to + 8);
}

/// Runs the body of a call, and returns the status of the call.
template <class Body>
int guarded(hostroute_reader& reader, Body body) noexcept {
  try {
    reader.error.clear();
    return body();
  } catch (const Tovan::CorruptionDetectedException& damage) {
    return reader.fails(HOSTROUTE_DAMAGED, damage.what());
  } catch (const Tovan::BusyException& busy) {
    return reader.fails(HOSTROUTE_BUSY, busy.what());
  } catch (const std::exception& other) {
    return reader.fails(HOSTROUTE_FAILED, other.what());
  } catch (...) {
    return reader.fails(HOSTROUTE_FAILED, "unknown failure");
  }
}

int invalid(hostroute_reader& reader, const char* why) {
  return reader.fails(HOSTROUTE_INVALID, why);
}

template <class Reader>
class FamilyReader final : public hostroute_reader {
 public:
  using Prefix = typename Reader::Prefix;
  using Addr = std::remove_cvref_t<decltype(Prefix().addr())>;
  using Resolved = typename Reader::Resolved;

  FamilyReader(std::string_view tables, std::string_view vrf) : reader_(tables, vrf) {}

  void state(hostroute_state& to) override {
    const auto state = reader_.state();
    to = {};
    to.routes = reader_.size();
    to.loading = state.loading;
    to.initialized = state.initialized;
    to.synchronized = state.synchronized;
    to.has_writer = reader_.hasWriter();
    to.is_current = reader_.isCurrent();
    to.incomplete = state.incomplete;
  }
  int find(const uint8_t* addr, uint32_t len, hostroute_route& to) override {
    if (len > Prefix::kMaxLen) return invalid(*this, "the prefix is too long");
    const auto prefix = Prefix::enclosing(addrOf<Addr>(addr), len);
    if (prefix.addr() != addrOf<Addr>(addr)) {
      return invalid(*this, "the address has bits behind the prefix");
    }
    return give(reader_.find(prefix), to);
  }
  int match(const uint8_t* addr, hostroute_route& to) override {
    return give(reader_.match(addrOf<Addr>(addr)), to);
  }
  int walk() override {
    int status = HOSTROUTE_OK;
    ahead_ = reader_.prefixes(
        [&](const std::string& damage) { status = fails(HOSTROUTE_DAMAGED, damage.c_str()); });
    return status;
  }
  int next(hostroute_route& to) override {
    while (!ahead_.empty()) {
      const Prefix prefix = ahead_.back();
      ahead_.pop_back();
      if (auto found = reader_.find(prefix)) return give(std::move(found), to);
    }
    return HOSTROUTE_NONE;
  }
  int via(uint32_t index, hostroute_via& to) override {
    if (!given_ || index >= given_->fec.viaCount()) {
      return invalid(*this, "the route has no such next hop");
    }
    const auto& via = given_->fec.begin()[index];
    to = {};
    copyAddr(via.hop, to.hop);
    copyText(via.intf.name(), to.intf, sizeof(to.intf));
    return HOSTROUTE_OK;
  }
  int wait(uint32_t timeoutMs, int& news) override {
    switch (reader_.wait(std::chrono::milliseconds(timeoutMs))) {
      case TableNews::None:
        news = 0;
        return HOSTROUTE_NONE;
      case TableNews::Changed:
        news = HOSTROUTE_CHANGED;
        break;
      case TableNews::Reopened:
        news = HOSTROUTE_REOPENED;
        break;
    }
    return HOSTROUTE_OK;
  }

 private:
  int give(std::optional<Resolved> found, hostroute_route& to) {
    given_ = std::move(found);
    if (!given_) return HOSTROUTE_NONE;
    const auto& route = given_->route;
    to = {};
    copyAddr(route.key.addr(), to.addr);
    to.prefix_len = route.key.len();
    to.metric = route.metricPref.metric;
    to.preference = route.metricPref.preference;
    to.via_count = static_cast<uint32_t>(given_->fec.viaCount());
    to.fec = route.fecId;
    copyText(Routing::routeTypeName(route.routeType), to.type, sizeof(to.type));
    return HOSTROUTE_OK;
  }

  Reader reader_;
  std::vector<Prefix> ahead_;  // of the walk
  std::optional<Resolved> given_;
};

}  // namespace

int hostroute_reader_open(const char* tables, const char* vrf, int family,
                          hostroute_reader** reader, char* error, size_t errorBytes) {
  const auto refuse = [&](int status, const char* why) {
    if (error != nullptr && errorBytes != 0) copyText(why, error, errorBytes);
    return status;
  };
  if (reader == nullptr) return refuse(HOSTROUTE_INVALID, "no place for the reader");
  *reader = nullptr;
  if (tables == nullptr || vrf == nullptr) return refuse(HOSTROUTE_INVALID, "no name");
  try {
    if (family == 4) {
      *reader = new FamilyReader<Tovan::Fib::RouteTableReader>(tables, vrf);
    } else if (family == 6) {
      *reader = new FamilyReader<Tovan::Fib6::RouteTableReader>(tables, vrf);
    } else {
      return refuse(HOSTROUTE_INVALID, "the family is neither 4 nor 6");
    }
    return HOSTROUTE_OK;
  } catch (const Tovan::OpenException& absent) {
    return refuse(HOSTROUTE_NO_TABLE, absent.what());
  } catch (const std::exception& other) {
    return refuse(HOSTROUTE_FAILED, other.what());
  } catch (...) {
    return refuse(HOSTROUTE_FAILED, "unknown failure");
  }
}

void hostroute_reader_close(hostroute_reader* reader) {
  delete reader;
}

const char* hostroute_reader_error(const hostroute_reader* reader) {
  return reader == nullptr ? "no reader" : reader->error.c_str();
}

int hostroute_reader_state(hostroute_reader* reader, hostroute_state* state) {
  if (reader == nullptr || state == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] {
    reader->state(*state);
    return HOSTROUTE_OK;
  });
}

int hostroute_reader_find(hostroute_reader* reader, const uint8_t* addr, uint32_t prefixLen,
                          hostroute_route* route) {
  if (reader == nullptr || addr == nullptr || route == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->find(addr, prefixLen, *route); });
}

int hostroute_reader_match(hostroute_reader* reader, const uint8_t* addr, hostroute_route* route) {
  if (reader == nullptr || addr == nullptr || route == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->match(addr, *route); });
}

int hostroute_reader_walk(hostroute_reader* reader) {
  if (reader == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->walk(); });
}

int hostroute_reader_next(hostroute_reader* reader, hostroute_route* route) {
  if (reader == nullptr || route == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->next(*route); });
}

int hostroute_reader_via(hostroute_reader* reader, uint32_t index, hostroute_via* via) {
  if (reader == nullptr || via == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->via(index, *via); });
}

int hostroute_reader_wait(hostroute_reader* reader, uint32_t timeoutMs, int* news) {
  if (reader == nullptr || news == nullptr) return HOSTROUTE_INVALID;
  return guarded(*reader, [&] { return reader->wait(timeoutMs, *news); });
}

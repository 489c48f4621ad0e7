#include "tests/weakorder/Model.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace Weak {

Model model;

void Model::record(const std::string& tables, const std::function<void()>& writer) {
  mappings_.clear();
  known_.clear();
  places_.clear();
  lines_.clear();
  blocks_.clear();
  log_.clear();
  fenced_ = 0;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/dev/shm/hostroute-" + tables) == std::string::npos) continue;
    // BEGIN-END PERMISSIONS OFFSET DEVICE INODE NAME, most of it in hexadecimal.
    std::istringstream words(line);
    Mapping mapping{};
    std::string skipped;
    char dash = 0;
    words >> std::hex >> mapping.begin >> dash >> mapping.end >> skipped >> mapping.offset >>
        skipped;
    words >> std::dec >> mapping.file;
    mappings_.push_back(mapping);
  }
  mode_ = Recording;
  writer();
  mode_ = Off;
}

std::string Model::explore(size_t exceptions, const std::function<std::string()>& reader) {
  runs_ = 0;
  choices_.clear();
  std::string complaint;
  do {
    ++runs_;
    acquired_ = seen_ = nextChoice_ = 0;
    left_ = exceptions;
    mode_ = Exploring;
    moment_ = exceptions == kAll ? 0 : choose(log_.size() + 1);
    complaint = reader();
    mode_ = Off;
    choices_.resize(nextChoice_);
    while (!choices_.empty() && choices_.back().taken + 1 == choices_.back().count) {
      choices_.pop_back();
    }
    if (!choices_.empty()) ++choices_.back().taken;
  } while (complaint.empty() && !choices_.empty());
  return complaint;
}

/// Chooses one of `count` alternatives. Later runs choose the others.
size_t Model::choose(size_t count) {
  if (count == 1) return 0;
  if (nextChoice_ == choices_.size()) choices_.push_back({.taken = 0, .count = count});
  return choices_[nextChoice_++].taken;
}

Model::Place* Model::placeOf(const void* at, bool make, uint64_t before) {
  const auto found = known_.find(at);
  if (found != known_.end() && (found->second != nullptr || !make)) return found->second;
  const auto address = reinterpret_cast<uintptr_t>(at);
  const auto isIn = [&](const Mapping& m) { return m.begin <= address && address < m.end; };
  const auto mapping = std::find_if(mappings_.begin(), mappings_.end(), isIn);
  if (mapping == mappings_.end()) return known_[at] = nullptr;
  // Writer and reader map the same place at different addresses.
  const uint64_t key = mapping->file << 40 | (address - mapping->begin + mapping->offset);
  if (make) {
    places_.try_emplace(
        key, Place{.before = before, .line = key / 64, .block = key / 4096, .stores = {}});
  }
  const auto place = places_.find(key);
  return known_[at] = place == places_.end() ? nullptr : &place->second;
}

/// The order at a site, which may have been weakened.
std::memory_order Model::orderAt(std::memory_order order, const Where& where) {
  if (order == std::memory_order_relaxed) return order;
  auto& site = siteOfLine_[{where.file, where.line}];
  if (site.empty()) {
    const std::string_view file(where.file);
    site = std::string(file.substr(file.rfind('/') + 1)) + ":" + std::to_string(where.line) +
           " of " + where.function;
    sites_.insert(site);
  }
  return site == weakened_ ? std::memory_order_relaxed : order;
}

/// The moment of the log that is read in a part of the memory; kAll if there is no exception.
size_t Model::momentOf(const Parts& parts, uint64_t part) const {
  const auto found = parts.find(part);
  return found == parts.end() || found->second.run != runs_ ? kAll : found->second.moment;
}

uint64_t Model::load(const void* at, uint64_t stands, std::memory_order order, const Where& where) {
  if (mode_ != Exploring) return stands;
  Place* const place = placeOf(at, false, 0);
  if (place == nullptr) return stands;
  const auto& stores = place->stores;
  const auto upTo = [&](size_t limit) {
    return static_cast<size_t>(std::lower_bound(stores.begin(), stores.end(), limit) -
                               stores.begin());
  };
  if (place->run != runs_) {
    place->run = runs_;
    place->lastRead = place->loads = 0;
  }
  // A reader that repeats its load finally reads the newest store.
  constexpr size_t kPatience = 20;
  if (++place->loads > kPatience) moment_ = log_.size();
  const size_t oldest = std::max(upTo(acquired_), place->lastRead);
  const size_t visible = place->loads > kPatience ? log_.size()
                                                  : std::min(momentOf(lines_, place->line),
                                                             momentOf(blocks_, place->block));
  const size_t usual = std::max(oldest, upTo(std::min(moment_, visible)));
  size_t taken = usual;
  if (left_ > 0) {
    const auto valueOf = [&](size_t i) {
      return i == 0 ? place->before : log_[stores[i - 1]].value;
    };
    // Of the older stores of one value, only the oldest is chosen: it restricts later loads least.
    ways_.assign(1, usual);
    for (size_t i = oldest; i <= stores.size(); ++i) {
      const bool isRepeated = i != oldest && i < usual && valueOf(i) == valueOf(i - 1);
      if (i != usual && !isRepeated) ways_.push_back(i);
    }
    taken = ways_[choose(ways_.size())];
    if (taken != usual) {
      --left_;
      const bool isOlder = taken < usual;
      auto& around = isOlder && choose(2) == 1 ? blocks_[place->block] : lines_[place->line];
      around = {.run = runs_, .moment = isOlder ? (taken == 0 ? 0 : stores[taken - 1] + 1) : kAll};
      if (!isOlder) blocks_[place->block].moment = kAll;
    }
  }
  place->lastRead = taken;
  if (taken == 0) return place->before;
  const Store& store = log_[stores[taken - 1]];
  moment_ = std::max(moment_, stores[taken - 1] + 1);
  seen_ = std::max(seen_, store.publishes);
  if (orderAt(order, where) != std::memory_order_relaxed) {
    acquired_ = std::max(acquired_, store.publishes);
  }
  return store.value;
}

void Model::store(const void* at, uint64_t former, uint64_t value, std::memory_order order,
                  const Where& where) {
  if (mode_ != Recording) return;
  Place* const place = placeOf(at, true, former);
  if (place == nullptr) return;
  const bool releases = orderAt(order, where) != std::memory_order_relaxed;
  place->stores.push_back(log_.size());
  log_.push_back({.value = value, .publishes = releases ? log_.size() + 1 : fenced_});
}

void Model::fence(std::memory_order order, const Where& where) {
  if (mode_ == Off || orderAt(order, where) == std::memory_order_relaxed) return;
  if (mode_ == Recording && order != std::memory_order_acquire) fenced_ = log_.size();
  if (mode_ == Exploring && order != std::memory_order_release) {
    acquired_ = std::max(acquired_, seen_);
  }
}

}  // namespace Weak

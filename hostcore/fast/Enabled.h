// Which short cuts the engine is built with: all of them, but for a benchmark.
#pragma once

namespace HostCore {

/// A short cut whose gain can be measured, see `engine --without` in bench/.
enum class ShortCut {
  None,       ///< all short cuts are in use
  Cover,      ///< the cover of an interface's last neighbour is cached
  Repeat,     ///< an event that would repeat what the machine has done takes no step
  Relevance,  ///< events that are not relevant for a machine are left out
  Reactors,   ///< reactors without a relevant event are made later
  Prefetch,   ///< the memory that one event reads is prefetched
  Pipeline,   ///< the memory of many addresses is prefetched in stages
};

#ifdef HOSTROUTE_WITHOUT
/// A benchmark is built without this one, to measure its gain.
constexpr bool isEnabled(ShortCut shortCut) {
  return shortCut != ShortCut::HOSTROUTE_WITHOUT;
}
#else
constexpr bool isEnabled(ShortCut) {
  return true;
}
#endif

}  // namespace HostCore

// The families of the tests of tables, and the fixture of tests of the tables of routes and FECs.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/rovel/AdjacencyHelper.h"
#include "platform/tovan/RouteTableReader.h"

namespace Tovan {

struct TestIpv4 {
  using Addr = Zemit::IpAddr;
  using RouteStatus = Fib::RouteStatus;
  using ForwardingStatus = Fib::ForwardingStatus;
  using Reader = Fib::RouteTableReader;
  using HostStatus = Routing::Host::Status;
  using AdjacencyHelper = Rovel::AdjacencyHelper;
  static constexpr const char* kNumber = "4";
  static Addr addr(uint32_t n) { return Addr(0x0A000000 + n); }
};
struct TestIpv6 {
  using Addr = Zemit::Ip6Addr;
  using RouteStatus = Fib6::RouteStatus;
  using ForwardingStatus = Fib6::ForwardingStatus;
  using Reader = Fib6::RouteTableReader;
  using HostStatus = Routing6::Host::Status;
  using AdjacencyHelper = Rovel::Adjacency6Helper;
  static constexpr const char* kNumber = "6";
  static Addr addr(uint32_t n) { return {0x20010DB800000000, n}; }
};
using TestFamilies = testing::Types<TestIpv4, TestIpv6>;

template <class F>
class RouteTablesTest : public testing::Test {
 protected:
  using RouteStatus = typename F::RouteStatus;
  using ForwardingStatus = typename F::ForwardingStatus;
  using Route = typename RouteStatus::Route;
  using Prefix = typename RouteStatus::Prefix;
  using Fec = typename ForwardingStatus::Fec;
  using ViaSet = typename F::AdjacencyHelper::ViaSet;

  ~RouteTablesTest() override { removeTablesOf(name); }

  static Prefix host(uint32_t n) { return Prefix::host(F::addr(n)); }

  const std::string name = "test" + std::to_string(::getpid());
};

}  // namespace Tovan

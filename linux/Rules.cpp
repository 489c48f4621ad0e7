// The kernel's routing policy rules.
#include "linux/Rules.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>

#include "linux/Netlink.h"

namespace Linux {
namespace {

/// Attributes that restrict a rule to some packets.
constexpr std::array kSelectors = {FRA_FWMARK,      FRA_FWMASK,      FRA_IIFNAME,
                                   FRA_OIFNAME,     FRA_UID_RANGE,   FRA_IP_PROTO,
                                   FRA_SPORT_RANGE, FRA_DPORT_RANGE, FRA_TUN_ID};

uint32_t numberOf(const nlattr* attribute) {
  return mnl_attr_validate(attribute, MNL_TYPE_U32) < 0 ? 0 : mnl_attr_get_u32(attribute);
}

/// Reads a rule. \return nothing for a rule without a table and for an incomplete message.
std::optional<Rule> ruleOf(const nlmsghdr* message) {
  if (message->nlmsg_type != RTM_NEWRULE ||
      mnl_nlmsg_get_payload_len(message) < sizeof(fib_rule_hdr))
    return std::nullopt;
  fib_rule_hdr header{};
  std::memcpy(&header, mnl_nlmsg_get_payload(message), sizeof header);
  if (header.action != FR_ACT_TO_TBL) return std::nullopt;
  Rule rule;
  rule.family = header.family == AF_INET ? 4 : 6;
  rule.table = header.table;
  rule.isForAll = header.src_len == 0 && header.dst_len == 0 && header.tos == 0 &&
                  (header.flags & FIB_RULE_INVERT) == 0;
  const auto* attribute =
      static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(message, sizeof header));
  const auto* end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(message));
  while (mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
    const auto type = mnl_attr_get_type(attribute);
    if (std::ranges::find(kSelectors, type) != kSelectors.end()) rule.isForAll = false;
    if (type == FRA_PRIORITY) rule.priority = numberOf(attribute);
    if (type == FRA_TABLE) rule.table = numberOf(attribute);
    if (type == FRA_L3MDEV) rule.isForVrfs = true;
    // With all bits set, the attribute has no effect.
    const bool isLimit = type == FRA_SUPPRESS_PREFIXLEN || type == FRA_SUPPRESS_IFGROUP;
    if (isLimit && numberOf(attribute) != UINT32_MAX) rule.skipsShort = true;
    attribute = mnl_attr_next(attribute);
  }
  if (rule.isForVrfs) rule.table = 0;
  return rule;
}

int takeRule(const nlmsghdr* message, void* rules) {
  if (const auto rule = ruleOf(message)) static_cast<std::vector<Rule>*>(rules)->push_back(*rule);
  return MNL_CB_OK;
}

[[noreturn]] void refuse() {
  throw NetlinkError("asking for the routing rules", errno);
}

void dumpRules(int family, std::vector<Rule>& rules) {
  const SocketPtr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) refuse();
  std::array<char, 65536> buffer{};
  auto* const message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = RTM_GETRULE;
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message->nlmsg_seq = 1;
  auto* const header =
      static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(message, sizeof(fib_rule_hdr)));
  header->family = static_cast<uint8_t>(family);
  if (mnl_socket_sendto(socket.get(), message, message->nlmsg_len) < 0) refuse();
  for (int state = MNL_CB_OK; state > MNL_CB_STOP;) {
    const auto size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    if (size < 0) {
      if (errno == EINTR) continue;
      refuse();
    }
    state = mnl_cb_run(buffer.data(), static_cast<size_t>(size), 1,
                       mnl_socket_get_portid(socket.get()), takeRule, &rules);
    // The kernel does not support rules of this family.
    if (state < 0 && (errno == EOPNOTSUPP || errno == EAFNOSUPPORT)) return;
    if (state < 0) refuse();
  }
}

}  // namespace

std::vector<Rule> dumpRules() {
  std::vector<Rule> rules;
  for (const int family : {AF_INET, AF_INET6}) dumpRules(family, rules);
  std::ranges::stable_sort(rules, {},
                           [](const Rule& rule) { return std::tuple(rule.family, rule.priority); });
  return rules;
}

}  // namespace Linux

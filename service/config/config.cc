// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "config/config.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <tuple>

#include "base/fd.h"
#include "base/log.h"
#include "base/trust.h"
#include "base/vault_endings.h"

namespace ksd::config {
namespace {

constexpr size_t kLongestSocketPath = sizeof(sockaddr_un{}.sun_path) - 1;
constexpr size_t kLongestUri = sizeof(HostHelloReply{}.running_cfg_uri) - 1;
constexpr char kSubordinateUsersPath[] = "/etc/subuid";
constexpr std::string_view kUriScheme = "lmdb:///";

std::optional<uid_t> user_id(const std::string &name) {
  const passwd *entry = getpwnam(name.c_str());
  return entry != nullptr ? std::optional(entry->pw_uid) : std::nullopt;
}

std::optional<gid_t> group_id(const std::string &name) {
  const group *entry = getgrnam(name.c_str());
  return entry != nullptr ? std::optional(entry->gr_gid) : std::nullopt;
}

// number_of takes a text that is a number and nothing else.
std::optional<uint32_t> number_of(std::string_view text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// edits_between counts the letters to add, take out, exchange for others or for the next one that make `b` of `a`.
size_t edits_between(std::string_view a, std::string_view b) {
  std::vector<std::vector<size_t>> edits(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) edits[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) edits[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t exchanged = edits[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, exchanged});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
    }
  }
  return edits[a.size()][b.size()];
}

// Reader takes the keys of one table, each at most once, and in the end finds those that nobody asked for. What is
// absent leaves the default as it is.
class Reader {
 public:
  Reader(const toml::table &table, std::string where, std::vector<ConfigProblem> &problems)
      : table_(table), where_(std::move(where)), problems_(problems) {}

  const toml::node *take(std::string_view key) {
    if (std::find(known_.begin(), known_.end(), key) == known_.end()) known_.push_back(key);
    return table_.get(key);
  }

  void text(std::string_view key, std::string &out) {
    const toml::node *node = take(key);
    if (node == nullptr) return;
    if (const auto value = node->value_exact<std::string>()) {
      out = *value;
    } else {
      problem(*node, fmt::format("{} takes a text in quotes", name(key)));
    }
  }

  void flag(std::string_view key, bool &out) {
    const toml::node *node = take(key);
    if (node == nullptr) return;
    if (const auto value = node->value_exact<bool>()) {
      out = *value;
    } else {
      problem(*node, fmt::format("{} takes true or false", name(key)));
    }
  }

  template <typename Number>
  void number(std::string_view key, uint64_t least, uint64_t most, Number &out) {
    const toml::node *node = take(key);
    if (node == nullptr) return;
    const auto value = node->value_exact<int64_t>();
    if (value && *value >= 0 && static_cast<uint64_t>(*value) >= least && static_cast<uint64_t>(*value) <= most) {
      out = static_cast<Number>(*value);
    } else {
      problem(*node, fmt::format("{} takes a whole number from {} to {}", name(key), least, most));
    }
  }

  // each calls `use` with every element of an array.
  template <typename Use>
  void each(std::string_view key, const char *of_what, Use use) {
    const toml::node *node = take(key);
    if (node == nullptr) return;
    const toml::array *array = node->as_array();
    if (array == nullptr) return problem(*node, fmt::format("{} takes an array of {}", name(key), of_what));
    for (const toml::node &element : *array) use(element);
  }

  // each_key calls `use` with every key of the table, which may have any, and what stands behind it.
  template <typename Use>
  void each_key(Use use) {
    for (const auto &[key, node] : table_) {
      take(key.str());
      use(key.str(), node);
    }
  }

  // ids calls `use` with every user or group of an array, names resolved.
  template <typename Resolve, typename Use>
  void ids(std::string_view key, const char *kind, Resolve resolve, Use use) {
    each(key, fmt::format("{} names and ids", kind).c_str(), [&](const toml::node &element) {
      if (const auto id = one_id(element, kind, resolve)) use(element, *id);
    });
  }

  template <typename Resolve>
  std::optional<uid_t> one_id(const toml::node &node, const char *kind, Resolve resolve) {
    if (const auto number = node.value_exact<int64_t>()) {
      if (*number >= 0 && *number < std::numeric_limits<uid_t>::max()) return static_cast<uid_t>(*number);
    } else if (const auto text = node.value_exact<std::string>()) {
      if (const auto id = resolve(*text)) return id;
      problem(node, fmt::format("there is no {} \"{}\" on this machine; create it or give a number", kind, *text));
      return std::nullopt;
    }
    problem(node, fmt::format("a {} is a name in quotes or a number", kind));
    return std::nullopt;
  }

  std::optional<Reader> section(std::string_view key) {
    const toml::node *node = take(key);
    if (node == nullptr) return std::nullopt;
    if (const toml::table *table = node->as_table()) return Reader(*table, std::string(key), problems_);
    problem(*node, fmt::format("{} is a section: write [{}]", key, key));
    return std::nullopt;
  }

  void refuse_unknown_keys() {
    for (const auto &[key, node] : table_) {
      if (std::find(known_.begin(), known_.end(), key.str()) != known_.end()) continue;
      const auto nearest = std::min_element(known_.begin(), known_.end(), [&key = key](auto a, auto b) {
        return edits_between(key.str(), a) < edits_between(key.str(), b);
      });
      at(key.source(), fmt::format("unknown key {}; the nearest known one is {}; known here: {}", name(key.str()),
                                   *nearest, fmt::join(known_, ", ")));
    }
  }

  void problem(const toml::node &node, std::string text) { at(node.source(), std::move(text)); }
  void problem(std::string text) { at(table_.source(), std::move(text)); }

 private:
  std::string name(std::string_view key) const {
    return where_.empty() ? std::string(key) : fmt::format("{}.{}", where_, key);
  }
  void at(const toml::source_region &source, std::string text) {
    problems_.push_back(
        {source.begin.line, source.begin.column, std::move(text), source.path ? *source.path : std::string()});
  }

  const toml::table &table_;
  std::string where_;
  std::vector<ConfigProblem> &problems_;
  std::vector<std::string_view> known_;
};

void read_path(Reader &reader, std::string_view key, size_t longest, std::string &out) {
  reader.text(key, out);
  const toml::node *node = reader.take(key);
  if (node == nullptr || !node->is_string()) return;
  if (out.empty() || out.front() != '/') {
    reader.problem(*node, fmt::format("{} takes an absolute path", key));
  } else if (out.size() > longest) {
    reader.problem(*node, fmt::format("{} is {} bytes long; at most {} are possible", key, out.size(), longest));
  }
}

void replace_all(std::string &text, std::string_view from, const std::string &to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::string expand(std::string uri, uid_t uid, uint16_t vdc) {
  replace_all(uri, "{uid}", std::to_string(uid));
  replace_all(uri, "{vdc}", std::to_string(vdc));
  return uri;
}

void read_cache_uri(Reader &reader, Config &config) {
  reader.text("cache_uri", config.cache_uri);
  const toml::node *node = reader.take("cache_uri");
  const std::string &uri = config.cache_uri;
  if (node == nullptr || uri.empty()) return;
  if (!uri.starts_with(kUriScheme)) {
    reader.problem(*node, "cache_uri takes \"lmdb:///folder\", or \"\" for no cache");
  } else if (expand(uri, 0, 0).find_first_of("{}") != std::string::npos) {
    reader.problem(*node, "cache_uri knows the placeholders {uid} and {vdc} only");
  } else if (expand(uri, std::numeric_limits<uid_t>::max(), UINT16_MAX).size() > kLongestUri) {
    reader.problem(*node, fmt::format("cache_uri is too long: {} bytes are possible", kLongestUri));
  }
}

void read_socket_mode(Reader &reader, Config &config) {
  const toml::node *node = reader.take("socket_mode");
  if (node == nullptr) return;
  const auto mode = node->value_exact<int64_t>();
  if (mode && *mode >= 0 && *mode <= 0777) {
    config.socket_mode = static_cast<mode_t>(*mode);
  } else {
    reader.problem(*node, "socket_mode takes permission bits in octal, as 0o660");
  }
}

void read_sandbox(Reader &reader, Config &config) {
  constexpr std::pair<std::string_view, Sandbox> kChoices[] = {
      {"auto", Sandbox::kAuto}, {"off", Sandbox::kOff}, {"required", Sandbox::kRequired}};
  const toml::node *node = reader.take("sandbox");
  if (node == nullptr) return;
  const auto text = node->value_exact<std::string>();
  for (const auto &[name, choice] : kChoices) {
    if (text == name) {
      config.sandbox = choice;
      return;
    }
  }
  reader.problem(*node, "sandbox takes \"auto\", \"off\" or \"required\"");
}

void read_service(Reader &reader, Config &config) {
  read_path(reader, "socket", kLongestSocketPath, config.socket);
  read_socket_mode(reader, config);
  if (const toml::node *node = reader.take("socket_group")) {
    config.socket_group = reader.one_id(*node, "group", group_id);
  }
  read_path(reader, "vault", SIZE_MAX, config.vault);
  read_path(reader, "master_key_file", SIZE_MAX, config.master_key_file);
  read_cache_uri(reader, config);
  reader.text("log_level", config.log_level);
  if (!is_log_level(config.log_level)) {
    reader.problem(*reader.take("log_level"), "log_level takes \"debug\", \"info\", \"warning\" or \"error\"");
  }
  constexpr uint64_t kLeastWait = 10;
  constexpr uint64_t kMostWait = 3'600'000;
  reader.number("receive_limit_ms", kLeastWait, kMostWait, config.receive_limit_ms);
  reader.number("send_limit_ms", kLeastWait, kMostWait, config.send_limit_ms);
  reader.number("silence_limit_ms", kLeastWait, kMostWait, config.silence_limit_ms);
  reader.number("stop_limit_ms", kLeastWait, kMostWait, config.stop_limit_ms);
  reader.number("supstate", 0, UINT32_MAX, config.supstate);
  reader.flag("allow_nobody", config.allow_nobody);
  read_sandbox(reader, config);
}

void read_vault(Reader &reader, Config &config) {
  read_path(reader, "witness", SIZE_MAX, config.witness);
  const toml::node *node = reader.take("witness");
  if (node == nullptr) return;
  const auto is_witness = [&](const std::string &path) { return !path.empty() && path == config.witness; };
  for (const std::string_view ending : kVaultEndings) {
    if (is_witness(config.vault + std::string(ending))) {
      reader.problem(*node, "witness names a file that the vault needs for itself; name another one");
    }
  }
  if (is_witness(config.master_key_file)) reader.problem(*node, "witness names the master key; name another file");
}

// fit_places has what isn't told about connections follow their number: a file may be content to give that.
void fit_places(Limits &limits) {
  constexpr uint32_t kPlacesToAnUnmappedOne = 16;
  constexpr uint32_t kPlacesToAnAdministrators = 64;
  limits.connections_per_user = std::min(limits.connections_per_user, limits.connections);
  limits.connections_unmapped =
      std::min(limits.connections_unmapped, std::max(1u, limits.connections / kPlacesToAnUnmappedOne));
  limits.connections_administrators =
      std::min(limits.connections_administrators, limits.connections / kPlacesToAnAdministrators);
}

struct Total {
  uint64_t number;
  const char *of;
};

void refuse_above(Reader &reader, std::string_view key, uint64_t value, uint64_t most, const Total &total,
                  const char *why) {
  const toml::node *node = reader.take(key);
  if (node == nullptr || value <= most) return;
  reader.problem(*node,
                 fmt::format("{} of {} {}: {}; at most {} are possible", value, total.number, total.of, why, most));
}

// Nothing can be kept of what isn't there, and nobody may be able to take everything.
void refuse_places_that_are_not_there(Reader &reader, const Limits &limits) {
  const auto refuse_above = [&](std::string_view key, uint64_t value, uint64_t most, const char *why) {
    ksd::config::refuse_above(reader, key, value, most, {limits.connections, "connections"}, why);
  };
  const uint32_t most_reserved = limits.connections - 1;
  refuse_above("connections_per_user", limits.connections_per_user, limits.connections, "no user can have so many");
  refuse_above("connections_unmapped", limits.connections_unmapped, most_reserved,
               "none would be left for users with a VDC");
  refuse_above("connections_administrators", limits.connections_administrators,
               most_reserved - std::min(limits.connections_unmapped, most_reserved),
               "none would be left for users with a VDC");
}

void read_limits(Reader &reader, Limits &limits) {
  constexpr uint64_t kMostConnections = 65535;
  constexpr uint64_t kMostEntries = 65535;  // positions in the table are 16 bits wide
  constexpr uint64_t kMostBytes = uint64_t{1} << 40;
  constexpr uint64_t kMostConnects = 1'000'000;
  constexpr uint64_t kMostAtOnce = 1024;
  reader.number("connections", 1, kMostConnections, limits.connections);
  fit_places(limits);
  reader.number("connections_per_user", 1, kMostConnections, limits.connections_per_user);
  reader.number("connections_unmapped", 0, kMostConnections, limits.connections_unmapped);
  reader.number("connections_administrators", 0, kMostConnections, limits.connections_administrators);
  refuse_places_that_are_not_there(reader, limits);
  reader.number("connects_per_second", 1, kMostConnects, limits.connects_per_second);
  reader.number("channels", 0, kMostConnections, limits.channels);
  reader.number("requests_per_user", 0, kMostAtOnce, limits.requests_per_user);
  reader.number("changes_per_user", 1, kMostAtOnce, limits.changes_per_user);
  reader.number("entries", 0, kMostEntries, limits.entries);
  limits.entries_per_user = std::min(limits.entries_per_user, limits.entries);
  reader.number("entries_per_user", 0, kMostEntries, limits.entries_per_user);
  reader.number("bytes", 0, kMostBytes, limits.bytes);
  limits.bytes_per_user = std::min(limits.bytes_per_user, limits.bytes);
  reader.number("bytes_per_user", 0, kMostBytes, limits.bytes_per_user);
  constexpr char kTooMany[] = "no user can have so many";
  refuse_above(reader, "entries_per_user", limits.entries_per_user, limits.entries, {limits.entries, "entries"},
               kTooMany);
  refuse_above(reader, "bytes_per_user", limits.bytes_per_user, limits.bytes, {limits.bytes, "bytes"}, kTooMany);
}

void read_gate(Reader &reader, std::string_view key, std::bitset<256> &gate) {
  if (reader.take(key) != nullptr) gate.reset();
  reader.each(key, "numbers", [&](const toml::node &element) {
    const auto number = element.value_exact<int64_t>();
    if (number && *number >= 0 && *number < 256) {
      gate.set(static_cast<size_t>(*number));
    } else {
      reader.problem(element, "a gate is a number from 0 to 255");
    }
  });
}

// The kernel names everybody whom a container keeps from being named by this one number, so whatever it is allowed is
// allowed to users of any container.
constexpr uid_t kNobody = 65534;

// may_stand_for tells whether `id` is somebody, and says otherwise what is wrong with it.
bool may_stand_for(Reader &reader, const Config &config, const toml::node &node, uid_t id) {
  if (id != kNobody || config.allow_nobody) return true;
  reader.problem(node,
                 fmt::format("{} is what the kernel calls everybody without an id of this machine; name somebody, "
                             "or set service.allow_nobody = true",
                             id));
  return false;
}

// read_vdc takes one [[vdc]]: an id, and the users and groups that it is for.
void read_vdc(Reader &reader, Config &config, std::set<uint16_t> &seen) {
  const toml::node *id_node = reader.take("id");
  if (id_node == nullptr) reader.problem("this [[vdc]] has no id");
  uint16_t id = 0;
  reader.number("id", 0, HOST_NO_VDC - 1, id);
  if (id_node != nullptr && !seen.insert(id).second) {
    reader.problem(*id_node, fmt::format("VDC {} has a [[vdc]] already; put all its users there", id));
  }
  reader.ids("users", "user", user_id, [&](const toml::node &node, uid_t uid) {
    if (may_stand_for(reader, config, node, uid) && !config.vdc_of_user.emplace(uid, id).second) {
      reader.problem(node, fmt::format("user {} belongs to VDC {} already", uid, config.vdc_of_user.at(uid)));
    }
  });
  reader.ids("groups", "group", group_id, [&](const toml::node &node, gid_t gid) {
    if (may_stand_for(reader, config, node, gid)) config.vdc_of_group.emplace_back(gid, id);
  });
  reader.refuse_unknown_keys();
}

void read_vdcs(Reader &reader, Config &config, std::vector<ConfigProblem> &problems) {
  std::set<uint16_t> seen;
  reader.each("vdc", "tables: write [[vdc]]", [&](const toml::node &element) {
    const toml::table *table = element.as_table();
    if (table == nullptr) return reader.problem(element, "a vdc is a table: write [[vdc]]");
    Reader vdc(*table, "vdc", problems);
    read_vdc(vdc, config, seen);
  });
}

void read_administrators(Reader &reader, Config &config) {
  reader.ids("users", "user", user_id, [&](const toml::node &node, uid_t uid) {
    if (may_stand_for(reader, config, node, uid)) config.administrator_users.insert(uid);
  });
  reader.ids("groups", "group", group_id, [&](const toml::node &node, gid_t gid) {
    if (may_stand_for(reader, config, node, gid)) config.administrator_groups.insert(gid);
  });
}

bool has_only(std::string_view text, std::string_view further) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || further.find(c) != std::string_view::npos;
  });
}

constexpr std::string_view kCapitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Endpoint is where a member of the store listens, as "https://host:port" says it.
struct Endpoint {
  bool secure = false;
  std::string host;  // of an address of version 6 without its brackets
  std::string host_and_port;

  bool is_loopback() const {
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1) return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET;
    return host == "localhost" || host == "::1";
  }
};

std::optional<Endpoint> endpoint_of(std::string_view url) {
  constexpr std::string_view kSecure = "https://", kPlain = "http://";
  Endpoint endpoint;
  endpoint.secure = url.starts_with(kSecure);
  if (!endpoint.secure && !url.starts_with(kPlain)) return std::nullopt;
  url.remove_prefix(endpoint.secure ? kSecure.size() : kPlain.size());
  endpoint.host_and_port = url;
  const size_t colon = url.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::optional<uint32_t> port = number_of(url.substr(colon + 1));
  endpoint.host = url.substr(0, colon);
  in6_addr address{};
  if (endpoint.host.starts_with('[') && endpoint.host.ends_with(']')) {
    endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    if (inet_pton(AF_INET6, endpoint.host.c_str(), &address) != 1) return std::nullopt;
  } else if (endpoint.host.empty() || !has_only(endpoint.host, std::string(kCapitals) + ".-")) {
    return std::nullopt;
  }
  return port && *port > 0 && *port <= UINT16_MAX ? std::optional(endpoint) : std::nullopt;
}

// read_endpoints gives whether TLS is needed: with all members, or with none of them.
bool read_endpoints(Reader &reader, Shared &shared) {
  std::optional<bool> secure;
  reader.each("endpoints", "texts", [&](const toml::node &element) {
    const auto text = element.value_exact<std::string>();
    const std::optional<Endpoint> endpoint = text ? endpoint_of(*text) : std::nullopt;
    if (!endpoint) return reader.problem(element, "an endpoint is \"https://host:port\"");
    if (!endpoint->secure && !endpoint->is_loopback()) {
      return reader.problem(element,
                            fmt::format("{} isn't on this machine: it needs https://, with ca, certificate and "
                                        "key",
                                        *text));
    }
    if (endpoint->secure != secure.value_or(endpoint->secure)) {
      return reader.problem(element, "endpoints are all of https:// or all of http://");
    }
    secure = endpoint->secure;
    shared.endpoints.push_back(endpoint->host_and_port);
  });
  const toml::node *node = reader.take("endpoints");
  if (node == nullptr) reader.problem("[shared] has no endpoints: where the store is");
  if (node != nullptr && node->is_array() && node->as_array()->empty()) reader.problem(*node, "endpoints names none");
  return secure.value_or(false);
}

void read_files_for_tls(Reader &reader, Shared &shared, bool secure) {
  const std::pair<const char *, std::string *> files[] = {
      {"ca", &shared.ca}, {"certificate", &shared.certificate}, {"key", &shared.key}};
  for (const auto &[key, path] : files) {
    read_path(reader, key, SIZE_MAX, *path);
    const toml::node *node = reader.take(key);
    if (secure && node == nullptr) {
      reader.problem(fmt::format("endpoints of https:// need {}: each side shows the other who it is", key));
    } else if (!secure && node != nullptr) {
      reader.problem(*node, fmt::format("{} is for endpoints of https://", key));
    }
  }
}

std::string host_name() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  std::string small = name.data();
  for (char &c : small) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return small;
}

void read_name(Reader &reader, std::string_view key, std::string_view further, size_t longest, std::string &out) {
  reader.text(key, out);
  if (!out.empty() && out.size() <= longest && has_only(out, further)) return;
  const std::string text = fmt::format("{} takes a name of 1 to {} of a to z, 0 to 9 and {}", key, longest, further);
  const toml::node *node = reader.take(key);
  if (node == nullptr) return reader.problem(fmt::format("{}; \"{}\", this machine's name, is none", text, out));
  reader.problem(*node, text);
}

void read_owners(Reader &reader, Shared &shared) {
  constexpr size_t kLongest = 63;
  std::set<uid_t> seen;
  reader.each_key([&](std::string_view name, const toml::node &node) {
    if (name.empty() || name.size() > kLongest) {
      return reader.problem(node, fmt::format("an owner's name has 1 to {} bytes", kLongest));
    }
    const std::optional<uid_t> user = reader.one_id(node, "user", user_id);
    if (user && !seen.insert(*user).second) reader.problem(node, fmt::format("user {} has a name already", *user));
    if (user) shared.owners.emplace(name, *user);
  });
}

void read_shared(Reader &reader, Shared &shared) {
  constexpr size_t kLongestName = 63;
  read_files_for_tls(reader, shared, read_endpoints(reader, shared));
  shared.prefix.pop_back();
  read_name(reader, "prefix", std::string(kCapitals) + "._-/", kLongestName, shared.prefix);
  shared.prefix += '/';
  shared.machine = host_name();
  read_name(reader, "machine", "._-", kLongestName, shared.machine);
  read_path(reader, "mirror", SIZE_MAX, shared.mirror);
  reader.flag("create", shared.create);
  reader.number("accept_incarnation", 0, INT64_MAX, shared.accept_incarnation);
  reader.number("write_wait_ms", 100, 60'000, shared.write_wait_ms);
  reader.number("max_age_s", 1, 2'592'000, shared.max_age_s);
  if (std::optional<Reader> owners = reader.section("owners")) read_owners(*owners, shared);
}

void read_all(const toml::table &table, Config &config, std::vector<ConfigProblem> &problems) {
  Reader top(table, "", problems);
  const auto in_section = [&](std::string_view key, auto read) {
    if (std::optional<Reader> section = top.section(key)) {
      read(*section);
      section->refuse_unknown_keys();
    }
  };
  in_section("service", [&](Reader &reader) { read_service(reader, config); });
  in_section("vault", [&](Reader &reader) { read_vault(reader, config); });
  in_section("limits", [&](Reader &reader) { read_limits(reader, config.limits); });
  in_section("trace", [&](Reader &reader) {
    read_gate(reader, "record", config.gates.record);
    read_gate(reader, "debug", config.gates.debug);
  });
  in_section("administrators", [&](Reader &reader) { read_administrators(reader, config); });
  in_section("shared", [&](Reader &reader) { read_shared(reader, config.shared.emplace()); });
  read_vdcs(top, config, problems);
  top.refuse_unknown_keys();
}

// in_one_line shows control characters, which a problem may quote from the file, as hexadecimal.
std::string in_one_line(std::string_view text) {
  std::string line;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      line += fmt::format("\\x{:02x}", c);
    } else {
      line += c;
    }
  }
  return line;
}

std::optional<std::string> read_file(int fd) {
  std::string text;
  std::array<char, 4096> part;
  while (true) {
    const ssize_t size = read(fd, part.data(), part.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return std::nullopt;
    if (size == 0) return text;
    text.append(part.data(), static_cast<size_t>(size));
  }
}

// read_safely reads the file at `path`, or says why not.
std::optional<std::string> read_safely(const std::string &path, std::string &out_text) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) < 0) return std::strerror(errno);
  if (status.st_rdev == makedev(1, 3)) return std::nullopt;  // /dev/null, in place of a file that is switched off
  // Whoever writes this file decides who may use which keys.
  if (auto why = why_others_may_replace(path)) return "isn't safe: " + std::move(*why);
  std::optional<std::string> text = read_file(fd.get());
  if (!text) return std::strerror(errno);
  out_text = std::move(*text);
  return std::nullopt;
}

std::optional<toml::table> parse(std::string_view text, const std::string &file, std::vector<ConfigProblem> &problems) {
  try {
    return file.empty() ? toml::parse(text) : toml::parse(text, file);
  } catch (const toml::parse_error &error) {
    const toml::source_position at = error.source().begin;
    problems.push_back({at.line, at.column, std::string(error.description()), file});
    return std::nullopt;
  }
}

// Problems quote the file, which may have anything in it, and are told in the order of its lines.
void arrange(std::vector<ConfigProblem> &problems) {
  for (ConfigProblem &problem : problems) problem.text = in_one_line(problem.text);
  std::stable_sort(problems.begin(), problems.end(), [](const auto &a, const auto &b) {
    return std::tie(a.file, a.line, a.column) < std::tie(b.file, b.line, b.column);
  });
}

// merge_tables puts the tables of a later file's array into that of earlier ones, in place of those with the same id.
// Two of one file with the same id stay: they are a mistake, which is told.
void merge_tables(toml::array &into, toml::array &&from) {
  const size_t earlier = into.size();
  const auto id_of = [](const toml::node &node) {
    const toml::table *table = node.as_table();
    return table != nullptr ? table->get_as<int64_t>("id") : nullptr;
  };
  for (toml::node &element : from) {
    const auto *id = id_of(element);
    size_t at = 0;
    while (at < earlier && (id == nullptr || id_of(into[at]) == nullptr || **id_of(into[at]) != **id)) ++at;
    // A node is moved, not copied: only so it remembers where it stands in its file.
    std::move(element).visit([&](auto &&node) {
      if (at < earlier) {
        into.replace(into.cbegin() + static_cast<std::ptrdiff_t>(at), std::forward<decltype(node)>(node));
      } else {
        into.push_back(std::forward<decltype(node)>(node));
      }
    });
  }
}

// merge puts what a later file says into what earlier ones said.
void merge(toml::table &into, toml::table &&from) {
  for (auto &&[key, node] : from) {
    toml::node *there = into.get(key);
    if (there != nullptr && there->is_table() && node.is_table()) {
      merge(*there->as_table(), std::move(*node.as_table()));
    } else if (there != nullptr && there->is_array_of_tables() && node.is_array_of_tables()) {
      merge_tables(*there->as_array(), std::move(*node.as_array()));
    } else {
      into.erase(key);
      std::move(node).visit([&, &key = key](auto &&value) { into.insert(key, std::forward<decltype(value)>(value)); });
    }
  }
}

// Whose range is nobody's any more stands together under its first number.
std::optional<SubordinateUsers> subordinate_users_of(std::string_view line) {
  const size_t first_at = line.find(':') + 1;
  const size_t count_at = line.find(':', first_at) + 1;
  if (first_at == 0 || count_at == 0) return std::nullopt;
  const std::string_view owner = line.substr(0, first_at - 1);
  const auto first = number_of(line.substr(first_at, count_at - 1 - first_at));
  const auto count = number_of(line.substr(count_at));
  if (!first || !count) return std::nullopt;
  const std::optional<uid_t> named = user_id(std::string(owner));
  return SubordinateUsers{*first, *count, named ? *named : number_of(owner).value_or(*first)};
}

// None are no problem: most machines have no such file.
std::vector<SubordinateUsers> load_subordinate_users() {
  const UniqueFd fd(open(kSubordinateUsersPath, O_RDONLY | O_CLOEXEC));
  return parse_subordinate_users(fd ? read_file(fd.get()).value_or("") : "");
}

// Only groups are looked at by what users of containers belong to.
void look_up_containers(Config &config) {
  const bool needed = !config.vdc_of_group.empty() || !config.administrator_groups.empty();
  if (needed) config.subordinate_users = load_subordinate_users();
}

ParsedConfig file_problem(std::string text) {
  ParsedConfig parsed;
  parsed.problems.push_back({0, 0, std::move(text)});
  return parsed;
}

}  // namespace

Caller Config::identify(uid_t uid, gid_t gid, pid_t pid, std::span<const gid_t> further_groups) const {
  const auto is_member = [&](gid_t wanted) {
    return wanted == gid || std::find(further_groups.begin(), further_groups.end(), wanted) != further_groups.end();
  };
  Caller caller;
  caller.uid = uid;
  caller.pid = pid;
  caller.counted_as = uid;
  caller.administrator = administrator_users.contains(uid) ||
                         std::any_of(administrator_groups.begin(), administrator_groups.end(), is_member);
  if (const auto own = vdc_of_user.find(uid); own != vdc_of_user.end()) {
    caller.vdc_id = own->second;
    return caller;
  }
  const auto behind = std::upper_bound(subordinate_users.begin(), subordinate_users.end(), uid,
                                       [](uid_t left, const SubordinateUsers &right) { return left < right.first; });
  if (behind != subordinate_users.begin()) {
    const SubordinateUsers &range = *std::prev(behind);
    if (uid - range.first < range.count) caller.counted_as = range.owner;
  }
  for (const auto &[group, vdc] : vdc_of_group) {
    if (!is_member(group)) continue;
    caller.vdc_id = vdc;
    return caller;
  }
  return caller;
}

std::optional<uint16_t> Config::only_vdc() const {
  std::set<uint16_t> all;
  for (const auto &[user, vdc] : vdc_of_user) all.insert(vdc);
  for (const auto &[group, vdc] : vdc_of_group) all.insert(vdc);
  return all.size() == 1 ? std::optional(*all.begin()) : std::nullopt;
}

std::string Config::cache_uri_of(const Caller &caller) const {
  if (!caller.vdc_id && cache_uri.find("{vdc}") != std::string::npos) return {};
  return expand(cache_uri, caller.uid, caller.vdc_id.value_or(0));
}

ParsedConfig parse_config(std::string_view text) {
  ParsedConfig parsed;
  if (const auto table = parse(text, {}, parsed.problems)) read_all(*table, parsed.config, parsed.problems);
  arrange(parsed.problems);
  return parsed;
}

std::vector<SubordinateUsers> parse_subordinate_users(std::string_view text) {
  std::vector<SubordinateUsers> all;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    if (const auto range = subordinate_users_of(text.substr(begin, end - begin))) all.push_back(*range);
    begin = end + 1;
  }
  std::stable_sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  return all;
}

ParsedConfig load_config(const std::string &path) {
  std::string text;
  if (auto why = read_safely(path, text)) return file_problem(std::move(*why));
  ParsedConfig parsed = parse_config(text);
  look_up_containers(parsed.config);
  return parsed;
}

ParsedConfig load_layers(const std::vector<std::string> &files) {
  ParsedConfig parsed;
  toml::table all;
  for (const std::string &file : files) {
    std::string text;
    if (auto why = read_safely(file, text)) {
      parsed.problems.push_back({0, 0, std::move(*why), file});
    } else if (auto table = parse(text, file, parsed.problems)) {
      merge(all, std::move(*table));
    }
  }
  // Whatever stands elsewhere, a file that can't be read would be missing from it.
  if (parsed.problems.empty()) read_all(all, parsed.config, parsed.problems);
  arrange(parsed.problems);
  look_up_containers(parsed.config);
  return parsed;
}

std::string describe(const std::string &path, const ConfigProblem &problem) {
  const std::string &file = problem.file.empty() ? path : problem.file;
  if (problem.line == 0) return fmt::format("{}: {}", file, problem.text);
  return fmt::format("{}:{}:{}: {}", file, problem.line, problem.column, problem.text);
}

}  // namespace ksd::config

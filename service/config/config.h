// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// config.h: the configuration of the daemon, as the file tells it and as everybody reads it. A Config never changes:
// a reload makes another one.
#ifndef SERVICE_CONFIG_CONFIG_H
#define SERVICE_CONFIG_CONFIG_H

#include <sys/types.h>

#include <bitset>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/caller.h"
#include "host_wire.h"

namespace ksd::config {

inline constexpr char kDefaultVaultPath[] = "/var/lib/ks/vault.db";
inline constexpr char kDefaultMasterKeyPath[] = "/var/lib/ks-key/master.key";

// Limits bounds what users may take, each user alone and all together. Bytes are those of secrets and metadata. All
// users without a VDC count as one user.
struct Limits {
  uint32_t connections = 1024;
  uint32_t connections_per_user = 256;
  uint32_t connections_unmapped = 64;        // of all users without a VDC together
  uint32_t connections_administrators = 16;  // kept for administrators
  uint32_t connects_per_second = 4000;       // of each user; more wait for their turn
  uint32_t channels = 1024;                  // connections that share memory with their client; 0: none does
  uint32_t requests_per_user = 0;            // worked on at once while others are connected; 0: all processors but one
  uint32_t changes_per_user = 8;             // on their way to the disk at once while others are connected
  uint32_t entries = 65535;
  uint32_t entries_per_user = 16384;
  uint64_t bytes = uint64_t{256} << 20;
  uint64_t bytes_per_user = uint64_t{64} << 20;

  friend bool operator==(const Limits &, const Limits &) = default;
};

// SubordinateUsers is a range of user numbers that belong to a user's containers, as /etc/subuid has it.
struct SubordinateUsers {
  uid_t first = 0;
  uint32_t count = 0;
  uid_t owner = 0;
};

// Gates says which subtypes of reports all clients record, and for which flags they print debug lines.
struct Gates {
  std::bitset<256> record;
  std::bitset<256> debug;

  Gates() { record.set(HOST_DEFAULT_RECORDED_SUBTYPE); }
};

// Sandbox says whether the process gives up what it won't need.
enum class Sandbox { kAuto, kOff, kRequired };

// Shared says with whom a service shares its entries, and by what store.
struct Shared {
  std::vector<std::string> endpoints;  // "host:port"
  std::string prefix = "ks/";          // of all keys in the store, with the slash at its end
  std::string ca;                      // with the next two a file for mutual TLS; empty without TLS
  std::string certificate;
  std::string key;
  std::string machine;  // this one's name
  std::string mirror;   // the file of the local copy; empty for none
  bool create = false;  // whether a fleet is made where there is none
  uint64_t accept_incarnation = 0;
  uint32_t write_wait_ms = 5000;
  uint32_t max_age_s = 900;
  std::map<std::string, uid_t> owners;  // users of this machine, by their names in the fleet

  friend bool operator==(const Shared &, const Shared &) = default;
};

struct Config {
  std::string file;  // where it was read from
  std::string socket = HOST_DEFAULT_SOCKET;
  mode_t socket_mode = 0666;
  std::optional<gid_t> socket_group;
  std::string vault = kDefaultVaultPath;
  std::string master_key_file;  // empty: the systemd credential or, without any, kDefaultMasterKeyPath
  std::string witness;          // where the last change is remembered; empty: beside the vault
  std::string cache_uri = "lmdb:///run/user/{uid}/ks";
  std::string log_level = "info";
  uint32_t receive_limit_ms = 30000;  // how long clients wait for a reply
  uint32_t send_limit_ms = 5000;      // how long a client may leave a reply unread
  uint32_t silence_limit_ms = 10000;  // how long a new connection may say nothing
  uint32_t stop_limit_ms = 5000;      // how long connections have to take their replies when the service ends
  uint32_t supstate = 0;
  Sandbox sandbox = Sandbox::kAuto;
  bool allow_nobody = false;  // whether 65534, as which users of containers show, may be mapped to a VDC
  Limits limits;
  Gates gates;
  std::map<uid_t, uint16_t> vdc_of_user;
  std::vector<std::pair<gid_t, uint16_t>> vdc_of_group;  // in the order of the file: the first that fits counts
  std::set<uid_t> administrator_users;
  std::set<gid_t> administrator_groups;
  std::vector<SubordinateUsers> subordinate_users;  // by their first number
  std::optional<Shared> shared;

  // identify says who a caller is. A user's own mapping comes before those of the groups. The members of a group keep
  // it in their containers, so that they have thousands of user numbers there: these count as their own.
  Caller identify(uid_t uid, gid_t gid, pid_t pid, std::span<const gid_t> further_groups) const;

  // only_vdc is the VDC that all users and groups are mapped to; nothing when they are mapped to several, or none is.
  std::optional<uint16_t> only_vdc() const;

  // cache_uri_of is the URI below which a caller's databases lie, empty for none.
  std::string cache_uri_of(const Caller &caller) const;
};

// ConfigProblem is one thing that is wrong with a configuration, at a line and column counted from 1.
struct ConfigProblem {
  uint32_t line = 0;
  uint32_t column = 0;
  std::string text;
  std::string file = {};  // of several; empty when there is but one
};

struct ParsedConfig {
  Config config;  // of use only without problems
  std::vector<ConfigProblem> problems;
};

// parse_config reads a configuration and finds all that is wrong with it. Names of users and groups are looked up.
ParsedConfig parse_config(std::string_view text);

// parse_subordinate_users reads lines of "owner:first:count", as /etc/subuid has them, and passes over others.
std::vector<SubordinateUsers> parse_subordinate_users(std::string_view text);

// load_config reads the file at `path`, and /etc/subuid where a group may do something. A file that can't be read is a
// problem of line 0.
ParsedConfig load_config(const std::string &path);

// load_layers reads all of `files` as one configuration: a key of a later file replaces that of an earlier one, and of
// the [[vdc]] those with the same id. Without any file every value is the default.
ParsedConfig load_layers(const std::vector<std::string> &files);

// describe words a problem as compilers do: "file:line:column: text". `path` is the file where the problem names none.
std::string describe(const std::string &path, const ConfigProblem &problem);

}  // namespace ksd::config

#endif

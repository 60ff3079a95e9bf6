// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_machines.cc: commands about the machines of a fleet, and the master key that they share.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <thread>

#include "administration.h"
#include "command.h"
#include "fingerprint.h"
#include "fleet_keys.h"
#include "progress.h"
#include "service_link.h"

namespace ksctl {
namespace {

constexpr size_t kShownOfKey = 8;  // bytes: nobody finds a second key that begins with the same

// ask_fleet gives the reply to a message that only a service of a fleet answers.
std::vector<uint8_t> ask_fleet(ServiceLink &link, uint32_t opcode, const char *command,
                               std::span<const uint8_t> payload = {}) {
  std::vector<uint8_t> reply;
  if (link.result_of(opcode, payload, &reply) == KS_NOT_FOUND && reply.size() == sizeof(KsResult)) {
    throw Failure(
        Exit::kNotFound,
        fmt::format("{}: the service keeps its entries alone; docs/fleet.md tells how it shares them", command));
  }
  return reply;
}

std::vector<HostMachineRecord> machines_of(ServiceLink &link, const char *command) {
  return records_of<HostMachinesReply, HostMachineRecord>(ask_fleet(link, HOST_OP_FLEET_MACHINES, command)).records;
}

bool is(const HostMachineRecord &machine, uint32_t flag) {
  return (machine.flags & flag) != 0;
}

std::string silence_in_words(const HostMachineRecord &machine) {
  if (is(machine, HOST_MACHINE_IS_THIS)) return "this machine";
  const std::string time = duration_in_words(machine.silent_ms / 1000);
  return is(machine, HOST_MACHINE_SILENT_AT_LEAST) ? fmt::format("not for {}", time) : fmt::format("{} ago", time);
}

void fleet_list(Session &session, const Arguments &) {
  constexpr Column kColumns[] = {
      {"machine", "MACHINE"}, {"heard", "HEARD"}, {"version", "VERSION"}, {"keys", "KEYS"}, {"member", "MEMBER"}};
  ServiceLink link(session.socket);
  List rows;
  for (const HostMachineRecord &machine : machines_of(link, "fleet list")) {
    const bool is_known = is(machine, HOST_MACHINE_HAS_BEAT);
    std::vector<std::string> keys;
    for (uint32_t i = 0; i < std::min<size_t>(machine.key_count, std::size(machine.keys)); ++i) {
      keys.push_back(to_words(std::span(machine.keys[i]).first<kShownOfKey>()));
    }
    const bool has_key = is(machine, HOST_MACHINE_HAS_KEY);
    rows.emplace_back(Object{{"machine", text_in(machine.name)},
                             {"heard", silence_in_words(machine)},
                             {"version", is_known ? Value(machine.version) : Value()},
                             {"keys", fmt::format("{}", fmt::join(keys, " "))},
                             {"member", is(machine, HOST_MACHINE_IS_MEMBER)},
                             {"this", is(machine, HOST_MACHINE_IS_THIS)},
                             {"silent_ms", machine.silent_ms},
                             {"silent_at_least", is(machine, HOST_MACHINE_SILENT_AT_LEAST)},
                             {"fingerprint", has_key ? Value(to_words(machine.fingerprint)) : Value()}});
  }
  session.output.table("machines", kColumns, rows, "no machines yet: nothing has been loaded");
}

// require_done gives up when the service didn't do what it was told to.
void require_done(const std::vector<uint8_t> &reply, const char *command) {
  HostToldReply told{};
  if (reply.size() < sizeof told.result) refuse_cut_reply();
  std::memcpy(&told, reply.data(), std::min(reply.size(), sizeof told));
  std::string words = text_in(told.words);
  Exit exit = Exit::kFailed;
  switch (told.result) {
    case KS_SUCCESS:
      return;
    case KS_NOT_FOUND:
      exit = Exit::kNotFound;
      break;
    case KS_INVALID_ARGS:
      exit = Exit::kConflict;
      break;
    case KS_BAD_KEY:
      exit = Exit::kNotAllowed;
      break;
    case KS_FW_COMM_ERROR:
      words = "the store can't be reached, and nothing has happened; `ksctl fleet status` tells more";
      break;
    case KS_TIMEOUT:
      words =
          "the store hasn't answered in time, so it may have happened; see `ksctl fleet list`, and ask again if not";
      break;
    default:
      if (words.empty()) words = "the service refused it; `ksctl fleet status` and its log say why";
  }
  throw Failure(exit, fmt::format("{}: {}", command, words));
}

void leave(Session &session, const Arguments &arguments) {
  HostLeaveRequest request{};
  const std::string machine = arguments.text_or("--machine", "");
  if (machine.size() >= sizeof request.machine) {
    throw Failure(Exit::kNotFound, "fleet leave: no machine has so long a name; see `ksctl fleet list`");
  }
  std::copy(machine.begin(), machine.end(), request.machine);
  if (arguments.has("--even-if-alive")) request.flags |= HOST_LEAVE_EVEN_IF_ALIVE;
  ServiceLink link(session.socket);
  const auto *bytes = reinterpret_cast<const uint8_t *>(&request);
  require_done(ask_fleet(link, HOST_OP_FLEET_LEAVE, "fleet leave", {bytes, sizeof request}), "fleet leave");
  constexpr char kKnows[] =
      "It still knows the master key: withdraw its certificate of the store, and give the fleet "
      "another key with `ksctl fleet rotate`";
  session.output.done(
      machine.empty()
          ? fmt::format(
                "this machine has left the fleet, and its service serves nothing any more. Take [shared] out of "
                "the configuration; remove the mirror, the master key and the file beside it that ends in "
                ".machine. {}",
                kKnows)
          : fmt::format("{} is no machine of the fleet any more. {}", machine, kKnows),
      Object{{"machine", machine.empty() ? Value() : Value(machine)}});
}

// waiting_for names the machines that haven't got the next key.
std::vector<std::string> waiting_for(ServiceLink &link, const HostFleetKeysReply &keys) {
  std::vector<std::string> names;
  for (const HostMachineRecord &machine : machines_of(link, "fleet rotate")) {
    const auto holds = [&](uint32_t i) {
      return i < machine.key_count && std::ranges::equal(machine.keys[i], keys.next_key);
    };
    if (is(machine, HOST_MACHINE_IS_MEMBER) && !holds(0) && !holds(1)) {
      names.push_back(fmt::format("{} ({})", text_in(machine.name), silence_in_words(machine)));
    }
  }
  return names;
}

bool goes_on(const HostFleetKeysReply &keys) {
  return (keys.flags & HOST_FLEET_KEYS_CHANGE) != 0;
}

Object described(const HostFleetKeysReply &keys, const std::vector<std::string> &waits_for) {
  const auto while_it_goes_on = [&](Value value) { return goes_on(keys) ? value : Value(); };
  List names;
  for (const std::string &name : waits_for) names.emplace_back(name.substr(0, name.find(' ')));
  return {{"changing", goes_on(keys)},
          {"key", to_words(std::span(keys.key).first<kShownOfKey>())},
          {"next_key", while_it_goes_on(to_words(std::span(keys.next_key).first<kShownOfKey>()))},
          {"begun_by", while_it_goes_on(text_in(keys.begun_by))},
          {"moved", keys.moved},
          {"entries", keys.entries},
          {"waits_for", names}};
}

// follow waits until the change of the key is over, or nothing gets on.
HostFleetKeysReply follow(ServiceLink &link) {
  using std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kPause(100);
  constexpr std::chrono::seconds kPatience(5);
  HostFleetKeysReply keys = fleet_keys(link, "fleet rotate");
  Progress progress("fleet rotate", "entries", keys.entries);
  uint64_t moved = 0;
  for (auto last_step = steady_clock::now(); goes_on(keys);) {
    for (; moved < keys.moved; ++moved) {
      progress.step();
      last_step = steady_clock::now();
    }
    if (steady_clock::now() - last_step > kPatience) return keys;
    std::this_thread::sleep_for(kPause);
    keys = fleet_keys(link, "fleet rotate");
  }
  return keys;
}

void rotate(Session &session, const Arguments &arguments) {
  ServiceLink link(session.socket);
  if (arguments.has("--status")) {
    const HostFleetKeysReply keys = fleet_keys(link, "fleet rotate");
    session.output.fields(described(keys, goes_on(keys) ? waiting_for(link, keys) : std::vector<std::string>()));
    return;
  }
  if (!arguments.has("--fingerprint")) {
    throw Failure(Exit::kUsage,
                  "fleet rotate: run `ksctl fleet status` on each machine of the fleet; when all show one fingerprint, "
                  "give it with --fingerprint");
  }
  const auto compared = from_words(arguments.text("--fingerprint"));
  if (!compared || compared->size() != sizeof(HostFleetKeysReply{}.machines)) {
    throw Failure(Exit::kUsage,
                  "fleet rotate: --fingerprint isn't one of a fleet's machines; `ksctl fleet status` shows it");
  }
  require_done(ask_fleet(link, HOST_OP_FLEET_CHANGE_KEY, "fleet rotate", *compared), "fleet rotate");
  const HostFleetKeysReply keys = follow(link);
  if (goes_on(keys)) {
    const std::vector<std::string> names = waiting_for(link, keys);
    throw Failure(
        Exit::kFailed,
        names.empty()
            ? "fleet rotate: the change has begun, and goes on by itself; see `ksctl fleet rotate --status`"
            : fmt::format("fleet rotate: the change has begun, and goes on by itself once these machines have the next "
                          "key: {}. Start them, and look what `ksctl fleet status` says there; take out one that is "
                          "gone for good with `ksctl fleet leave --machine`",
                          fmt::join(names, ", ")));
  }
  session.output.done("the fleet has another master key now, on all machines", described(keys, {}));
}

constexpr Parameter kLeave[] = {
    {"--machine", Kind::kText, "A machine that is gone for good; without it, the service's own machine leaves"},
    {"--even-if-alive", Kind::kFlag, "Also a machine that was heard of in the last minute"}};
constexpr Parameter kRotate[] = {
    {"--fingerprint", Kind::kText, "Of the fleet's machines, as `ksctl fleet status` shows it on each of them"},
    {"--status", Kind::kFlag, "Tell how far a change has come, and change nothing"}};

constexpr char kOfAdministrators[] = "For administrators.";
constexpr char kComparingOnScreens[] =
    "For administrators. Compare the fingerprint on the machines' own screens: by it nobody but they gets the next "
    "key.";

}  // namespace

HostFleetKeysReply fleet_keys(ServiceLink &link, const char *command) {
  const std::vector<uint8_t> reply = ask_fleet(link, HOST_OP_FLEET_KEYS, command);
  HostFleetKeysReply keys{};
  if (reply.size() < sizeof keys) refuse_cut_reply();
  std::memcpy(&keys, reply.data(), sizeof keys);
  return keys;
}

std::span<const Command> fleet_machine_commands() {
  static constexpr Command kCommands[] = {
      {"fleet list", "List the machines of the fleet", {}, fleet_list, kOfAdministrators},
      {"fleet leave", "Leave the fleet, or take a machine out of it", kLeave, leave, kOfAdministrators},
      {"fleet rotate", "Change the fleet's master key, and seal all entries anew", kRotate, rotate,
       kComparingOnScreens},
  };
  return kCommands;
}

}  // namespace ksctl

// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "ring.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include "base/fd.h"
#include "base/trust.h"
#include "failure.h"
#include "host_wire.h"
#include "sdwrap.h"

namespace ksctl {
namespace {

constexpr size_t kLongestRecord = sizeof(KsHistRecord);

Failure unreadable(const std::string &path, int why) {
  const Exit exit = why == ENOENT ? Exit::kNotFound : why == EACCES ? Exit::kNotAllowed : Exit::kFailed;
  return {exit,
          fmt::format("{}: the ring can't be read: {}; name a ring that is there and yours", path, std::strerror(why))};
}

Failure no_ring(const std::string &path) {
  return {Exit::kFailed, fmt::format("{}: isn't a history ring; name a file NN.ring of a history folder", path)};
}

// A ring as it was at three moments, one after the other. A slot that was the same at the first and the last was
// complete at the one between.
struct Copies {
  std::unique_ptr<HostRing> before = std::make_unique<HostRing>();
  std::unique_ptr<HostRing> ring = std::make_unique<HostRing>();
  std::unique_ptr<HostRing> after = std::make_unique<HostRing>();
};

// It is read and not mapped: a mapped file that somebody cuts would end this process.
bool read_copy(int file, HostRing *out) {
  auto *bytes = reinterpret_cast<char *>(out);
  for (size_t got = 0; got < sizeof *out;) {
    const ssize_t size = pread(file, bytes + got, sizeof *out - got, static_cast<off_t>(got));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return false;
    got += static_cast<size_t>(size);
  }
  return true;
}

// slot_of gives the slot of a position when it was complete.
const HostRingSlot *slot_of(const Copies &copies, uint64_t position) {
  const size_t index = position % HOST_RING_SLOTS;
  const bool complete = copies.before->slots[index].sequence == position + 1 &&
                        copies.ring->slots[index].sequence == position + 1 &&
                        copies.after->slots[index].sequence == position + 1;
  return complete ? &copies.ring->slots[index] : nullptr;
}

// The bytes of the record that begins at `position`, with the slots that continue it.
std::optional<std::string> bytes_of(const Copies &copies, uint64_t position) {
  const HostRingSlot *first = slot_of(copies, position);
  if (first == nullptr || first->length > kLongestRecord) return std::nullopt;
  std::string bytes;
  for (size_t rest = first->length; rest > 0; ++position) {
    const HostRingSlot *slot = slot_of(copies, position);
    const bool fits = slot != nullptr && slot->length == rest && (slot == first || slot->kind == HOST_RING_CONTINUED);
    if (!fits) return std::nullopt;
    const size_t here = std::min<size_t>(rest, HOST_RING_SLOT_DATA);
    bytes.append(reinterpret_cast<const char *>(slot->data), here);
    rest -= here;
  }
  return bytes;
}

// take_apart_text finds "function(line)" at the text's beginning, as most reports have it.
void take_apart_text(Record &record) {
  std::string &text = record.text;
  text.erase(text.find_last_not_of(" \n\r\t") + 1);
  const size_t open = text.find('(');
  const auto is_of_name = [](char c) {
    return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  if (open == std::string::npos || open == 0) return;
  if (!std::all_of(text.begin(), text.begin() + static_cast<ptrdiff_t>(open), is_of_name)) return;
  const char *const digits = text.data() + open + 1;
  const auto [end, error] = std::from_chars(digits, text.data() + text.size(), record.line);
  if (error != std::errc() || end == text.data() + text.size() || *end != ')') return;
  record.function = text.substr(0, open);
  text.erase(0, static_cast<size_t>(end - text.data()) + 1);
  text.erase(0, text.find_first_not_of(": "));
}

uint32_t number_at(const std::string &bytes, size_t at) {
  uint32_t number = 0;
  if (bytes.size() >= at + sizeof number) std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

std::optional<Record> record_of(const HostRingSlot &slot, const std::string &bytes) {
  Record record;
  record.time_ns = slot.time_ns;
  record.thread = slot.thread;
  if (slot.kind == HOST_RING_REPORT && bytes.size() >= sizeof record.subtype) {
    record.subtype = number_at(bytes, 0);
    record.text = bytes.substr(sizeof record.subtype);
    record.text.resize(std::min(record.text.size(), record.text.find('\0')));
    take_apart_text(record);
    return record;
  }
  // A library that is older than this program stores direction and result alone.
  if (slot.kind != HOST_RING_MTS_EVENT || bytes.size() < offsetof(HostRingMtsEvent, opcode)) return std::nullopt;
  const uint32_t direction = number_at(bytes, offsetof(HostRingMtsEvent, direction));
  if (direction != SDWRAP_MTS_SENT && direction != SDWRAP_MTS_RECEIVED) return std::nullopt;
  record.kind = direction == SDWRAP_MTS_SENT ? RecordKind::kSent : RecordKind::kReceived;
  record.failed = number_at(bytes, offsetof(HostRingMtsEvent, result)) == MTS_FAILED;
  record.opcode = number_at(bytes, offsetof(HostRingMtsEvent, opcode));
  record.exact = number_at(bytes, offsetof(HostRingMtsEvent, exact)) == 1;
  return record;
}

// Whether the process that the ring tells of is there still: ids are used again, a start time with them isn't.
bool is_running(uint32_t pid, uint64_t start) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return false;
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string state;
  fields >> state;
  if (state == "Z" || state == "X") return false;
  for (int number = 4; number < 22; ++number) fields >> state;
  uint64_t started = 0;
  return fields >> started && started == start;
}

Ring take_apart(const std::string &path, const Copies &copies) {
  const HostRing &head = *copies.ring;
  Ring ring;
  ring.path = path;
  ring.program.assign(head.program, strnlen(head.program, sizeof head.program));
  ring.pid = head.pid;
  ring.running = is_running(head.pid, head.start);
  // What was reserved before the first copy; later records would be torn.
  const uint64_t end = copies.before->next;
  ring.overwritten = end > HOST_RING_SLOTS ? end - HOST_RING_SLOTS : 0;
  for (uint64_t position = ring.overwritten; position < end; ++position) {
    const HostRingSlot *slot = slot_of(copies, position);
    if (slot != nullptr && slot->kind == HOST_RING_CONTINUED) continue;  // of a record whose head isn't there, or taken
    const std::optional<std::string> bytes = bytes_of(copies, position);
    const std::optional<Record> record = bytes ? record_of(*slot, *bytes) : std::nullopt;
    if (record) {
      ring.records.push_back(*record);
    } else {
      ++ring.unreadable;
    }
  }
  return ring;
}

// open_ring gives nothing, with errno, for what can't be read, and 0 in errno for what is no ring.
std::optional<Ring> open_ring(const std::string &path, bool own_only) {
  const ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return std::nullopt;
  errno = 0;
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (own_only && status.st_uid != geteuid()) return std::nullopt;
  const Copies copies;
  for (HostRing *copy : {copies.before.get(), copies.ring.get(), copies.after.get()}) {
    if (!read_copy(file.get(), copy)) return std::nullopt;
    if (copy->magic != HOST_RING_MAGIC || copy->version != 1 || copy->slot_count != HOST_RING_SLOTS) {
      return std::nullopt;
    }
  }
  return take_apart(path, copies);
}

bool is_own_folder(const std::string &path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

std::string level_of(uint32_t subtype) {
  switch (subtype) {
    case HOST_DEFAULT_RECORDED_SUBTYPE:
      return "alert";
    case HOST_DETAILED_SUBTYPE:
      return "normal";
    default:
      return std::to_string(subtype);
  }
}

Ring read_ring(const std::string &path) {
  std::optional<Ring> ring = open_ring(path, false);
  if (ring) return *ring;
  throw errno == 0 ? no_ring(path) : unreadable(path, errno);
}

std::vector<std::string> own_ring_folders(const std::string &socket) {
  const char *runtime = secure_getenv("XDG_RUNTIME_DIR");
  std::vector<std::string> folders = {
      ksd::folder_of(socket) + "/history",
      (runtime != nullptr ? std::string(runtime) : fmt::format("/run/user/{}", geteuid())) + "/ks"};
  std::erase_if(folders, [](const std::string &folder) { return !is_own_folder(folder); });
  return folders;
}

std::vector<Ring> read_own_rings(const std::string &socket) {
  std::vector<Ring> rings;
  for (const std::string &folder : own_ring_folders(socket)) {
    for (int number = 0; number < HOST_RING_COUNT; ++number) {
      std::optional<Ring> ring = open_ring(fmt::format("{}/{:02}.ring", folder, number), true);
      if (ring) rings.push_back(std::move(*ring));
    }
  }
  return rings;
}

}  // namespace ksctl

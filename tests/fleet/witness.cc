// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_witness: follows the history of a fleet's store through an engine of its own, and notes each version.
//
//   fleet_witness FILE PROGRESS MASTER_KEY ENGINE PREFIX CA CERTIFICATE KEY ENDPOINT...
//
// It opens the records with the fleet's key, and believes none of them: it ends with 1 where a header doesn't follow on
// the one before. PROGRESS is a file that says up to which revision all is noted. The store may be compacted to there.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "fleet/format.h"
#include "fleet_run/notes.h"
#include "link/connect.h"
#include "link/engine_link.h"
#include "vault/master_key.h"
#include "vault/seal.h"

namespace {

using namespace ksd;
using fleet_run::RowNote;
using fleet_run::Version;

// The number that all of a value are made of; 0 for what no client of the run has written.
uint64_t number_in(Bytes value) {
  uint64_t number = 0;
  if (value.size() < sizeof number) return 0;
  std::memcpy(&number, value.data(), sizeof number);
  for (size_t at = 0; at + sizeof number <= value.size(); at += sizeof number) {
    if (std::memcmp(value.data() + at, &number, sizeof number) != 0) return 0;
  }
  return number;
}

class Witness {
 public:
  Witness(const char *notes, const char *progress, std::shared_ptr<const SecretBytes> key,
          std::unique_ptr<fleet::Engine> engine)
      : notes_(std::fopen(notes, "wb")),
        progress_(open(progress, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
        key_(std::move(key)),
        engine_(std::move(engine)) {
    if (notes_ == nullptr || !progress_) throw std::runtime_error("the files for notes can't be made");
  }

  [[noreturn]] void follow() {
    watch();
    for (;;) {
      wait();
      std::vector<fleet::Report> reports;
      engine_->receive(reports);
      for (const fleet::Report &report : reports) take(report);
      if (!reports.empty()) write();
    }
  }

 private:
  void watch() { engine_->send(fleet::Watch{.id = ++watch_, .from = seen_ + 1}); }

  void wait() {
    pollfd source{.fd = engine_->file(), .events = engine_->events(), .revents = 0};
    const auto limit =
        std::min(engine_->wait_at_most().value_or(std::chrono::milliseconds(200)), std::chrono::milliseconds(200));
    poll(&source, 1, static_cast<int>(limit.count()));
    if (!is_watching_) {
      is_watching_ = true;
      watch();
    }
  }

  void take(const fleet::Report &report) {
    if (std::holds_alternative<fleet::EngineGone>(report)) is_watching_ = false;
    if (const auto *broken = std::get_if<fleet::WatchBroken>(&report); broken != nullptr && broken->id == watch_) {
      if (broken->compacted > seen_) throw std::runtime_error("the store was compacted before all was noted");
      is_watching_ = false;
    }
    const auto *changed = std::get_if<fleet::Changed>(&report);
    if (changed == nullptr || changed->id != watch_ || changed->revision <= seen_) return;
    seen_ = changed->revision;
    for (const fleet::KeyValue &put : changed->puts) {
      if (put.key == fleet::kHeaderKey) note(*changed, put);
    }
  }

  void note(const fleet::Changed &changed, const fleet::KeyValue &stored) {
    const auto front = fleet::header_front(stored.value);
    if (!front) throw std::runtime_error("there is a header that isn't one");
    if (!sealer_) sealer_.emplace(*key_, front->fleet);
    const auto plain = sealer_->open(vault::RecordKind::kFleetHeader, 0, front->sealed);
    const auto header = plain ? fleet::decode_header(plain->bytes()) : std::nullopt;
    if (!header) throw std::runtime_error("there is a header that doesn't open");
    if (header->version != version_ + 1 || header->before != hash_) {
      throw std::runtime_error("header " + std::to_string(header->version) + " doesn't follow on " +
                               std::to_string(version_));
    }
    version_ = header->version;
    hash_ = fleet::hash_of(stored.value);
    Version version{.version = version_,
                    .entry_count = header->table.entry_count,
                    .machine = static_cast<unsigned>(std::atoi(header->author().machine.c_str() + 1)),
                    .puts = {},
                    .deletes = {}};
    for (const fleet::KeyValue &put : changed.puts) {
      if (put.key.starts_with(fleet::kRowFolder)) version.puts.push_back(opened(put));
    }
    for (const std::string &key : changed.deletes) {
      if (const auto place = fleet::row_place(key)) version.deletes.push_back(place->id);
    }
    fleet_run::append(out_, version);
  }

  RowNote opened(const fleet::KeyValue &stored) const {
    const auto place = fleet::row_place(stored.key);
    const auto plain = place ? sealer_->open(vault::RecordKind::kFleetRow, place->id, stored.value) : nullptr;
    const auto decoded = plain ? fleet::decode_row(place->id, plain->bytes()) : std::nullopt;
    const auto key = decoded ? fleet_run::key_of(decoded->row.name.name) : std::nullopt;
    if (!key) throw std::runtime_error("there is a row that no client made");
    return {.id = place->id,
            .metadata = number_in(*decoded->row.metadata),
            .secret = number_in(decoded->row.secret->bytes()),
            .key = *key};
  }

  void write() {
    const bool written = std::fwrite(out_.data(), 1, out_.size(), notes_) == out_.size() && std::fflush(notes_) == 0;
    out_.clear();
    char text[24];
    const int size = std::snprintf(text, sizeof text, "%020llu\n", static_cast<unsigned long long>(seen_));
    if (!written || pwrite(progress_.get(), text, static_cast<size_t>(size), 0) != size) {
      throw std::runtime_error("there is no room for notes");
    }
  }

  std::FILE *const notes_;
  const UniqueFd progress_;
  const std::shared_ptr<const SecretBytes> key_;
  const std::unique_ptr<fleet::Engine> engine_;
  std::optional<vault::Sealer> sealer_;
  std::string out_;
  fleet::RequestId watch_ = 0;
  bool is_watching_ = true;
  fleet::Revision seen_ = 0;
  uint64_t version_ = 0;
  fleet::HeaderHash hash_{};
};

}  // namespace

int main(int argc, char **argv) {
  if (argc < 10) {
    std::fprintf(stderr, "fleet_witness: FILE PROGRESS MASTER_KEY ENGINE PREFIX CA CERTIFICATE KEY ENDPOINT...\n");
    return 2;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    vault::start_sodium();
    const vault::MasterKey master = vault::read_master_key({.file = argv[3], .passphrase = {}}, false);
    link::Start start{.prefix = argv[5], .ca = argv[6], .certificate = argv[7], .key = argv[8]};
    start.endpoints.assign(argv + 9, argv + argc);
    Witness(argv[1], argv[2], master.key, std::make_unique<link::EngineLink>(link::start_engines(argv[4]), start))
        .follow();
  } catch (const std::exception &error) {
    std::fprintf(stderr, "fleet_witness: %s\n", error.what());
    return 1;
  }
}

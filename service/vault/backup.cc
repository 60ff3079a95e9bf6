// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/backup.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/little_endian.h"
#include "base/refuse.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

constexpr std::array<uint8_t, 8> kBackupMagic{'k', 's', 'b', 'a', 'c', 'k', 'u', 'p'};
constexpr size_t kVersionOffset = kBackupMagic.size();

constexpr size_t kHeadSize = 8 + sizeof(VaultId) + 8 + 8 + 8;  // time, vault, last id, last version, count
constexpr size_t kEntryHeadSize = 8 + 4;                       // id, length
constexpr size_t kTrailerSize = 8 + 8 + 32;                    // no id, count, hash of all that stands before
constexpr size_t kLongestEntry = size_t{1} << 20;
constexpr size_t kOwnerHeadSize = 4 + 1;  // user, length of the name
constexpr uint32_t kMostOwners = 1 << 20;

static_assert(sizeof(crypto_secretstream_xchacha20poly1305_state) < 256);

crypto_secretstream_xchacha20poly1305_state *state_in(const std::shared_ptr<SecretBytes> &stream) {
  return reinterpret_cast<crypto_secretstream_xchacha20poly1305_state *>(stream->writable().data());
}

std::shared_ptr<SecretBytes> allocate_stream() {
  return SecretBytes::allocate(sizeof(crypto_secretstream_xchacha20poly1305_state));
}

std::vector<uint8_t> encode_owners(const std::map<uid_t, std::string> &owners) {
  std::vector<uint8_t> out(sizeof(uint32_t));
  put_little_endian(out.data(), static_cast<uint32_t>(owners.size()));
  for (const auto &[user, name] : owners) {
    const size_t at = out.size();
    out.resize(at + kOwnerHeadSize);
    put_little_endian(&out[at], uint32_t{user});
    out[at + sizeof(uint32_t)] = static_cast<uint8_t>(name.size());
    out.insert(out.end(), name.begin(), name.end());
  }
  return out;
}

bool is_form(uint32_t version) {
  return version == static_cast<uint32_t>(BackupForm::kOfVault) ||
         version == static_cast<uint32_t>(BackupForm::kOfFleet);
}

}  // namespace

std::optional<PassphraseParameters> parameters_in(const BackupOpening &opening) {
  if (!std::equal(kBackupMagic.begin(), kBackupMagic.end(), opening.begin())) return std::nullopt;
  if (!is_form(get_little_endian<uint32_t>(&opening[kVersionOffset]))) return std::nullopt;
  return decode_parameters(std::span(opening).last<kParametersSize>());
}

BackupOpening encode_opening(const PassphraseParameters &parameters, BackupForm form) {
  BackupOpening opening;
  std::copy(kBackupMagic.begin(), kBackupMagic.end(), opening.begin());
  put_little_endian(opening.data() + kVersionOffset, static_cast<uint32_t>(form));
  const EncodedParameters encoded = encode_parameters(parameters);
  std::copy(encoded.begin(), encoded.end(), opening.end() - encoded.size());
  return opening;
}

BackupWriter::BackupWriter(Snapshot snapshot, uint64_t time, const SecretBytes &key, Bytes opening)
    : snapshot_(std::move(snapshot)),
      time_(time),
      opening_(opening.begin(), opening.end()),
      stream_(allocate_stream()),
      part_(SecretBytes::allocate(kBackupPartSize)) {
  std::sort(snapshot_.rows.begin(), snapshot_.rows.end(),
            [](const RowPtr &a, const RowPtr &b) { return a->id < b->id; });
  const bool is_of_fleet =
      opening.size() == kBackupOpeningSize &&
      get_little_endian<uint32_t>(&opening[kVersionOffset]) == static_cast<uint32_t>(BackupForm::kOfFleet);
  if (is_of_fleet) owners_ = encode_owners(snapshot_.owners);
  size_t size = kHeadSize + owners_.size() + kTrailerSize;
  for (const RowPtr &row : snapshot_.rows) size += kEntryHeadSize + encoded_size(*row);
  parts_ = (size + kBackupPartSize - 1) / kBackupPartSize;
  crypto_secretstream_xchacha20poly1305_init_push(state_in(stream_), stream_header_.data(), key.bytes().data());
  crypto_generichash_init(&hash_, nullptr, 0, 32);
}

size_t BackupWriter::next(uint8_t *out) {
  if (ended_) return 0;
  const size_t size = fill();
  ended_ = rest_.empty() && piece_ == Piece::kNone;
  unsigned long long sealed_size = 0;
  crypto_secretstream_xchacha20poly1305_push(
      state_in(stream_), out, &sealed_size, part_->bytes().data(), size, opening_.data(), opening_.size(),
      ended_ ? crypto_secretstream_xchacha20poly1305_TAG_FINAL : crypto_secretstream_xchacha20poly1305_TAG_MESSAGE);
  opening_.clear();  // bound to the first part
  return static_cast<size_t>(sealed_size);
}

size_t BackupWriter::fill() {
  const std::span<uint8_t> part = part_->writable();
  size_t filled = 0;
  while (filled < part.size() && (!rest_.empty() || begin_piece())) {
    const size_t size = std::min(rest_.size(), part.size() - filled);
    std::memcpy(&part[filled], rest_.data(), size);
    rest_ = rest_.subspan(size);
    filled += size;
  }
  return filled;
}

bool BackupWriter::begin_piece() {
  const auto has_rows = [this] { return next_row_ < snapshot_.rows.size(); };
  const Header &header = snapshot_.header;
  switch (piece_) {
    case Piece::kHead:
      put_little_endian(&small_[0], time_);
      std::copy(snapshot_.vault_id.begin(), snapshot_.vault_id.end(), &small_[8]);
      put_little_endian(&small_[24], header.last_id);
      put_little_endian(&small_[32], header.last_version);
      put_little_endian(&small_[40], header.entry_count);
      rest_ = Bytes(small_).first(kHeadSize);
      piece_ = !owners_.empty() ? Piece::kOwners : has_rows() ? Piece::kEntryHead : Piece::kTrailer;
      break;
    case Piece::kOwners:
      rest_ = owners_;
      piece_ = has_rows() ? Piece::kEntryHead : Piece::kTrailer;
      break;
    case Piece::kEntryHead:
      entry_ = encode_entry(*snapshot_.rows[next_row_]);
      put_little_endian(&small_[0], snapshot_.rows[next_row_]->id);
      put_little_endian(&small_[8], static_cast<uint32_t>(entry_->size()));
      rest_ = Bytes(small_).first(kEntryHeadSize);
      piece_ = Piece::kEntry;
      break;
    case Piece::kEntry:
      rest_ = entry_->bytes();
      snapshot_.rows[next_row_++].reset();
      piece_ = has_rows() ? Piece::kEntryHead : Piece::kTrailer;
      break;
    case Piece::kTrailer:
      entry_.reset();
      put_little_endian(&small_[0], uint64_t{0});
      put_little_endian(&small_[8], header.entry_count);
      crypto_generichash_final(&hash_, &small_[16], 32);
      rest_ = Bytes(small_).first(kTrailerSize);
      piece_ = Piece::kNone;
      return true;
    case Piece::kNone:
      return false;
  }
  crypto_generichash_update(&hash_, rest_.data(), rest_.size());
  return true;
}

BackupReader::BackupReader(int file, std::string path, Bytes passphrase)
    : file_(file), path_(std::move(path)), stream_(allocate_stream()), part_(SecretBytes::allocate(kBackupPartSize)) {
  begin(*key_of_passphrase(passphrase, read_opening()));
}

BackupReader::BackupReader(int file, std::string path, const SecretBytes &key)
    : file_(file), path_(std::move(path)), stream_(allocate_stream()), part_(SecretBytes::allocate(kBackupPartSize)) {
  read_opening();
  begin(key);
}

PassphraseParameters BackupReader::read_opening() {
  constexpr char kNoBackup[] = "isn't a backup of ksd, or its beginning is damaged; give another file";
  if (read(opening_) != opening_.size() || !std::equal(kBackupMagic.begin(), kBackupMagic.end(), opening_.begin())) {
    refuse(kNoBackup);
  }
  const auto version = get_little_endian<uint32_t>(&opening_[kVersionOffset]);
  if (!is_form(version)) {
    refuse(
        fmt::format("is a backup of version {}, but this program knows versions 1 and 2 only; use the one that made "
                    "it",
                    version));
  }
  form_ = static_cast<BackupForm>(version);
  const auto parameters = parameters_in(opening_);
  if (!parameters) refuse(kNoBackup);
  return *parameters;
}

void BackupReader::begin(const SecretBytes &key) {
  sealed_.resize(kSealedPartSize);
  crypto_generichash_init(&hash_, nullptr, 0, 32);
  BackupStreamHeader stream_header;
  if (read(stream_header) != stream_header.size()) refuse_damaged();
  crypto_secretstream_xchacha20poly1305_init_pull(state_in(stream_), stream_header.data(), key.bytes().data());
  std::array<uint8_t, kHeadSize> head;
  take(head);
  contents_.time = get_little_endian<uint64_t>(&head[0]);
  std::copy_n(&head[8], contents_.vault_id.size(), contents_.vault_id.begin());
  contents_.last_id = get_little_endian<uint64_t>(&head[24]);
  contents_.last_version = get_little_endian<uint64_t>(&head[32]);
  contents_.entry_count = get_little_endian<uint64_t>(&head[40]);
  if (form_ == BackupForm::kOfFleet) read_owners();
}

void BackupReader::read_owners() {
  std::array<uint8_t, sizeof(uint32_t)> count_field;
  take(count_field);
  const auto count = get_little_endian<uint32_t>(count_field.data());
  if (count > kMostOwners) refuse_damaged();
  for (uint32_t i = 0; i < count; ++i) {
    std::array<uint8_t, kOwnerHeadSize> head;
    take(head);
    std::string name(head[sizeof(uint32_t)], '\0');
    take({reinterpret_cast<uint8_t *>(name.data()), name.size()});
    if (name.empty()) refuse_damaged();
    contents_.owners.emplace(get_little_endian<uint32_t>(&head[0]), std::move(name));
  }
}

RowPtr BackupReader::next() {
  if (done_) return nullptr;
  std::array<uint8_t, kEntryHeadSize> head;
  const std::span<uint8_t> id_part = std::span(head).first(8), length_part = std::span(head).last(4);
  take(id_part, false);
  const auto id = get_little_endian<uint64_t>(&head[0]);
  if (id == 0) {
    check_end(entries_read_);
    return nullptr;
  }
  take(length_part, false);
  crypto_generichash_update(&hash_, head.data(), head.size());
  const size_t length = get_little_endian<uint32_t>(&head[8]);
  if (length > kLongestEntry || id <= last_id_read_ || id > contents_.last_id) refuse_damaged();
  const std::shared_ptr<SecretBytes> plain = SecretBytes::allocate(length);
  take(plain->writable());
  const RowPtr row = decode_entry(id, plain->bytes());
  if (row == nullptr || row->version == 0 || row->version > contents_.last_version) refuse_damaged();
  last_id_read_ = id;
  ++entries_read_;
  return row;
}

void BackupReader::check_end(uint64_t count) {
  std::array<uint8_t, kTrailerSize - 8> trailer;
  std::array<uint8_t, 32> hash;
  take(trailer, false);
  crypto_generichash_final(&hash_, hash.data(), hash.size());
  const bool right = get_little_endian<uint64_t>(&trailer[0]) == count && count == contents_.entry_count &&
                     sodium_memcmp(hash.data(), &trailer[8], hash.size()) == 0;
  if (!right || !rest_.empty() || !is_last_) refuse_damaged();
  uint8_t more;
  if (read({&more, 1}) != 0) refuse("goes on behind its end; put the file there as it was made");
  done_ = true;
}

// take gives the next bytes of the stream.
void BackupReader::take(std::span<uint8_t> to, bool hashed) {
  std::span<uint8_t> wanted = to;
  while (!wanted.empty()) {
    if (rest_.empty()) open_part();
    const size_t size = std::min(wanted.size(), rest_.size());
    std::memcpy(wanted.data(), rest_.data(), size);
    wanted = wanted.subspan(size);
    rest_ = rest_.subspan(size);
  }
  if (hashed) crypto_generichash_update(&hash_, to.data(), to.size());
}

void BackupReader::open_part() {
  if (is_last_) refuse_damaged();
  const size_t size = read(sealed_);
  unsigned long long plain_size = 0;
  unsigned char tag = 0;
  const Bytes bound = is_first_ ? Bytes(opening_) : Bytes();
  const bool opens =
      size >= crypto_secretstream_xchacha20poly1305_ABYTES &&
      crypto_secretstream_xchacha20poly1305_pull(state_in(stream_), part_->writable().data(), &plain_size, &tag,
                                                 sealed_.data(), size, bound.data(), bound.size()) == 0;
  if (!opens && is_first_) refuse("doesn't open: the passphrase is another one, or the file is damaged");
  if (!opens) refuse_damaged();
  is_first_ = false;
  is_last_ = tag == crypto_secretstream_xchacha20poly1305_TAG_FINAL;
  if (!is_last_ && size < sealed_.size()) refuse("ends too early; put the file there as it was made");
  rest_ = part_->bytes().first(static_cast<size_t>(plain_size));
}

size_t BackupReader::read(std::span<uint8_t> to) {
  size_t filled = 0;
  while (filled < to.size()) {
    const ssize_t size = ::read(file_, &to[filled], to.size() - filled);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) refuse(fmt::format("can't be read: {}", errno_text(errno)));
    if (size == 0) break;
    filled += static_cast<size_t>(size);
  }
  bytes_read_ += filled;
  return filled;
}

void BackupReader::refuse(const std::string &what) const {
  ksd::refuse("{}: {}", path_, what);
}

void BackupReader::refuse_damaged() const {
  refuse(fmt::format("is damaged or cut before byte {}; put the file there as it was made", bytes_read_));
}

}  // namespace ksd::vault

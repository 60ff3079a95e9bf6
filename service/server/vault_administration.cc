#include "server/vault_administration.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "host_wire.h"

namespace ksd::server {

const VaultAdministration::Row VaultAdministration::kRows[] = {
    {HOST_OP_BEGIN_BACKUP, &VaultAdministration::begin_backup},
    {HOST_OP_NEXT_BACKUP_PART, &VaultAdministration::next_part},
    {HOST_OP_CHANGE_MASTER_KEY, &VaultAdministration::change_key},
    {HOST_OP_MASTER_KEY_CHANGE, &VaultAdministration::key_change},
};

static_assert(sizeof(HostBackupReply{}.stream_header) == sizeof(vault::BackupStreamHeader));
static_assert(sizeof(HostBackupRequest{}.opening) == vault::kBackupOpeningSize);

using State = vault::KeyChangeProgress::State;
static_assert(HOST_KEY_ONE == static_cast<int>(State::kNone) && HOST_KEY_MOVING == static_cast<int>(State::kMoving) &&
              HOST_KEY_STOPPED == static_cast<int>(State::kStopped) &&
              HOST_KEY_WAITING == static_cast<int>(State::kWaiting));

bool BackupSession::begin(std::atomic<int> &open) {
  end();
  if (open.fetch_add(1) >= kBackupsAtOnce) {
    open.fetch_sub(1);
    return false;
  }
  open_ = &open;
  return true;
}

void BackupSession::end() {
  writer_.reset();
  if (open_ != nullptr) open_->fetch_sub(1);
  open_ = nullptr;
}

bool VaultAdministration::answer(const handlers::Request &request, handlers::Reply &reply, BackupSession &session) {
  const auto row = std::ranges::find(kRows, request.opcode, &Row::opcode);
  if (row == std::end(kRows)) return false;
  (this->*row->handler)(request, reply, session);
  return true;
}

void VaultAdministration::begin_backup(const handlers::Request &request, handlers::Reply &reply,
                                       BackupSession &session) {
  if (request.descriptor_size != sizeof(HostBackupRequest) || request.message.size() != sizeof(HostBackupRequest)) {
    return reply.result(KS_INVALID_ARGS);
  }
  if (!session.begin(backups_)) {
    log_limiter_.warn(LogLimiter::Kind::kBackups, request.caller.uid,
                      "refused a backup to user {}: {} are being read already", request.caller.uid, kBackupsAtOnce);
    return reply.result(KS_TIMEOUT);
  }
  try {
    open_backup(request, reply, session);
  } catch (...) {
    session.end();
    throw;
  }
}

// The key stays in the request, which is cleansed once it is answered, and in guarded memory.
void VaultAdministration::open_backup(const handlers::Request &request, handlers::Reply &reply,
                                      BackupSession &session) {
  constexpr size_t kKeySize = sizeof(HostBackupRequest{}.key);
  const std::shared_ptr<const SecretBytes> key = SecretBytes::copy_of(request.message.first(kKeySize));
  vault::Snapshot snapshot = vault_.snapshot();
  HostBackupReply begun{};
  begun.result = KS_SUCCESS;
  begun.entries = snapshot.header.entry_count;
  begun.version = snapshot.header.last_version;
  auto writer = std::make_unique<vault::BackupWriter>(std::move(snapshot), static_cast<uint64_t>(std::time(nullptr)),
                                                      *key, request.message.subspan(kKeySize));
  std::copy(writer->stream_header().begin(), writer->stream_header().end(), begun.stream_header);
  session.use(std::move(writer));
  spdlog::info("user {} (pid {}) takes a backup of {} entries", request.caller.uid, request.caller.pid, begun.entries);
  reply.record(begun);
}

void VaultAdministration::next_part(const handlers::Request &request, handlers::Reply &reply, BackupSession &session) {
  if (!request.message.empty()) return reply.result(KS_INVALID_ARGS);
  if (!session.is_open()) return reply.result(KS_NOT_FOUND);
  static_assert(vault::kSealedPartSize <= UINT16_MAX);
  std::array<uint8_t, vault::kSealedPartSize> part;
  const size_t size = session.writer().next(part.data());
  if (size == 0) session.end();
  reply.data(Bytes(part).first(size));
}

void VaultAdministration::change_key(const handlers::Request &request, handlers::Reply &reply, BackupSession &) {
  if (!request.message.empty() && request.message.size() != vault::kMasterKeySize) {
    return reply.result(KS_INVALID_ARGS);
  }
  std::shared_ptr<const SecretBytes> next;
  if (!request.message.empty()) next = SecretBytes::copy_of(request.message);
  reply.result(vault_.change_key(std::move(next)));
}

void VaultAdministration::key_change(const handlers::Request &request, handlers::Reply &reply, BackupSession &) {
  if (!request.message.empty()) return reply.result(KS_INVALID_ARGS);
  const vault::KeyChangeProgress progress = vault_.key_change();
  HostKeyChangeReply told{};
  told.result = KS_SUCCESS;
  told.state = static_cast<uint32_t>(progress.state);
  told.moved = progress.moved;
  told.entries = progress.entries;
  reply.record(told);
}

}  // namespace ksd::server

// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// file_vault.h: the vault itself: reads from memory, and what a change makes of the table.
#ifndef SERVICE_VAULT_FILE_VAULT_H
#define SERVICE_VAULT_FILE_VAULT_H

#include <functional>

#include "vault/group_commit.h"
#include "vault/read_mostly_lock.h"
#include "vault/vault.h"
#include "vault/vault_lock.h"

namespace ksd::vault {

class FileVault final : public Vault, private Audience {
 public:
  // `state` is what `writer` writes to.
  FileVault(VaultLock lock, Writer writer, State state, const Limits &limits, MasterKey master);

  std::optional<Entry> find(const EntryName &name) const override;
  bool exists(const EntryName &name) const override;
  std::optional<EntryName> at(uint16_t position) const override;
  size_t count() const override;
  KsResult put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
               uid_t owner) override;
  KsResult set_metadata(const EntryName &name, Bytes metadata) override;
  KsResult remove(const EntryName &name) override;
  KsResult rename(const EntryName &from, const EntryName &to) override;
  void on_retired(std::function<void(uint64_t generation)> retired) override { retired_ = std::move(retired); }
  KsResult compact() override { return commits_.compact(); }
  Usage usage() const override;
  void use_limits(const Limits &limits) override { commits_.use_limits(limits); }
  const std::string &path() const override { return commits_.path(); }
  Condition condition() const override { return commits_.condition(); }
  std::vector<Owner> owners(uid_t from, size_t most) const override;
  KsResult write_back(uint64_t &pages) override { return commits_.write_back(pages); }
  Snapshot snapshot() override;
  KsResult change_key(std::shared_ptr<const SecretBytes> next) override { return commits_.change_key(std::move(next)); }
  KeyChangeProgress key_change() const override { return commits_.key_change(); }

 private:
  void prepare(const Group &group) override;
  void discard() noexcept override { prepared_.clear(); }
  void show(Group &group, const Header &header) noexcept override;
  void use_header(const Header &header) noexcept override { state_.header = header; }

  const VaultLock lock_;

  // Written under the lock, by the writer.
  mutable ReadMostlyLock state_lock_;
  State state_;
  Table::Prepared prepared_;
  std::function<void(uint64_t)> retired_;

  GroupCommit commits_;  // last: its worker uses the others
};

}  // namespace ksd::vault

#endif

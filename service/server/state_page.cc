// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/state_page.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "base/refuse.h"

namespace ksd::server {
namespace {

// The file may be there from an earlier service, mapped by clients: it is reused, never replaced or cut.
UniqueFd open_page(const std::string &path) {
  UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) refuse_by_errno(path, "can't open the state page");
  struct stat status {};
  if (fstat(file.get(), &status) < 0) refuse_by_errno(path, "can't look at the state page");
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
    refuse("{}: isn't a file of this user; remove it", path);
  }
  if (fchmod(file.get(), 0644) < 0) refuse_by_errno(path, "can't let clients read the state page");
  // Allocated now, also of a file that is large enough and has nothing in it: storing into a mapped file whose file
  // system is full would end the service.
  if (const int error = posix_fallocate(file.get(), 0, sizeof(HostStatePage)); error != 0) {
    errno = error;
    refuse_by_errno(path, "there is no room for the state page");
  }
  return file;
}

void store(uint32_t &word, uint32_t value) {
  std::atomic_ref(word).store(value, std::memory_order_release);
}

void store_gate(uint32_t (&words)[8], const std::bitset<256> &gate) {
  for (size_t word = 0; word < std::size(words); ++word) {
    uint32_t bits = 0;
    for (size_t bit = 0; bit < 32; ++bit) bits |= uint32_t{gate[word * 32 + bit]} << bit;
    store(words[word], bits);
  }
}

}  // namespace

StatePage::StatePage(const std::string &socket_path) : file_(open_page(socket_path + HOST_STATE_SUFFIX)) {
  void *memory = mmap(nullptr, sizeof(HostStatePage), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (memory == MAP_FAILED) refuse_by_errno(socket_path + HOST_STATE_SUFFIX, "can't map the state page");
  page_ = static_cast<HostStatePage *>(memory);
}

StatePage::~StatePage() {
  munmap(page_, sizeof *page_);
}

void StatePage::publish(const config::Config &config) {
  store(page_->supstate, config.supstate);
  store_gate(page_->history_open, config.gates.record);
  store_gate(page_->debug_open, config.gates.debug);
  store(page_->version, 1);
  store(page_->magic, HOST_STATE_MAGIC);  // last: until then a client takes the page for absent
}

}  // namespace ksd::server

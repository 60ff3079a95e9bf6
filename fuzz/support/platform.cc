// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "platform.h"

#include <unistd.h>

#include <cstdarg>
#include <ctime>
#include <set>

#include "ks_api.h"
#include "mts.h"
#include "sdb.h"
#include "sdwrap.h"
#include "sysmgr.h"

namespace fuzz {
namespace {

Guarded reply_memory;
Bytes reply;

Guarded value_memory;
KsSdbDatum value_datum;
std::optional<std::vector<uint8_t>> value;
std::optional<std::vector<uint8_t>> staged;

std::set<void *> blocks;

void *watched(void *block) {
  if (block != nullptr) blocks.insert(block);
  return block;
}

}  // namespace

Run::~Run() {
  for (void *block : blocks) free(block);
  blocks.clear();
}

void reply_with(Bytes payload) {
  reply = {reply_memory.copy(payload), payload.size()};
}

void cache_with(std::optional<Bytes> bytes) {
  value.reset();
  if (bytes) value = own(*bytes);
  ks_cache_present = 1;
}

const std::optional<std::vector<uint8_t>> &cache_value() {
  return value;
}

}  // namespace fuzz

// The library's own calls have these names here.
extern "C" {
void *scripted_malloc(size_t size) {
  return fuzz::watched(malloc(size));
}
void *scripted_calloc(size_t count, size_t size) {
  return fuzz::watched(calloc(count, size));
}
void scripted_free(void *block) {
  fuzz::require(block == nullptr || fuzz::blocks.erase(block) == 1, "a block is freed once");
  free(block);
}
int scripted_usleep(useconds_t) {
  return 0;
}
time_t scripted_time(time_t *) {
  return 1'700'000'000;
}
}

// The functions in the place of the null platform's.
const void *mts_payload_get(const KsMtsMessage *) {
  return fuzz::reply.data();
}
uint32_t mts_payload_size(const KsMtsMessage *) {
  return static_cast<uint32_t>(fuzz::reply.size());
}
int sdwrap_hist_event_subtype_check(uint32_t, uint32_t) {
  return 0;
}
int sdwrap_hist_event(uint32_t, uint32_t length, const void *record) {
  const auto *report = static_cast<const KsHistRecord *>(record);
  fuzz::require(length <= sizeof *report, "a report fits into its record");
  fuzz::require(strnlen(report->text, sizeof report->text) + 5 == length, "a report ends with its text");
  return 0;
}
int sdwrap_chk_int(uint32_t, uint32_t, uint32_t, uint32_t) {
  return 1;
}
int buginf(uint32_t, const void *, uint32_t, const char *format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return length;
}

const char *sysmgr_running_cfg_uri_get(void) {
  return "lmdb:///run/ks";
}
const char *sysmgr_uri_complete(const char *, const char *, const char *) {
  return "lmdb:///run/ks/sksd_ks_cache_data";
}

uint32_t sdb_open(const char *, uint32_t, uint32_t, uint32_t, uint32_t) {
  return 0;
}
const KsSdbDatum *sdb_read(const char *, const KsSdbDatum *, uint32_t *error) {
  *error = fuzz::value ? 0 : KS_SDB_ERR_NO_KEY;
  if (!fuzz::value) return nullptr;
  fuzz::value_datum = {fuzz::value_memory.copy(*fuzz::value), static_cast<uint32_t>(fuzz::value->size())};
  return &fuzz::value_datum;
}
uint32_t sdb_write(const char *, const KsSdbDatum *, const KsSdbDatum *value) {
  fuzz::staged = fuzz::own({static_cast<const uint8_t *>(value->data), value->size});
  return 0;
}
uint32_t sdb_delete(const char *, const KsSdbDatum *) {
  fuzz::staged.reset();
  return 0;
}
uint32_t sdb_write_done(const char *) {
  fuzz::value = fuzz::staged;
  return 0;
}

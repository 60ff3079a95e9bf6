// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Platform libraries that do nothing and succeed: what is measured over them is the library's own.
#include "mts.h"
#include "sdb.h"
#include "sdwrap.h"
#include "sysmgr.h"

namespace {

// A reply that every measured operation takes for a success: 16 bytes of data.
constexpr uint8_t kReply[6 + 16] = {1, 0, 0, 0, 16, 0};

}  // namespace

uint32_t mts_bind(uint32_t, uint32_t, const KsBindTemplate *, uint32_t) {
  return 1;
}
uint32_t mts_send(uint32_t, uint32_t, uint32_t, uint32_t, const void *, uint32_t, KsMtsMessage *, uint32_t,
                  const KsSendOptions *) {
  return 0;
}
uint32_t mts_rr_token_get(const KsMtsMessage *) {
  return 1;
}
uint32_t mts_recv(uint32_t, KsMtsMessage *, const KsRecvOptions *) {
  return 0;
}
const void *mts_payload_get(const KsMtsMessage *) {
  return kReply;
}
uint32_t mts_payload_size(const KsMtsMessage *) {
  return sizeof kReply;
}
void mts_drop(uint32_t, KsMtsMessage *) {}
uint32_t mts_errno_get(uint32_t) {
  return 0;
}

char sdwrap_dbg_modname[] = "ks";
int sdwrap_hist_event_subtype_check(uint32_t, uint32_t) {
  return 1;
}
int sdwrap_hist_event(uint32_t, uint32_t, const void *) {
  return 0;
}
int sdwrap_hist_mts_event(uint32_t, const KsMtsMessage *, uint32_t, uint32_t) {
  return 0;
}
int sdwrap_chk_int(uint32_t, uint32_t, uint32_t, uint32_t) {
  return 0;
}
int buginf(uint32_t, const void *, uint32_t, const char *, ...) {
  return 0;
}

uint32_t sysmgr_vdc_get(void) {
  return 7;
}
uint32_t sysmgr_supstate_get(void) {
  return 0;
}
const char *sysmgr_running_cfg_uri_get(void) {
  return "";
}
const char *sysmgr_uri_complete(const char *, const char *, const char *) {
  return "";
}

uint32_t sdb_open(const char *, uint32_t, uint32_t, uint32_t, uint32_t) {
  return KS_SDB_ERR_BAD_URI;
}
const KsSdbDatum *sdb_read(const char *, const KsSdbDatum *, uint32_t *error) {
  *error = KS_SDB_ERR_NO_KEY;
  return nullptr;
}
uint32_t sdb_write(const char *, const KsSdbDatum *, const KsSdbDatum *) {
  return 0;
}
uint32_t sdb_delete(const char *, const KsSdbDatum *) {
  return 0;
}
uint32_t sdb_write_done(const char *) {
  return 0;
}
uint32_t sdb_iterator_init(const char *, uint32_t) {
  return 0;
}
uint32_t sdb_getkey(const char *, const KsSdbDatum **, const KsSdbDatum **) {
  return 1;
}
uint32_t sdb_getnext(const char *, const KsSdbDatum **, const KsSdbDatum **) {
  return 1;
}
const char *syserr2str(uint32_t) {
  return "";
}

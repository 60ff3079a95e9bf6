/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* keystore_pac.c: stands between wpa_supplicant's EAP-FAST peer and its PACs. The linker leads the peer's calls here
 * (--wrap, see build.sh), so that a PAC's key goes into the keystore as soon as the server's message is taken apart,
 * and all that the peer keeps and writes is a reference. At a login the reference leads to the A-ID, and the keystore
 * derives the master secret.
 *
 * The keystore decides what a PAC is: it holds key, PAC-Opaque, PAC-Info and reference, replaced in one step. The
 * peer's file is written after it, and may be behind. */

/* The source's own headers need each other in this order. */
/* clang-format off */
#include "includes.h"
#include "common.h"
struct eap_sm; /* the peer's, only passed on */
#include "eap_peer/eap_fast_pac.h"
/* clang-format on */

#include <fcntl.h>
#include <host_mts.h>
#include <ks_api.h>
#include <openssl/ssl.h>
#include <stdbool.h>
#include <sys/stat.h>

#include "pac_reference.h"

#define APPLICATION 0x5041 /* tells these programs from others in reports */
#define MASTER_SECRET_SIZE 48
#define RANDOM_SIZE 32

_Static_assert(PAC_REFERENCE_SIZE == EAP_FAST_PAC_KEY_LEN, "a reference fits where a key does");

/* The peer's own functions, as the linker names them here. */
typedef int Load(struct eap_sm *sm, struct eap_fast_pac **pacs, const char *file);
typedef int Save(struct eap_sm *sm, struct eap_fast_pac *pacs, const char *file);
Load __real_eap_fast_load_pac, __real_eap_fast_load_pac_bin;
Save __real_eap_fast_save_pac, __real_eap_fast_save_pac_bin;
int __real_eap_fast_add_pac(struct eap_fast_pac **pacs, struct eap_fast_pac **current, struct eap_fast_pac *entry);
size_t __real_eap_fast_pac_list_truncate(struct eap_fast_pac *pacs, size_t max_len);
void __real_eap_fast_derive_master_secret(const u8 *key, const u8 *server_random, const u8 *client_random, u8 *secret);
SSL *__real_SSL_new(SSL_CTX *context);

/* And what stands in front of them. */
Load __wrap_eap_fast_load_pac, __wrap_eap_fast_load_pac_bin;
Save __wrap_eap_fast_save_pac, __wrap_eap_fast_save_pac_bin;
int __wrap_eap_fast_add_pac(struct eap_fast_pac **pacs, struct eap_fast_pac **current, struct eap_fast_pac *entry);
size_t __wrap_eap_fast_pac_list_truncate(struct eap_fast_pac *pacs, size_t max_len);
void __wrap_eap_fast_derive_master_secret(const u8 *key, const u8 *server_random, const u8 *client_random, u8 *secret);
SSL *__wrap_SSL_new(SSL_CTX *context);

/* Form is one of the two forms of a PAC file. */
typedef struct {
  Load *load;
  Save *save;
} Form;

static const Form text_form = {__real_eap_fast_load_pac, __real_eap_fast_save_pac};
static const Form binary_form = {__real_eap_fast_load_pac_bin, __real_eap_fast_save_pac_bin};

/* Known is a PAC that this process may use: the keystore has one for each A-ID. */
typedef struct Known {
  struct Known *next;
  u8 a_id[KS_PAC_NAME_MAX];
  u8 a_id_len;
  u8 reference[PAC_REFERENCE_SIZE];
  u8 in_file[PAC_REFERENCE_SIZE]; /* what the file names: `reference`, or an earlier one while a write is owed */
  bool dropped;                   /* from the end of a list that has become too long, and not from the keystore yet */
} Known;

static Known *known_pacs;

static Known *known_by_reference(const u8 *reference) {
  Known *known = known_pacs;
  while (known != NULL && os_memcmp(known->reference, reference, PAC_REFERENCE_SIZE) != 0) known = known->next;
  return known;
}

/* know notes which reference the keystore's PAC of an A-ID has. NULL: no memory. */
static Known *know(const u8 *a_id, size_t a_id_len, const u8 *reference) {
  Known *known = known_pacs;
  while (known != NULL && (known->a_id_len != a_id_len || os_memcmp(known->a_id, a_id, a_id_len) != 0)) {
    known = known->next;
  }
  if (known == NULL) {
    known = os_zalloc(sizeof *known);
    if (known == NULL) return NULL;
    known->a_id_len = (u8)a_id_len;
    os_memcpy(known->a_id, a_id, a_id_len);
    known->next = known_pacs;
    known_pacs = known;
  }
  os_memcpy(known->reference, reference, PAC_REFERENCE_SIZE);
  known->dropped = false;
  return known;
}

/* ---- Messages. */

typedef char Hex[2 * KS_PAC_NAME_MAX + 1];

static const char *hex_of(const u8 *a_id, size_t a_id_len, Hex text) {
  text[0] = '\0';
  wpa_snprintf_hex(text, sizeof(Hex), a_id, a_id_len);
  return text;
}

/* tell_failure says what couldn't be done, why, and what to do: in the platform's words where an exchange failed. */
static void tell_failure(const char *what, const u8 *a_id, size_t a_id_len, KsResult result) {
  Hex text;
  char why[512] = "";
  if (mts_last_error_get != NULL) mts_last_error_get(why, sizeof why);
  if (why[0] == '\0') snprintf(why, sizeof why, "%s ('ksctl explain %u' tells what to do)", kserr2str(result), result);
  wpa_printf(MSG_ERROR, "EAP-FAST: keystore: %s%s%s failed: %s", what, a_id_len > 0 ? " of A-ID " : "",
             hex_of(a_id, a_id_len, text), why);
}

static long microseconds_since(const struct os_reltime *start) {
  struct os_reltime now, passed;
  os_get_reltime(&now);
  os_reltime_sub(&now, (struct os_reltime *)start, &passed);
  return passed.sec * 1000000L + passed.usec;
}

/* ---- The keystore. */

/* start binds the library when it is first needed, which is behind a daemon's fork. */
static bool start(void) {
  static bool started;
  if (started) return true;
  const KsResult result = ks_init(0, APPLICATION, 0);
  started = result == KS_SUCCESS;
  if (!started) tell_failure("starting", NULL, 0, result);
  return started;
}

/* answers asks for something small, before a server is made to give away a PAC that couldn't be kept. */
static bool answers(void) {
  u8 random;
  const KsResult result = ks_generate_random_number(&random, 1, 0);
  if (result != KS_SUCCESS) tell_failure("a first request", NULL, 0, result);
  return result == KS_SUCCESS;
}

/* forget_cached removes the PAC's entry of the cache, which no store and no clear does. */
static void forget_cached(const u8 *a_id, size_t a_id_len) {
  uint32_t found = 0;
  if (!is_cache_present() || ks_cache_find_pac(a_id, (uint32_t)a_id_len, &found) != KS_SUCCESS) return;
  KsWireName name = {.tag = KS_NAME_TAG_PAC, .vdc_id = {(u8)(vdc_id >> 8), (u8)vdc_id}};
  os_memcpy(name.name, a_id, a_id_len);
  if (ks_cache_pac_clear(&name, (uint32_t)(KS_NAME_HEADER_SIZE + a_id_len)) != KS_SUCCESS) {
    wpa_printf(MSG_WARNING,
               "EAP-FAST: keystore: the PAC cache couldn't be brought up to date; run 'ksctl cache purge'");
  }
}

/* store_pac stores key, PAC-Opaque and PAC-Info under a reference. */
static KsResult store_pac(const struct eap_fast_pac *pac, const u8 *reference, const u8 *replaced) {
  PacTie tie = {.reference = reference, .replaced = replaced, .info = pac->pac_info, .info_len = pac->pac_info_len};
  uint8_t *made = NULL;
  if (pac->pac_info == NULL) { /* the text form of a file isn't read back whole */
    const PacAttributes attributes = {.a_id = pac->a_id,
                                      .a_id_len = pac->a_id_len,
                                      .i_id = pac->i_id,
                                      .i_id_len = pac->i_id_len,
                                      .a_id_info = pac->a_id_info,
                                      .a_id_info_len = pac->a_id_info_len,
                                      .pac_type = pac->pac_type};
    tie.info = made = pac_info_of(&attributes, &tie.info_len);
  }
  uint32_t opaque_len = 0, info_len = 0;
  uint8_t *const opaque = pac_opaque_tlv(pac->pac_opaque, pac->pac_opaque_len, &opaque_len);
  uint8_t *const info = tie.info == NULL ? NULL : pac_tie_tlv(&tie, &info_len);
  KsResult result = KS_NO_MEMORY;
  if (opaque != NULL && info != NULL) {
    result = ks_store_pac(pac->a_id, (uint32_t)pac->a_id_len, pac->pac_key, EAP_FAST_PAC_KEY_LEN, opaque, opaque_len,
                          info, info_len);
  }
  free(made);
  free(opaque);
  free(info);
  return result;
}

/* take_over puts a PAC's key into the keystore and a reference in its place. `replaced` is the reference that the PAC's
 * file has now, or NULL. When it fails, the keystore's PAC is as it was, and so is `pac`. */
static bool take_over(struct eap_fast_pac *pac, const u8 *replaced) {
  if (pac->a_id_len == 0 || pac->a_id_len > KS_PAC_NAME_MAX) {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: an A-ID of %u bytes can't name a PAC there: 1 to %u can; use another "
               "authority, or wpa_supplicant as it comes",
               (unsigned)pac->a_id_len, KS_PAC_NAME_MAX);
    return false;
  }
  struct os_reltime begin;
  os_get_reltime(&begin);
  u8 random[PAC_REFERENCE_RANDOM_SIZE], reference[PAC_REFERENCE_SIZE];
  if (!start()) return false;
  if (os_get_random(random, sizeof random) < 0) {
    wpa_printf(MSG_ERROR, "EAP-FAST: keystore: the system gives no random bytes for a reference");
    return false;
  }
  pac_reference_make(random, reference);
  const KsResult result = store_pac(pac, reference, replaced);
  if (result != KS_SUCCESS) {
    tell_failure("storing the PAC", pac->a_id, pac->a_id_len, result);
    return false;
  }
  forget_cached(pac->a_id, pac->a_id_len);
  forced_memzero(pac->pac_key, EAP_FAST_PAC_KEY_LEN);
  os_memcpy(pac->pac_key, reference, PAC_REFERENCE_SIZE);

  Hex text;
  Known *const known = know(pac->a_id, pac->a_id_len, reference);
  if (known != NULL) os_memcpy(known->in_file, replaced != NULL ? replaced : reference, PAC_REFERENCE_SIZE);
  wpa_printf(MSG_DEBUG, "EAP-FAST: keystore: stored the PAC of A-ID %s in %ld us",
             hex_of(pac->a_id, pac->a_id_len, text), microseconds_since(&begin));
  return true;
}

/* has_other_type tells whether a list has a PAC of the same A-ID and of another type. */
static bool has_other_type(const struct eap_fast_pac *pacs, const struct eap_fast_pac *pac) {
  for (; pacs != NULL; pacs = pacs->next) {
    if (pacs->pac_type != pac->pac_type && pacs->a_id_len == pac->a_id_len && pac->a_id_len > 0 &&
        os_memcmp(pacs->a_id, pac->a_id, pac->a_id_len) == 0) {
      Hex text;
      wpa_printf(MSG_ERROR,
                 "EAP-FAST: keystore: there are PACs of the types %u and %u for A-ID %s, and the keystore "
                 "has one for each A-ID; remove one from the PAC file",
                 pacs->pac_type, pac->pac_type, hex_of(pac->a_id, pac->a_id_len, text));
      return true;
    }
  }
  return false;
}

static void forget_keys(struct eap_fast_pac *pacs) {
  for (; pacs != NULL; pacs = pacs->next) forced_memzero(pacs->pac_key, EAP_FAST_PAC_KEY_LEN);
}

/* ---- Writing a file. */

static bool same_pacs(const struct eap_fast_pac *one, const struct eap_fast_pac *other) {
  while (one != NULL && other != NULL && os_memcmp(one->pac_key, other->pac_key, PAC_REFERENCE_SIZE) == 0) {
    one = one->next;
    other = other->next;
  }
  return one == NULL && other == NULL;
}

/* write_whole writes PACs to an empty file, and reads them back: the peer doesn't notice that a disk is full. */
static bool write_whole(const Form *form, struct eap_sm *sm, struct eap_fast_pac *pacs, const char *path, int file) {
  struct eap_fast_pac *written = NULL;
  const bool whole = form->save(sm, pacs, path) == 0 && form->load(sm, &written, path) == 0 &&
                     same_pacs(pacs, written) && fsync(file) == 0;
  while (written != NULL) {
    struct eap_fast_pac *const next = written->next;
    eap_fast_free_pac(written);
    written = next;
  }
  return whole;
}

/* replace_file puts a whole new file in the place of the old one, with its mode and owner, or leaves that. */
static bool replace_file(const Form *form, struct eap_sm *sm, struct eap_fast_pac *pacs, const char *path) {
  const size_t size = os_strlen(path) + sizeof ".XXXXXX";
  char *const scratch = os_malloc(size);
  if (scratch == NULL) return false;
  os_snprintf(scratch, size, "%s.XXXXXX", path);
  const int file = mkostemp(scratch, O_CLOEXEC);
  if (file < 0) {
    wpa_printf(MSG_ERROR, "EAP-FAST: keystore: no file can be made beside '%s': %s", path, strerror(errno));
    os_free(scratch);
    return false;
  }
  struct stat old;
  bool done =
      stat(path, &old) != 0 || (fchown(file, old.st_uid, old.st_gid) == 0 && fchmod(file, old.st_mode & 07777) == 0);
  if (done) errno = 0;
  done = done && write_whole(form, sm, pacs, scratch, file) && rename(scratch, path) == 0;
  if (!done) {
    wpa_printf(MSG_ERROR, "EAP-FAST: keystore: '%s' can't be written anew, and stays as it was: %s", path,
               errno != 0 ? strerror(errno) : "what was written isn't whole, as on a full disk");
    unlink(scratch);
  }
  close(file);
  os_free(scratch);
  return done;
}

/* clear_dropped removes from the keystore what the file has just lost: a server that calls itself by ever new names
 * can't fill the keystore. */
static void clear_dropped(void) {
  for (Known **link = &known_pacs; *link != NULL;) {
    Known *const known = *link;
    if (!known->dropped) {
      link = &known->next;
      continue;
    }
    const KsResult result = ks_clear_pac(known->a_id, known->a_id_len);
    if (result != KS_SUCCESS && result != KS_NOT_FOUND)
      tell_failure("removing the PAC", known->a_id, known->a_id_len, result);
    forget_cached(known->a_id, known->a_id_len);
    *link = known->next;
    os_free(known);
  }
}

static int save_pacs(const Form *form, struct eap_sm *sm, struct eap_fast_pac *pacs, const char *file) {
  for (const struct eap_fast_pac *pac = pacs; pac != NULL; pac = pac->next) {
    if (!pac_reference_is(pac->pac_key)) {
      wpa_printf(MSG_ERROR, "EAP-FAST: keystore: '%s' isn't written, since a PAC's key would get into it", file);
      return -1;
    }
  }
  int result;
  if (os_strncmp(file, "blob://", 7) == 0) { /* kept in the peer's memory, and written with its configuration */
    result = form->save(sm, pacs, file);
  } else {
    char *const path = realpath(file, NULL); /* the file that a link leads to */
    result = replace_file(form, sm, pacs, path != NULL ? path : file) ? 0 : -1;
    free(path);
  }
  if (result != 0) return result;
  for (const struct eap_fast_pac *pac = pacs; pac != NULL; pac = pac->next) {
    Known *const known = known_by_reference(pac->pac_key);
    if (known != NULL) os_memcpy(known->in_file, known->reference, PAC_REFERENCE_SIZE);
  }
  clear_dropped();
  return 0;
}

/* ---- Reading a file. */

enum standing { USABLE, BEHIND, GONE, NOT_TOLD };

/* put_bytes replaces a part of a record by a copy. False: no memory, and the part is as it was. */
static bool put_bytes(u8 **part, size_t *part_len, const u8 *bytes, size_t len) {
  u8 *const copy = os_memdup(bytes, len);
  if (copy == NULL) return false;
  os_free(*part);
  *part = copy;
  *part_len = len;
  return true;
}

/* catch_up puts the keystore's PAC-Opaque into a record whose file missed the last write. */
static enum standing catch_up(struct eap_fast_pac *pac) {
  uint8_t *tlv = NULL;
  uint32_t tlv_len = 0;
  const KsResult result = ks_return_pac_opaque(pac->a_id, (uint32_t)pac->a_id_len, &tlv, &tlv_len);
  if (result != KS_SUCCESS) {
    tell_failure("reading the PAC-Opaque", pac->a_id, pac->a_id_len, result);
    return NOT_TOLD;
  }
  const bool put =
      put_bytes(&pac->pac_opaque, &pac->pac_opaque_len, tlv + sizeof(KsPacTlv), tlv_len - sizeof(KsPacTlv));
  free(tlv);
  return put ? BEHIND : NOT_TOLD;
}

/* look_up compares a record's reference with that of the keystore's PAC, and gives it the PAC-Info, which the text form
 * of a file isn't read back with. */
static enum standing look_up(struct eap_fast_pac *pac, const char *file) {
  Hex text;
  if (pac->a_id_len == 0 || pac->a_id_len > KS_PAC_NAME_MAX) {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: '%s' has a PAC with an A-ID of %u bytes, which can't be there; it isn't "
               "used",
               file, (unsigned)pac->a_id_len);
    return GONE;
  }
  uint8_t *tlv = NULL;
  uint32_t tlv_len = 0;
  const KsResult result = ks_return_pac_info(pac->a_id, (uint32_t)pac->a_id_len, &tlv, &tlv_len);
  if (result == KS_NOT_FOUND) {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: has no PAC of A-ID %s, which '%s' names; it isn't used. Let a PAC be "
               "provisioned anew (fast_provisioning in phase1), or use the keystore that has it (KS_SOCKET)",
               hex_of(pac->a_id, pac->a_id_len, text), file);
    return GONE;
  }
  if (result != KS_SUCCESS) {
    tell_failure("looking up the PAC", pac->a_id, pac->a_id_len, result);
    return NOT_TOLD;
  }
  PacTie tie;
  enum standing standing = GONE;
  if (!pac_tie_read(tlv, tlv_len, &tie)) {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: the PAC of A-ID %s was stored by another program, and isn't the one that "
               "'%s' names; it isn't used. Let a PAC be provisioned anew (fast_provisioning in phase1)",
               hex_of(pac->a_id, pac->a_id_len, text), file);
  } else if (os_memcmp(tie.reference, pac->pac_key, PAC_REFERENCE_SIZE) == 0) {
    standing = USABLE;
  } else if (tie.replaced != NULL && os_memcmp(tie.replaced, pac->pac_key, PAC_REFERENCE_SIZE) == 0) {
    standing = catch_up(pac);
  } else {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: the PAC of A-ID %s isn't the one that '%s' names: one was provisioned with "
               "another file since, or in another keystore; it isn't used. Let a PAC be provisioned anew "
               "(fast_provisioning in phase1)",
               hex_of(pac->a_id, pac->a_id_len, text), file);
  }
  if (standing == USABLE || standing == BEHIND) {
    Known *const known = know(pac->a_id, pac->a_id_len, tie.reference);
    if (known == NULL || !put_bytes(&pac->pac_info, &pac->pac_info_len, tie.info, tie.info_len)) {
      standing = NOT_TOLD;
    } else {
      os_memcpy(known->in_file, pac->pac_key, PAC_REFERENCE_SIZE);
      os_memcpy(pac->pac_key, tie.reference, PAC_REFERENCE_SIZE);
    }
  }
  free(tlv);
  return standing;
}

/* look_through keeps of a list what may be used, and puts keys that it still has into the keystore. */
static bool look_through(struct eap_fast_pac **pacs, const char *file, bool *had_keys, bool *behind) {
  for (struct eap_fast_pac **link = pacs; *link != NULL;) {
    struct eap_fast_pac *const pac = *link;
    enum standing standing = USABLE;
    if (pac_reference_is(pac->pac_key)) {
      standing = look_up(pac, file);
    } else {
      if (has_other_type(*pacs, pac) || !take_over(pac, NULL)) return false;
      *had_keys = true;
    }
    if (standing == NOT_TOLD) return false;
    if (standing == BEHIND) *behind = true;
    if (standing == GONE) {
      *link = pac->next;
      eap_fast_free_pac(pac);
    } else {
      link = &pac->next;
    }
  }
  return true;
}

static int load_pacs(const Form *form, struct eap_sm *sm, struct eap_fast_pac **pacs, const char *file) {
  if (form->load(sm, pacs, file) < 0) {
    wpa_printf(MSG_ERROR,
               "EAP-FAST: keystore: '%s' is damaged. Put back a copy, or remove it and let PACs be provisioned anew "
               "(fast_provisioning in phase1)",
               file);
    forget_keys(*pacs);
    return -1;
  }
  if (!start()) {
    forget_keys(*pacs);
    return -1;
  }
  struct os_reltime begin;
  os_get_reltime(&begin);
  bool had_keys = false, behind = false;
  if (*pacs == NULL ? !answers() : !look_through(pacs, file, &had_keys, &behind)) {
    forget_keys(*pacs);
    return -1;
  }
  wpa_printf(MSG_DEBUG, "EAP-FAST: keystore: looked through '%s' in %ld us", file, microseconds_since(&begin));
  /* A file that is behind may be so for longer; one with keys may not. */
  if ((had_keys || behind) && save_pacs(form, sm, *pacs, file) != 0 && had_keys) {
    wpa_printf(MSG_ERROR, "EAP-FAST: keystore: '%s' holds keys still; make it writable, or remove it", file);
    return -1;
  }
  return 0;
}

/* ---- What the linker leads here. */

int __wrap_eap_fast_load_pac(struct eap_sm *sm, struct eap_fast_pac **pacs, const char *file) {
  return load_pacs(&text_form, sm, pacs, file);
}

int __wrap_eap_fast_load_pac_bin(struct eap_sm *sm, struct eap_fast_pac **pacs, const char *file) {
  return load_pacs(&binary_form, sm, pacs, file);
}

int __wrap_eap_fast_save_pac(struct eap_sm *sm, struct eap_fast_pac *pacs, const char *file) {
  return save_pacs(&text_form, sm, pacs, file);
}

int __wrap_eap_fast_save_pac_bin(struct eap_sm *sm, struct eap_fast_pac *pacs, const char *file) {
  return save_pacs(&binary_form, sm, pacs, file);
}

/* The peer adds a PAC that a server has just given. Its answer isn't looked at: a PAC that isn't added leaves the one
 * that there was in use. */
int __wrap_eap_fast_add_pac(struct eap_fast_pac **pacs, struct eap_fast_pac **current, struct eap_fast_pac *entry) {
  if (entry == NULL || entry->a_id == NULL) return __real_eap_fast_add_pac(pacs, current, entry);
  const struct eap_fast_pac *const old = eap_fast_get_pac(*pacs, entry->a_id, entry->a_id_len, entry->pac_type);
  const Known *const known = old == NULL ? NULL : known_by_reference(old->pac_key);
  if (has_other_type(*pacs, entry) || !take_over(entry, known == NULL ? NULL : known->in_file)) {
    forget_keys(entry);
    return -1;
  }
  return __real_eap_fast_add_pac(pacs, current, entry);
}

/* The peer cuts a list's end off whenever it has read it or added to it. */
size_t __wrap_eap_fast_pac_list_truncate(struct eap_fast_pac *pacs, size_t max_len) {
  size_t count = 0;
  for (const struct eap_fast_pac *pac = pacs; pac != NULL; pac = pac->next) {
    Known *const known = ++count > max_len ? known_by_reference(pac->pac_key) : NULL;
    if (known != NULL) known->dropped = true;
  }
  return __real_eap_fast_pac_list_truncate(pacs, max_len);
}

/* The peer can't be told that there is no master secret. It gets one that nobody can know, so that the handshake ends
 * with the server's refusal. */
void __wrap_eap_fast_derive_master_secret(const u8 *key, const u8 *server_random, const u8 *client_random, u8 *secret) {
  static const char label[] = "PAC to master secret label hash";
  if (!pac_reference_is(key)) { /* a server in the same process has keys of its own */
    __real_eap_fast_derive_master_secret(key, server_random, client_random, secret);
    return;
  }
  if (os_get_random(secret, MASTER_SECRET_SIZE) < 0) abort();
  const Known *const known = known_by_reference(key);
  if (known == NULL) {
    wpa_printf(MSG_ERROR, "EAP-FAST: keystore: the PAC was replaced during the login, which fails; log in again");
    return;
  }
  struct os_reltime begin;
  os_get_reltime(&begin);
  u8 seed[2 * RANDOM_SIZE];
  os_memcpy(seed, server_random, RANDOM_SIZE);
  os_memcpy(seed + RANDOM_SIZE, client_random, RANDOM_SIZE);
  const KsResult result = ks_pac_key_t_prf(known->a_id, known->a_id_len, (const uint8_t *)label, sizeof label - 1, seed,
                                           sizeof seed, secret, MASTER_SECRET_SIZE);
  if (result == KS_SUCCESS) {
    wpa_printf(MSG_DEBUG, "EAP-FAST: keystore: derived the master secret in %ld us", microseconds_since(&begin));
    return;
  }
  tell_failure("deriving the master secret with the PAC", known->a_id, known->a_id_len, result);
  /* The PAC was found in the cache alone. Without that the next login knows better. */
  if (result == KS_NOT_FOUND) forget_cached(known->a_id, known->a_id_len);
}

/* A TLS connection that clears what it has decrypted as soon as the peer has read it: it may hold a PAC's key. */
SSL *__wrap_SSL_new(SSL_CTX *context) {
  SSL *const connection = __real_SSL_new(context);
  if (connection != NULL) SSL_set_options(connection, SSL_OP_CLEANSE_PLAINTEXT);
  return connection;
}

// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// state.cc: the exported objects, each with one meaning for the whole process.
#include "ks_api.h"
#include "mts.h"

uint32_t ks_mts_q = MTS_FAILED;  // until ks_init has bound one
uint16_t vdc_id = 0;
uint32_t app_uuid = 0;
uint32_t ks_cache_present = 0;  // this and the next are ks_sdb_init's to write
char ks_cache_uri[256] = {};

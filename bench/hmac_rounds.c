/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* hmac_rounds NAME: for each number that is read, as many HMAC-SHA1s of 64 bytes under the secret NAME, and how long
 * they took in nanoseconds. python_bench.py runs the same in turns with it. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "ks_api.h"

static int64_t now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

int main(int argc, char **argv) {
  uint8_t data[64], output[KS_SHA1_SIZE];
  char line[32];
  if (argc != 2 || ks_init(0, 1, 0) != KS_SUCCESS) return 1;
  memset(data, 'x', sizeof data);
  while (fgets(line, sizeof line, stdin) != NULL) {
    const long rounds = strtol(line, NULL, 10);
    const int64_t start = now_ns();
    for (long i = 0; i < rounds; i++) {
      if (ks_hmac_sha1(argv[1], data, sizeof data, output) != KS_SUCCESS) return 1;
    }
    printf("%" PRId64 "\n", now_ns() - start);
    fflush(stdout);
  }
  return 0;
}

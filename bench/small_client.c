/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* A client with nothing but the library: how soon after ks_init the first reply is in, and what memory it takes. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "ks_api.h"

static double now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static int exchange(void) {
  uint8_t random[16];
  return ks_generate_random_number(random, sizeof random, 0) == KS_SUCCESS;
}

static void print_memory(void) {
  char line[256];
  FILE *status = fopen("/proc/self/status", "r");
  if (status == NULL) return;
  while (fgets(line, sizeof line, status) != NULL) {
    if (strncmp(line, "VmRSS:", 6) == 0 || strncmp(line, "RssAnon:", 8) == 0) printf("  %s", line);
  }
  fclose(status);
}

int main(void) {
  if (ks_init(0, 1, 0) != KS_SUCCESS) return 1;
  const double start = now_ms();
  if (!exchange()) return 1;
  printf("  first reply %.2f ms after ks_init, to stay under 1 ms\n", now_ms() - start);
  for (int i = 0; i < 1000; i++) {
    if (!exchange()) return 1;
  }
  printf("  after 1000 exchanges, to stay under 3072 kB in all:\n");
  print_memory();
  return 0;
}

// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// within tells whether a value lies below a limit; nothing asks for waste_of.
bool within(int value, int limit) {
  return value < limit;
}

int waste_of(int value) {
  return value * 16;
}

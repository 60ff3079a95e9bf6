// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

bool within(int value, int limit);

int main() {
  return within(1, 2) && !within(2, 2) ? 0 : 1;
}

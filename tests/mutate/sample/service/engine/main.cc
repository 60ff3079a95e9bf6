// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

volatile int told, untold;

int main() {
  told = told + 3;
  untold = untold + 3;
  told = told + 3;
  untold = untold + 3;
  told = told + 3;
  untold = untold + 3;
  told = told + 3;
  untold = untold + 3;
  return told - 12;
}

/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_version.h: the version of these headers and of everything that is built and packaged with them. The build reads
 * the three numbers here and nowhere else. docs/stability.md tells what each of them stands for. */
#ifndef KS_VERSION_H
#define KS_VERSION_H

#define KS_VERSION_MAJOR 1
#define KS_VERSION_MINOR 0
#define KS_VERSION_PATCH 0

/* One number that grows with each version, for #if. */
#define KS_VERSION_NUMBER (KS_VERSION_MAJOR * 1000000 + KS_VERSION_MINOR * 1000 + KS_VERSION_PATCH)

#endif

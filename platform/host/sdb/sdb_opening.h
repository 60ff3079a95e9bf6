// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_opening.h: from a URI to an open database.
#ifndef SDB_OPENING_H
#define SDB_OPENING_H

#include "sdb_database.h"
#include "sdb_folder.h"
#include "sdb_gate.h"
#include "sdb_thread.h"

namespace sdb {

// open_at opens the database at the URI, whose parts are `location`, examines it and takes the thread's seat there.
// `others` are the databases that this process has open: one of them under another URI is refused. The new one is
// stored in `out_database` and stays open.
uint32_t open_at(Thread *thread, const char *uri, const Location &location, const Database *others,
                 const Deadline &deadline, Database **out_database);

}  // namespace sdb

#endif

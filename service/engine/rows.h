// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// rows.h: etcd's keys and values as the daemon knows them.
#ifndef SERVICE_ENGINE_ROWS_H
#define SERVICE_ENGINE_ROWS_H

#include <optional>
#include <string>

#include "engine/engine.h"
#include "etcd.pb.h"

namespace ksd::engine {

inline fleet::Revision revision_of(const etcdserverpb::ResponseHeader &header) {
  return static_cast<fleet::Revision>(header.revision());
}

inline fleet::KeyValue to_row(const Engine &engine, const etcdserverpb::KeyValue &row) {
  return {engine.own(row.key()),
          {row.value().begin(), row.value().end()},
          static_cast<fleet::Revision>(row.mod_revision())};
}

inline std::optional<fleet::KeyValue> only_row(const Engine &engine, const etcdserverpb::RangeResponse &response) {
  if (response.kvs().empty()) return std::nullopt;
  return to_row(engine, response.kvs(0));
}

// end_of_folder is the first key behind all that begin with `folder`, which ends in a slash.
inline std::string end_of_folder(std::string folder) {
  folder.back() = '/' + 1;
  return folder;
}

}  // namespace ksd::engine

#endif

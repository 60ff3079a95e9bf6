// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// watch.h: all changes below the fleet's prefix, revision by revision.
#ifndef SERVICE_ENGINE_WATCH_H
#define SERVICE_ENGINE_WATCH_H

#include <memory>

#include "engine/task.h"

namespace ksd::engine {

std::unique_ptr<Task> make_task(Engine &engine, const fleet::Watch &request);

}  // namespace ksd::engine

#endif

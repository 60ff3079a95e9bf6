// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// calls.h: the requests that are one call, or one after the other, each with one answer.
#ifndef SERVICE_ENGINE_CALLS_H
#define SERVICE_ENGINE_CALLS_H

#include <memory>

#include "engine/task.h"

namespace ksd::engine {

std::unique_ptr<Task> make_task(Engine &engine, const fleet::Commit &request);
std::unique_ptr<Task> make_task(Engine &engine, const fleet::ReadHeader &request);
std::unique_ptr<Task> make_task(Engine &engine, const fleet::Load &request);
std::unique_ptr<Task> make_task(Engine &engine, const fleet::Beat &request);
std::unique_ptr<Task> make_task(Engine &engine, const fleet::ReadBeats &request);

}  // namespace ksd::engine

#endif

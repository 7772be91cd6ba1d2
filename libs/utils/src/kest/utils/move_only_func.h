#pragma once

#include <functional>

namespace kest::utils {

/** The completion handler type of every asynchronous operation: callable once, movable only. */
template <typename Signature>
using MoveOnlyFunc = std::move_only_function<Signature>;

}  // namespace kest::utils

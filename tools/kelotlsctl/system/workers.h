// Owns doing the same for many things in a few processes beside each other.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>

namespace kelotlsctl {

/// What work gives for each index below count, as an array.
Json::Value for_each_index(std::size_t count, const std::function<Json::Value(std::size_t)>& work);

/// The same of work that waits for the disk and gives little: where there is much of it, a few
/// processes share it, so that they wait together. Processes, because nothing says that the
/// appliance's template library bears threads. Each has what this one has, the lock too. Null for
/// what a process leaves open that does not come to its end. This process does a part of it, in
/// order.
Json::Value for_each_index_on_disk(std::size_t count,
                                   const std::function<Json::Value(std::size_t)>& work);

}  // namespace kelotlsctl

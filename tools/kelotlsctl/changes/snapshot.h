// Owns what a change may alter of a service, taken before the change and put back after it.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "store/store.h"

namespace kelotlsctl {

/// How much of a service a change is about.
enum class Extent {
  kLevel,      ///< its level, and what follows from it
  kMembership  ///< all of its entry, its descriptor and its link too
};

/// What there is of the services: {"services": {NAME: {"extent", "entry", "descriptor", "link",
/// "rendered", "dated", "address", "stamp"}}}, each null where there is none. A Failure for a file
/// that cannot be read.
Json::Value take_snapshot(const Store& store, const std::vector<std::string>& services,
                          Extent extent);

/// The same with the default level, for a change that is about it.
void add_default_level(Json::Value& snapshot, const Store& store);

/// Adds to a snapshot what is not in it.
void merge_snapshot(Json::Value& snapshot, const Json::Value& later);

/// Puts everything back, in the same way however often it is done. A service that has left since,
/// without this command, stays away where only its level was changed. A Failure at the first thing
/// that cannot be put back. Afterwards it is on the disk. with_stamps: the services count as
/// reloaded with what they had, because their servers start only now.
void put_back(const Json::Value& snapshot, bool with_stamps);

/// Everything that was written of the framework is on the disk. A Failure where it is not.
void bring_to_disk();

/// The services of the snapshot that the data store has.
std::vector<std::string> services_in(const Json::Value& snapshot, const Store& store);

}  // namespace kelotlsctl

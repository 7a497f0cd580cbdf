// The data store brought in line with the descriptor files, and what that changes.
#ifndef KELOTLSCTL_REGENERATION_H
#define KELOTLSCTL_REGENERATION_H

#include <json/value.h>

#include <string>
#include <vector>

#include "console.h"
#include "store.h"

namespace kelotlsctl {

struct Regeneration {
  std::vector<std::string> added;       ///< services that get an entry
  std::vector<std::string> changed;     ///< services whose entry changes
  std::vector<std::string> unreadable;  ///< descriptor files that are passed over
  std::vector<std::string> orphans;     ///< entries without a descriptor; they stay
};

/// What regenerating would do.
Regeneration foresee_regeneration(const Store& store);

/// Does it. A Failure when it cannot, with the data store as it was.
Regeneration run_regeneration(const Store& before);

/// Writes level 0 into each entry that names none. Without it the library, asked to merge such an
/// entry, writes a null level, and cannot use the data store any more.
void complete_levels(const Store& store);

Json::Value regeneration_json(const Regeneration& regeneration);
void print_regeneration(Console& console, const Regeneration& regeneration, bool is_foreseen);

}  // namespace kelotlsctl

#endif

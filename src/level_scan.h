// Finds a service's level in the data store's text in one pass, without building its tree.
#ifndef KELOTLS_SRC_LEVEL_SCAN_H
#define KELOTLS_SRC_LEVEL_SCAN_H

#include <optional>
#include <string_view>

namespace kelotls {

/// The service's effective level, found without building the data store's tree; nothing where the
/// text is not of the ordinary form, or has no entry for the service: load_data_store and
/// lookup_service_level then say what it is. Where it gives a level they give the same.
std::optional<int> scan_service_level(std::string_view text, std::string_view name);

}  // namespace kelotls

#endif

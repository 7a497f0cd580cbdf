// Decides whether a JSON value is a data store.
#ifndef KELOTLS_SRC_VALIDATOR_H
#define KELOTLS_SRC_VALIDATOR_H

#include <json/value.h>

#include "member_rules.h"

namespace kelotls {

/// Whether the value is a data store; the first fault found is logged. An entry that is not an
/// object goes straight to jsoncpp, whose exception passes through.
bool validate_data_store(const Json::Value& root);

/// Every fault, with its place: what validate_data_store looks for, and values that make jsoncpp
/// raise its exception. A level that is missing follows the default.
Faults data_store_faults(const Json::Value& root);

}  // namespace kelotls

#endif

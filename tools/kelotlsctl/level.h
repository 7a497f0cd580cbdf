// Levels as people write and read them.
#ifndef KELOTLSCTL_LEVEL_H
#define KELOTLSCTL_LEVEL_H

#include <json/value.h>

#include <string>

namespace kelotlsctl {

/// The level that the text names: modern, intermediate, old, default, the first three with
/// "mozilla_" before them, 0 to 3; in any case. Anything else is a Failure (usage).
int parse_level(const std::string& text);

/// The name of a stored level; "level 9" for a value that has none.
std::string level_name(int level);

/// What a level amounts to once the default was followed: a value without a name is served as
/// intermediate, a negative one not at all.
std::string effective_name(int level);

/// "modern", or "default → intermediate" for a service that follows the default level.
std::string describe_levels(int stored, int effective);

/// {"value": 2, "name": "intermediate"}
Json::Value level_json(int level);
Json::Value effective_level_json(int level);

/// The section of a configuration template that the level selects.
std::string template_section(int effective);

}  // namespace kelotlsctl

#endif

// Owns what can be said of a template: why it is not rendered, what in it no level has, and what
// each level gives.
#pragma once

#include <json/value.h>

#include <array>
#include <string>
#include <vector>

#include "output/console.h"
#include "registration.h"

namespace kelotlsctl {

/// The levels that templates tell apart.
constexpr std::array<int, 3> kTemplateLevels = {1, 2, 3};

/// Why the template library did not render the template at a level:
/// "template FILE cannot be rendered: FILE line 7: section "mozilla_old" is not closed".
/// The appliance's library gives no reason, so the reason is our own reader's; without one, it is
/// missing.
std::string rendering_fault(const std::string& template_path, int level);

/// What is wrong with the templates of a registration's services, at any level.
struct TemplateVerdicts {
  kelotls::Faults faults;    ///< it is not rendered
  kelotls::Faults warnings;  ///< it is, but hardly as it is meant
};

/// Of the templates that are files.
TemplateVerdicts judge_templates(Console& console, const Json::Value& registration);

/// {"template", "levels": [{"level", "text" or "fault"}]}
Json::Value preview_json(const std::string& template_path, const std::vector<int>& levels);

}  // namespace kelotlsctl

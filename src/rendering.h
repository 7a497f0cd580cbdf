// Owns rendering: from a service's descriptor and level to its rendered file.
#pragma once

#include <json/value.h>

#include <string>

#include "json_document.h"

namespace kelotls {

struct RenderResult {
  enum class Outcome { kNoTemplate, kRendered, kUnchanged, kFailed };
  enum class Step { kNone, kDescriptor, kLevel, kTemporary, kTemplate, kRename, kRead };

  Outcome outcome = Outcome::kNoTemplate;
  Step failed_step = Step::kNone;
  int error = 0;              ///< errno of the step; 0 where it gives none
  std::string path;           ///< what the step was about
  std::string template_path;  ///< once it is known
};

struct RenderedTexts {
  bool had_former = false;
  std::string former;
  std::string now;
};

enum class Rendering { kInForce, kPreview };

/// Renders one service's template, if it names one, for its level in the data store, and gives the
/// texts before and after: kUnchanged where they are equal. In force, a temporary file beside the
/// rendered one becomes that one; a failed step is logged too, leaves the rendered file as it was,
/// and may leave the temporary. A preview touches no file and logs no step.
RenderResult render_and_compare(const Json::Value& root, const std::string& name,
                                JsonReader& reader, Rendering rendering, RenderedTexts& texts);

/// Renders the template at a path for a level to memory, whether a service has joined with it or
/// not. False where it is not rendered; errno then says why, or is 0.
bool preview_template(const std::string& template_path, int level, std::string& text);

}  // namespace kelotls

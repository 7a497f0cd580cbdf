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

/// The texts before and after, for callers that compare.
struct RenderedTexts {
  bool had_former = false;
  std::string former;
  std::string now;
};

/// Renders one service's template, if it names one, for its level in the data store, by way of a
/// temporary file beside the rendered one. A failed step is logged too; it leaves the rendered file
/// as it was, and may leave the temporary.
RenderResult render_service(const Json::Value& root, const std::string& name, JsonReader& reader);

enum class Rendering { kInForce, kPreview };

/// The same with both texts and kUnchanged where they are equal; kPreview touches no file.
RenderResult render_and_compare(const Json::Value& root, const std::string& name,
                                JsonReader& reader, Rendering rendering, RenderedTexts& texts);

}  // namespace kelotls

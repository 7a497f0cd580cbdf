// Owns what can be said of a template.
#include "service/templates.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>

#include "files.h"
#include "json_document.h"
#include "mustache_rendering.h"
#include "output/suggestion.h"
#include "profile.h"
#include "rendering.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

using mustache::Template;
using mustache::TemplateSet;

// A template can hold hundreds of thousands of names.
constexpr std::size_t kMaxWarnings = 20;

struct Verdict {
  std::vector<std::string> faults;
  std::vector<std::string> warnings;
};

/// The names that are true at some level.
std::vector<std::string> level_names() {
  std::vector<std::string> names(kTemplateLevels.size());
  std::transform(kTemplateLevels.begin(), kTemplateLevels.end(), names.begin(),
                 [](int level) { return kelotls::profile_of_level(level).tier; });
  return names;
}

/// Looks at every tag of a template and of its partials, rendered at some level or not.
class TagSurvey {
 public:
  explicit TagSurvey(const std::string& path) : path_(path), names_(level_names()) {}

  std::vector<std::string> warnings() {
    mustache::Fault fault;
    const Template* whole = nullptr;
    if (templates_.load(path_, whole, fault) == TemplateSet::Loaded::kWhole) {
      add(whole);
    }
    // Grows while it is walked.
    for (std::size_t index = 0; index < reached_.size(); ++index) {
      survey(*reached_[index]);
    }
    if (!has_sections_) {
      warnings_.push_back(path_ + ": it has no sections, which tell the levels apart");
    }
    return std::move(warnings_);
  }

 private:
  void add(const Template* reached) {
    if (std::find(reached_.begin(), reached_.end(), reached) == reached_.end()) {
      reached_.push_back(reached);
    }
  }

  void survey(const Template& reached) {
    for (const mustache::Node& node : reached.nodes) {
      if (mustache::is_partial(node)) {
        reach_partial(reached, node);
      } else if (node.kind != mustache::NodeKind::kText) {
        judge_name(reached, node);
      }
    }
  }

  void reach_partial(const Template& reached, const mustache::Node& node) {
    const std::string name(reached.view(node.text));
    if (seen_partials_.size() == mustache::kMaxPartials || !seen_partials_.insert(name).second) {
      return;
    }
    const Template* partial = nullptr;
    mustache::Fault fault;
    switch (templates_.load(mustache::partial_path(path_, name), partial, fault)) {
      case TemplateSet::Loaded::kWhole:
        return add(partial);
      case TemplateSet::Loaded::kMissing:
        return warn(
            reached, node,
            "the partial " + mustache::quoted(name) + " is missing: nothing stands in its place");
      default:
        return;  // at no level is it reached, or it would be a fault
    }
  }

  void judge_name(const Template& reached, const mustache::Node& node) {
    const std::string name(reached.view(node.text));
    const bool is_section = mustache::is_section(node);
    has_sections_ = has_sections_ || is_section;
    if (name == "." || std::find(names_.begin(), names_.end(), name) != names_.end()) {
      return;
    }
    warn(reached, node,
         std::string("no level has the ") + (is_section ? "section " : "name ") +
             mustache::quoted(name) + did_you_mean(name, names_));
  }

  /// Of names that are there again and again, the first.
  void warn(const Template& reached, const mustache::Node& node, const std::string& text) {
    if (warnings_.size() < kMaxWarnings && seen_texts_.insert(text).second) {
      warnings_.push_back(reached.fault_at(node.text.begin, text).text());
    }
  }

  const std::string path_;
  const std::vector<std::string> names_;
  TemplateSet templates_;
  std::vector<const Template*> reached_;
  std::set<std::string> seen_partials_;
  std::set<std::string> seen_texts_;
  std::vector<std::string> warnings_;
  bool has_sections_ = false;
};

/// Empty where our own reader finds none.
std::string own_fault(const std::string& path, int level) {
  Json::Value context;
  context[kelotls::profile_of_level(level).tier] = true;
  const mustache::Rendered rendered = mustache::render(path, {context});
  return rendered.whole ? std::string() : rendered.fault.text();
}

Verdict judge(const std::string& path) {
  Verdict verdict;
  for (const int level : kTemplateLevels) {
    std::string text;
    std::string fault = own_fault(path, level);
    if (fault.empty() && !kelotls::preview_template(path, level, text)) {
      fault = path + ": the template library does not render it at level " +
              level_text(level_json(level));
    }
    const bool is_new =
        std::find(verdict.faults.begin(), verdict.faults.end(), fault) == verdict.faults.end();
    if (!fault.empty() && is_new) {
      verdict.faults.push_back(fault);
    }
  }
  if (verdict.faults.empty()) {
    verdict.warnings = TagSurvey(path).warnings();
  }
  return verdict;
}

bool is_file(const std::string& path) {
  struct stat status = {};
  return !path.empty() && path[0] == '/' && ::stat(path.c_str(), &status) == 0 &&
         S_ISREG(status.st_mode);
}

void append(const std::string& place, const std::vector<std::string>& texts,
            kelotls::Faults& faults) {
  for (const std::string& text : texts) {
    faults.push_back({place, text});
  }
}

}  // namespace

std::string rendering_fault(const std::string& template_path, int level) {
  if (!kelotls::exists_at(template_path)) {
    return "template " + template_path + " is missing";
  }
  const std::string reason = own_fault(template_path, level);
  return "template " + template_path + " cannot be rendered" +
         (reason.empty() ? "" : ": " + reason);
}

TemplateVerdicts judge_templates(Console& console, const Json::Value& registration) {
  TemplateVerdicts verdicts;
  std::map<std::string, Verdict> judged;  // services may share one
  const Json::Value* const services = kelotls::find_member(registration, "services");
  const Json::ArrayIndex count = services != nullptr && services->isArray() ? services->size() : 0;
  ProgressBar progress(console, "judging", count);
  for (Json::ArrayIndex index = 0; index < count; ++index) {
    const std::string path = kelotls::text_member((*services)[index], "mustache-path");
    progress.next(path);
    if (!is_file(path)) {
      continue;
    }
    const auto [verdict, is_new] = judged.try_emplace(path);
    if (is_new) {
      verdict->second = judge(path);
    }
    const std::string place = kelotls::path_of_element("$.services", index) + ".mustache-path";
    append(place, verdict->second.faults, verdicts.faults);
    append(place, verdict->second.warnings, verdicts.warnings);
  }
  return verdicts;
}

Json::Value preview_json(const std::string& template_path, const std::vector<int>& levels) {
  Json::Value list = list_of({});
  for (const int level : levels) {
    std::string text;
    Json::Value& given = list.append(object({{"level", level_json(level)}}));
    if (kelotls::preview_template(template_path, level, text)) {
      given["text"] = text;
    } else {
      given["fault"] = rendering_fault(template_path, level);
    }
  }
  return object({{"template", template_path}, {"levels", list}});
}

}  // namespace kelotlsctl

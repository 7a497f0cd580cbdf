// Owns the look at how the members of a registration are spelt.
#include "store/spelling.h"

#include <algorithm>
#include <string>
#include <vector>

#include "output/suggestion.h"

namespace kelotlsctl {

namespace {

void append_misspelt(const Json::Value& value, const std::string& path,
                     const std::vector<std::string>& known, kelotls::Faults& faults) {
  for (const std::string& name : value.isObject() ? value.getMemberNames() : known) {
    const bool is_known = std::find(known.begin(), known.end(), name) != known.end();
    const std::string meant = is_known ? std::string() : did_you_mean(name, known);
    if (!meant.empty()) {
      faults.push_back({kelotls::path_of_member(path, name), "no such member" + meant});
    }
  }
}

}  // namespace

kelotls::Faults misspelt_members(const Json::Value& registration) {
  kelotls::Faults faults;
  std::vector<std::string> known = kelotls::service_members();
  known.emplace_back("probe");  // the command's own
  const Json::Value* const services = kelotls::find_member(registration, "services");
  const Json::ArrayIndex count = services != nullptr && services->isArray() ? services->size() : 0;
  for (Json::ArrayIndex index = 0; index < count; ++index) {
    append_misspelt((*services)[index], kelotls::path_of_element("$.services", index), known,
                    faults);
  }
  append_misspelt(registration, "$", kelotls::registration_members(), faults);
  return faults;
}

}  // namespace kelotlsctl

// Renders many templates, for tests/checks/exhaustive_templates: through the platform's library
// with a context, or through the core for a level. From standard input to standard output, in JSON:
//
//   {"context": OBJECT or "level": NUMBER, "partials": {NAME: TEXT}, "templates": [TEXT]}
//   [TEXT or null where a template is refused]
#include <json/json.h>
#include <kelomustache.h>

#include <iostream>
#include <string>
#include <vector>

#include "private_tree.h"
#include "rendering.h"

namespace {

const std::string kDirectory = "/usr/kelo/templates/";
const std::string kTemplate = kDirectory + "template";
const std::string kOutput = kDirectory + "output";

Json::Value render_for_level(int level) {
  std::string text;
  return kelotls::preview_template(kTemplate, level, text) ? Json::Value(text) : Json::Value();
}

Json::Value render_with(std::vector<Json::Value>& contexts) {
  return KELO::RenderMustacheToFile(kTemplate, contexts, kOutput)
             ? Json::Value(kelotls::test::read_file(kOutput))
             : Json::Value();
}

}  // namespace

int main() {
  using kelotls::test::write_file;
  Json::Value work;
  std::cin >> work;
  kelotls::test::make_directories(kDirectory);
  for (const std::string& name : work["partials"].getMemberNames()) {
    write_file(kDirectory + name + ".mustache", work["partials"][name].asString());
  }
  std::vector<Json::Value> contexts = {work["context"]};
  Json::Value rendered(Json::arrayValue);
  for (const Json::Value& text : work["templates"]) {
    write_file(kTemplate, text.asString());
    rendered.append(work.isMember("level") ? render_for_level(work["level"].asInt())
                                           : render_with(contexts));
  }
  Json::StreamWriterBuilder settings;
  settings["indentation"] = "";
  std::cout << Json::writeString(settings, rendered) << '\n';
  return 0;
}

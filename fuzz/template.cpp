// Any bytes as a template: it renders whole or not at all, never throws, and touches nothing but
// its output. Lines that read "%%" part the input into the contexts (a JSON list, bottom first),
// the template, and its partials a, b and c.
#include <kelomustache.h>

#include <algorithm>

#include "harness.h"
#include "private_tree.h"

namespace kelotls::fuzz {
namespace {

const std::string kDirectory = "/usr/kelo/templates/";
const std::string kTemplate = kDirectory + "main.mustache";
const std::string kOutput = kDirectory + "output";
constexpr char kOldOutput[] = "what was there before\n";
constexpr std::size_t kMaxNesting = 64;
constexpr std::size_t kMaxOutput = std::size_t{16} << 20;

struct Rendered {
  bool succeeded;
  std::string output;
};

Rendered render(std::vector<Json::Value> contexts) {
  test::write_file(kOutput, kOldOutput);
  const std::vector<Json::Value> before = contexts;
  // An exception of any kind leaves, and is a finding.
  const bool succeeded = KELO::RenderMustacheToFile(kTemplate, contexts, kOutput);
  require(contexts == before, "rendering leaves the contexts alone");
  return {succeeded, test::read_file(kOutput)};
}

std::vector<Json::Value> contexts_of(std::string_view text) {
  Json::Value list;
  if (!parse(text, list)) {
    return {};
  }
  return list.isArray() ? std::vector<Json::Value>(list.begin(), list.end())
                        : std::vector<Json::Value>{list};
}

/// How deep sections nest in a template, counted without parsing it. Only for one that changes no
/// delimiters and has no comments, which may hold anything.
std::size_t nesting_of(std::string_view text) {
  std::size_t nesting = 0;
  std::size_t deepest = 0;
  for (std::size_t at = text.find("{{"); at != std::string_view::npos;
       at = text.find("{{", at + 2)) {
    const std::string_view opening = text.substr(at, 3);
    if (opening == "{{!" || opening == "{{=" ||
        text.substr(at + 2, 1).find_first_of(" \t\r\n\v\f") == 0) {
      return 0;
    }
    nesting += opening == "{{#" || opening == "{{^" ? 1 : 0;
    nesting -= opening == "{{/" && nesting > 0 ? 1 : 0;
    deepest = std::max(deepest, nesting);
  }
  return deepest;
}

void check_text(std::string_view text, const Rendered& rendered) {
  if (text.find("{{") == std::string_view::npos) {
    require(rendered.succeeded && rendered.output == text, "a text without tags renders as it is");
  }
  require(nesting_of(text) <= kMaxNesting || !rendered.succeeded, "sections nest 64 deep at most");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  std::string_view input = text_of(data, size);
  std::vector<Json::Value> contexts = contexts_of(take_part(input));
  const std::string text(take_part(input));
  test::make_directories(kDirectory);
  test::write_file(kTemplate, text);
  for (const std::string name : {"a", "b", "c"}) {
    test::write_file(kDirectory + name + ".mustache", std::string(take_part(input)));
  }
  const Rendered rendered = render(contexts);

  require(rendered.succeeded || rendered.output == kOldOutput, "a failure leaves the output alone");
  require(rendered.output.size() <= kMaxOutput, "an output has 16 MiB at most");
  check_text(text, rendered);
  contexts.insert(contexts.begin(), Json::Value(Json::objectValue));
  const Rendered again = render(contexts);
  const bool had_context = contexts.size() > 1;  // otherwise "." names the added one
  require(
      !had_context || (again.succeeded == rendered.succeeded && again.output == rendered.output),
      "an empty context below the others changes nothing");
  require(test::names_in(kDirectory) ==
              test::Lines{"a.mustache", "b.mustache", "c.mustache", "main.mustache", "output"},
          "rendering makes no other file");
  return 0;
}

// What a template that cannot be rendered is told: file, line and reason.
#include <json/json.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mustache_rendering.h"

namespace fs = std::filesystem;

namespace {

class TemplateFault : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "mustache.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    data_["on"] = true;
    data_["two"].append(1);
    data_["two"].append(2);
  }

  void TearDown() override { fs::remove_all(directory_); }

  fs::path path(const std::string& name) const { return directory_ / (name + ".mustache"); }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }

  mustache::Rendered render() const { return mustache::render(path("main"), {data_}); }

  /// What is said of the template, without the directory.
  std::string fault() const {
    std::string text = render().fault.text();
    const std::string directory = directory_.string() + "/";
    return text.rfind(directory, 0) == 0 ? text.substr(directory.size()) : text;
  }

  std::string fault_of(const std::string& text) const {
    write("main", text);
    return fault();
  }

  fs::path directory_;
  Json::Value data_;
};

struct Malformed {
  const char* text;
  const char* fault;
};

// clang-format off
const Malformed kMalformed[] = {
    {"a\n{{name",               R"(line 2: the tag is not closed by "}}")"},
    {"a\n{{",                   R"(line 2: the tag is not closed by "}}")"},
    {"a {{name} b\n",           R"(line 1: the tag is not closed by "}}")"},
    {"a {{on {{name}}\n",       R"(line 1: the tag is not closed by "}}")"},
    {"\n\n{{{name}} b",         R"(line 3: the tag is not closed by "}}}")"},
    {"{{{name}} {{{name}}}",    R"(line 1: the tag is not closed by "}}}")"},
    {"{{=<% %>}}",              R"(line 1: the tag is not closed by "=}}")"},
    {"{{=<% %>=}}\n<%name",     R"(line 2: the tag is not closed by "%>")"},
    {"x\n{{}}\n",               "line 2: the tag is empty"},
    {"x\n{{# }}\n",             "line 2: the tag is empty"},
    {"{{first name}}",          R"(line 1: the name "first name" holds white space)"},
    {"{{a..b}}",                R"(line 1: the name "a..b" has an empty part)"},
    {"{{=x=}}",                 R"(line 1: the change of delimiters does not give two, free of white space and "=")"},
    {"{{=a b c=}}",             R"(line 1: the change of delimiters does not give two, free of white space and "=")"},
    {"\n{{#on}}\na\n",          R"(line 2: section "on" is not closed)"},
    {"\n{{^on}}\na\n",          R"(line 2: section "on" is not closed)"},
    {"{{#on}}\na\n{{/off}}\n",  R"(line 3: section "on" is closed as "off")"},
    {"a\n\n{{/on}}\n",          R"(line 3: section "on" is closed without having been opened)"},
};
// clang-format on

TEST_F(TemplateFault, NamesLineAndReason) {
  for (const Malformed& tested : kMalformed) {
    SCOPED_TRACE(tested.text);

    EXPECT_EQ(fault_of(tested.text), std::string("main.mustache ") + tested.fault);
  }
}

TEST_F(TemplateFault, NamesThePartialThatHasIt) {
  write("partial", "a\n{{#on}}\n");

  EXPECT_EQ(fault_of("\n\n{{>partial}}\n"),
            R"(partial.mustache line 2: section "on" is not closed)");
}

TEST_F(TemplateFault, CutsALongName) {
  EXPECT_EQ(fault_of("{{#" + std::string(1000, 'n') + "}}"),
            "main.mustache line 1: section \"" + std::string(64, 'n') + "...\" is not closed");
}

TEST_F(TemplateFault, CutsALongNameBetweenCharacters) {
  EXPECT_EQ(fault_of("{{#" + std::string(63, 'n') + "\xc3\xa4n}}"),
            "main.mustache line 1: section \"" + std::string(63, 'n') + "...\" is not closed");
}

TEST_F(TemplateFault, NamesAFileThatIsMissing) {
  EXPECT_EQ(fault(), "main.mustache: No such file or directory");
}

TEST_F(TemplateFault, NamesAFileThatIsNoFile) {
  ASSERT_EQ(mkfifo(path("main").c_str(), 0600), 0);

  EXPECT_EQ(fault(), "main.mustache: no regular file");
}

TEST_F(TemplateFault, NamesAPartialThatIsADirectory) {
  fs::create_directory(path("partial"));

  EXPECT_EQ(fault_of("{{>partial}}"), "partial.mustache: no regular file");
}

TEST_F(TemplateFault, NamesAFileThatIsTooLarge) {
  EXPECT_EQ(fault_of(std::string((1U << 20) + 1, 'x')), "main.mustache: larger than 1 MiB");
}

TEST_F(TemplateFault, NamesThePartialThatIsTooMuch) {
  write("a", std::string(1U << 20, 'x'));
  write("b", std::string(1U << 20, 'x'));

  EXPECT_EQ(fault_of("{{>a}}{{>b}}"),
            "b.mustache: with it the template and its partials are larger than 2 MiB");
}

TEST_F(TemplateFault, NamesWhereSectionsNestTooDeep) {
  std::string text = "\n";
  for (int level = 0; level < 65; ++level) {
    text += "{{#on}}\n";
  }

  EXPECT_EQ(fault_of(text), "main.mustache line 66: sections nest deeper than 64");
}

TEST_F(TemplateFault, NamesWhereARecursionGoesTooDeep) {
  write("again", "a\n{{>again}}\n");

  EXPECT_EQ(fault_of("{{>again}}"),
            "again.mustache line 2: sections and partials nest deeper than 64");
}

TEST_F(TemplateFault, NamesWhereTheTextIsTooLarge) {
  data_["v"] = std::string(1U << 20, 'x');
  std::string text;
  for (int line = 0; line < 17; ++line) {
    text += "{{&v}}\n";
  }

  EXPECT_EQ(fault_of(text), "main.mustache line 16: the text is larger than 16 MiB");
}

TEST_F(TemplateFault, NamesWhereItTakesTooManySteps) {
  std::string text;
  for (int level = 0; level < 23; ++level) {
    text += "{{#two}}\n";
  }
  for (int level = 0; level < 23; ++level) {
    text += "{{/two}}\n";
  }

  const std::string said = fault_of(text);

  EXPECT_EQ(said.substr(0, said.find("line")), "main.mustache ");
  EXPECT_EQ(said.substr(said.find(": ")), ": rendering takes more than 4194304 steps");
}

TEST_F(TemplateFault, NamesAPartialBeyondTheMostThatMayBe) {
  std::string text;
  for (int number = 0; number < 1024; ++number) {
    text += "{{>p" + std::to_string(number) + "}}\n";
  }
  EXPECT_TRUE(fault_of(text + "{{>p7}}").find("different") == std::string::npos);

  EXPECT_EQ(fault_of(text + "{{>p1024}}"),
            "main.mustache line 1025: more than 1024 different partials");
}

// ---- Steps ----

using TemplateSteps = TemplateFault;

TEST_F(TemplateSteps, CountTagsTextAndItems) {
  write("main", "a{{on}}{{#two}}b{{/two}}{{! nothing }}");

  // Four nodes and two lookups, two items of one node each.
  EXPECT_EQ(render().steps, 3U + 2U + 2U * 2U);
}

TEST_F(TemplateSteps, CountTheLinesThatAreIndentedAndTheIndentation) {
  write("main", "  {{>p}}");
  write("p", "a\nb\nc\n");

  EXPECT_EQ(render().steps, 1U + 1U + 3U + 2U);
  EXPECT_EQ(render().text, "  a\n  b\n  c\n");
}

TEST_F(TemplateSteps, CountTheBytesOfIndentationThatPilesUp) {
  write("main", std::string(640, ' ') + "{{>p}}");
  write("p", std::string(128, ' ') + "{{>q}}");
  write("q", "a");

  EXPECT_EQ(render().steps, 3U + (1U + 640U / 64U) + (1U + 128U / 64U));
  EXPECT_EQ(render().text, std::string(768, ' ') + "a");
}

TEST_F(TemplateSteps, CountEveryContextThatANameIsLookedForIn) {
  write("main", "{{#on}}{{#on}}{{absent}}{{/on}}{{/on}}");

  EXPECT_EQ(render().steps, 3U + 1U + 2U + 3U);
}

TEST_F(TemplateSteps, CountTheBytesOfNames) {
  write("main", "{{" + std::string(640, 'n') + "}}");

  EXPECT_EQ(render().steps, 1U + 10U + 1U + 10U);
}

// ---- Files ----

using TemplateFiles = TemplateFault;

TEST_F(TemplateFiles, AreReadOnceHoweverTheyAreSpelled) {
  fs::create_directory(directory_ / "d");
  fs::create_symlink("../p.mustache", directory_ / "d" / "p.mustache");
  fs::create_hard_link((write("p", std::string(900 << 10, 'x')), path("p")), path("hard"));
  write("main", "{{>p}}{{>./p}}{{>d/../p}}{{>d/p}}{{>hard}}");

  const mustache::Rendered rendered = render();

  // Five of them would be more than all templates of a rendering may hold.
  EXPECT_TRUE(rendered.whole) << rendered.fault.text();
  EXPECT_EQ(rendered.text.size(), std::size_t{5 * 900} << 10U);
}

}  // namespace

// The template language case by case, templates that are refused, and the states of files around a
// rendering.
#include <kelomustache.h>

#include <fcntl.h>
#include <json/json.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "private_tree.h"

namespace fs = std::filesystem;

namespace {

// How many of the next calls a signal interrupts.
int interrupted_reads = 0;
int interrupted_writes = 0;
int interrupted_syncs = 0;

bool interrupt(int& left) {
  if (left == 0) {
    return false;
  }
  --left;
  errno = EINTR;
  return true;
}

}  // namespace

// These functions interpose the C library's, because a signal never interrupts calls on a local
// file.
extern "C" {

ssize_t read(int descriptor, void* buffer, size_t size) {
  return interrupt(interrupted_reads) ? -1 : ::syscall(SYS_read, descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* buffer, size_t size) {
  return interrupt(interrupted_writes) ? -1 : ::syscall(SYS_write, descriptor, buffer, size);
}

int fsync(int descriptor) {
  return interrupt(interrupted_syncs) ? -1 : static_cast<int>(::syscall(SYS_fsync, descriptor));
}
}

namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

std::string repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  for (std::size_t time = 0; time < times; ++time) {
    repeated += text;
  }
  return repeated;
}

Json::Value json(const std::string& text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

std::string contents_of(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

class InDirectory : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "kelomustache.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr) << std::strerror(errno);
    directory_ = name;
    template_ = directory_ / "service.conf.mustache";
    output_ = directory_ / "service.conf";
  }

  void TearDown() override { fs::remove_all(directory_); }

  // For the next case of a table.
  void start_afresh() {
    TearDown();
    SetUp();
  }

  static void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  void write_template(const std::string& text) const { write(template_, text); }

  void write_partial(const std::string& name, const std::string& text) const {
    write(directory_ / (name + ".mustache"), text);
  }

  bool render(const Json::Value& data = Json::objectValue) const { return render_stack({data}); }

  bool render_stack(std::vector<Json::Value> contexts) const {
    return KELO::RenderMustacheToFile(template_.string(), contexts, output_.string());
  }

  bool render_text(const std::string& text, const Json::Value& data = Json::objectValue) const {
    write_template(text);
    return render(data);
  }

  std::string output() const { return contents_of(output_); }

  fs::path directory_;
  fs::path template_;
  fs::path output_;
};

// ---- The language ----

struct Case {
  std::string name;
  std::string text;
  Json::Value data;
  std::map<std::string, std::string> partials;
  std::string want;
};

Case read_case(const std::string& module, const Json::Value& entry) {
  Case read{module + "_" + entry["name"].asString(),
            entry["template"].asString(),
            entry["data"],
            {},
            entry["expected"].asString()};
  for (const std::string& name : entry["partials"].getMemberNames()) {
    read.partials[name] = entry["partials"][name].asString();
  }
  return read;
}

std::vector<Case> read_cases() {
  Json::Value table;
  std::ifstream(MUSTACHE_CASES) >> table;
  std::vector<Case> cases;
  for (const std::string& module : table.getMemberNames()) {
    for (const Json::Value& entry : table[module]) {
      cases.push_back(read_case(module, entry));
    }
  }
  return cases;
}

using MustacheLanguage = InDirectory;

TEST_F(MustacheLanguage, RendersAsTheTableSays) {
  for (const Case& tested : read_cases()) {
    SCOPED_TRACE(tested.name);
    start_afresh();
    for (const auto& [name, text] : tested.partials) {
      write_partial(name, text);
    }

    const bool rendered = render_text(tested.text, tested.data);

    EXPECT_TRUE(rendered) << "template: " << tested.text;
    EXPECT_EQ(output(), tested.want) << "template: " << tested.text;
  }
}

TEST(MustacheTable, CoversEveryModuleUnderNamesOfItsOwn) {
  std::set<std::string> modules;
  std::set<std::string> names;
  for (const Case& tested : read_cases()) {
    modules.insert(tested.name.substr(0, tested.name.find('_')));
    names.insert(tested.name);
  }

  EXPECT_EQ(modules, (std::set<std::string>{"Comments", "Delimiters", "Interpolation", "Inverted",
                                            "Partials", "Sections"}));
  EXPECT_EQ(names.size(), read_cases().size());
  EXPECT_GE(names.size(), 240U);
}

// ---- Refused templates ----

struct Malformed {
  const char* name;
  const char* text;
};

const Malformed kMalformed[] = {
    {"UnclosedTag", "a {{name"},
    {"UnclosedTagAtTheEnd", "a {{"},
    {"UnclosedTagBeforeBlanks", "a {{  \n"},
    {"TagClosedByOneBrace", "a {{name} b"},
    {"TagClosedByTheNextTag", "a {{on {{name}} b"},
    {"TagClosedByTheNextTagWithoutBlanks", "{{on{{name}}"},
    {"UnclosedComment", "a {{! comment } b"},
    {"UnclosedSectionTag", "a {{#on"},
    {"UnclosedPartialTag", "a {{>partial"},
    {"ThreeBracesClosedByTwo", "{{{name}} b"},
    {"ThreeBracesClosedByTwoAndAnotherTag", "{{{name}} {{{name}}}"},
    {"ThreeBracesClosedByTwoBesideAnotherTag", "{{{name}}{{{name}}}"},
    {"ThreeBracesClosedByTwoAndOne", "{{{name}} }"},
    {"ThreeBracesClosedLater", "{{{name}}b}}}"},
    {"EmptyTag", "a {{}} b"},
    {"BlankTag", "a {{ \n }} b"},
    {"EmptyTripleTag", "a {{{}}} b"},
    {"EmptyAmpersandTag", "a {{&}} b"},
    {"EmptySectionTag", "{{#}}a{{/}}"},
    {"EmptyInvertedTag", "{{^}}a{{/}}"},
    {"EmptyClosingTag", "{{#on}}a{{/}}"},
    {"EmptyPartialTag", "a {{>}} b"},
    {"BlankPartialTag", "a {{> }} b"},
    {"EmptyTagBetweenOtherDelimiters", "{{=| |=}}a||b"},
    {"NoDelimiters", "{{==}}"},
    {"BlankDelimiters", "{{=  =}}"},
    {"OneDelimiter", "{{=x=}}"},
    {"ThreeDelimiters", "{{=<% %> x=}}"},
    {"DelimitersOfOneEqualsSign", "{{== %>=}}"},
    {"OpeningDelimiterWithAnEqualsSign", "{{=<= %>=}}"},
    {"ClosingDelimiterWithAnEqualsSign", "{{=<% =>=}}"},
    {"DelimitersNotClosedByAnEqualsSign", "{{=<% %>}}"},
    {"UnclosedDelimiters", "{{=<% %>"},
    {"OldDelimiterForANewOne", "{{#on}}{{=<% %>=}}{{/on}}"},
    {"UnclosedSection", "a {{#on}} b"},
    {"UnclosedInvertedSection", "a {{^on}} b"},
    {"UnclosedInnerSection", "{{#on}}{{#off}}{{/on}}"},
    {"OuterSectionNotClosed", "{{#on}}{{#off}}{{/off}}"},
    {"SectionClosedByAnotherName", "{{#on}}a{{/off}}"},
    {"SectionClosedByOtherCase", "{{#on}}a{{/On}}"},
    {"SectionClosedByAPartOfItsName", "{{#a.on}}a{{/a}}"},
    {"CrossedSections", "{{#on}}{{#off}}{{/on}}{{/off}}"},
    {"StrayClosingTag", "a {{/on}} b"},
    {"StrayClosingTagOnItsLine", "a\n{{/on}}\nb\n"},
    {"SectionClosedTwice", "{{#on}}a{{/on}}{{/on}}"},
    {"NameWithABlank", "{{first name}}"},
    {"NameWithALineEnding", "{{first\nname}}"},
    {"NameWithATab", "{{{first\tname}}}"},
    {"SectionNameWithABlank", "{{#is on}}a{{/is on}}"},
    {"PartialNameWithABlank", "{{>tls host}}"},
    {"NameThatStartsWithADot", "{{.name}}"},
    {"NameThatEndsWithADot", "{{name.}}"},
    {"NameWithTwoDots", "{{on..name}}"},
    {"NameOfTwoDots", "{{..}}"},
    {"SectionNameThatEndsWithADot", "{{#on.}}a{{/on.}}"},
    {"BadTagInASectionThatIsSkipped", "{{#off}}{{}}{{/off}}"},
    {"BadTagInAnInvertedSectionThatIsSkipped", "{{^on}}{{first name}}{{/on}}"},
    {"UnclosedTagInASectionThatIsSkipped", "{{#off}} {{name {{/off}}"},
    {"BadDelimitersInASectionThatIsSkipped", "{{#off}}{{=x=}}{{/off}}"},
    {"StrayClosingTagInASectionThatIsSkipped", "{{#off}}{{/on}}{{/off}}"},
    {"BadTagBehindText", "listen 443;\nserver {{name}};\n{{#on}}\nssl on;\n"},
};

// An output file that was there before, and the proof that nobody touched it.
class WithOldOutput : public InDirectory {
 protected:
  void SetUp() override {
    InDirectory::SetUp();
    write(output_, "the old text\n");
    // Long ago: a write within the clock's grain would not show.
    fs::last_write_time(output_, fs::last_write_time(output_) - std::chrono::hours(24));
    before_ = fs::last_write_time(output_);
  }

  void expect_untouched() const {
    EXPECT_EQ(output(), "the old text\n");
    EXPECT_EQ(fs::last_write_time(output_), before_);
  }

  const Json::Value kData =
      json(R"({"name": "kelo", "on": true, "off": false, "v": true, "": "x"})");
  fs::file_time_type before_;
};

using MalformedTemplate = WithOldOutput;

TEST_F(MalformedTemplate, IsRefusedAndLeavesTheOutputAlone) {
  for (const Malformed& tested : kMalformed) {
    SCOPED_TRACE(tested.name);
    start_afresh();

    const bool rendered = render_text(tested.text, kData);

    EXPECT_FALSE(rendered) << "template: " << tested.text;
    expect_untouched();
  }
}

TEST_F(MalformedTemplate, IsRefusedAsAPartialThatIsReached) {
  for (const Malformed& tested : kMalformed) {
    SCOPED_TRACE(tested.name);
    start_afresh();
    write_partial("bad", tested.text);

    const bool rendered = render_text("a\n{{>bad}}\nb\n", kData);

    EXPECT_FALSE(rendered) << "partial: " << tested.text;
    expect_untouched();
  }
}

TEST_F(MalformedTemplate, DoesNotMatterAsAPartialThatIsNotReached) {
  for (const Malformed& tested : kMalformed) {
    SCOPED_TRACE(tested.name);
    start_afresh();
    write_partial("bad", tested.text);

    const bool rendered = render_text("a{{#off}}{{>bad}}{{/off}}b", kData);

    EXPECT_TRUE(rendered);
    EXPECT_EQ(output(), "ab");
  }
}

// ---- Limits ----

using Nesting = WithOldOutput;

TEST_F(Nesting, MayBe64SectionsDeep) {
  EXPECT_TRUE(render_text(repeat("{{#v}}", 64) + "x" + repeat("{{/v}}", 64), kData));
  EXPECT_EQ(output(), "x");
}

TEST_F(Nesting, MayBe64InvertedSectionsDeep) {
  EXPECT_TRUE(render_text(repeat("{{^off}}", 64) + "x" + repeat("{{/off}}", 64), kData));
  EXPECT_EQ(output(), "x");
}

TEST_F(Nesting, MayNotBe65SectionsDeep) {
  EXPECT_FALSE(render_text(repeat("{{#v}}", 65) + "x" + repeat("{{/v}}", 65), kData));
  expect_untouched();
}

TEST_F(Nesting, MayNotBe65SectionsDeepWhereNothingIsRendered) {
  EXPECT_FALSE(render_text(repeat("{{#off}}", 65) + "x" + repeat("{{/off}}", 65), kData));
  expect_untouched();
}

TEST_F(Nesting, MayBe64PartialsDeep) {
  for (int number = 1; number < 64; ++number) {
    write_partial("p" + std::to_string(number), "{{>p" + std::to_string(number + 1) + "}}");
  }
  write_partial("p64", "x");

  EXPECT_TRUE(render_text("{{>p1}}", kData));
  EXPECT_EQ(output(), "x");
}

TEST_F(Nesting, MayNotBe65PartialsDeep) {
  for (int number = 1; number < 65; ++number) {
    write_partial("p" + std::to_string(number), "{{>p" + std::to_string(number + 1) + "}}");
  }
  write_partial("p65", "x");

  EXPECT_FALSE(render_text("{{>p1}}", kData));
  expect_untouched();
}

TEST_F(Nesting, CountsSectionsAndPartialsTogether) {
  write_partial("inner", repeat("{{#v}}", 32) + "x" + repeat("{{/v}}", 32));

  EXPECT_FALSE(render_text(repeat("{{#v}}", 32) + "{{>inner}}" + repeat("{{/v}}", 32), kData));
  expect_untouched();
  EXPECT_TRUE(render_text(repeat("{{#v}}", 31) + "{{>inner}}" + repeat("{{/v}}", 31), kData));
  EXPECT_EQ(output(), "x");
}

TEST_F(Nesting, CountsWhatIsOpenAndNotWhatWasClosed) {
  write_partial("p", "{{#v}}{{^off}}.{{/off}}{{/v}}");

  EXPECT_TRUE(render_text(repeat("{{>p}}{{#v}}{{/v}}", 100), kData));
  EXPECT_EQ(output(), repeat(".", 100));
}

// A chain of so many links, its last "sub" an empty list: an absent one would be found further out.
Json::Value chain(int links) {
  Json::Value value;
  value["sub"] = Json::arrayValue;
  for (int link = 0; link < links; ++link) {
    Json::Value outer;
    outer["sub"].append(value);
    value = outer;
  }
  return value;
}

TEST_F(Nesting, CountsEveryTurnOfARecursion) {
  write_partial("node", ".{{#sub}}{{>node}}{{/sub}}");

  EXPECT_FALSE(render_text("{{>node}}", chain(32)));
  expect_untouched();
  EXPECT_TRUE(render_text("{{>node}}", chain(31)));
  EXPECT_EQ(output(), repeat(".", 32));
}

TEST_F(Nesting, EndsAnEndlessRecursion) {
  write_partial("again", "x\n  {{>again}}\n");

  EXPECT_FALSE(render_text("{{>again}}", kData));
  expect_untouched();
}

TEST_F(Nesting, EndsAnEndlessRecursionThatPilesUpIndentation) {
  write_partial("again", repeat(" ", kMebibyte - 10) + "{{>again}}");

  EXPECT_FALSE(render_text("{{>again}}", kData));
  expect_untouched();
}

using Size = WithOldOutput;

TEST_F(Size, OfATemplateMayBeOneMebibyte) {
  const std::string text = repeat("0123456789abcdef", kMebibyte / 16);

  EXPECT_TRUE(render_text(text));
  EXPECT_EQ(output(), text);
}

TEST_F(Size, OfATemplateMayNotBeMore) {
  EXPECT_FALSE(render_text(std::string(kMebibyte + 1, 'x')));
  expect_untouched();
}

TEST_F(Size, OfAPartialMayBeOneMebibyte) {
  write_partial("large", std::string(kMebibyte, 'x'));

  EXPECT_TRUE(render_text("{{>large}}"));
  EXPECT_EQ(output(), std::string(kMebibyte, 'x'));
}

TEST_F(Size, OfAPartialMayNotBeMore) {
  write_partial("large", std::string(kMebibyte + 1, 'x'));

  EXPECT_FALSE(render_text("{{>large}}"));
  expect_untouched();
}

TEST_F(Size, OfTheTextMayBe16Mebibytes) {
  Json::Value data;
  data["v"] = std::string(kMebibyte, 'x');

  EXPECT_TRUE(render_text(repeat("{{v}}", 16), data));
  EXPECT_EQ(output().size(), 16 * kMebibyte);
}

TEST_F(Size, OfTheTextMayNotBeMore) {
  Json::Value data;
  data["v"] = std::string(kMebibyte, 'x');

  EXPECT_FALSE(render_text(repeat("{{v}}", 16) + "x", data));
  expect_untouched();
}

TEST_F(Size, OfTheTextCountsWhatIsEscaped) {
  Json::Value data;
  data["v"] = std::string(kMebibyte, '&');

  EXPECT_FALSE(render_text(repeat("{{v}}", 4), data));
  expect_untouched();
}

TEST_F(Size, OfTheTextCountsIndentation) {
  write_partial("lines", repeat("\n", kMebibyte));

  EXPECT_FALSE(render_text(repeat(" ", 16) + "{{>lines}}"));
  expect_untouched();
}

TEST_F(Size, OfTheWorkIsLimitedWhereNoTextComesOfIt) {
  Json::Value data;
  data["l"].append(1);
  data["l"].append(2);

  EXPECT_FALSE(render_text(repeat("{{#l}}", 23) + repeat("{{/l}}", 23), data));
  expect_untouched();
}

TEST_F(Size, OfTheWorkCountsEveryItemOfAList) {
  Json::Value data;
  for (int item = 0; item < 2100; ++item) {
    data["l"].append(item);
  }

  EXPECT_FALSE(render_text("{{#l}}{{#l}}{{/l}}{{/l}}", data));
  expect_untouched();
}

TEST_F(Size, OfTheWorkCountsEveryUseOfAPartial) {
  for (int number = 1; number < 23; ++number) {
    write_partial("p" + std::to_string(number),
                  repeat("{{>p" + std::to_string(number + 1) + "}}", 2));
  }
  write_partial("p23", "");

  EXPECT_FALSE(render_text("{{>p1}}{{>p1}}"));
  expect_untouched();
}

// ---- The context stack and its values ----

using ContextStack = InDirectory;

TEST_F(ContextStack, HasTheLastOfTheListOnTop) {
  write_template("{{name}} {{#name}}{{.}}{{/name}}");

  EXPECT_TRUE(render_stack({json(R"({"name": "first"})"), json(R"({"name": "last"})")}));

  EXPECT_EQ(output(), "last last");
}

TEST_F(ContextStack, FindsInAnEarlierContextWhatTheLastLacks) {
  write_template("{{port}} {{host.name}} {{#list}}{{.}}{{/list}}");

  EXPECT_TRUE(render_stack({json(R"({"port": 443, "host": {"name": "x"}})"),
                            json(R"({"list": [1, 2]})"), json(R"({"host": {"name": "y"}})")}));

  EXPECT_EQ(output(), "443 y 12");
}

TEST_F(ContextStack, FindsNothingInValuesThatAreNoObjects) {
  write_template("{{name}}{{.}}");

  EXPECT_TRUE(render_stack(
      {json(R"({"name": "first"})"), Json::Value(), Json::Value(2), Json::Value("top")}));

  EXPECT_EQ(output(), "firsttop");
}

TEST_F(ContextStack, MayBeEmpty) {
  write_template("[{{name}}{{.}}{{a.b}}{{#name}}x{{/name}}{{#.}}x{{/.}}{{^.}}none{{/.}}]");

  EXPECT_TRUE(render_stack({}));

  EXPECT_EQ(output(), "[none]");
}

TEST_F(ContextStack, IsNotChanged) {
  std::vector<Json::Value> contexts{json(R"({"l": [{"a": 1}], "n": null})"), json(R"([1])")};
  const std::vector<Json::Value> before = contexts;
  write_template("{{#l}}{{a}}{{b}}{{/l}}{{n}}{{x.y}}{{#.}}{{.}}{{/.}}");

  EXPECT_TRUE(KELO::RenderMustacheToFile(template_.string(), contexts, output_.string()));

  EXPECT_EQ(contexts, before);
}

TEST_F(ContextStack, RendersNulBytesOfTemplateAndValueAsTheyAre) {
  Json::Value data;
  data["v"] = std::string("x\0y", 3);

  EXPECT_TRUE(render_text(std::string("a\0b{{v}}", 8), data));

  EXPECT_EQ(output(), std::string("a\0bx\0y", 6));
}

TEST_F(ContextStack, RendersNothingForNumbersThatJsonCannotWrite) {
  Json::Value data;
  data["inf"] = std::numeric_limits<double>::infinity();
  data["nan"] = std::numeric_limits<double>::quiet_NaN();

  EXPECT_TRUE(render_text("[{{inf}}{{nan}}]", data));

  EXPECT_EQ(output(), "[]");
}

TEST_F(ContextStack, RendersRealsWithAPointWhateverTheLocale) {
  const std::string build =
      "localedef -f UTF-8 -i de_DE '" + (directory_ / "de_DE.UTF-8").string() + "' 2>/dev/null";
  // NOLINTNEXTLINE(cert-env33-c): a command of our own making, with no input from outside
  ASSERT_EQ(std::system(build.c_str()), 0) << "the package locales has what this needs";
  setenv("LOCPATH", directory_.c_str(), 1);
  ASSERT_NE(std::setlocale(LC_NUMERIC, "de_DE.UTF-8"), nullptr);
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  Json::Value data;
  data["v"] = 1.21;
  data["w"] = 0.1 + 0.2;
  data["x"] = 1.5e-7;

  const bool rendered = render_text("{{v}} {{w}} {{x}}", data);

  std::setlocale(LC_NUMERIC, "C");
  unsetenv("LOCPATH");
  EXPECT_TRUE(rendered);
  EXPECT_EQ(output(), "1.21 0.30000000000000004 1.5e-07");
}

// ---- The template and its partials as files ----

class TemplateFile : public WithOldOutput {
 protected:
  bool render_path(const std::string& path) const {
    std::vector<Json::Value> contexts{kData};
    return KELO::RenderMustacheToFile(path, contexts, output_.string());
  }
};

TEST_F(TemplateFile, IsRefusedWhenMissing) {
  EXPECT_FALSE(render_path(directory_ / "missing"));
  EXPECT_FALSE(render_path(directory_ / "missing" / "t.mustache"));
  EXPECT_FALSE(render_path(""));
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWhenItIsADirectory) {
  EXPECT_FALSE(render_path(directory_));
  EXPECT_FALSE(render_path(directory_.string() + "/"));
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWithoutWaitingWhenItIsAPipe) {
  ASSERT_EQ(mkfifo(template_.c_str(), 0600), 0);

  EXPECT_FALSE(render());
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWhenItIsADevice) {
  EXPECT_FALSE(render_path("/dev/null"));
  EXPECT_FALSE(render_path("/dev/zero"));
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWhenItsPathHoldsANulByte) {
  write_template("new text");

  EXPECT_FALSE(render_path(template_.string() + std::string("\0", 1)));
  EXPECT_FALSE(render_path(template_.string() + std::string("\0x", 2)));
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWhenItCannotBeRead) {
  write_template("new text");
  fs::permissions(template_, fs::perms::none);
  kelotls::test::obey_file_permissions();

  EXPECT_FALSE(render());
  expect_untouched();
}

TEST_F(TemplateFile, IsRefusedWhenReadingFails) {
  // A regular file, to be opened by anybody, whose first byte is an input/output error.
  EXPECT_FALSE(render_path("/proc/self/mem"));
  expect_untouched();
}

TEST_F(TemplateFile, MayBeLongerThanItsSizeSays) {
  EXPECT_TRUE(render_path("/proc/version"));
  EXPECT_EQ(output(), contents_of("/proc/version"));
}

// Every second page under another protection, so that the list of the process's mappings has many
// lines.
class ManyMappings {
 public:
  ManyMappings() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    start_ = mmap(nullptr, kPages * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(start_, MAP_FAILED);
    for (std::size_t page = 0; page < kPages; page += 2) {
      EXPECT_EQ(mprotect(static_cast<char*>(start_) + page * page_, page_, PROT_READ), 0);
    }
  }
  ManyMappings(const ManyMappings&) = delete;
  ManyMappings& operator=(const ManyMappings&) = delete;
  ~ManyMappings() { munmap(start_, kPages * page_); }

 private:
  static constexpr std::size_t kPages = 40000;

  std::size_t page_;
  void* start_;
};

TEST_F(TemplateFile, IsRefusedWhenItTurnsOutToBeLargerThanItsSizeSays) {
  const ManyMappings mappings;
  ASSERT_GT(contents_of("/proc/self/maps").size(), kMebibyte);

  EXPECT_FALSE(render_path("/proc/self/maps"));
  expect_untouched();
}

TEST_F(TemplateFile, MayBeALinkToAFile) {
  write_template("{{name}}");
  fs::create_symlink(template_.filename(), directory_ / "link");

  EXPECT_TRUE(render_path(directory_ / "link"));
  EXPECT_EQ(output(), "kelo");
}

TEST_F(TemplateFile, MayHaveAPathWithoutADirectory) {
  const fs::path before = fs::current_path();
  write_template("{{>host}}");
  write_partial("host", "<{{name}}>");
  fs::current_path(directory_);

  const bool rendered = render_path(template_.filename());

  fs::current_path(before);
  EXPECT_TRUE(rendered);
  EXPECT_EQ(output(), "<kelo>");
}

using PartialFile = WithOldOutput;

TEST_F(PartialFile, IsLookedUpBesideTheTemplateAndNotInTheWorkingDirectory) {
  fs::create_directory(directory_ / "elsewhere");
  write(directory_ / "elsewhere" / "host.mustache", "wrong");
  write_partial("host", "right");
  const fs::path before = fs::current_path();
  fs::current_path(directory_ / "elsewhere");

  const bool rendered = render_text("{{>host}}", kData);

  fs::current_path(before);
  EXPECT_TRUE(rendered);
  EXPECT_EQ(output(), "right");
}

TEST_F(PartialFile, IsLookedUpBesideTheTemplateFromAPartialInADirectoryToo) {
  fs::create_directory(directory_ / "sub");
  write(directory_ / "sub" / "a.mustache", "a{{>b}}");
  write(directory_ / "sub" / "b.mustache", "wrong");
  write_partial("b", "right");

  EXPECT_TRUE(render_text("{{>sub/a}}", kData));
  EXPECT_EQ(output(), "aright");
}

TEST_F(PartialFile, NeedsItsEnding) {
  write(directory_ / "host", "wrong");

  EXPECT_TRUE(render_text("[{{>host}}]", kData));
  EXPECT_EQ(output(), "[]");
}

TEST_F(PartialFile, RendersAsNothingWhenItIsALinkToNothing) {
  fs::create_symlink("nowhere", directory_ / "host.mustache");

  EXPECT_TRUE(render_text("[{{>host}}]", kData));
  EXPECT_EQ(output(), "[]");
}

TEST_F(PartialFile, RendersAsNothingWhenItsDirectoryIsMissing) {
  write(directory_ / "file", "");

  EXPECT_TRUE(render_text("[{{>missing/host}}{{>file/host}}]", kData));
  EXPECT_EQ(output(), "[]");
}

TEST_F(PartialFile, IsRefusedWhenItIsADirectory) {
  fs::create_directory(directory_ / "host.mustache");

  EXPECT_FALSE(render_text("{{>host}}", kData));
  expect_untouched();
}

TEST_F(PartialFile, IsRefusedWithoutWaitingWhenItIsAPipe) {
  ASSERT_EQ(mkfifo((directory_ / "host.mustache").c_str(), 0600), 0);

  EXPECT_FALSE(render_text("{{>host}}", kData));
  expect_untouched();
}

TEST_F(PartialFile, IsRefusedWhenItsLinkLeadsInACircle) {
  fs::create_symlink("host.mustache", directory_ / "host.mustache");

  EXPECT_FALSE(render_text("{{>host}}", kData));
  expect_untouched();
}

TEST_F(PartialFile, IsRefusedWhenItsNameHoldsANulByte) {
  write_partial("host", "wrong");

  EXPECT_FALSE(render_text(std::string("{{>host.mustache\0}}", 19), kData));
  expect_untouched();
}

// ---- The output file ----

using OutputFile = WithOldOutput;

TEST_F(OutputFile, IsReplacedWholeByALongerText) {
  EXPECT_TRUE(render_text("a text that is longer than the old one"));
  EXPECT_EQ(output(), "a text that is longer than the old one");
}

TEST_F(OutputFile, KeepsNoTailOfALongerOldText) {
  EXPECT_TRUE(render_text("new"));
  EXPECT_EQ(output(), "new");
}

TEST_F(OutputFile, IsEmptiedByAnEmptyTemplate) {
  EXPECT_TRUE(render_text(""));
  EXPECT_EQ(output(), "");
}

TEST_F(OutputFile, StaysTheSameFileWithItsMode) {
  ASSERT_EQ(chmod(output_.c_str(), 0640), 0);
  struct stat before {};
  ASSERT_EQ(stat(output_.c_str(), &before), 0);

  EXPECT_TRUE(render_text("new"));

  struct stat after {};
  ASSERT_EQ(stat(output_.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode & 07777U, 0640U);
}

TEST_F(OutputFile, IsCreatedWithTheUsualModeWhenMissing) {
  fs::remove(output_);
  const mode_t before = umask(027);

  const bool rendered = render_text("new");

  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(output_.c_str(), &status), 0);
  EXPECT_TRUE(rendered);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(output(), "new");
}

TEST_F(OutputFile, MayBeTheTemplateItself) {
  output_ = template_;

  EXPECT_TRUE(render_text("name: {{name}}", kData));
  EXPECT_EQ(output(), "name: kelo");
}

TEST_F(OutputFile, MayHaveNothingToSynchronise) {
  output_ = "/dev/null";

  EXPECT_TRUE(render_text("new"));
}

TEST_F(OutputFile, CannotBeCreatedInAMissingDirectory) {
  output_ = directory_ / "missing" / "service.conf";

  EXPECT_FALSE(render_text("new"));
  EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

TEST_F(OutputFile, CannotBeADirectory) {
  output_ = directory_;

  EXPECT_FALSE(render_text("new"));
}

TEST_F(OutputFile, CannotHaveANulByteInItsPath) {
  write_template("new");
  std::vector<Json::Value> contexts{kData};

  EXPECT_FALSE(KELO::RenderMustacheToFile(template_.string(), contexts,
                                          output_.string() + std::string("\0x", 2)));
  expect_untouched();
}

TEST_F(OutputFile, CannotBeWrittenToAFullDisk) {
  output_ = "/dev/full";

  EXPECT_FALSE(render_text("new"));
}

TEST_F(OutputFile, LeavesNoDescriptorOpen) {
  const auto open_descriptors = [] {
    const fs::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = open_descriptors();

  render_text("{{>missing}}new");
  render_text("{{");
  output_ = "/dev/full";
  render_text("new");

  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(OutputFile, IsWholeThoughSignalsInterrupt) {
  for (int* interrupted : {&interrupted_reads, &interrupted_writes, &interrupted_syncs}) {
    write_template("name: {{name}}");
    std::vector<Json::Value> contexts{kData};
    *interrupted = 2;

    EXPECT_TRUE(KELO::RenderMustacheToFile(template_.string(), contexts, output_.string()));
    EXPECT_EQ(*interrupted, 0);
    EXPECT_EQ(output(), "name: kelo");
  }
}

TEST_F(Size, OfTheTextCountsTheIndentationOfAFirstLine) {
  Json::Value data;
  data["v"] = std::string(kMebibyte, 'x');
  data["w"] = std::string(kMebibyte - 1, 'x');
  write_partial("line", "y");

  EXPECT_FALSE(render_text(repeat("{{&v}}", 15) + "{{&w}}\n {{>line}}", data));
  expect_untouched();
}

}  // namespace

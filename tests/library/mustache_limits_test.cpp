// The worst templates within the limits: what each costs in memory, steps and time.
#include <json/json.h>
#include <kelomustache.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

std::atomic<std::size_t> allocated{0};
std::atomic<std::size_t> peak{0};

}  // namespace

// These replace the standard library's, for the tested library too, so that its memory is counted
// to the byte.
void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  const std::size_t now = allocated += malloc_usable_size(block);
  peak = std::max(peak.load(), now);
  return block;
}

void operator delete(void* block) noexcept {
  allocated -= malloc_usable_size(block);
  std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept { operator delete(block); }

namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20;
constexpr std::size_t kMaxBytes = 64'000'000;

std::string repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  repeated.reserve(text.size() * times);
  for (std::size_t time = 0; time < times; ++time) {
    repeated += text;
  }
  return repeated;
}

/// As often as it fits into so many bytes.
std::string filled(const std::string& text, std::size_t bytes = kMebibyte) {
  return repeat(text, bytes / text.size());
}

std::string nested(const std::string& name, int levels, const std::string& inner) {
  return repeat("{{#" + name + "}}", static_cast<std::size_t>(levels)) + inner +
         repeat("{{/" + name + "}}", static_cast<std::size_t>(levels));
}

/// The template and its partials, by name, in one directory.
class Directory {
 public:
  Directory() {
    std::string name = testing::TempDir() + "mustache.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    path_ = name;
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { fs::remove_all(path_); }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / (name + ".mustache"), std::ios::binary) << text;
  }
  fs::path path() const { return path_; }
  std::string main() const { return path_ / "main.mustache"; }
  std::string output() const { return path_ / "output"; }

 private:
  fs::path path_;
};

// ---- The templates ----

/// A partial "p", by as many spellings as fit.
std::string spellings(std::size_t bytes) {
  std::string text;
  std::string name = "p";
  while (text.size() + name.size() + 5 <= bytes) {
    text += "{{>" + name + "}}";
    name.insert(0, "./");
  }
  return text;
}

void write_spellings(const Directory& directory) {
  directory.write("main", spellings(6400));
  directory.write("p", "{{#off}}" + filled("{{a}}\n", kMebibyte - 64) + "{{/off}}");
}

void write_spellings_through_directories(const Directory& directory) {
  std::string text;
  for (int number = 0; number < 500; ++number) {
    const std::string name = "d" + std::to_string(number);
    fs::create_directory(directory.path() / name);
    fs::create_symlink("../p.mustache", directory.path() / name / "p.mustache");
    text += "{{>" + name + "/p}}{{>" + name + "/../p}}";
  }
  directory.write("main", text);
  directory.write("p", "{{#off}}" + filled("{{a}}\n", kMebibyte - 64) + "{{/off}}");
}

void write_large_partials(const Directory& directory) {
  directory.write("main", "{{>p0}}{{>p1}}{{>p2}}{{>p3}}{{>p4}}{{>p5}}{{>p6}}{{>p7}}");
  for (int number = 0; number < 8; ++number) {
    directory.write("p" + std::to_string(number), "{{=| |=}}" + filled("|a|\n", kMebibyte - 64));
  }
}

void write_two_large_partials(const Directory& directory) {
  directory.write("main", "{{>p0}}{{>p1}}{{v}}");
  for (int number = 0; number < 2; ++number) {
    directory.write("p" + std::to_string(number), "{{=| |=}}" + filled("|a|\n", kMebibyte - 64));
  }
}

void write_tags(const Directory& directory) {
  directory.write("main", "{{=| |=}}" + filled("|a|", kMebibyte - 9));
}

void write_markers(const Directory& directory) {
  directory.write("main", "{{=| |=}}" + filled("|!|x\n", kMebibyte - 9));
}

void write_sections(const Directory& directory) {
  directory.write("main", "{{=| |=}}" + filled("|#a||/a|", kMebibyte - 9));
}

/// 10,000 lines, below a mebibyte of indentation.
void write_piled_up_indentation(const Directory& directory) {
  directory.write("main", std::string(kMebibyte - 16, ' ') + "{{>p}}");
  directory.write("p", repeat(" {{>q}}\n", 10000));
  directory.write("q", repeat(" {{>none}}\n", 400));
}

void write_deep_indentation(const Directory& directory) {
  directory.write("main", " {{>p1}}");
  for (int number = 1; number < 62; ++number) {
    directory.write("p" + std::to_string(number), " {{>p" + std::to_string(number + 1) + "}}");
  }
  directory.write("p62", "{{#list}}{{#list}}\n{{/list}}{{/list}}");
}

void write_lines(const Directory& directory) {
  directory.write("main", " {{>p}}");
  directory.write("p", repeat("\n", kMebibyte - 16) + "{{>q}}");
}

void write_recursion(const Directory& directory) { directory.write("main", "{{>main}}{{>main}}"); }

void write_tree_of_partials(const Directory& directory) {
  directory.write("main", "{{>p1}}{{>p1}}");
  for (int number = 1; number < 40; ++number) {
    const std::string next = "  {{>p" + std::to_string(number + 1) + "}}\n";
    directory.write("p" + std::to_string(number), next + next);
  }
}

void write_missing_partials(const Directory& directory) {
  std::string text = "{{=| |=}}";
  for (int number = 0; text.size() < kMebibyte - 16; ++number) {
    text += "|>" + std::to_string(number) + '|';
  }
  directory.write("main", text);
}

void write_long_partial_names(const Directory& directory) {
  std::string inner;
  for (int number = 0; number < 200; ++number) {
    inner += "{{>" + repeat("./", 2000 - static_cast<std::size_t>(number)) + "x}}";
  }
  directory.write("main", nested("list", 2, inner));
}

void write_deep_lookups(const Directory& directory) {
  directory.write("main", nested("object", 60, nested("list", 2, "{{absent}}{{absent}}")));
}

void write_long_names(const Directory& directory) {
  directory.write("main", nested("list", 2, "{{" + std::string(kMebibyte - 64, 'n') + "}}"));
}

void write_dotted_names(const Directory& directory) {
  directory.write("main", nested("list", 2, "{{object" + filled(".object", kMebibyte / 2) + "}}"));
}

void write_long_delimiters(const Directory& directory) {
  const std::string delimiter(kMebibyte / 4, 'd');
  directory.write("main", "{{=" + delimiter + "x | =}}" + repeat(delimiter, 2));
}

void write_small_numbers(const Directory& directory) {
  directory.write("main", nested("list", 2, "{{tiny}}"));
}

void write_lists(const Directory& directory) {
  directory.write("main", nested("list", 64, "{{.}}"));
}

void write_empty_lists(const Directory& directory) {
  directory.write("main", nested("list", 2, nested("objects", 62, "")));
}

void write_escapes(const Directory& directory) { directory.write("main", filled("{{entities}}")); }

void write_text(const Directory& directory) { directory.write("main", filled("{{v}}", 80)); }

struct Worst {
  const char* name;
  void (*write)(const Directory&);
  bool renders;
};

// clang-format off
const Worst kWorst[] = {
    {"SpellingsOfOnePartial",           write_spellings,                      true},
    {"SpellingsThroughDirectories",     write_spellings_through_directories,  true},
    {"EightLargePartials",              write_large_partials,                 false},
    {"TwoLargePartials",                write_two_large_partials,             true},
    {"Tags",                            write_tags,                           true},
    {"TagsThatLeaveAMark",              write_markers,                        true},
    {"Sections",                        write_sections,                       true},
    {"PiledUpIndentation",              write_piled_up_indentation,           true},
    {"DeepIndentation",                 write_deep_indentation,               false},
    {"IndentedLines",                   write_lines,                          true},
    {"Recursion",                       write_recursion,                      false},
    {"TreeOfPartials",                  write_tree_of_partials,               false},
    {"MissingPartials",                 write_missing_partials,               false},
    {"LongNamesOfPartials",             write_long_partial_names,             false},
    {"LookupsInADeepStack",             write_deep_lookups,                   false},
    {"LongNames",                       write_long_names,                     false},
    {"DottedNames",                     write_dotted_names,                   false},
    {"LongDelimiters",                  write_long_delimiters,                true},
    {"NumbersThatTakeManyAttempts",     write_small_numbers,                  false},
    {"ListsInLists",                    write_lists,                          false},
    {"ListsOfObjects",                  write_empty_lists,                    false},
    {"Escapes",                         write_escapes,                        false},
    {"SixteenMebibytesOfText",          write_text,                           true},
};
// clang-format on

Json::Value data() {
  Json::Value value;
  value["off"] = false;
  value["tiny"] = 4.9406564584124654e-320;
  value["v"] = std::string(kMebibyte, 'x');
  value["entities"] = std::string(1000, '"');
  Json::Value object;
  for (int member = 0; member < 100; ++member) {
    object["member" + std::to_string(member)] = member;
  }
  Json::Value inner = object;
  for (int level = 0; level < 20; ++level) {
    Json::Value outer = object;
    outer["object"] = inner;
    inner = outer;
  }
  value["object"] = inner;
  for (int item = 0; item < 2000; ++item) {
    value["list"].append(item);
  }
  for (int item = 0; item < 3; ++item) {
    value["objects"].append(object);
  }
  return value;
}

double seconds_of_processor() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class WorstTemplate : public testing::TestWithParam<Worst> {};

TEST_P(WorstTemplate, TakesAtMost64MegabytesAndASecond) {
  const Directory directory;
  GetParam().write(directory);
  std::vector<Json::Value> contexts{data()};
  const std::size_t before = allocated;
  peak = before;
  const double start = seconds_of_processor();

  const bool rendered = KELO::RenderMustacheToFile(directory.main(), contexts, directory.output());

  const double seconds = seconds_of_processor() - start;
  RecordProperty("bytes", std::to_string(peak - before));
  EXPECT_EQ(rendered, GetParam().renders);
  EXPECT_LE(peak - before, kMaxBytes);
  EXPECT_LE(seconds, KELOMUSTACHE_SECONDS);
}

INSTANTIATE_TEST_SUITE_P(Of, WorstTemplate, testing::ValuesIn(kWorst),
                         [](const testing::TestParamInfo<Worst>& tested) {
                           return std::string(tested.param.name);
                         });

}  // namespace

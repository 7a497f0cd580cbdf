// What is known of a rendering: its outcome, the step that failed, the texts before and after.
#include <fcntl.h>
#include <json/value.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "framework.h"
#include "rendering.h"

namespace {

/// What no state of files brings about: no memory for a preview, a preview in something that cannot
/// be read, a rendered file that is gone right after its rename.
int memory_file_error = 0;
const char* memory_file_path = nullptr;
bool renamed_files_vanish = false;

}  // namespace

// These functions interpose the C library's.
extern "C" {

int memfd_create(const char* name, unsigned flags) noexcept {
  if (memory_file_error != 0) {
    errno = memory_file_error;
    return -1;
  }
  return memory_file_path != nullptr ? ::open(memory_file_path, O_RDWR | O_CLOEXEC)
                                     : static_cast<int>(::syscall(SYS_memfd_create, name, flags));
}

int rename(const char* from, const char* to) noexcept {
  const int result = ::renameat(AT_FDCWD, from, AT_FDCWD, to);
  if (renamed_files_vanish) {
    ::unlink(to);
  }
  return result;
}
}

namespace kelotls::test {
namespace {

using Outcome = RenderResult::Outcome;
using Step = RenderResult::Step;

constexpr char kTemplate[] = "/usr/kelo/web.mustache";
const std::string kRendered = rendered_path("web");
const std::string kNotRendered =
    error_line("api_provider.cpp:220 Failed to update " + rendered_path("web"));

class RenderResults : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kTemplate,
               "{{#mozilla_modern}}modern{{/mozilla_modern}}"
               "{{#mozilla_old}}old{{/mozilla_old}}\n");
    describe(R"({"mustache-path": "/usr/kelo/web.mustache"})");
  }

  static void describe(const std::string& text) { write_file(descriptor_path("web"), text); }

  /// Renders for level modern. A preview must leave every file as it was.
  RenderResult render(Rendering rendering) {
    const Lines before = tree();
    const Json::Value root = json(data_store_text(2, {{"web", "1"}}));
    texts_ = RenderedTexts();
    errno = EPERM;  // a caller's errno is no reason
    RenderResult result = render_and_compare(root, "web", reader_, rendering, texts_);
    if (rendering == Rendering::kPreview) {
      EXPECT_EQ(tree(), before);
    }
    return result;
  }

  void expect_success(const RenderResult& result, Outcome outcome) {
    EXPECT_EQ(result.outcome, outcome);
    EXPECT_EQ(result.failed_step, Step::kNone);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.template_path, kTemplate);
    EXPECT_EQ(texts_.now, "modern\n");
    EXPECT_EQ(log(), Lines());
  }

  void expect_failure(const RenderResult& result, Step step, int error, const std::string& path,
                      const Lines& lines) {
    EXPECT_EQ(result.outcome, Outcome::kFailed);
    EXPECT_EQ(result.failed_step, step);
    EXPECT_EQ(result.error, error);
    EXPECT_EQ(result.path, path);
    EXPECT_EQ(log(), lines);
  }

  JsonReader reader_;
  RenderedTexts texts_;
};

constexpr Rendering kBoth[] = {Rendering::kInForce, Rendering::kPreview};

// Outcomes

TEST_F(RenderResults, AreANewFile) {
  expect_success(render(Rendering::kPreview), Outcome::kRendered);
  EXPECT_FALSE(texts_.had_former);
  EXPECT_FALSE(exists(kRendered));

  expect_success(render(Rendering::kInForce), Outcome::kRendered);
  EXPECT_FALSE(texts_.had_former);
  EXPECT_EQ(texts_.former, "");
  EXPECT_EQ(read_file(kRendered), "modern\n");
}

TEST_F(RenderResults, AreAChangedFile) {
  write_file(kRendered, "former\n");
  for (const Rendering rendering : {Rendering::kPreview, Rendering::kInForce}) {
    expect_success(render(rendering), Outcome::kRendered);
    EXPECT_TRUE(texts_.had_former);
    EXPECT_EQ(texts_.former, "former\n");
  }
  EXPECT_EQ(read_file(kRendered), "modern\n");
}

TEST_F(RenderResults, AreAnUnchangedFileThatIsRenderedAllTheSame) {
  write_file(kRendered, "modern\n");
  const ino_t before = inode(kRendered);
  for (const Rendering rendering : {Rendering::kPreview, Rendering::kInForce}) {
    EXPECT_EQ(inode(kRendered), before);
    expect_success(render(rendering), Outcome::kUnchanged);
    EXPECT_TRUE(texts_.had_former);
    EXPECT_EQ(texts_.former, "modern\n");
  }
  EXPECT_NE(inode(kRendered), before);
  EXPECT_EQ(names_in(kConfig), Lines{"web.conf"});
}

TEST_F(RenderResults, AreANewFileWhereAnEmptyOneIsRenderedForTheFirstTime) {
  write_file(kTemplate, "");
  for (const Rendering rendering : {Rendering::kPreview, Rendering::kInForce}) {
    EXPECT_EQ(render(rendering).outcome, Outcome::kRendered);
  }
  EXPECT_EQ(render(Rendering::kPreview).outcome, Outcome::kUnchanged);
}

TEST_F(RenderResults, AreNothingWithoutATemplate) {
  describe("{}");
  write_file(kRendered, "former\n");
  for (const Rendering rendering : kBoth) {
    const RenderResult result = render(rendering);
    EXPECT_EQ(result.outcome, Outcome::kNoTemplate);
    EXPECT_EQ(result.failed_step, Step::kNone);
    EXPECT_EQ(result.template_path, "");
    EXPECT_EQ(log(), Lines());
  }
  EXPECT_EQ(read_file(kRendered), "former\n");
}

// Steps that fail. Those of a preview are not logged: nothing was to be put in force.

TEST_F(RenderResults, NameADescriptorThatCannotBeRead) {
  const std::string path = descriptor_path("web");
  const auto line = [&](const std::string& reason) {
    return error_line("api_provider.cpp:184 Read service descriptor failed. " + reason + " " +
                      path);
  };
  for (const char* text : {"{", "[]"}) {
    describe(text);
    expect_failure(render(Rendering::kPreview), Step::kDescriptor, 0, path, {});
    expect_failure(render(Rendering::kInForce), Step::kDescriptor, 0, path, {line("[0][Success]")});
  }
  remove_all(path);
  expect_failure(render(Rendering::kPreview), Step::kDescriptor, ENOENT, path, {});
  expect_failure(render(Rendering::kInForce), Step::kDescriptor, ENOENT, path,
                 {line("[2][No such file or directory]")});
}

TEST_F(RenderResults, NameALevelThatThereIsNone) {
  const Json::Value root = json(data_store_text(2, {}));
  const std::string unjoined =
      error_line("framework_config.cpp:123 Service is not joined framework. web");

  expect_failure(render_and_compare(root, "web", reader_, Rendering::kPreview, texts_),
                 Step::kLevel, 0, "", {unjoined});
  expect_failure(render_and_compare(root, "web", reader_, Rendering::kInForce, texts_),
                 Step::kLevel, 0, "",
                 {unjoined, error_line("api_provider.cpp:195 Get service level failed.")});
}

TEST_F(RenderResults, NameATemporaryFileThatCannotBeMade) {
  remove_all(kConfig);
  expect_failure(
      render(Rendering::kInForce), Step::kTemporary, ENOENT, kRendered,
      {error_line("api_provider.cpp:213 Failed to mkstemp. [No such file or directory]")});

  expect_success(render(Rendering::kPreview), Outcome::kRendered);
  memory_file_error = EMFILE;
  expect_failure(render(Rendering::kPreview), Step::kTemporary, EMFILE, kRendered, {});
}

TEST_F(RenderResults, NameATemplateThatCannotBeRendered) {
  write_file(kTemplate, "{{#open}}");
  write_file(kRendered, "former\n");

  expect_failure(render(Rendering::kPreview), Step::kTemplate, 0, kRendered, {});
  EXPECT_EQ(names_in(kConfig), Lines{"web.conf"});
  const RenderResult result = render(Rendering::kInForce);
  expect_failure(result, Step::kTemplate, 0, kRendered, {kNotRendered});

  EXPECT_EQ(result.template_path, kTemplate);
  EXPECT_EQ(texts_.former, "former\n");
  EXPECT_EQ(read_file(kRendered), "former\n");
}

TEST_F(RenderResults, NameATemporaryFileThatCannotBeRenamed) {
  test::make_directories(kRendered);
  const RenderResult result = render(Rendering::kInForce);

  const std::string temporary = kConfig + names_in(kConfig).back();
  expect_failure(
      result, Step::kRename, EISDIR, temporary,
      {error_line("api_provider.cpp:226 Failed to rename  " + temporary + " [Is a directory]")});
  EXPECT_FALSE(texts_.had_former);
}

TEST_F(RenderResults, NameAFormerFileThatCannotBeRead) {
  ASSERT_EQ(::mkfifo(kRendered.c_str(), 0600), 0);

  expect_failure(render(Rendering::kPreview), Step::kRead, EINVAL, kRendered, {});
  expect_failure(render(Rendering::kInForce), Step::kRead, EINVAL, kRendered, {});

  EXPECT_EQ(texts_.now, "modern\n");
  EXPECT_EQ(read_file(kRendered), "modern\n");
}

TEST_F(RenderResults, NameARenderedTextThatCannotBeRead) {
  renamed_files_vanish = true;
  expect_failure(render(Rendering::kInForce), Step::kRead, ENOENT, kRendered, {});

  memory_file_path = "/dev/null";
  const RenderResult result = render(Rendering::kPreview);
  expect_failure(result, Step::kRead, EINVAL, result.path, {});
  EXPECT_EQ(result.path.compare(0, 14, "/proc/self/fd/"), 0) << result.path;
}

// Whether a service has joined with it or not

TEST_F(RenderResults, ArePreviewedForEachLevel) {
  remove_all(descriptor_path("web"));
  std::string modern;
  EXPECT_TRUE(preview_template(kTemplate, 1, modern));
  EXPECT_EQ(modern, "modern\n");
  std::string text;
  EXPECT_TRUE(preview_template(kTemplate, 3, text));
  EXPECT_EQ(text, "old\n");

  write_file(kTemplate, "{{#open}}");
  EXPECT_FALSE(preview_template(kTemplate, 1, text));
  EXPECT_EQ(errno, 0);
  remove_all(kTemplate);
  EXPECT_FALSE(preview_template(kTemplate, 1, text));
  EXPECT_EQ(log(), Lines());
  EXPECT_FALSE(exists(kRendered));
}

}  // namespace
}  // namespace kelotls::test

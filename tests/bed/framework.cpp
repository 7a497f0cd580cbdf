// Sets up and inspects the files that the tests of the framework's operations need.
#include "framework.h"

#include <json/reader.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace kelotls::test {

namespace {

void require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void bind_mount(const std::string& from, const std::string& to) {
  require(::mount(from.c_str(), to.c_str(), "none", MS_BIND, nullptr) == 0, to);
}

struct stat status_of(const std::string& path) {
  struct stat status = {};
  require(::lstat(path.c_str(), &status) == 0, path);
  return status;
}

}  // namespace

void Framework::SetUp() {
  PrivateTree::SetUp();
  ::openlog(nullptr, LOG_NDELAY,
            LOG_USER);  // opens the log's socket now instead of at the first line
  descriptors_ = open_descriptors();
}

void Framework::TearDown() { EXPECT_EQ(open_descriptors(), descriptors_); }

Json::Value json(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::runtime_error(errors + text);
  }
  return value;
}

Json::Value read_json(const std::string& path) { return json(read_file(path)); }

ServiceDesc service_desc(const std::string& text) {
  ServiceDesc desc;
  desc.from_json(json(text));
  return desc;
}

std::string descriptor_path(const std::string& name) { return kServices + name + ".conf"; }

std::string link_path(const std::string& name) { return kPackageReloaders + name + ".conf"; }

std::string rendered_path(const std::string& name) { return kConfig + name + ".conf"; }

std::string link_target(const std::string& path) { return std::filesystem::read_symlink(path); }

void make_link(const std::string& target, const std::string& path) {
  require(::symlink(target.c_str(), path.c_str()) == 0, path);
}

ino_t inode(const std::string& path) { return status_of(path).st_ino; }

mode_t mode(const std::string& path) { return status_of(path).st_mode & 07777; }

void write_program(const std::string& path, const std::string& text) {
  write_file(path, text);
  require(::chmod(path.c_str(), 0755) == 0, path);
}

void make_data_store_read_only() {
  const std::string directory = std::filesystem::path(kDataStore).parent_path();
  for (const std::string& kept : {std::string(kServices), std::string(kConfig)}) {
    const std::string aside =
        "/tmp/" + std::filesystem::path(kept).parent_path().filename().string();
    make_directories(aside);
    bind_mount(kept, aside);
  }
  mount_read_only(directory);
  bind_mount("/tmp/services", kServices);
  bind_mount("/tmp/config", kConfig);
}

void make_data_store_irreplaceable() { bind_mount(kDataStore, kDataStore); }

void fill_file_system(const std::string& directory) {
  const std::string path = directory + "/filler";
  const std::string block(4096, 'x');
  FILE* const file = std::fopen(path.c_str(), "w");
  require(file != nullptr, path);
  while (std::fwrite(block.data(), 1, block.size(), file) == block.size() &&
         std::fflush(file) == 0) {
  }
  const int error = errno;
  std::fclose(file);
  errno = error;
  require(error == ENOSPC, path);
}

}  // namespace kelotls::test

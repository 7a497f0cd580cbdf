#include "background.h"

#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "framework.h"
#include "private_tree.h"

namespace kelotls::test {

namespace {

namespace fs = std::filesystem;

constexpr char kPrograms[] = "/usr/bin";
constexpr char kHostPrograms[] = "/usr/host-bin";
constexpr char kTold[] = "/run/systemd/told";

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

/// Of a process that has ended meanwhile, nothing.
std::string link_of(const fs::path& process, const char* name) {
  std::error_code no_error;
  return fs::read_symlink(process / name, no_error).string();
}

/// By its arguments, too: where a processor is emulated, the file that it runs is the emulator's.
bool runs(const fs::path& process, const std::string& program) {
  if (link_of(process, "exe") == program) {
    return true;
  }
  std::ifstream arguments(process / "cmdline");
  std::string argument;
  while (std::getline(arguments, argument, '\0')) {
    if (argument == program) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<pid_t> processes_of(const std::string& program) {
  const std::string tree = link_of("/proc/self", "ns/mnt");
  std::vector<pid_t> processes;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos && runs(entry.path(), program) &&
        link_of(entry.path(), "ns/mnt") == tree) {
      processes.push_back(std::stoi(name));
    }
  }
  return processes;
}

// The host's programs stay where they are, and two more take the place of systemd's.
void pretend_systemd() {
  make_directories("/run/systemd/system");
  make_directories(kHostPrograms);
  require(::mount(kPrograms, kHostPrograms, "none", MS_BIND, nullptr) == 0, kHostPrograms);
  require(::mount("none", kPrograms, "tmpfs", 0, "mode=0755") == 0, kPrograms);
  for (const auto& entry : fs::directory_iterator(kHostPrograms)) {
    const std::string name = entry.path().filename();
    if (name != "systemctl" && name != "systemd-run") {
      fs::create_symlink(entry.path(), fs::path(kPrograms) / name);
    }
  }
  for (const std::string name : {"systemctl", "systemd-run"}) {
    write_program(std::string(kPrograms) + "/" + name,
                  "#!/bin/sh\necho " + name + " \"$@\" >> " + kTold + "\n");
  }
  write_file(kTold, "");
}

std::string told_to_systemd() {
  const std::string told = read_file(kTold);
  write_file(kTold, "");
  return told;
}

}  // namespace kelotls::test

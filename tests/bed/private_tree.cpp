// Reads the system log of the private tree, and its files.
#include "private_tree.h"

#include <dirent.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace kelotls::test {

namespace {

constexpr char kLogSocket[] = "/dev/log";

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    fail(what);
  }
}

sockaddr_un log_address() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kLogSocket);
  return address;
}

/// "<11>Nov 21 03:00:00 program: message" → "<11>message".
std::string without_time_and_program(const std::string& line) {
  constexpr std::size_t kTimeLength = 16;
  const std::size_t priority_end = line.find('>') + 1;
  const std::size_t program_end = line.find(": ", priority_end + kTimeLength);
  if (priority_end == 0 || program_end == std::string::npos) {
    throw std::runtime_error("not a system log line: " + line);
  }
  return line.substr(0, priority_end) + line.substr(program_end + 2);
}

}  // namespace

/// Reads in a thread of its own, because syslog blocks once the socket's queue is full.
class SystemLog::Reader {
 public:
  Reader() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    require(socket_ >= 0, "socket");
    const sockaddr_un address = log_address();
    require(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            kLogSocket);
    thread_ = std::thread([this] { run(); });
  }

  ~Reader() {
    send_mark("end");
    thread_.join();
    ::close(socket_);
    ::unlink(kLogSocket);
  }

  Lines take() {
    // Datagrams arrive in order: once the mark is read, so is every line that was sent before it.
    const std::string mark = "mark " + std::to_string(++marks_sent_);
    send_mark(mark);
    std::unique_lock lock(mutex_);
    marked_.wait(lock, [&] { return last_mark_ == mark; });
    return std::exchange(lines_, {});
  }

 private:
  void run() {
    std::string buffer(1 << 20, '\0');
    for (;;) {
      const ssize_t length = ::recv(socket_, buffer.data(), buffer.size(), 0);
      if (length < 0) {
        continue;
      }
      const std::string line(buffer, 0, static_cast<std::size_t>(length));
      const std::lock_guard lock(mutex_);
      if (line.compare(0, 1, "<") == 0) {
        lines_.push_back(line);
        continue;
      }
      if (line == "end") {
        return;
      }
      last_mark_ = line;
      marked_.notify_one();
    }
  }

  void send_mark(const std::string& mark) const {
    const sockaddr_un address = log_address();
    require(::sendto(socket_, mark.data(), mark.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0,
            "sendto");
  }

  int socket_;
  int marks_sent_ = 0;
  std::mutex mutex_;
  std::condition_variable marked_;
  std::string last_mark_;
  Lines lines_;
  std::thread thread_;
};

SystemLog::SystemLog() : reader_(std::make_unique<Reader>()) {}
SystemLog::~SystemLog() = default;

Lines SystemLog::take() {
  Lines lines = reader_->take();
  std::transform(lines.begin(), lines.end(), lines.begin(), without_time_and_program);
  return lines;
}

void PrivateTree::SetUp() {
  struct statfs status = {};
  ASSERT_TRUE(std::getenv("KELOTLS_PRIVATE_TREE") != nullptr &&
              ::statfs("/usr/kelo", &status) == 0 && status.f_type == TMPFS_MAGIC)
      << "start this test through tests/bed/in_private_tree: it writes to /usr/kelo";
  for (const char* directory : {kServices, kConfig, kSystemReloaders, kPackageReloaders, kSslDir}) {
    make_directories(directory);
  }
  // A shell's & has SIGINT ignored and nohup SIGHUP, and the programs that a test starts would heed
  // it.
  for (const int number : {SIGHUP, SIGINT}) {
    ASSERT_NE(::signal(number, SIG_DFL), SIG_ERR);
  }
  log_ = std::make_unique<SystemLog>();
  // Waits until the log's thread runs, because sanitizers open descriptors for a moment while a
  // thread starts.
  log();
}

Lines PrivateTree::log() { return log_->take(); }

std::string error_line(const std::string& message) { return "<11>" + message; }

void write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  require(bool(file.flush()), path);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  require(bool(file), path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool exists(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0;
}

void make_directories(const std::string& path) { std::filesystem::create_directories(path); }

void remove_all(const std::string& path) { std::filesystem::remove_all(path); }

Lines names_in(const std::string& directory) {
  Lines names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

Lines tree() {
  Lines lines;
  for (const char* top :
       {"/usr/kelo", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile"}) {
    if (!exists(top)) {
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      const std::string path = entry.path();
      struct stat status = {};
      require(::lstat(path.c_str(), &status) == 0, path);
      std::ostringstream line;
      line << path << ' ' << std::oct << status.st_mode << ' ';
      if (entry.is_symlink()) {
        line << "-> " << std::filesystem::read_symlink(path).string();
      } else if (entry.is_regular_file()) {
        line << read_file(path);
      }
      lines.push_back(line.str());
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<int> open_descriptors() {
  std::vector<int> numbers;
  DIR* const directory = ::opendir("/proc/self/fd");
  require(directory != nullptr, "/proc/self/fd");
  while (const dirent* const entry = ::readdir(directory)) {
    const int number = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && number != ::dirfd(directory)) {
      numbers.push_back(number);
    }
  }
  ::closedir(directory);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void mount_small_file_system(const std::string& directory, std::size_t bytes) {
  const std::string options = "size=" + std::to_string(bytes);
  require(::mount("none", directory.c_str(), "tmpfs", 0, options.c_str()) == 0, directory);
}

void mount_read_only(const std::string& directory) {
  // The kernel ignores the file system type of a bind mount, but memcheck requires a readable text.
  require(::mount(directory.c_str(), directory.c_str(), "none", MS_BIND, nullptr) == 0, directory);
  require(
      ::mount(nullptr, directory.c_str(), "none", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0,
      directory);
}

void obey_file_permissions() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  require(::syscall(SYS_capset, &header, data) == 0, "capset");
}

bool has_many_users() {
  const char* const said = std::getenv("KELOTLS_MANY_USERS");
  return said != nullptr && said == std::string("1");
}

std::string data_store_text(int default_level,
                            const std::vector<std::pair<std::string, std::string>>& services) {
  std::ostringstream text;
  text << "{\"default-level\": " << default_level << ", \"services\": {";
  const char* separator = "";
  for (const auto& [name, level] : services) {
    text << separator << '"' << name << "\": {\"display-name\": \"" << name
         << "\", \"current-level\": " << level << '}';
    separator = ", ";
  }
  text << "}}";
  return text.str();
}

std::string test_data(const std::string& name) {
  return read_file(std::string(KELOTLS_TEST_DATA) + "/" + name);
}

void write_dh_files() {
  for (const char* name : {"dh1024.pem", "dh2048.pem"}) {
    write_file(std::string(kSslDir) + name, test_data(std::string("bed/data/") + name));
  }
}

void set_openssl_configuration(const std::string& text) {
  const std::string path = "/tmp/openssl.cnf";
  write_file(path, text);
  require(::setenv("OPENSSL_CONF", path.c_str(), 1) == 0, "setenv");
}

}  // namespace kelotls::test

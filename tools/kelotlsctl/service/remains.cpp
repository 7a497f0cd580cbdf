// Owns what a service may leave behind.
#include "service/remains.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "files.h"
#include "output/console.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFiles = 2000;
constexpr std::size_t kMaxEntries = 20000;
constexpr std::uintmax_t kMaxBytes = std::uintmax_t{1} << 20;
constexpr std::size_t kTemporaryLetters = 6;  // as mkstemp fills them in

bool is_part_of_name(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
}

/// Whether the text holds the path, and not only one that begins with it.
bool mentions(const std::string& text, const std::string& path) {
  for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path, at + 1)) {
    const std::size_t end = at + path.size();
    if (end == text.size() || !is_part_of_name(text[end])) {
      return true;
    }
  }
  return false;
}

/// The files to be searched. What cannot be looked into is passed over.
std::vector<std::string> small_files_below(const char* directory) {
  std::vector<std::string> files;
  std::error_code error;
  std::size_t seen = 0;
  fs::recursive_directory_iterator entry(directory, fs::directory_options::skip_permission_denied,
                                         error);
  for (; error.value() == 0 && entry != fs::recursive_directory_iterator() &&
         files.size() < kMaxFiles && seen < kMaxEntries;
       entry.increment(error), ++seen) {
    std::error_code ignored;
    const bool is_own = entry->path() / "" == kelotls::kFrameworkDir;
    if (is_own) {
      entry.disable_recursion_pending();
    } else if (entry->symlink_status(ignored).type() == fs::file_type::regular &&
               entry->file_size(ignored) <= kMaxBytes) {
      files.push_back(entry->path().string());
    }
  }
  return files;
}

}  // namespace

std::vector<std::string> temporaries_of(const std::string& service) {
  std::vector<std::string> names;
  kelotls::list_directory(kelotls::kConfigDir, names);
  const std::string head = service + kelotls::kServiceFileSuffix + ".";
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    if (name.size() == head.size() + kTemporaryLetters && name.compare(0, head.size(), head) == 0 &&
        std::all_of(name.begin() + static_cast<std::ptrdiff_t>(head.size()), name.end(),
                    [](unsigned char c) { return std::isalnum(c) != 0; })) {
      paths.push_back(kelotls::kConfigDir + name);
    }
  }
  return paths;
}

Json::Value files_that_name(const std::vector<std::string>& paths) {
  Json::Value found = object({});
  std::vector<std::string> files;
  for (const char* directory : {"/etc", "/usr/kelo/etc"}) {
    const std::vector<std::string> below =
        paths.empty() ? std::vector<std::string>() : small_files_below(directory);
    files.insert(files.end(), below.begin(), below.end());
  }
  files.resize(std::min(files.size(), kMaxFiles));
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) {
    std::string text;
    kelotls::read_file(file, text);
    for (const std::string& path : paths) {
      if (mentions(text, path)) {
        found[path].append(file);
      }
    }
  }
  return found;
}

}  // namespace kelotlsctl

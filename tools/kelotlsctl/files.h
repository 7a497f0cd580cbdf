// Files as the commands need them: read whole, written whole or not at all, temporary.
#ifndef KELOTLSCTL_FILES_H
#define KELOTLSCTL_FILES_H

#include <sys/stat.h>

#include <string>
#include <vector>

namespace kelotlsctl {

/// Writes everything to an open descriptor. False with errno.
bool write_all(int descriptor, const std::string& text);

/// Whether something stands at the path; a dangling link does.
bool stands_at(const std::string& path);

/// Reads a regular file of at most 64 MiB; never waits for a pipe. False with errno.
bool read_file(const std::string& path, std::string& text);

/// Reads the standard input to its end, 64 MiB at most. False with errno.
bool read_standard_input(std::string& text);

/// Replaces the file, or makes it, in one step that survives a power cut. False with errno.
bool replace_file(const std::string& path, const std::string& text, mode_t mode);

/// The same for a file that must not exist yet: EEXIST when it does.
bool create_file(const std::string& path, const std::string& text, mode_t mode);

/// Makes the folder and those above it that are missing, with this mode whatever the umask. The
/// ones it has made are appended. False with errno.
bool make_folders(const std::string& path, mode_t mode, std::vector<std::string>& made);

/// The names in a folder, sorted, without "." and "..". False with errno.
bool list_folder(const std::string& path, std::vector<std::string>& names);

/// A private folder that goes away with what is in it; in memory where the system has a place for
/// that, because some writers bring every file to the disk.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace kelotlsctl

#endif

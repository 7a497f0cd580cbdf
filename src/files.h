// Owns how files are read, written, replaced, created and listed: whole, bounded and durable.
// Operations that can fail return false (or a closed descriptor) with errno set.
#pragma once

#include <kelocore.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kelotls {

/// No file that is read may hold more.
constexpr std::size_t kMaxFileBytes = std::size_t{64} << 20;

/// Owns an open file descriptor. Closing it on the way out leaves errno alone.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  bool is_open() const { return number_ >= 0; }
  int get() const { return number_; }
  int release();

  /// Linux has let the descriptor go even where close reports EINTR.
  bool close();

 private:
  int number_;
};

/// Sets errno and returns false.
bool fail(int error) noexcept;

/// Whether there is anything at the path; a dangling link counts.
bool exists_at(const std::string& path);
bool has_nul(const std::string& text);

/// Appends what the descriptor gives up to its end. EFBIG beyond kMaxFileBytes. A file that ends
/// where expected_bytes said costs no further read.
bool read_to_end(int descriptor, std::size_t expected_bytes, std::string& text);

/// Appends what a regular file holds. Anything else is refused without waiting for it: EISDIR for a
/// directory, EINVAL for other kinds and for a path with a NUL byte.
bool read_file(const std::string& path, std::string& text);

bool write_all(int descriptor, const std::string& text);

/// Truncates and rewrites the file, and brings it to the disk.
bool write_in_place(const std::string& path, const std::string& text);

/// Replaces the file that the path leads to, through links, or makes it. Its mode and owner stay; a
/// new file gets 0666 less the umask. After a power cut at any moment it holds either its old text
/// or the new one. What is neither a regular file nor missing is written in place.
bool replace_file(std::string path, const std::string& text);

/// The same for the entry at the path itself: a link is replaced, not followed. A regular file's
/// mode and owner stay; anything else is replaced by a file of exactly this mode.
bool replace_entry(const std::string& path, const std::string& text, mode_t mode);

/// Makes a file of exactly this mode, in one step that survives a power cut. EEXIST where there is
/// anything at the path.
bool create_file(const std::string& path, const std::string& text, mode_t mode);

/// Makes the directory and those above it that are missing, each of exactly this mode. Appends
/// those that it has made.
bool make_directories(const std::string& path, mode_t mode, std::vector<std::string>& made);

/// Appends the names in a directory, sorted, without "." and "..".
bool list_directory(const std::string& path, std::vector<std::string>& names);

struct FileListFree {
  void operator()(KLIBCSzList* names) const { KLIBCSzListFree(names); }
};

/// Names of regular files and links, as the platform lists them.
using FileList = std::unique_ptr<KLIBCSzList, FileListFree>;

FileList make_file_list();

/// Adds the files and links of a directory. The platform may move the list. Negative when the
/// directory cannot be listed.
int list_files(const char* directory, FileList& names);

/// Gives a resource up without releasing it. Each use is a leak that the contract asks for.
template <typename Owner>
void leak_on_purpose(Owner& owner) {
  static_cast<void>(owner.release());
}

}  // namespace kelotls

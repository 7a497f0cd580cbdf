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

/// Appends what is left to read; EFBIG beyond kMaxFileBytes. One read where expected_bytes is
/// right.
bool read_to_end(int descriptor, std::size_t expected_bytes, std::string& text);

/// Appends what a regular file holds. Never waits for anything else: EISDIR for a directory, EINVAL
/// for other kinds and for a path with a NUL byte.
bool read_file(const std::string& path, std::string& text);

bool write_all(int descriptor, const std::string& text);

/// Truncates and rewrites the file, and brings it to the disk.
bool write_in_place(const std::string& path, const std::string& text);

/// Replaces the file that the path leads to, through links, or makes it: a power cut leaves the old
/// text or the new one. Mode and owner stay; a new file gets 0666 less the umask. What is neither a
/// regular file nor missing is written in place.
bool replace_file(std::string path, const std::string& text);

/// The same for the entry at the path itself: anything but a regular file, a link too, is replaced
/// by a file of exactly this mode.
bool replace_entry(const std::string& path, const std::string& text, mode_t mode);

/// Makes a file of exactly this mode, as durably. EEXIST where there is anything at the path.
bool create_file(const std::string& path, const std::string& text, mode_t mode);

/// Makes the directories of the path that are missing, each of exactly this mode, and appends them.
bool make_directories(const std::string& path, mode_t mode, std::vector<std::string>& made);

/// Appends the names in a directory, sorted, without "." and "..".
bool list_directory(const std::string& path, std::vector<std::string>& names);

/// Releases handles, files and the like: unique_ptr<SSL_CTX, Release<SSL_CTX_free>>.
template <auto release>
struct Release {
  template <typename Handle>
  void operator()(Handle* handle) const {
    static_cast<void>(release(handle));
  }
};

/// Names of regular files and links, as the platform lists them.
using FileList = std::unique_ptr<KLIBCSzList, Release<KLIBCSzListFree>>;

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

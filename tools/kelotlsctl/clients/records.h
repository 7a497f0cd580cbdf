// Owns what is kept of a service's clients: each distinct hello once, how often and when it came,
// and from where, in one bounded file for each service.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace kelotlsctl {

struct RecordedHello {
  std::string hello;        ///< the handshake message as it came first, header included
  std::uint64_t count = 0;  ///< connections
  std::time_t first = 0;
  std::time_t last = 0;
  /// By hours since 1970, of the last kRecordedHours alone.
  std::map<std::int64_t, std::uint64_t> hours;
  /// The first kMostAddresses that it came from.
  std::vector<std::string> addresses;
};

/// Beginnings of connections that gave no hello.
struct UnreadConnections {
  std::uint64_t not_tls = 0;
  std::uint64_t ssl2 = 0;  ///< a hello in the form of SSL 2, which old clients use for TLS too
  std::uint64_t incomplete = 0;
  std::uint64_t too_large = 0;

  UnreadConnections& operator+=(const UnreadConnections& more);
  bool any() const { return not_tls + ssl2 + incomplete + too_large > 0; }
  Json::Value json() const;
};

constexpr std::int64_t kSecondsPerHour = 3600;
constexpr std::int64_t kRecordedHours = std::int64_t{8} * 24;
constexpr std::size_t kMostAddresses = 20;
constexpr std::size_t kDefaultRecordBytes = std::size_t{10} << 20;
/// Twice as large a file could not be read by everything that reads it.
constexpr std::size_t kMostRecordBytes = std::size_t{32} << 20;

class ClientRecords {
 public:
  static constexpr char kDirectory[] = "/usr/kelo/etc/security-profile/tls-profile/clients";

  static std::string path_of(const std::string& service);
  /// What who writes it locks; in the directory, which is made where it is missing.
  static std::string lock_path_of(const std::string& service);
  static bool exist_of(const std::string& service);

  /// None where there is no file. A Failure where the file cannot be used.
  static ClientRecords load(const std::string& service);

  /// None, whatever there is.
  explicit ClientRecords(std::string service) : service_(std::move(service)) {}

  /// How large the file may get. What is dropped for it: first hellos that have not come for
  /// kRecordedHours; then the rarest; of equally rare ones, those that have not come for longest.
  void set_limit(std::size_t bytes);

  /// Counts one connection. address: empty to keep none. False, and nothing counted, where it is no
  /// ClientHello.
  bool add(const std::string& hello, std::time_t when, const std::string& address);

  void count_unread(const UnreadConnections& more) { unread_ += more; }
  void count_kernel_drops(std::uint64_t more) { kernel_drops_ += more; }

  /// This time was watched as well.
  void cover(std::time_t since, std::time_t until);

  /// Replaces the file, in a directory that only its owner reads. A Failure when it cannot be
  /// written.
  void save();

  const std::string& service() const { return service_; }
  const std::vector<RecordedHello>& hellos() const { return hellos_; }
  std::time_t since() const { return since_; }
  std::time_t until() const { return until_; }
  /// Every hello that was counted, also those that were dropped for want of space.
  std::uint64_t connections() const { return connections_; }
  std::uint64_t left_out_hellos() const { return left_out_hellos_; }
  std::uint64_t left_out_connections() const { return left_out_connections_; }
  const UnreadConnections& unread() const { return unread_; }
  std::uint64_t kernel_drops() const { return kernel_drops_; }

  /// The counts, without the hellos.
  Json::Value summary() const;

 private:
  void read(const Json::Value& document);
  void insert(RecordedHello hello);
  void drop_down_to(std::size_t bytes);
  void forget_hours();

  std::string service_;
  std::size_t limit_ = kDefaultRecordBytes;
  std::size_t size_ = 0;  // what the hellos take in the file, at most
  std::time_t since_ = 0;
  std::time_t until_ = 0;
  std::uint64_t connections_ = 0;
  std::uint64_t left_out_hellos_ = 0;
  std::uint64_t left_out_connections_ = 0;
  UnreadConnections unread_;
  std::uint64_t kernel_drops_ = 0;
  std::vector<RecordedHello> hellos_;
  std::unordered_map<std::string, std::size_t> by_key_;  // of comparison_key, to the index
};

/// Removes the file, and what an interrupted save has left of it. Whether there was anything. A
/// Failure when it cannot be removed.
bool forget_clients(const std::string& service);

/// "2027-01-31T23:59:59Z"
std::string time_text(std::time_t when);

}  // namespace kelotlsctl

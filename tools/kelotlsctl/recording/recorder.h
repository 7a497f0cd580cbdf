// Owns recording: starting the process that reads packets, checking what it tells, and keeping it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clients/records.h"
#include "files.h"
#include "recording/capture.h"

namespace kelotlsctl {

/// How much of a client's address is kept.
struct AddressRule {
  bool keeps_any = true;
  int ipv4_bits = 32;
  int ipv6_bits = 128;
};

/// The address as the rule leaves it: "192.0.2.7", "192.0.2.0/24", or empty.
std::string kept_address(const NetworkAddress& address, const AddressRule& rule);

/// Keeps a service's record to one recorder. A Failure where another one has it.
class RecordLock {
 public:
  explicit RecordLock(const std::string& service);

 private:
  kelotls::Descriptor file_;
};

struct RecordedService {
  std::string name;
  WatchedService watched;
};

struct RecordingOptions {
  AddressRule addresses;
  std::size_t limit = kDefaultRecordBytes;
  std::optional<std::chrono::seconds>
      duration;  ///< none: until it is interrupted, or the file ends
};

/// What one recording gave, for one service.
struct RecordingResult {
  std::string service;
  std::uint64_t connections = 0;
  std::uint64_t new_hellos = 0;
  UnreadConnections unread;
  std::uint64_t kernel_drops = 0;
  std::size_t hellos = 0;  ///< that are kept now
};

enum class RecordingEnd { kTime, kSignal, kFile };

struct Recording {
  std::vector<RecordingResult> services;
  RecordingEnd end = RecordingEnd::kFile;
  std::uint64_t packets = 0;
};

/// Records the clients of the services until the time is over, SIGINT, SIGTERM or SIGHUP comes, or
/// the file ends. From the network, what has come is saved each minute, and at SIGUSR1; from a
/// file, once all of it has been read. started: called once packets are being read. A Failure where
/// packets cannot be read; what came from the network before has been saved then.
Recording record(const CaptureSource& source, const std::vector<RecordedService>& services,
                 const RecordingOptions& options, const std::function<void()>& started);

}  // namespace kelotlsctl

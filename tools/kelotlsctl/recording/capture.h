// Owns the process that reads packets, from the network or from a file.
#pragma once

#include <string>
#include <vector>

#include "recording/streams.h"

namespace kelotlsctl {

struct CaptureSource {
  std::string interface;  ///< of the network; "any"; or empty:
  int file = -1;          ///< a file in one of libpcap's formats, open for reading
};

/// Opens the source, gives up all privileges, and only then reads the first packet. What it finds
/// it tells over the channel, a socket that keeps messages apart, as CaptureMessages; it ends once
/// the file does, or the other side of the channel has been shut down. For a process of its own,
/// made by fork; it does not come back.
[[noreturn]] void run_capture(const CaptureSource& source,
                              const std::vector<WatchedService>& services, int channel);

/// The packets that the kernel hands over, as libpcap's language has it: every one that may be for
/// one of these services. Headers that it cannot see through pass.
std::string capture_filter(const std::vector<WatchedService>& services, bool has_ethernet_kinds);

/// "192.0.2.7"
std::string address_text_of(const NetworkAddress& address);

}  // namespace kelotlsctl

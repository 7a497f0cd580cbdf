// Owns the streams of TCP that open connections to the watched services: from segments to openings.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "recording/opening.h"
#include "recording/packets.h"
#include "recording/pieces.h"

namespace kelotlsctl {

/// Where a service listens.
struct WatchedService {
  std::uint16_t port = 0;
  std::vector<NetworkAddress> addresses;  ///< none: any
  std::string starttls;

  bool listens_at(const NetworkAddress& address, std::uint16_t at_port) const;
};

/// The beginning of one connection, once it can be told what it is. kUnfinished: it broke off, or
/// was given up for want of space.
struct Sighting {
  std::size_t service = 0;
  Opening what = Opening::kUnfinished;
  std::time_t when = 0;
  NetworkAddress source;
  Bytes hello;
};

using SightingFunction = std::function<void(const Sighting& sighting)>;

/// Follows what clients say until their opening is known. Both directions may be given; what is not
/// on its way to a service is passed over. A connection whose beginning was not seen is not
/// followed. What it takes is bounded, whatever comes: the connections that began first are given
/// up first.
class Streams {
 public:
  static constexpr std::size_t kMostOpen = 8192;
  static constexpr std::size_t kMostKnown = 16384;
  static constexpr std::size_t kMostBytes = std::size_t{12} << 20;

  Streams(std::vector<WatchedService> services, SightingFunction report)
      : services_(std::move(services)), report_(std::move(report)) {}

  void take(const Segment& segment, std::time_t when);

  /// Nothing comes any more: connections that have begun to say something are incomplete.
  void end(std::time_t when);

  std::size_t open_count() const { return open_.size(); }
  std::size_t known_count() const { return known_.size(); }
  std::size_t cost() const { return cost_; }

 private:
  struct Key {
    NetworkAddress source;
    NetworkAddress destination;
    std::uint16_t source_port;
    std::uint16_t destination_port;

    bool operator==(const Key& other) const;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const;
  };

  /// A connection whose opening is not yet known, or is: then only its key and start are kept, so
  /// that what comes twice is not counted twice.
  struct Stream {
    Key key;
    std::size_t service = 0;
    std::uint32_t start = 0;  // the number of the first byte
    bool is_open = true;
    bool has_end = false;
    std::size_t end = 0;     // how many bytes the client says in all
    std::size_t needed = 1;  // with fewer there is nothing new to be read
    std::size_t readings = 0;
    Pieces pieces;
  };
  using Place = std::list<Stream>::iterator;

  void begin(const Key& key, std::size_t service, std::uint32_t start, std::time_t when);
  void add(Place stream, const Segment& segment, std::time_t when);
  void read(Place stream, std::time_t when);
  void close(Place stream, Opening what, std::time_t when, Bytes hello = {});
  void forget(Place stream);
  void make_room(std::time_t when);

  std::vector<WatchedService> services_;
  SightingFunction report_;
  std::list<Stream> open_;   // the one that began first in front
  std::list<Stream> known_;  // likewise
  std::unordered_map<Key, Place, KeyHash> by_key_;
  std::size_t cost_ = 0;
};

}  // namespace kelotlsctl

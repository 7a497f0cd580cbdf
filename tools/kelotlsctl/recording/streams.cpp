// Owns following streams of TCP.
#include "recording/streams.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace kelotlsctl {

namespace {

/// Beyond it somebody sends single bytes in order to have them looked at again and again.
constexpr std::size_t kMostReadings = 512;

std::size_t hash_of(const NetworkAddress& address) {
  return std::hash<std::string_view>()(
      {reinterpret_cast<const char*>(address.octets.data()), address.octets.size()});
}

}  // namespace

bool WatchedService::listens_at(const NetworkAddress& address, std::uint16_t at_port) const {
  return port == at_port && (addresses.empty() || std::find(addresses.begin(), addresses.end(),
                                                            address) != addresses.end());
}

bool Streams::Key::operator==(const Key& other) const {
  return source_port == other.source_port && destination_port == other.destination_port &&
         source == other.source && destination == other.destination;
}

std::size_t Streams::KeyHash::operator()(const Key& key) const {
  constexpr std::size_t kFactor = 31;
  return (hash_of(key.source) * kFactor + hash_of(key.destination)) * kFactor +
         (std::size_t{key.source_port} << 16 | key.destination_port);
}

void Streams::take(const Segment& segment, std::time_t when) {
  const auto service =
      std::find_if(services_.begin(), services_.end(), [&](const WatchedService& one) {
        return one.listens_at(segment.destination, segment.destination_port);
      });
  if (service == services_.end()) {
    return;
  }
  const Key key = {segment.source, segment.destination, segment.source_port,
                   segment.destination_port};
  const auto known = by_key_.find(key);
  const bool is_known = known != by_key_.end();
  if (segment.is_syn && !segment.is_ack &&
      (!is_known || known->second->start != segment.sequence + 1)) {
    if (is_known && known->second->is_open && known->second->pieces.cost() > 0) {
      close(known->second, Opening::kUnfinished, when);
    }
    begin(key, static_cast<std::size_t>(service - services_.begin()), segment.sequence + 1, when);
  }
  const auto stream = by_key_.find(key);
  if (stream != by_key_.end() && stream->second->is_open) {
    add(stream->second, segment, when);
  }
}

void Streams::begin(const Key& key, std::size_t service, std::uint32_t start, std::time_t when) {
  const auto former = by_key_.find(key);
  if (former != by_key_.end()) {
    forget(former->second);
  }
  open_.push_back({key, service, start, true, false, 0, 1, 0, {}});
  by_key_[key] = std::prev(open_.end());
  make_room(when);
}

void Streams::add(Place stream, const Segment& segment, std::time_t when) {
  // The number of a SYN is one before the first byte; what comes with it follows that.
  const std::uint32_t first = segment.sequence + (segment.is_syn ? 1 : 0);
  const auto offset = static_cast<std::int32_t>(first - stream->start);
  std::string_view bytes = segment.payload;
  bytes.remove_prefix(
      offset < 0 ? std::min(bytes.size(), static_cast<std::size_t>(-std::int64_t{offset})) : 0);
  const std::size_t at = offset < 0 ? 0 : static_cast<std::size_t>(offset);
  bytes = bytes.substr(0, at < kMostOpeningBytes ? kMostOpeningBytes - at : 0);
  cost_ -= stream->pieces.cost();
  const bool fits = stream->pieces.insert(at, bytes);
  cost_ += stream->pieces.cost();
  if (!fits) {
    close(stream, Opening::kUnfinished, when);
    return;
  }
  if (segment.is_fin && offset >= 0) {
    stream->has_end = true;
    stream->end = static_cast<std::size_t>(offset) + segment.payload.size();
  }
  read(stream, when);
  if (!stream->is_open) {
    return;
  }
  const bool is_over = stream->has_end && stream->pieces.beginning().size() >= stream->end;
  if (segment.is_reset || is_over) {
    // Who says nothing only wants to know whether anybody listens.
    if (stream->pieces.cost() == 0) {
      forget(stream);
    } else {
      close(stream, Opening::kUnfinished, when);
    }
    return;
  }
  make_room(when);
}

void Streams::read(Place stream, std::time_t when) {
  const std::string& bytes = stream->pieces.beginning();
  if (bytes.size() < stream->needed) {
    return;
  }
  const OpeningResult result = read_opening(bytes, services_[stream->service].starttls);
  stream->needed = result.needed;
  if (result.what != Opening::kUnfinished || ++stream->readings == kMostReadings) {
    close(stream, result.what, when, result.hello);
  }
}

void Streams::close(Place stream, Opening what, std::time_t when, Bytes hello) {
  cost_ -= stream->pieces.cost();
  stream->pieces = {};
  stream->is_open = false;
  known_.splice(known_.end(), open_, stream);
  report_({stream->service, what, when, stream->key.source, std::move(hello)});
  if (known_.size() > kMostKnown) {
    forget(known_.begin());
  }
}

void Streams::forget(Place stream) {
  cost_ -= stream->pieces.cost();
  by_key_.erase(stream->key);
  (stream->is_open ? open_ : known_).erase(stream);
}

void Streams::make_room(std::time_t when) {
  while (open_.size() > kMostOpen || cost_ > kMostBytes) {
    close(open_.begin(), Opening::kUnfinished, when);
  }
}

void Streams::end(std::time_t when) {
  while (!open_.empty()) {
    if (open_.front().pieces.cost() == 0) {
      forget(open_.begin());
    } else {
      close(open_.begin(), Opening::kUnfinished, when);
    }
  }
}

}  // namespace kelotlsctl

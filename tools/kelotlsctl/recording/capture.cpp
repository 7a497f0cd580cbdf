// Owns reading packets where nothing can come of it but messages.
#include "recording/capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "output/console.h"
#include "recording/channel.h"
#include "system/confinement.h"

namespace kelotlsctl {

namespace {

constexpr int kSnapshotBytes = 262144;  // nothing that a network card puts together is larger
constexpr int kBufferBytes = 16 << 20;  // what comes while a record is being written waits here
constexpr int kWaitMilliseconds = 100;

using Clock = std::chrono::steady_clock;
using Handle = std::unique_ptr<pcap_t, decltype(&::pcap_close)>;

class Capture {
 public:
  Capture(const std::vector<WatchedService>& services, int channel)
      : channel_(channel),
        unread_(services.size()),
        streams_(services, [this](const Sighting& sighting) { see(sighting); }) {}

  void run(const CaptureSource& source, const std::vector<WatchedService>& services) {
    const bool is_live = !source.interface.empty();
    Handle handle = is_live ? open_live(source.interface, services) : open_file(source.file);
    require_known(::pcap_datalink(handle.get()));
    packets_ = std::make_unique<PacketReader>(::pcap_datalink(handle.get()));
    tell(CaptureMessage());
    if (is_live) {
      read_live(handle.get());
    } else {
      read_file(handle.get());
    }
    streams_.end(last_);
    tell_unread();
    CaptureMessage end;
    end.kind = CaptureMessage::Kind::kEnd;
    end.first = first_;
    end.last = last_;
    end.number = count_;
    tell(end);
    // The libraries' own endings ask for more than is left to this process.
    static_cast<void>(handle.release());
  }

  void tell(const CaptureMessage& message) const {
    const std::string bytes = encode_message(message);
    ssize_t written = 0;
    do {
      written = ::write(channel_, bytes.data(), bytes.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
      ::_exit(1);  // the other side has gone, and nobody listens
    }
  }

 private:
  /// The headers of a file are a stranger's already.
  static Handle open_file(int descriptor) {
    static char buffer[1 << 16];
    std::FILE* const file = ::fdopen(descriptor, "rb");
    if (file == nullptr) {
      throw system_failure("the file of packets");
    }
    // A buffer of its own: the library would ask for the file's status in order to choose one.
    static_cast<void>(std::setvbuf(file, buffer, _IOFBF, sizeof buffer));
    confine();
    char fault[PCAP_ERRBUF_SIZE] = "";
    Handle handle(::pcap_fopen_offline(file, fault), ::pcap_close);
    if (handle == nullptr) {
      throw Failure(kFailed, fault);
    }
    return handle;
  }

  static void require_known(int link) {
    if (!is_known_link(link)) {
      throw Failure(kFailed, "packets of the link " + std::to_string(link) +
                                 " are not understood; Ethernet, Linux's own, raw IP, loopback "
                                 "and PPP are");
    }
  }

  static void require(int result, pcap_t* handle) {
    if (result < 0) {
      const std::string detail = ::pcap_geterr(handle);
      throw Failure(kFailed, ::pcap_statustostr(result) + (detail.empty() ? "" : ": " + detail));
    }
  }

  static Handle open_live(const std::string& interface,
                          const std::vector<WatchedService>& services) {
    char fault[PCAP_ERRBUF_SIZE] = "";
    Handle handle(::pcap_create(interface.c_str(), fault), ::pcap_close);
    if (handle == nullptr) {
      throw Failure(kFailed, fault);
    }
    pcap_t* const live = handle.get();
    ::pcap_set_snaplen(live, kSnapshotBytes);
    ::pcap_set_promisc(live, 0);
    ::pcap_set_timeout(live, kWaitMilliseconds);
    ::pcap_set_buffer_size(live, kBufferBytes);
    require(::pcap_activate(live), live);
    require(::pcap_setdirection(live, PCAP_D_IN), live);
    set_filter(live, services);
    require(::pcap_setnonblock(live, 1, fault), live);
    confine();
    return handle;
  }

  static void set_filter(pcap_t* live, const std::vector<WatchedService>& services) {
    bpf_program program = {};
    int result = ::pcap_compile(live, &program, capture_filter(services, true).c_str(), 1,
                                PCAP_NETMASK_UNKNOWN);
    if (result < 0) {  // a link without Ethernet's numbers of kinds
      result = ::pcap_compile(live, &program, capture_filter(services, false).c_str(), 1,
                              PCAP_NETMASK_UNKNOWN);
    }
    require(result, live);
    require(::pcap_setfilter(live, &program), live);
    ::pcap_freecode(&program);
  }

  static void take(unsigned char* capture, const pcap_pkthdr* header, const unsigned char* bytes) {
    reinterpret_cast<Capture*>(capture)->take(*header, bytes);
  }

  void take(const pcap_pkthdr& header, const unsigned char* bytes) {
    const auto when =
        static_cast<std::time_t>(std::clamp<std::int64_t>(header.ts.tv_sec, 0, kMostMessageTime));
    first_ = count_ == 0 ? when : std::min(first_, when);
    last_ = std::max(last_, when);
    ++count_;
    const auto segment =
        packets_->read({reinterpret_cast<const char*>(bytes), header.caplen}, when);
    if (segment) {
      streams_.take(*segment, when);
    }
  }

  void read_file(pcap_t* handle) {
    require(::pcap_dispatch(handle, 0, take, reinterpret_cast<unsigned char*>(this)), handle);
  }

  void read_live(pcap_t* handle) {
    pollfd waiting[] = {{::pcap_get_selectable_fd(handle), POLLIN, 0}, {channel_, POLLIN, 0}};
    while (waiting[1].revents == 0) {
      static_cast<void>(::poll(waiting, 2, -1));
      dispatch(handle);
    }
    // What the kernel has but did not hand over yet, it does within its time of waiting.
    const auto end = Clock::now() + std::chrono::milliseconds(2 * kWaitMilliseconds);
    while (Clock::now() < end) {
      static_cast<void>(::poll(waiting, 1, kWaitMilliseconds));
      dispatch(handle);
    }
    tell_drops(handle);
  }

  void dispatch(pcap_t* handle) {
    require(::pcap_dispatch(handle, -1, take, reinterpret_cast<unsigned char*>(this)), handle);
    tell_unread();
    if (Clock::now() > asked_drops_ + std::chrono::seconds(1)) {
      tell_drops(handle);
    }
  }

  void see(const Sighting& sighting) {
    UnreadConnections& unread = unread_[sighting.service];
    switch (sighting.what) {
      case Opening::kHello: {
        CaptureMessage message;
        message.kind = CaptureMessage::Kind::kHello;
        message.service = sighting.service;
        message.first = message.last = sighting.when;
        message.source = sighting.source;
        message.text = sighting.hello;
        tell(message);
        break;
      }
      case Opening::kNotTls:
        ++unread.not_tls;
        break;
      case Opening::kSsl2Hello:
        ++unread.ssl2;
        break;
      case Opening::kTooLarge:
        ++unread.too_large;
        break;
      case Opening::kUnfinished:
        ++unread.incomplete;
        break;
    }
  }

  void tell_unread() {
    for (std::size_t service = 0; service < unread_.size(); ++service) {
      UnreadConnections& unread = unread_[service];
      if (unread.any()) {
        CaptureMessage message;
        message.kind = CaptureMessage::Kind::kUnread;
        message.service = service;
        message.unread = unread;
        tell(message);
        unread = {};
      }
    }
  }

  void tell_drops(pcap_t* handle) {
    pcap_stat statistics = {};
    asked_drops_ = Clock::now();
    if (::pcap_stats(handle, &statistics) == 0 && statistics.ps_drop != drops_) {
      CaptureMessage message;
      message.kind = CaptureMessage::Kind::kKernelDrops;
      message.number = statistics.ps_drop - drops_;  // the counter may begin anew
      drops_ = statistics.ps_drop;
      tell(message);
    }
  }

  const int channel_;
  std::vector<UnreadConnections> unread_;
  Streams streams_;
  std::unique_ptr<PacketReader> packets_;
  std::time_t first_ = 0;
  std::time_t last_ = 0;
  std::uint64_t count_ = 0;
  unsigned int drops_ = 0;
  Clock::time_point asked_drops_ = Clock::now();
};

std::string any_of(const std::vector<std::string>& conditions) {
  std::string text;
  for (const std::string& condition : conditions) {
    text += (text.empty() ? "(" : " or (") + condition + ")";
  }
  return text;
}

}  // namespace

std::string address_text_of(const NetworkAddress& address) {
  char text[INET6_ADDRSTRLEN] = "";
  ::inet_ntop(address.version == 4 ? AF_INET : AF_INET6, address.octets.data(), text, sizeof text);
  return text;
}

std::string capture_filter(const std::vector<WatchedService>& services, bool has_ethernet_kinds) {
  std::vector<std::string> conditions;
  for (const WatchedService& service : services) {
    std::vector<std::string> hosts;
    for (const NetworkAddress& address : service.addresses) {
      hosts.push_back("dst host " + address_text_of(address));
    }
    conditions.push_back("tcp dst port " + std::to_string(service.port) +
                         (hosts.empty() ? "" : " and (" + any_of(hosts) + ")"));
  }
  conditions.emplace_back("ip proto 6 and ip[6:2] & 0x1fff != 0");  // fragments but the first
  for (const char* const header : {"0", "43", "44", "51", "60"}) {  // before TCP in IPv6
    conditions.push_back(std::string("ip6[6] == ") + header);
  }
  if (has_ethernet_kinds) {  // tags of networks, and what dials in
    for (const char* const kind : {"0x8100", "0x88a8", "0x9100", "0x8864"}) {
      conditions.push_back(std::string("ether proto ") + kind);
    }
  }
  return any_of(conditions);
}

void run_capture(const CaptureSource& source, const std::vector<WatchedService>& services,
                 int channel) {
  Capture capture(services, channel);
  try {
    capture.run(source, services);
  } catch (const std::exception& exception) {
    CaptureMessage fault;
    fault.kind = CaptureMessage::Kind::kFault;
    fault.text = std::string(exception.what()).substr(0, 1000);
    capture.tell(fault);
  }
  ::_exit(0);
}

}  // namespace kelotlsctl

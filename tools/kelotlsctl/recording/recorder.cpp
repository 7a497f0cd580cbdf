// Owns recording clients.
#include "recording/recorder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>

#include "output/console.h"
#include "recording/channel.h"
#include "system/confinement.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kSavingInterval{60};

/// The signals that end a recording, and the one that saves.
sigset_t signals_of_recording() {
  sigset_t signals = ending_signals();
  ::sigaddset(&signals, SIGUSR1);
  return signals;
}

/// While it lives, those signals wait to be read.
class WaitingSignals {
 public:
  WaitingSignals() { ::sigprocmask(SIG_BLOCK, &signals_, &former_); }
  ~WaitingSignals() {
    // One that comes while the recording ends already asks for nothing more.
    while (next() != 0) {
    }
    ::sigprocmask(SIG_SETMASK, &former_, nullptr);
  }
  WaitingSignals(const WaitingSignals&) = delete;
  WaitingSignals& operator=(const WaitingSignals&) = delete;

  int descriptor() const { return descriptor_.get(); }

  /// 0: none is waiting.
  int next() const {
    signalfd_siginfo signal = {};
    return ::read(descriptor_.get(), &signal, sizeof signal) == sizeof signal
               ? static_cast<int>(signal.ssi_signo)
               : 0;
  }

 private:
  const sigset_t signals_ = signals_of_recording();
  sigset_t former_ = {};
  const kelotls::Descriptor descriptor_{::signalfd(-1, &signals_, SFD_CLOEXEC | SFD_NONBLOCK)};
};

/// The process that reads packets.
class ReadingProcess {
 public:
  ReadingProcess(const CaptureSource& source, const std::vector<WatchedService>& services) {
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw system_failure("a channel between processes");
    }
    channel_ = std::make_unique<kelotls::Descriptor>(ends[0]);
    const kelotls::Descriptor other(ends[1]);
    const pid_t parent = ::getpid();
    process_ = ::fork();
    if (process_ < 0) {
      throw system_failure("a new process");
    }
    if (process_ == 0) {
      start(source, services, other.get(), parent);
    }
  }
  ~ReadingProcess() {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      wait();
    }
  }
  ReadingProcess(const ReadingProcess&) = delete;
  ReadingProcess& operator=(const ReadingProcess&) = delete;

  int channel() const { return channel_->get(); }

  /// It reads what there is still, and ends.
  void ask_to_end() const { ::shutdown(channel_->get(), SHUT_WR); }

  /// False: there is nothing more.
  bool receive(std::string& bytes) const {
    bytes.resize(kMostMessageBytes + 1);
    const ssize_t size = ::recv(channel_->get(), &bytes[0], bytes.size(), 0);
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0 || (size < 0 && errno == EINTR);
  }

  /// How it ended, in words; empty for well. Where it has not, it is ended: it may wait for the
  /// channel.
  std::string ending(bool has_ended) {
    if (!has_ended) {
      ::kill(process_, SIGKILL);
    }
    const int status = wait();
    process_ = -1;
    return WIFSIGNALED(status)
               ? "the process that reads packets was ended by signal " +
                     std::to_string(WTERMSIG(status)) + " (" + ::strsignal(WTERMSIG(status)) + ")"
           : WEXITSTATUS(status) != 0 ? "the process that reads packets failed"
                                      : "";
  }

 private:
  [[noreturn]] static void start(const CaptureSource& source,
                                 const std::vector<WatchedService>& services, int channel,
                                 pid_t parent) {
    try {
      close_descriptors_but({source.file, channel});
    } catch (const Failure&) {
      ::_exit(1);
    }
    end_with_parent();
    if (::getppid() != parent) {
      ::_exit(1);  // it has ended already
    }
    run_capture(source, services, channel);
  }

  int wait() const {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
  }

  std::unique_ptr<kelotls::Descriptor> channel_;
  pid_t process_ = -1;
};

int open_record_lock(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600);
  if (file < 0) {
    throw system_failure(path);
  }
  return file;
}

/// One recording: who is recorded, and what comes of it.
class Recorder {
 public:
  Recorder(const CaptureSource& source, const std::vector<RecordedService>& services,
           const RecordingOptions& options)
      : is_live_(!source.interface.empty()), options_(options), began_(std::time(nullptr)) {
    std::vector<WatchedService> watched;
    for (const RecordedService& service : services) {
      watched.push_back(service.watched);
      locks_.emplace_back(service.name);
    }
    // Before there is anything in memory that is no business of the one that reads packets.
    reader_ = std::make_unique<ReadingProcess>(source, watched);
    for (const RecordedService& service : services) {
      records_.push_back(ClientRecords::load(service.name));
      records_.back().set_limit(options.limit);
      recording_.services.push_back({service.name, 0, 0, {}, 0, 0});
    }
  }

  Recording run(const std::function<void()>& started) {
    recording_.end = RecordingEnd::kFile;
    while (!is_over_) {
      wait();
      take_signals();
      if (is_late()) {
        stop(RecordingEnd::kTime);
      }
      if (is_readable_) {
        take_message(started);
      }
      if (is_live_ && Clock::now() >= next_save_) {
        save();
      }
    }
    conclude();
    return recording_;
  }

 private:
  void wait() {
    const auto until =
        options_.duration && !is_stopping_ ? std::min(deadline(), next_save_) : next_save_;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count() + 1;
    pollfd waiting[] = {{reader_->channel(), POLLIN, 0}, {signals_.descriptor(), POLLIN, 0}};
    static_cast<void>(::poll(waiting, 2, static_cast<int>(std::max<std::int64_t>(left, 0))));
    is_readable_ = waiting[0].revents != 0;
  }

  Clock::time_point deadline() const { return started_ + *options_.duration; }
  bool is_late() const { return options_.duration && Clock::now() >= deadline(); }

  void take_signals() {
    for (int signal = signals_.next(); signal != 0; signal = signals_.next()) {
      if (signal != SIGUSR1) {
        stop(RecordingEnd::kSignal);
      } else if (is_live_) {
        save();
      }
    }
  }

  void stop(RecordingEnd end) {
    if (!is_stopping_) {
      recording_.end = end;
      reader_->ask_to_end();
    }
    is_stopping_ = true;
    is_over_ = !is_live_;  // there is no use in a part of a file
  }

  void take_message(const std::function<void()>& started) {
    std::string bytes;
    if (!reader_->receive(bytes)) {
      is_over_ = true;
      return;
    }
    if (bytes.empty()) {
      return;
    }
    const auto message = decode_message(bytes, records_.size());
    if (!message || has_ended_) {
      fault_ = "the process that reads packets said what it never says";
      is_over_ = true;
      return;
    }
    take(*message, started);
  }

  void take(const CaptureMessage& message, const std::function<void()>& started) {
    ClientRecords& records = records_[message.service];
    RecordingResult& result = recording_.services[message.service];
    switch (message.kind) {
      case CaptureMessage::Kind::kReady:
        has_started_ = true;
        started();
        break;
      case CaptureMessage::Kind::kHello:
        add(message, records, result);
        break;
      case CaptureMessage::Kind::kUnread:
        records.count_unread(message.unread);
        result.unread += message.unread;
        break;
      case CaptureMessage::Kind::kKernelDrops:
        add_drops(message.number);
        break;
      case CaptureMessage::Kind::kEnd:
        has_ended_ = true;
        end_ = message;
        break;
      case CaptureMessage::Kind::kFault:
        fault_ = message.text;
        is_over_ = true;
        break;
    }
  }

  void add(const CaptureMessage& message, ClientRecords& records, RecordingResult& result) {
    if (is_own_hello(message.text)) {
      return;
    }
    const std::uint64_t before = records.hellos().size() + records.left_out_hellos();
    records.add(message.text, is_live_ ? std::time(nullptr) : message.first,
                kept_address(message.source, options_.addresses));
    ++result.connections;
    result.new_hellos += records.hellos().size() + records.left_out_hellos() - before;
  }

  /// Whose packets they were nobody knows.
  void add_drops(std::uint64_t drops) {
    for (std::size_t i = 0; i < records_.size(); ++i) {
      records_[i].count_kernel_drops(drops);
      recording_.services[i].kernel_drops += drops;
    }
  }

  void save() {
    const std::time_t until = is_live_ ? std::time(nullptr) : end_.last;
    for (ClientRecords& records : records_) {
      records.cover(is_live_ ? began_ : end_.first, until);
      records.save();
    }
    next_save_ = Clock::now() + kSavingInterval;
  }

  /// From a file nothing is kept unless all of it could be read: it can be read again.
  void conclude() {
    const std::string ending = reader_->ending(has_ended_);
    if (!is_live_ && is_stopping_) {
      fault_ = "it was interrupted";
    }
    if (fault_.empty() && !has_ended_) {
      fault_ = ending.empty() ? "the process that reads packets has gone" : ending;
    }
    if (is_live_ ? has_started_ : fault_.empty() && end_.number > 0) {
      save();
    }
    if (!fault_.empty()) {
      throw Failure(kFailed, "packets cannot be read: " + printable(fault_));
    }
    recording_.packets = end_.number;
    for (std::size_t i = 0; i < records_.size(); ++i) {
      recording_.services[i].hellos = records_[i].hellos().size();
    }
  }

  const bool is_live_;
  const RecordingOptions options_;
  const std::time_t began_;
  const Clock::time_point started_ = Clock::now();
  Clock::time_point next_save_ = started_ + kSavingInterval;
  const WaitingSignals signals_;
  std::list<RecordLock> locks_;
  std::unique_ptr<ReadingProcess> reader_;
  std::vector<ClientRecords> records_;
  Recording recording_;
  CaptureMessage end_;
  std::string fault_;
  bool has_started_ = false;
  bool has_ended_ = false;
  bool is_over_ = false;
  bool is_stopping_ = false;
  bool is_readable_ = false;
};

}  // namespace

std::string kept_address(const NetworkAddress& address, const AddressRule& rule) {
  const bool is_ipv4 = address.version == 4;
  const int all = is_ipv4 ? 32 : 128;
  const int bits = is_ipv4 ? rule.ipv4_bits : rule.ipv6_bits;
  NetworkAddress kept = address;
  for (int octet = 0; octet < all / 8; ++octet) {
    const int of_octet = std::clamp(bits - 8 * octet, 0, 8);
    std::uint8_t& value = kept.octets[static_cast<std::size_t>(octet)];
    value = static_cast<std::uint8_t>(value & 0xff00 >> of_octet);
  }
  return !rule.keeps_any ? ""
                         : address_text_of(kept) + (bits < all ? "/" + std::to_string(bits) : "");
}

RecordLock::RecordLock(const std::string& service)
    : file_(open_record_lock(ClientRecords::lock_path_of(service))) {
  if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw errno == EWOULDBLOCK
        ? Failure(kFailed, "the clients of " + printable(service) + " are being recorded already",
                  "Nothing was changed. What records them saves at SIGUSR1, and ends at SIGTERM.")
        : system_failure(ClientRecords::lock_path_of(service));
  }
}

Recording record(const CaptureSource& source, const std::vector<RecordedService>& services,
                 const RecordingOptions& options, const std::function<void()>& started) {
  return Recorder(source, services, options).run(started);
}

}  // namespace kelotlsctl

// Every operation with each of its allocations failing in turn: the n-th operator new, the n-th
// malloc, calloc or realloc (of OpenSSL, jsoncpp, the C library), and everything from the n-th on,
// until the operation gets through. Each must end in an exception for lack of memory, in a failure
// that the contract states, or in success; with every block and descriptor given back, and every
// file the old one or the new one.
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>

#include <json/json.h>

#include "interpose.h"
#include "kelocore.h"
#include "kelotls/api_provider.h"
#include "kelotls/data_store_provider.h"
#include "report.h"

// The allocator

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace {

/// The live blocks that were made while the allocator was armed.
class LiveBlocks {
 public:
  long count() const { return count_; }

  void add(void* block) {
    if (block == nullptr) {
      return;
    }
    if (++count_ > static_cast<long>(kSlots / 2)) {
      ::abort();
    }
    slots_[find(nullptr, home(block))] = block;
  }

  bool remove(void* block) {
    if (count_ == 0 || block == nullptr) {
      return false;
    }
    std::size_t gap = find(block, home(block));
    if (slots_[gap] == nullptr) {
      return false;
    }
    --count_;
    // A block that was stored after the gap only because its own slot was taken moves into the
    // gap.
    for (std::size_t next = after(gap); slots_[next] != nullptr; next = after(next)) {
      if (((next - home(slots_[next])) & (kSlots - 1)) >= ((next - gap) & (kSlots - 1))) {
        slots_[gap] = slots_[next];
        gap = next;
      }
    }
    slots_[gap] = nullptr;
    return true;
  }

 private:
  static constexpr int kSlotBits = 14;
  static constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;

  static std::size_t home(const void* block) {
    const std::uint64_t mixed =
        (reinterpret_cast<std::uintptr_t>(block) >> 4) * std::uint64_t{0x9E3779B97F4A7C15};
    return static_cast<std::size_t>(mixed >> (64 - kSlotBits));
  }
  static std::size_t after(std::size_t slot) { return (slot + 1) & (kSlots - 1); }

  /// The first slot, from this one on, that holds the block or is free.
  std::size_t find(const void* block, std::size_t slot) const {
    while (slots_[slot] != nullptr && slots_[slot] != block) {
      slot = after(slot);
    }
    return slot;
  }

  void* slots_[kSlots] = {};
  long count_ = 0;
};

constexpr unsigned kNew = 1;
constexpr unsigned kMalloc = 2;

/// Which allocations fail, and what has been made since.
struct Allocator {
  bool armed = false;
  unsigned kinds = 0;
  long failing = 0;  // the first one that fails, counted among those kinds
  bool all_later = false;
  long count = 0;
  LiveBlocks live;

  bool is_making_context = false;
  bool has_failed_context = false;  // an allocation while a context was made
  LiveBlocks of_contexts;           // made meanwhile

  bool refuses(unsigned kind) {
    if (!armed || (kinds & kind) == 0 || ++count < failing || (count > failing && !all_later)) {
      return false;
    }
    has_failed_context = has_failed_context || is_making_context;
    errno = ENOMEM;
    return true;
  }
  void* keep(void* block) {
    if (armed) {
      (is_making_context ? of_contexts : live).add(block);
    }
    return block;
  }
  bool forget(void* block) { return live.remove(block) || of_contexts.remove(block); }
};
Allocator allocator;

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  return allocator.refuses(kMalloc) ? nullptr : allocator.keep(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
  return allocator.refuses(kMalloc) ? nullptr : allocator.keep(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) {
  if (allocator.refuses(kMalloc)) {
    return nullptr;
  }
  const bool is_new = allocator.forget(block) || block == nullptr;
  void* const moved = __libc_realloc(block, size);
  void* const live = moved == nullptr && size != 0 ? block : moved;
  return is_new ? (allocator.keep(live), moved) : moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return allocator.refuses(kMalloc) ? nullptr : allocator.keep(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  *block = aligned_alloc(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) {
  const int error = errno;
  allocator.forget(block);
  __libc_free(block);
  errno = error;
}

}  // extern "C"

void* operator new(std::size_t size) {
  void* const block = allocator.refuses(kNew) ? nullptr : __libc_malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return allocator.keep(block);
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept { free(block); }
void operator delete[](void* block) noexcept { free(block); }
void operator delete(void* block, std::size_t) noexcept { free(block); }
void operator delete[](void* block, std::size_t) noexcept { free(block); }

// Gives back what the library leaves on purpose. Once the line of a deliberate leak is logged,
// exactly its blocks are released here, and then nothing may be left. Contexts are counted apart:
// when OpenSSL 3 meets a failure while it makes one, it keeps a block for itself, and only such a
// block is ignored.

namespace {

int open_contexts = 0;
std::FILE* dh_file = nullptr;
BIO* memory_bio = nullptr;
KLIBCSzList* listed = nullptr;

}  // namespace

using kelotls::test::next_definition;

extern "C" {

// The library calls fopen by its name for large files.
std::FILE* fopen(const char* path, const char* mode) {
  static auto* const original = next_definition<decltype(fopen)>("fopen64");
  std::FILE* const file = original(path, mode);
  if (std::strncmp(path, kelotls::test::kSslDir, sizeof kelotls::test::kSslDir - 1) == 0) {
    dh_file = file;
  }
  return file;
}

SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  static auto* const original = next_definition<decltype(SSL_CTX_new)>("SSL_CTX_new");
  allocator.is_making_context = true;
  SSL_CTX* const context = original(method);
  allocator.is_making_context = false;
  open_contexts += context != nullptr ? 1 : 0;
  return context;
}

void SSL_CTX_free(SSL_CTX* context) {
  static auto* const original = next_definition<decltype(SSL_CTX_free)>("SSL_CTX_free");
  original(context);
  open_contexts -= context != nullptr && !allocator.is_making_context ? 1 : 0;
}

BIO* BIO_new(const BIO_METHOD* method) {
  static auto* const original = next_definition<decltype(BIO_new)>("BIO_new");
  BIO* const bio = original(method);
  if (method == BIO_s_mem()) {
    memory_bio = bio;
  }
  return bio;
}

int KLIBCFileEnumDir(const char* directory, const char* pattern, KLIBCSzList** list, int flags) {
  static auto* const original = next_definition<decltype(KLIBCFileEnumDir)>("KLIBCFileEnumDir");
  const int result = original(directory, pattern, list, flags);
  listed = *list;
  return result;
}

}  // extern "C"

namespace kelotls::test {
namespace {

constexpr char kNoMemory[] = "an exception for lack of memory";
constexpr long kLeastPoints = 8'000;

// Too long for a string's own buffer, so that each copy of it allocates.
constexpr char kModern[] = "service-at-level-modern";
constexpr char kIntermediate[] = "service-at-level-intermediate";
constexpr char kOld[] = "service-at-level-old";
constexpr char kNewcomer[] = "service-that-is-about-to-join";
constexpr char kTemplate[] = "/usr/kelo/etc/service.conf.mustache";
constexpr char kSaved[] = "/usr/kelo/etc/saved-data-store.json";

// The operations

bool begins_with(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

/// What an operation gave.
struct Outcome {
  int number = 0;
  Json::Value value;
  SSL_CTX* context = nullptr;
  Lines installed;
};

/// A line that an operation may log for lack of memory, and the result that goes with it.
struct Failure {
  const char* line;    // how it begins
  const char* result;  // null: that of a run without faults
};

/// When an operation writes the data store, compared with its other files.
enum class Order { kAny, kDataStoreLast, kDataStoreFirst };

struct Operation {
  std::string name;
  std::function<void(Outcome&)> run;
  std::vector<Failure> failures = {};
  std::function<void()> prepare = [] {};
  Order order = Order::kAny;
  bool leaves_temporaries = false;
  bool is_acquisition = false;
  bool is_warm_only = false;  // OpenSSL's own start is long, and the same for all acquisitions
  bool has_dh_file = false;   // that can be opened
};

std::string conf(const char* directory, const std::string& name) {
  return directory + name + ".conf";
}

Json::Value registration_element(const std::string& name) {
  Json::Value element;
  element["service"] = name;
  element["display-name"] = "The display name of " + name;
  element["display-name-i18n"] = "translations:display-name-of-" + name;
  element["mustache-path"] = kTemplate;
  element["reloader-path"] = "/usr/local/share/reloader-of-" + name;
  return element;
}

Json::Value registration(const std::vector<std::string>& names) {
  Json::Value value;
  value["system-service"] = false;
  for (const std::string& name : names) {
    value["services"].append(registration_element(name));
  }
  return value;
}

ServiceDesc service_desc(const std::string& name) {
  ServiceDesc desc;
  desc.from_json(registration_element(name));
  return desc;
}

/// Three services that have joined, each with all of its files.
void make_tree() {
  for (const char* top :
       {"/usr/kelo", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile"}) {
    for (const auto& entry : std::filesystem::directory_iterator(top)) {
      std::filesystem::remove_all(entry);
    }
  }
  make_framework_directories();
  write_file(kDataStore, data_store_text(2, {{kModern, "1"}, {kIntermediate, "2"}, {kOld, "3"}}));
  write_file(kSaved, data_store_text(3, {{kModern, "3"}, {"service-that-has-left", "2"}}));
  write_file(kTemplate,
             "{{#mozilla_old}}every protocol{{/mozilla_old}}{{^mozilla_old}}new "
             "protocols{{/mozilla_old}} of this service\n");
  for (const std::string name : {kModern, kIntermediate, kOld}) {
    write_file(conf(kServices, name), registration_element(name).toStyledString());
    write_file(conf(kConfig, name), "an old configuration of " + name);
    std::filesystem::create_symlink("/bin/true", conf(kPackageReloaders, name));
  }
  write_file(conf(kServices, kNewcomer), registration_element(kNewcomer).toStyledString());
  std::filesystem::create_symlink("/bin/false", conf(kSystemReloaders, "a-reloader-that-fails"));
}

/// The acquisition at one level, with one state of its DH file: "good", "missing" or "corrupt".
Operation acquisition(const std::string& service, const std::string& file,
                      const std::string& state) {
  Operation operation;
  operation.name = "acquire " + service + ", " + (file.empty() ? "no" : state) + " DH file";
  operation.run = [service](Outcome& outcome) {
    outcome.context = APIProvider().acquire_server_context(service);
  };
  operation.failures = {
      {"api_provider.cpp:409 New ssl ctx failed.. [(null)]", "no context"},
      {"api_provider.cpp:409 Set TLS 1.2 cipher list failed.. [(null)]", "no context"},
      {"api_provider.cpp:409 Set TLS 1.3 cipher list failed.. [(null)]", "no context"},
      {"api_provider.cpp:409 Set EC curve failed. [(null)]", "no context"},
      {"api_provider.cpp:402 Fatal Error. new bio failed.", "no context"},
      {"profile_config.cpp:83 Open dhparam file failed. [12]", nullptr},
      {"profile_config.cpp:95 New ssl ctx failed. [", nullptr}};
  static const std::map<std::string, std::string> texts = {
      {"dh1024.pem", test_data("bed/data/dh1024.pem")},
      {"dh2048.pem", test_data("bed/data/dh2048.pem")}};
  operation.is_acquisition = true;
  operation.is_warm_only = service != kIntermediate || state != "good";
  operation.has_dh_file = !file.empty() && state != "missing";
  operation.prepare = [file, state] {
    if (state != "missing" && !file.empty()) {
      std::string text = texts.at(file);
      write_file(kSslDir + file, state == "good" ? text : text.replace(60, 20, 20, '#'));
    }
  };
  return operation;
}

std::vector<Operation> acquisitions() {
  std::vector<Operation> all = {acquisition(kModern, "", "")};
  for (const char* state : {"good", "missing", "corrupt"}) {
    all.push_back(acquisition(kIntermediate, "dh2048.pem", state));
    all.push_back(acquisition(kOld, "dh1024.pem", state));
  }
  return all;
}

std::vector<Operation> level_operations() {
  static const std::string service = kIntermediate;
  const auto set_service_level = [](Outcome& outcome) {
    outcome.number = DataStoreProvider().set_service_level(service, TLS_PROFILE_LEVEL_OLD);
  };
  const auto set_default_level = [](Outcome&) {
    DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_MODERN);
  };
  const auto break_data_store = [] { write_file(kDataStore, "{\"services\": {}}"); };
  return {
      {"set a service's level", set_service_level},
      {"set the default level", set_default_level},
      {"set a service's level, unusable data store", set_service_level, {}, break_data_store},
      {"set the default level, unusable data store", set_default_level, {}, break_data_store},
      {"get a service's level",
       [](Outcome& outcome) { outcome.number = DataStoreProvider().get_service_level(service); }},
      {"get the default level",
       [](Outcome& outcome) { outcome.number = DataStoreProvider().get_default_level(); }},
      {"list the services",
       [](Outcome& outcome) { outcome.value = DataStoreProvider().list_services(); }},
  };
}

std::vector<Operation> file_operations() {
  static const std::string joined = kOld;
  static const std::string reloader = "/usr/local/share/another-reloader";
  static const ServiceDesc desc = service_desc(kNewcomer);
  static const Json::Value element = registration_element(kNewcomer);
  return {
      {"install a descriptor",
       [](Outcome& outcome) {
         outcome.number = APIProvider().install_service_descriptor(joined, desc, outcome.installed);
       }},
      {"uninstall a descriptor",
       [](Outcome& outcome) {
         outcome.number = APIProvider().uninstall_service_descriptor(joined);
       }},
      {"link a reloader",
       [](Outcome& outcome) {
         outcome.number =
             APIProvider().install_service_reloader(joined, reloader, outcome.installed);
       }},
      {"unlink a reloader",
       [](Outcome& outcome) { outcome.number = APIProvider().uninstall_service_reloader(joined); }},
      {"clean a rendered file up",
       [](Outcome& outcome) { outcome.number = APIProvider().cleanup_service_template(joined); }},
      {"a descriptor's JSON", [](Outcome& outcome) { outcome.value = desc.to_json(); }},
      {"a descriptor from JSON",
       [](Outcome& outcome) {
         ServiceDesc filled;
         outcome.number = filled.from_json(element);
       }},
  };
}

std::vector<Operation> framework_operations() {
  static const Json::Value joining = registration({kOld, kNewcomer});
  static const Json::Value leaving = registration({kOld, kModern});
  static const std::string saved = kSaved;
  const auto nothing = [] {};
  const auto add_foreign_file = [] { write_file(conf(kServices, "a-foreign-file"), "text"); };
  return {
      {"join",
       [](Outcome& outcome) { outcome.number = APIProvider().join_framework(joining); },
       {},
       nothing,
       Order::kDataStoreLast},
      {"leave",
       [](Outcome& outcome) { outcome.number = APIProvider().leave_framework(leaving); },
       {},
       nothing,
       Order::kDataStoreFirst},
      {"restore",
       [](Outcome& outcome) { outcome.number = APIProvider().restore_framework(saved); }},
      {"regenerate",
       [](Outcome& outcome) { outcome.number = APIProvider().regen_framework_config(); },
       {{"api_provider.cpp:364 Fail to list dir /usr/kelo/etc/security-profile/tls-profile/config/",
         "-1"}},
       add_foreign_file},
      {"render",
       [](Outcome& outcome) { outcome.number = APIProvider().render_service_template(); },
       {{"api_provider.cpp:220 Failed to update /usr/kelo/etc/security-profile/tls-profile/config/",
         nullptr}},
       nothing,
       Order::kAny,
       true},
      {"run the reloaders",
       [](Outcome& outcome) { outcome.number = APIProvider().execute_service_reloader(); },
       {{"api_provider.cpp:332 Fail to list dir /usr/kelo/etc/security-profile/tls-profile/config/",
         "-1"},
        {"api_provider.cpp:346 KLIBCExec failed. [12]", nullptr}}},
  };
}

/// The operations whose names begin so.
std::vector<Operation> operations_named(const std::string& name) {
  std::vector<Operation> all;
  for (const auto& some :
       {level_operations(), file_operations(), framework_operations(), acquisitions()}) {
    std::copy_if(some.begin(), some.end(), std::back_inserter(all),
                 [&](const Operation& operation) { return begins_with(operation.name, name); });
  }
  return all;
}

// One run of an operation

/// The system log, read without a thread, so that this process can fork at any moment.
class LogSocket {
 public:
  LogSocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {AF_UNIX, "/dev/log"};
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("/dev/log");
    }
    ::openlog("sweep", LOG_NDELAY, LOG_USER);
  }

  /// The lines since the last call, without priority, time and program.
  std::string take() const {
    std::string lines;
    char line[4096];
    ssize_t length = 0;
    while ((length = ::recv(socket_, line, sizeof line, 0)) >= 0) {
      std::string text(line, static_cast<std::size_t>(length));
      std::replace(text.begin(), text.end(), '\n', ' ');  // in OpenSSL's reasons
      lines += text.substr(text.find("sweep: ") + 7) + "\n";
    }
    return lines;
  }

 private:
  int socket_;
};

/// What the process that ran an operation tells the one that judges it.
struct Told {
  char result[16384];
  char log[8192];  // its lines
  bool threw;
  bool reached;        // there was an allocation to fail
  bool errors_queued;  // of OpenSSL
  long blocks;         // not given back
  long descriptors;    // opened and not closed
  int contexts;        // not given back
};

/// What can be seen of a run.
struct Observation {
  std::string result;
  Lines log;
  std::map<std::string, std::string> files;  // of each path: mode and content
};

Lines lines_of(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

bool has_line(const Lines& log, const std::string& start) {
  return std::any_of(log.begin(), log.end(),
                     [&](const std::string& line) { return begins_with(line, start); });
}

/// A context's settings. A shortage of memory must not change any of them.
std::string describe(SSL_CTX* context) {
  if (context == nullptr) {
    return "no context";
  }
  std::ostringstream text;
  text << "a context " << std::hex << SSL_CTX_get_options(context);
  STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(ciphers); ++index) {
    text << ' ' << SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, index));
  }
  return text.str();
}

std::string describe(const Outcome& outcome, bool is_acquisition) {
  if (is_acquisition) {
    return describe(outcome.context);
  }
  std::string text = std::to_string(outcome.number);
  if (!outcome.value.isNull()) {
    text += " " + outcome.value.toStyledString();
  }
  for (const std::string& path : outcome.installed) {
    text += " " + path;
  }
  return text;
}

std::map<std::string, std::string> files() {
  std::map<std::string, std::string> all;
  for (const std::string& line : tree()) {
    const std::size_t path_end = line.find(' ');
    all[line.substr(0, path_end)] = line.substr(path_end + 1);
  }
  return all;
}

/// Runs with the allocator armed. Empty, or how the operation ended in place of a result.
std::string run_armed(const Operation& operation, Outcome& outcome) {
  const auto disarm = [] { allocator.armed = false; };
  try {
    allocator.armed = true;
    operation.run(outcome);
    disarm();
    return {};
  } catch (const std::bad_alloc&) {
    disarm();
    return kNoMemory;
  } catch (const Json::RuntimeError& error) {
    disarm();
    // jsoncpp reports in this way that malloc gave it nothing.
    const bool says_memory = std::strstr(error.what(), "Failed to allocate") != nullptr;
    return says_memory ? kNoMemory : std::string("exception: ") + error.what();
  } catch (const std::exception& error) {
    disarm();
    return std::string("exception: ") + error.what();
  }
}

void give_deliberate_leaks_back(const Operation& operation, const Lines& log) {
  if (has_line(log, "profile_config.cpp:95 ")) {
    std::fclose(dh_file);
    BIO_free(memory_bio);
  }
  if (has_line(log, "api_provider.cpp:332 ") && operation.name == "run the reloaders") {
    KLIBCSzListFree(listed);
  }
}

long count_opened_since(const std::vector<int>& before) {
  std::vector<int> opened;
  const std::vector<int> now = open_descriptors();
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(opened));
  return static_cast<long>(opened.size());
}

void copy_text(const std::string& text, char* target, std::size_t size) {
  if (text.size() >= size) {
    throw std::runtime_error("longer than expected: " + text);
  }
  std::strcpy(target, text.c_str());
}

/// Which kinds of allocation fail: one, or all from that one on.
struct Mode {
  const char* name;
  unsigned kinds;
  bool all_later;
};
constexpr Mode kNothing = {"nothing", 0, false};

/// The part of the process that runs the operation.
void run(const Operation& operation, const LogSocket& log, const Mode& mode, long point,
         Told& told) {
  ::alarm(30);
  const std::vector<int> descriptors = open_descriptors();
  allocator.kinds = mode.kinds;
  allocator.all_later = mode.all_later;
  allocator.failing = point;
  {
    Outcome outcome;
    std::string result = run_armed(operation, outcome);
    told.threw = !result.empty();
    told.errors_queued = ERR_peek_error() != 0;
    if (!told.threw) {
      result = describe(outcome, operation.is_acquisition);
    }
    copy_text(result, told.result, sizeof told.result);
    SSL_CTX_free(outcome.context);
  }
  const std::string lines = log.take();
  copy_text(lines, told.log, sizeof told.log);
  give_deliberate_leaks_back(operation, lines_of(lines));
  OPENSSL_thread_stop();  // releases what OpenSSL keeps for this thread
  told.reached = allocator.count >= point;
  told.blocks =
      allocator.live.count() + (allocator.has_failed_context ? 0 : allocator.of_contexts.count());
  told.contexts = open_contexts;
  told.descriptors = count_opened_since(descriptors);
}
/// Runs the operation on a fresh tree, in a process of its own. Its exit status.
int run_apart(const Operation& operation, const LogSocket& log, const Mode& mode, long point,
              Told& told) {
  make_tree();
  operation.prepare();
  log.take();
  told = Told();
  const pid_t process = ::fork();
  if (process == 0) {
    run(operation, log, mode, point, told);
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(process, &status, 0);
  return status;
}

// Judging

/// What a run without faults shows, and the files that it started from.
struct Reference {
  std::map<std::string, std::string> files_before;
  Observation seen;
};

const Failure* failure_of(const Operation& operation, const std::string& line) {
  const auto found = std::find_if(operation.failures.begin(), operation.failures.end(),
                                  [&](const Failure& it) { return begins_with(line, it.line); });
  return found == operation.failures.end() ? nullptr : &*found;
}

/// What is wrong with the result and the log lines.
Lines judge_result(const Operation& operation, const Observation& expected, const Observation& seen,
                   bool threw) {
  Lines wrong;
  std::string result = threw ? kNoMemory : expected.result;
  bool has_failure = threw;
  for (const std::string& line : seen.log) {
    const Failure* const failure = failure_of(operation, line);
    if (failure != nullptr) {
      has_failure = true;
      result = failure->result != nullptr && !threw ? failure->result : result;
    } else if (std::find(expected.log.begin(), expected.log.end(), line) == expected.log.end()) {
      wrong.push_back("logged: " + line);
    }
  }
  if (seen.result != result) {
    wrong.push_back("result: " + seen.result + ", in place of: " + result);
  }
  if (!has_failure && seen.log != expected.log) {
    wrong.push_back("lines are missing from the log");
  }
  return wrong;
}

/// Whether a file is what a failed rendering leaves behind: mkstemp's, still empty.
bool is_rendering_temporary(const std::string& path, const std::string& text) {
  const std::size_t end = path.rfind(".conf.");
  return begins_with(path, kConfig) && end != std::string::npos &&
         path.size() == end + std::strlen(".conf.XXXXXX") && text == "100600 ";
}

std::string text_in(const std::map<std::string, std::string>& files, const std::string& path) {
  const auto found = files.find(path);
  return found == files.end() ? std::string("absent") : found->second;
}

Lines judge_files(const Operation& operation, const Reference& reference, const Observation& seen) {
  Lines wrong;
  std::set<std::string> paths;
  for (const auto* files : {&reference.files_before, &reference.seen.files, &seen.files}) {
    for (const auto& file : *files) {
      paths.insert(file.first);
    }
  }
  for (const std::string& path : paths) {
    const std::string now = text_in(seen.files, path);
    const bool is_known =
        now == text_in(reference.files_before, path) || now == text_in(reference.seen.files, path);
    if (!is_known && !(operation.leaves_temporaries && is_rendering_temporary(path, now))) {
      wrong.push_back(path + " is neither the old one nor the new one: " + now);
    }
  }
  const std::string store = text_in(seen.files, kDataStore);
  if (operation.order == Order::kDataStoreLast && seen.files != reference.seen.files &&
      store != text_in(reference.files_before, kDataStore)) {
    wrong.push_back("the data store was saved, but not all files are as they should be then");
  }
  if (operation.order == Order::kDataStoreFirst && seen.files != reference.files_before &&
      store != text_in(reference.seen.files, kDataStore)) {
    wrong.push_back("the data store was not saved, but not all files are as they were");
  }
  return wrong;
}

/// The error queue is left empty once DH parameters were installed or refused. Where no memory BIO
/// for OpenSSL's reasons could be had, OpenSSL 3 leaves them in the queue.
bool spoils_error_queue(const Operation& operation, const Observation& seen, const Told& told) {
  return told.errors_queued && operation.has_dh_file && begins_with(seen.result, "a context") &&
         !has_line(seen.log, "profile_config.cpp:83 ") &&
         !has_line(seen.log, "profile_config.cpp:95 New ssl ctx failed. []");
}

Lines judge_rest(const Operation& operation, const Observation& seen, const Told& told,
                 bool is_warm) {
  Lines wrong;
  if (is_warm && told.blocks != 0) {
    wrong.push_back(std::to_string(told.blocks) + " blocks were not given back");
  }
  if (told.contexts != 0) {
    wrong.push_back(std::to_string(told.contexts) + " contexts were not given back");
  }
  if (told.descriptors != 0) {
    wrong.push_back(std::to_string(told.descriptors) + " descriptors were left open");
  }
  if (spoils_error_queue(operation, seen, told)) {
    wrong.push_back("OpenSSL's error queue was not left empty");
  }
  return wrong;
}

// The sweep

constexpr Mode kModes[] = {{"operator new", kNew, false},
                           {"malloc", kMalloc, false},
                           {"everything from allocation", kNew | kMalloc, true}};

struct Totals {
  long points = 0;
  long violations = 0;
  std::set<std::string> states;
};

/// Tries the points of one operation. A cold process also allocates what its libraries make once,
/// at their first use, and never release, so that blocks are only counted in a warm one.
class Sweep {
 public:
  Sweep(const Operation& operation, bool is_warm, const LogSocket& log, Told& told, Totals& totals)
      : operation_(operation), is_warm_(is_warm), log_(log), told_(told), totals_(totals) {}

  void run_all() {
    make_tree();
    operation_.prepare();
    reference_.files_before = files();
    if (run_apart(operation_, log_, kNothing, 0, told_) != 0) {
      throw std::runtime_error(operation_.name + " crashes without a fault");
    }
    reference_.seen = observe();
    note(kNothing, 0, judge(reference_.seen));
    for (const Mode& mode : kModes) {
      run_mode(mode);
    }
  }

 private:
  /// Fails each allocation in turn. A sparse run leaves out the more, the later they come.
  void run_mode(const Mode& mode) {
    const bool is_sparse = mode.all_later || (!is_warm_ && operation_.is_acquisition);
    for (long point = 1;; point += is_sparse ? 1 + point / 8 : 1) {
      const int status = run_apart(operation_, log_, mode, point, told_);
      const Observation seen = observe();
      note(mode, point, status == 0 ? judge(seen) : Lines{"crashed: " + std::to_string(status)});
      if (status == 0 && !told_.reached) {
        return;
      }
      ++totals_.points;
      totals_.states.insert(state_of(seen));
    }
  }

  Observation observe() const { return {told_.result, lines_of(told_.log), files()}; }

  Lines judge(const Observation& seen) const {
    Lines wrong = judge_result(operation_, reference_.seen, seen, told_.threw);
    for (const Lines& more : {judge_files(operation_, reference_, seen),
                              judge_rest(operation_, seen, told_, is_warm_)}) {
      wrong.insert(wrong.end(), more.begin(), more.end());
    }
    return wrong;
  }

  void note(const Mode& mode, long point, const Lines& wrong) {
    for (const std::string& reason : wrong) {
      std::fprintf(stderr, "%s, %s, %s %ld: %s\n", operation_.name.c_str(),
                   is_warm_ ? "warm" : "cold", mode.name, point, reason.c_str());
    }
    totals_.violations += wrong.empty() ? 0 : 1;
  }

  std::string state_of(const Observation& seen) const {
    std::string text = operation_.name + seen.result + told_.log;
    for (const auto& [path, content] : seen.files) {
      text += path.substr(0, path.rfind(".conf.")) + content;  // without mkstemp's letters
    }
    return text;
  }

  const Operation& operation_;
  bool is_warm_;
  const LogSocket& log_;
  Told& told_;
  Totals& totals_;
  Reference reference_;
};

/// Has the libraries make what they make once, for all operations and for all failures.
void warm_up(const std::vector<Operation>& operations, const LogSocket& log) {
  try {
    throw std::bad_alloc();
  } catch (const std::bad_alloc&) {
  }
  ERR_put_error(ERR_LIB_SSL, 0, ERR_R_MALLOC_FAILURE, __FILE__, __LINE__);
  BIO* const bio = BIO_new(BIO_s_mem());
  ERR_print_errors(bio);
  BIO_free(bio);
  for (int round = 0; round < 3; ++round) {  // some of it is made at the second use only
    for (const Operation& operation : operations) {
      make_tree();
      operation.prepare();
      Outcome outcome;
      operation.run(outcome);
      SSL_CTX_free(outcome.context);
      log.take();  // a full queue would stop the next line
    }
    OPENSSL_thread_stop();
  }
}

int sweep_all(const std::string& name) {
  make_framework_directories();
  set_openssl_configuration(kSecurityLevel0);
  const LogSocket log;
  Told& told = *static_cast<Told*>(
      ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  Totals totals;
  const std::vector<Operation> operations = operations_named(name);
  for (const bool is_warm : {false, true}) {
    if (is_warm) {
      warm_up(operations_named(""), log);
    }
    for (const Operation& operation : operations) {
      if (is_warm || !operation.is_warm_only) {
        Sweep(operation, is_warm, log, told, totals).run_all();
      }
    }
  }
  return report("an allocation failed", totals.points, name.empty() ? kLeastPoints : 1,
                static_cast<long>(totals.states.size()), totals.violations);
}

}  // namespace
}  // namespace kelotls::test

// With an argument: only the operations whose names begin so.
int main(int count, char** arguments) {
  return kelotls::test::sweep_all(count > 1 ? arguments[1] : "");
}

// Owns whether a service's level has reached the service: its files, its rendering, its stamp.
#pragma once

#include <json/value.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "rendering.h"
#include "store/addresses.h"
#include "store/dated_levels.h"
#include "store/store.h"

namespace kelotlsctl {

/// A descriptor file, as it is on disk.
struct ServiceDescriptor {
  std::string path;
  std::string fault;  ///< why it cannot be used
  Json::Value value;

  bool is_usable() const { return fault.empty(); }
  /// Empty without a template, a reloader.
  std::string template_path() const { return kelotls::text_member(value, "mustache-path"); }
  std::string reloader_path() const { return kelotls::text_member(value, "reloader-path"); }
};

ServiceDescriptor read_service_descriptor(const std::string& path);

/// Where the service's reloader link leads; empty without a link.
std::string link_target(const std::string& service);

/// What rendering a service's template changes, or would change.
struct Rendered {
  kelotls::RenderResult::Outcome outcome;
  kelotls::RenderedTexts texts;
  std::string fault;        ///< of kFailed
  bool needs_root = false;  ///< it failed because only root may read what it takes
};

Rendered render(const Store& store, const std::string& service, kelotls::JsonReader& reader,
                kelotls::Rendering rendering);

/// What each service had when the reloaders last ran, so that a level that has not yet reached its
/// service shows without asking a daemon.
class Stamp {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/reloaded.json";

  /// A stamp that is missing or unreadable is one in which no service has been reloaded.
  static Stamp load();

  /// Whether there is a stamp that cannot be used.
  static bool is_broken();

  /// Takes the services out of the stamp, if any is in it. A Failure as of save.
  static void forget(const std::vector<std::string>& services);

  bool matches(const std::string& service, int effective, const std::string& rendered) const;

  /// The service was reloaded with these, now; where it had them before, since then.
  void record(const std::string& service, int effective, const std::string& rendered);

  /// Since when it has what is recorded, in UTC; empty where this is not known.
  std::string since(const std::string& service) const;

  /// The effective level that is recorded; none where the service is not.
  std::optional<int> level(const std::string& service) const;

  /// Takes out the service, or every service that the data store does not have.
  void remove(const std::string& service);
  void remove_strangers(const Store& store);

  /// A Failure when it cannot be written.
  void save() const;

 private:
  Json::Value services_{Json::objectValue};
};

enum class State {
  kInForce,
  kPendingRender,  ///< the rendered file is not what the template gives for the level
  kPendingReload,  ///< level or rendered file differ from when the reloaders last ran
  kNextContext,    ///< neither template nor reloader: in force from its next context on
  kCannotRender,
  kUnusableLevel,  ///< negative: the service gets no context at all
  kNeedsRoot,      ///< this user may not read what tells
  kDiffers,        ///< its running server was asked, and does not do what the level asks for
  kCannotTell,     ///< its running server was asked, and did not say enough
  kNoAnswer,       ///< nothing answers at its address
  kAsExpected,     ///< its running server was asked, and does all of the level that it can
  kUnreachable,    ///< its server cannot be at this level
};

struct ServiceStatus {
  std::string name;
  ServiceDescriptor descriptor;
  std::string link_target;
  Rendered rendered;
  State state;
  Json::Value document;  ///< what "list --json" gives for the service
};

/// What is seen of a service's running server at its level, as ask_running_server has it.
using SeeServer =
    std::function<Json::Value(const Addresses& addresses, const std::string& service, int level)>;

/// Asks the server, for a look at many services: one that is slow is not known.
Json::Value ask_with_short_patience(const Addresses& addresses, const std::string& service,
                                    int level);

/// Asks none, for a look at files alone.
Json::Value ask_nobody(const Addresses& addresses, const std::string& service, int level);

/// Looks at services one after another, reading what they share once.
class ServiceInspector {
 public:
  explicit ServiceInspector(const Store& store)
      : store_(store), stamp_(Stamp::load()), dates_(DatedLevels::load_usable()) {}

  /// From now on, a level that is in force by the service's files has to be seen at its running
  /// server too, where an address is kept. The document then tells what was "asked".
  void ask_servers() { see_servers(ask_with_short_patience); }

  /// The same by what the function gives, which may know it already.
  void see_servers(SeeServer see) {
    addresses_ = Addresses::load_usable();
    see_ = std::move(see);
  }

  ServiceStatus inspect(const std::string& service);

 private:
  State state_of(const ServiceStatus& status) const;

  void look_at_server(ServiceStatus& status) const;

  const Store& store_;
  Stamp stamp_;
  DatedLevels dates_;
  std::optional<Addresses> addresses_;
  SeeServer see_;
  kelotls::JsonReader reader_;
};

/// Every state, for programs, in the order of State.
std::vector<std::string> state_keys();

/// "pending reload", for people, of "pending-reload", for programs.
std::string state_text(const std::string& state_key);

/// " until 2027-03-01T00:00:00Z", of a service's document; empty for a level without a date.
std::string date_text(const Json::Value& document);

/// What a terminal shows the state in: what is in force, what is pending, what is at fault.
const char* state_tone(const std::string& state_key);

}  // namespace kelotlsctl

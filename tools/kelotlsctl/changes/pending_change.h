// Owns the change that can still be taken back: its file, which is on the disk before the first
// effect of the change, and the states that it goes through.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "system/clocks.h"

namespace kelotlsctl {

class PendingChange {
 public:
  static constexpr char kPath[] = "/usr/kelo/etc/security-profile/tls-profile/pending.json";

  enum class State {
    kPrepared,    ///< its effects may have begun; a process that holds the lock is at it
    kWaiting,     ///< applied, and waits for its confirmation
    kConfirmed,   ///< all that is left to do is to say so
    kTakingBack,  ///< what was there before may be partly back
    kFailed       ///< could not be taken back, and is tried again
  };

  /// Nothing where there is none. A Failure for a file that cannot be used.
  static std::optional<PendingChange> load();

  /// Why the file cannot be used; empty where it can, or there is none.
  static std::string fault();

  /// Adds a change, by its record in the history, with what was there before.
  void add(const std::string& record, const Json::Value& snapshot);

  State state() const;
  std::vector<std::string> records() const;
  std::vector<std::string> services() const;
  const Json::Value& snapshot() const { return document_["former"]; }
  std::string fault_text() const;
  bool trusts_anyway() const { return document_["trust-anyway"].asBool(); }
  void set_trust(bool anyway) { document_["trust-anyway"] = anyway; }

  /// How long it still waits; negative once it waits no more, which is so after a restart, too.
  Milliseconds time_left(const Moment& now) const;

  // Each writes the file, and gives a Failure where it cannot.
  void become(State state);
  void wait_for(std::chrono::seconds duration, const Moment& now);
  void fail(const std::string& fault);
  /// There is none any more.
  void remove();

  /// {"state", "services", "seconds-left", "fault"}, for reports.
  Json::Value report(const Moment& now) const;

 private:
  void save() const;

  Json::Value document_{Json::objectValue};
};

}  // namespace kelotlsctl

// The record of one service of the TLS profile framework.
#ifndef KELOTLS_SERVICE_DESC_H
#define KELOTLS_SERVICE_DESC_H

#include <json/value.h>

#include <string>

namespace kelotls {

/// A plain value: what a service is called, how it is shown, where its reloader and its
/// configuration template lie. An optional text that is absent is the empty string. Filled from
/// JSON once, then read; no operation fails or logs. Safe to copy and to use from any thread that
/// owns the copy.
class __attribute__((visibility("default"))) ServiceDesc {
 public:
  /// All texts empty, not a system service.
  ServiceDesc();

  /// The identifier: key of the data store entry, stem of the names of the service's files.
  std::string get_service_name() const;

  /// Whether the service belongs to the base system, whose reloaders are not linked.
  bool is_system_service() const;

  /// Marks the service as one of the base system, for good.
  void set_system_service();

  /// The name shown to users.
  std::string get_display_name() const;

  /// The translation key of the display name; empty when there is none.
  std::string get_i18n_display_name() const;
  bool has_i18n_display_name() const;

  /// The program that makes the service pick up new settings; empty when there is none.
  std::string get_reloader_path() const;
  bool has_reloader() const;

  /// The mustache template of the service's configuration; empty when there is none. The spelling
  /// of the name is part of the contract.
  std::string get_mustahce_path() const;
  bool has_mustache() const;

  /// A new object with "service" and "display-name", and "display-name-i18n", "mustache-path" and
  /// "reloader-path" where they are not empty. Never "system-service".
  Json::Value to_json() const;

  /// Overwrites all five texts from the object; a missing key gives the empty string. Checks
  /// nothing, leaves the system service mark alone. Always 0.
  /// Passes through: jsoncpp's exception for a value that is no object or a member without a
  /// string form.
  int from_json(const Json::Value& value);

 private:
  std::string service_name_;
  bool system_service_;
  std::string display_name_;
  std::string i18n_display_name_;
  std::string reloader_path_;
  std::string mustache_path_;
};

}  // namespace kelotls

#endif

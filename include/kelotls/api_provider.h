// The operations of the TLS profile framework: serving contexts, joining, rendering, reloading.
#ifndef KELOTLS_API_PROVIDER_H
#define KELOTLS_API_PROVIDER_H

#include <json/value.h>
#include <kelotls/service_desc.h>
#include <openssl/ssl.h>

#include <string>
#include <vector>

namespace kelotls {

/// Holds no state and takes no lock: make one whenever you need one. Contexts may be acquired and
/// released from any thread at any time; callers that change the framework serialise their calls.
///
/// Per-service files are named by plain concatenation, directory + name + ".conf"; names are not
/// checked. Every failure is a line in the system log. All operations pass through std::bad_alloc
/// and jsoncpp's exceptions for values of the wrong type.
///
///   data store          /usr/kelo/etc/security-profile/tls-profile/datastore.json
///   descriptor files    /usr/kelo/etc/security-profile/tls-profile/services/
///   rendered files      /usr/kelo/etc/security-profile/tls-profile/config/
///   reloaders           /usr/libexec/security-profile/tls-profile/ (base system),
///                       /usr/local/libexec/security-profile/tls-profile/ (links)
class __attribute__((visibility("default"))) APIProvider {
 public:
  // Server contexts

  /// Makes a new server context configured for the service's level: protocol versions, cipher
  /// list, ciphersuites, groups, temporary DH parameters. It carries no certificate, key,
  /// verification mode, session cache or callback.
  ///
  /// Reads the data store and, except for level modern, one DH parameter file.
  /// Result: the context, the caller's until it is passed to release_context; null when the
  /// service has no entry, the data store is unusable, its level is negative or OpenSSL refuses a
  /// setting. All but a negative level are logged.
  /// Only logged: DH parameters that cannot be had; the context then offers no DHE suite.
  SSL_CTX* acquire_server_context(const std::string& service) const;

  /// Frees a context. Null is accepted and does nothing.
  void release_context(SSL_CTX* context) const;

  // Descriptor files

  /// Writes the descriptor, in place, to the file named by name (not by the descriptor). 0, and
  /// the path is appended to installed; or -1 once logged, and installed is as it was.
  int install_service_descriptor(const std::string& name, const ServiceDesc& desc,
                                 std::vector<std::string>& installed) const;

  /// Removes the descriptor file. Always 0. Only logged: a removal that fails, of a missing file
  /// included.
  int uninstall_service_descriptor(const std::string& name) const;

  /// Brings the data store in line with the descriptor files: one entry each, built afresh, with
  /// the level that the service had, or 0. Entries without a file stay.
  ///
  /// Reads the data store and every descriptor file; writes the data store.
  /// Result: 0; -1 when the directory cannot be listed, with nothing written.
  /// Only logged: a descriptor that is unreadable or no object (skipped), a failed save, and an
  /// unusable data store, which is overwritten by one that holds only "services".
  int regen_framework_config() const;

  // Reloaders

  /// Links the reloader path, unchanged, into the links' directory; a file or link that exists at
  /// the link's path is replaced. 0, and the link's path is appended to installed; or -1 once
  /// logged.
  int install_service_reloader(const std::string& name, const std::string& reloader_path,
                               std::vector<std::string>& installed) const;

  /// Removes the reloader link. Always 0. Only logged: a removal that fails, of a missing link
  /// included.
  int uninstall_service_reloader(const std::string& name) const;

  /// Runs every reloader of both directories, the base system's first, one after another, each
  /// without arguments and to its end. 0; -1 when a directory cannot be listed, and then none has
  /// run. Only logged: a reloader that cannot be run or does not end with status 0.
  int execute_service_reloader() const;

  // Rendered configuration

  /// Renders the template of every service that names one for the service's level, in name order,
  /// each into a temporary file that then replaces the rendered one. Always 0.
  ///
  /// Reads the data store, the descriptor files and the templates; writes the rendered files.
  /// Only logged: whatever went wrong with a service; its former rendered file then stays, and a
  /// temporary file may.
  int render_service_template() const;

  /// Removes the service's rendered file. 0, or -1 once logged, of a missing file included.
  int cleanup_service_template(const std::string& name) const;

  // Membership

  /// Makes the services of a registration join: {"services": [{"service", "display-name"[,
  /// "display-name-i18n"][, "mustache-path"][, "reloader-path"]}...][, "system-service"]}. Joining
  /// again keeps a service's level and rewrites the rest.
  ///
  /// Writes each service's descriptor file, links its reloader unless this is a system service's,
  /// and last of all the data store. Renders and reloads nothing.
  /// Result: 0; -1 for a registration that is not valid, with nothing touched, or for a step that
  /// failed; then every file and link that this call made is removed again, but what they replaced
  /// is not brought back.
  /// Only logged: an unusable data store; it is replaced by one without a default level.
  int join_framework(const Json::Value& registration) const;

  /// Makes the services of a registration leave; pass the one that they joined with. Only
  /// "services" and each "service" are needed; a link is removed where "reloader-path" is named
  /// (and not "system-service"), a rendered file where "mustache-path" is.
  ///
  /// Writes the data store first, then removes each service's link, descriptor and rendered file.
  /// Result: 0; -1 for a registration that is not valid or a data store that cannot be written,
  /// with no file touched. Should a link's removal fail: -1, and the services have entries again,
  /// at level 0.
  /// Only logged: a descriptor or rendered file that cannot be removed, an unusable data store.
  int leave_framework(const Json::Value& registration) const;

  /// Copies the default level, and the level of each service that is still joined, from a saved
  /// data store file to the live one. Touches nothing else. Always 0.
  ///
  /// Reads the saved file and the data store; writes the data store.
  /// Only logged: a saved service that is not joined, a failed save, a saved file that cannot be
  /// used. Beware: the default level is then set to 0.
  int restore_framework(const std::string& path) const;
};

}  // namespace kelotls

#endif

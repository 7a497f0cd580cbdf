// What the tests of the management command share: running the real program, and services for it.
#ifndef KELOTLS_TESTS_KELOTLSCTL_H
#define KELOTLS_TESTS_KELOTLSCTL_H

#include <json/value.h>

#include <string>
#include <vector>

#include "framework.h"
#include "private_tree.h"

namespace kelotls::test {

using Arguments = std::vector<std::string>;

struct Outcome {
  int status = -1;  ///< the exit status, or 128 + the signal
  std::string out;
  std::string err;
};

/// Runs a program with the standard input given and these variables ("NAME=VALUE") added, in a
/// locale with UTF-8 unless they name another.
Outcome run_program(const Arguments& command, const std::string& input = {},
                    const Arguments& variables = {});

/// The same with kelotlsctl.
Outcome run(const Arguments& arguments, const std::string& input = {},
            const Arguments& variables = {});

/// kelotlsctl with all three standard descriptors on a terminal, which has as many columns; out is
/// what it shows.
Outcome run_on_terminal(const Arguments& arguments, const Arguments& variables = {},
                        unsigned short columns = 0);

/// kelotlsctl with --json. The document must satisfy the command's published schema.
struct JsonOutcome {
  int status = -1;
  Json::Value document;
};
JsonOutcome run_json(const std::string& command, const Arguments& arguments = {});

/// Runs the command with its output in the file, and tells how much processor time it took, of
/// which other work on the machine takes nothing.
double seconds_of(const std::string& command, const std::string& output_path);

/// How much of it may be spent on a thousand services. Where the processor is emulated, a second is
/// whatever the machine beneath makes of it: there it is counted in starts of the command.
double seconds_for_a_thousand_services();

/// What the schema at the path finds wrong with the document, one fault a line; empty for nothing.
std::string faults_against(const std::string& schema_path, const Json::Value& document);

/// A fixture with an empty data store at level intermediate, DH files, and a template service.
class Kelotlsctl : public PrivateTree {
 protected:
  void SetUp() override;

  /// Makes "web" join: a template that names its level, a reloader that notes that it has run and
  /// ends with the status in kReloaderStatus.
  void join_web();

  /// web joined and in force, "ssh" joined with neither template nor reloader.
  void join_both();
};

/// The same with both services, where there is a user beside root who may not read what only root
/// may; skipped where there is none.
class KelotlsctlWithoutRoot : public Kelotlsctl {
 protected:
  void SetUp() override;

  static Outcome run_as_user(const Arguments& arguments);
};

constexpr char kTemplate[] = "/tmp/web.mustache";
constexpr char kReloader[] = "/tmp/reload-web";
constexpr char kReloaderStatus[] = "/tmp/status";
constexpr char kReloaderRuns[] = "/tmp/runs";
constexpr char kLock[] = "/usr/kelo/etc/security-profile/tls-profile/lock";
constexpr char kHistory[] = "/usr/kelo/etc/security-profile/tls-profile/history.jsonl";
constexpr char kAddresses[] = "/usr/kelo/etc/security-profile/tls-profile/addresses.json";
constexpr char kStamp[] = "/usr/kelo/etc/security-profile/tls-profile/reloaded.json";

std::string web_registration();

/// The stored level of a service.
int stored_level(const std::string& service);

/// Whether the text contains the part.
::testing::AssertionResult contains(const std::string& text, const std::string& part);

}  // namespace kelotls::test

#endif

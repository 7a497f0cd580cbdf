// Why a peer lacks something that its level asks for.
#ifndef KELOTLSCTL_CAUSES_H
#define KELOTLSCTL_CAUSES_H

#include <optional>
#include <string>
#include <vector>

#include "difference.h"
#include "handshake.h"
#include "level_profile.h"

namespace kelotlsctl {

/// Finds causes by experiment: the same handshake with one setting after another lifted.
class ContextCauses : public Causes {
 public:
  ContextCauses(const ContextPeer& peer, const LevelProfile& profile)
      : peer_(peer), profile_(profile) {}

  Reason of_version(int version) override;
  Reason of_suite(int version, const std::string& suite) override;
  Reason of_unknown_suite(const std::string& suite) override;
  Reason of_group(int version, const std::string& group) override;
  std::optional<Reason> of_missing_dh(bool has_its_versions) override;

 private:
  std::optional<int> working_security_level(const Hello& hello, Lifts lifts) const;
  std::string security_level_text(const std::string& what, int working_level) const;
  std::string lifted_text(const Hello& hello, const Lifts& lifts) const;
  Reason of_refusal(const Hello& hello, const std::string& what) const;
  Reason of_dh_file() const;
  Reason of_dh_parameters(DH* parameters) const;

  const ContextPeer& peer_;
  const LevelProfile& profile_;
};

/// A running server cannot be taken apart. What a context made here lacks as well gets the cause
/// that was found there.
class ServerCauses : public Causes {
 public:
  /// of_context: the differences of a context for the same service, if there is one.
  ServerCauses(const LevelProfile& profile, std::optional<std::vector<Difference>> of_context);

  Reason of_version(int version) override;
  Reason of_suite(int version, const std::string& suite) override;
  Reason of_unknown_suite(const std::string& suite) override;
  Reason of_group(int version, const std::string& group) override;
  std::optional<Reason> of_missing_dh(bool has_its_versions) override;

 private:
  Reason of(const std::string& what) const;

  const LevelProfile& profile_;
  std::optional<std::vector<Difference>> of_context_;
};

}  // namespace kelotlsctl

#endif

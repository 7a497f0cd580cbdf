// The levels as data: what each asks for, and which clients that serves.
#ifndef KELOTLSCTL_LEVEL_PROFILE_H
#define KELOTLSCTL_LEVEL_PROFILE_H

#include <string>
#include <vector>

namespace kelotlsctl {

using Names = std::vector<std::string>;

struct ProtocolVersion {
  int number;
  const char* name;
};

/// Every version that a level can ask for, oldest first.
const std::vector<ProtocolVersion>& protocol_versions();

/// "TLS 1.2" of TLS1_2_VERSION; a number that is none of ours in hexadecimal.
std::string version_name(int version);

struct LevelProfile {
  int level;
  const char* name;
  int oldest_version;
  const char* cipher_list;  // for TLS 1.2 and older
  const char* tls13_suites;
  const char* groups;
  const char* dh_file;  // null: no temporary DH parameters
  int dh_bits;
};

/// The profile of a level of 0 or above; a value that names no level is served as intermediate.
const LevelProfile& profile_of(int level);

/// The names of an OpenSSL list, which stand between colons.
Names names_in(const std::string& list);
std::string list_of(const Names& names);
bool contains(const Names& names, const std::string& name);

/// What a server can be used with: by a level's wish, or as measured.
struct Offer {
  std::vector<int> versions;
  Names cipher_suites;
  Names tls13_suites;
  Names groups;
  int dh_bits = 0;

  bool has_version(int version) const;
};

/// The level in full.
Offer wish_of(const LevelProfile& profile);

/// The oldest client of each family that can connect, given an RSA certificate.
Names oldest_clients(const Offer& offer);

/// The oldest clients of the first offer that cannot connect to the second.
Names lost_clients(const Offer& wanted, const Offer& given);

}  // namespace kelotlsctl

#endif

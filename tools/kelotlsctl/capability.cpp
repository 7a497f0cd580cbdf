// Owns what is told about a level: its description, a context made for it, an explanation.
#include "capability.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "causes.h"
#include "difference.h"
#include "handshake.h"
#include "level_profile.h"
#include "report_text.h"
#include "survey.h"

namespace kelotlsctl {

namespace {

using FileOwner = std::unique_ptr<std::FILE, Release<std::fclose>>;

Json::Value to_json(const Names& names) {
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) {
    list.append(name);
  }
  return list;
}

Json::Value number_or_null(int number) {
  return number != 0 ? Json::Value(number) : Json::Value(Json::nullValue);
}

Json::Value to_json(const Offer& offer) {
  Json::Value value;
  value["protocols"] = Json::Value(Json::arrayValue);
  for (const int version : offer.versions) {
    value["protocols"].append(version_name(version));
  }
  value["cipher-suites"] = to_json(offer.cipher_suites);
  value["tls13-suites"] = to_json(offer.tls13_suites);
  value["groups"] = to_json(offer.groups);
  value["dh-bits"] = number_or_null(offer.dh_bits);
  return value;
}

/// The same names in the order of the preferred list; those that are not in it follow.
Names in_order_of(const Names& preferred, const Names& names) {
  Names sorted;
  for (const std::string& name : preferred) {
    if (contains(names, name)) {
      sorted.push_back(name);
    }
  }
  for (const std::string& name : names) {
    if (!contains(preferred, name)) {
      sorted.push_back(name);
    }
  }
  return sorted;
}

Names suites_of(SSL_CTX* context) {
  Names names;
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(suites, index)));
  }
  return names;
}

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("OpenSSL: ") + what + ": " + take_openssl_reason());
  }
}

auto options_of(const LevelProfile& profile) {
  auto options = SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_SSLv3;
  if (profile.oldest_version > TLS1_VERSION) {
    options |= SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
  }
  if (profile.oldest_version > TLS1_2_VERSION) {
    options |= SSL_OP_NO_TLSv1_2;
  }
  return options;
}

void use_dh_file(SSL_CTX* context, const char* path) {
  const FileOwner file(std::fopen(path, "r"));
  if (file == nullptr) {
    return;
  }
  const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
  if (parameters != nullptr) {
    SSL_CTX_set_tmp_dh(context, parameters.get());  // a refusal shows in the handshakes
  }
  ERR_clear_error();
}

}  // namespace

Json::Value describe_level(int level) {
  const LevelProfile& profile = profile_of(level);
  const Offer wish = wish_of(profile);
  Json::Value description = to_json(wish);
  description["level"] = profile.level;
  description["name"] = profile.name;
  description["dh-file"] =
      profile.dh_file != nullptr ? Json::Value(profile.dh_file) : Json::Value(Json::nullValue);
  description["oldest-clients"] = to_json(oldest_clients(wish));
  return description;
}

ContextOwner make_level_context(int level) {
  const LevelProfile& profile = profile_of(level);
  ContextOwner context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX* const raw = context.get();
  require(raw != nullptr, "no server context can be made");
  SSL_CTX_set_options(raw, options_of(profile));
  require(*profile.cipher_list == '\0' || SSL_CTX_set_cipher_list(raw, profile.cipher_list) == 1,
          "the level's cipher list is refused");
  require(SSL_CTX_set_ciphersuites(raw, profile.tls13_suites) == 1,
          "the level's TLS 1.3 suites are refused");
  require(SSL_CTX_set1_groups_list(raw, profile.groups) == 1, "the level's groups are refused");
  if (profile.dh_file != nullptr) {
    use_dh_file(raw, profile.dh_file);
  }
  return context;
}

Json::Value explain_context(SSL_CTX* context, int level) {
  const LevelProfile& profile = profile_of(level);
  const Client client;
  ContextPeer peer(client, context);
  const Survey survey = survey_context(client, peer, profile, nullptr);
  ContextCauses causes(peer, profile);

  Offer offer = survey.offer();
  const Names order = suites_of(context);
  offer.cipher_suites = in_order_of(order, offer.cipher_suites);
  offer.tls13_suites = in_order_of(order, offer.tls13_suites);

  Json::Value explanation;
  explanation["level"] = profile.level;
  explanation["name"] = profile.name;
  explanation["openssl"] = OpenSSL_version(OPENSSL_VERSION);
  explanation["security-level"] = SSL_CTX_get_security_level(context);
  explanation["offers"] = to_json(offer);
  explanation["differences"] = to_json(find_differences(profile, survey, causes));
  explanation["oldest-clients"] = to_json(oldest_clients(offer));
  explanation["lost-clients"] = to_json(lost_clients(wish_of(profile), offer));
  return explanation;
}

namespace {

void print_offer(ReportText& text, const Json::Value& offer) {
  text.list("protocols", offer["protocols"]);
  text.list("TLS 1.3 suites", offer["tls13-suites"]);
  text.list("older suites", offer["cipher-suites"]);
  text.list("groups", offer["groups"]);
}

std::string level_title(const Json::Value& value) {
  return "Level " + value["level"].asString() + ", " + value["name"].asString();
}

}  // namespace

void print_level(std::ostream& out, const Json::Value& description, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(description));
  print_offer(text, description);
  const Json::Value& bits = description["dh-bits"];
  text.field(
      "DH parameters",
      bits.isNull() ? "none" : bits.asString() + " bits, " + description["dh-file"].asString());
  text.list("oldest clients", description["oldest-clients"]);
}

void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(explanation) + ", on this machine");
  text.field("OpenSSL", explanation["openssl"].asString() + ", security level " +
                            explanation["security-level"].asString());
  const Json::Value& offers = explanation["offers"];
  print_offer(text, offers);
  const Json::Value& bits = offers["dh-bits"];
  text.field("DH parameters", bits.isNull() ? "none" : bits.asString() + " bits");
  text.list("oldest clients", explanation["oldest-clients"]);
  if (!explanation["lost-clients"].empty()) {
    text.list("lost clients", explanation["lost-clients"]);
  }
  if (explanation["differences"].empty()) {
    out << "\nThis is all that the level asks for.\n";
    return;
  }
  out << "\nDifferences from what the level asks for:\n";
  text.differences(explanation["differences"]);
}

}  // namespace kelotlsctl

// Owns finding out what certificates a server shows.
#include "clients/shown_certificates.h"

#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>
#include <optional>
#include <sstream>

#include "clients/judgement.h"
#include "levels/survey.h"
#include "output/console.h"
#include "peers/full_handshake.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

constexpr int kAssumedBits = 2048;
constexpr int kLeastBits = 512;
constexpr int kMostBits = 16384;

CertificateFacts certificate_of(const std::string& kind, int bits, const std::string& curve) {
  CertificateFacts facts;
  facts.kind = kind;
  facts.bits = bits;
  facts.curve = curve;
  return facts;
}

ShownCertificates assumed(const std::string& text) {
  return {{certificate_of("RSA", kAssumedBits, "")}, "assumed", text};
}

/// Collects certificates, one of each kind.
class Asking {
 public:
  Asking(const Address& address, const Patience& patience)
      : server_(address), patience_(patience), end_(Clock::now() + patience.deadline) {}

  std::vector<CertificateFacts> certificates() {
    for (const char* const algorithms : kSignaturesByKind) {
      shake_hands_with(algorithms);
    }
    for (const std::uint16_t version : {kTls12, kTls10}) {
      if (shown_.empty() && server_.is_reached()) {
        ask_for(version, {KeyExchange::kEcdheRsa, KeyExchange::kDheRsa, KeyExchange::kRsa});
        ask_for(version, {KeyExchange::kEcdheEcdsa});
      }
    }
    return shown_;
  }

  const std::string& reason() const { return reason_; }

 private:
  Clock::time_point until() const { return std::min(Clock::now() + patience_.timeout, end_); }

  void shake_hands_with(const std::string& algorithms) {
    reason_.clear();
    const std::unique_ptr<Connection> connection = server_.connect(until(), reason_);
    if (connection != nullptr) {
      note(shake_hands(*connection, server_.name(), algorithms).certificates);
    }
  }

  void ask_for(std::uint16_t version, const std::vector<KeyExchange>& exchanges) {
    Hello hello;
    hello.version = version;
    hello.groups = groups_of_version(version);
    for (const std::uint16_t suite : suites_of_version(version)) {
      if (std::find(exchanges.begin(), exchanges.end(), key_exchange_of(*find_suite(suite))) !=
          exchanges.end()) {
        hello.suites.push_back(suite);
      }
    }
    const Answer answer = server_.ask(hello, until());
    reason_ = answer.reason;
    note(answer.certificates);
  }

  void note(const std::vector<Bytes>& chain) {
    const CertificateFacts facts =
        chain.empty() ? CertificateFacts() : describe_certificate(chain.front());
    const bool is_known =
        std::any_of(shown_.begin(), shown_.end(),
                    [&](const CertificateFacts& one) { return one.kind == facts.kind; });
    if (!facts.kind.empty() && !is_known) {
      shown_.push_back(facts);
    }
  }

  Server server_;
  const Patience patience_;
  const Clock::time_point end_;
  std::vector<CertificateFacts> shown_;
  std::string reason_;
};

std::optional<CertificateFacts> certificate_named(const std::string& word) {
  const std::size_t colon = word.find(':');
  const std::string kind = word.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : word.substr(colon + 1);
  if (kind == "rsa" || kind == "rsa-pss") {
    const bool is_number = !rest.empty() && rest.size() <= 5 &&
                           rest.find_first_not_of("0123456789") == std::string::npos;
    const int bits = is_number ? std::stoi(rest) : 0;
    return bits >= kLeastBits && bits <= kMostBits
               ? std::optional(certificate_of(kind == "rsa" ? "RSA" : "RSA-PSS", bits, ""))
               : std::nullopt;
  }
  if (kind == "ecdsa") {
    const int by_name = EC_curve_nist2nid(rest.c_str());
    const int curve = by_name != NID_undef ? by_name : OBJ_sn2nid(rest.c_str());
    const std::string name = curve != NID_undef ? OBJ_nid2sn(curve) : "";
    return group_number(name) != 0 ? std::optional(certificate_of("ECDSA", 0, name)) : std::nullopt;
  }
  return word == "ed25519" ? std::optional(certificate_of("Ed25519", 0, ""))
         : word == "ed448" ? std::optional(certificate_of("Ed448", 0, ""))
                           : std::nullopt;
}

}  // namespace

ShownCertificates shown_certificates(const Addresses& addresses, const std::string& service,
                                     const Patience& patience) {
  const Address* const address = addresses.find(service);
  if (address == nullptr) {
    return assumed("no address of its server is kept");
  }
  try {
    Asking asking(*address, patience);
    const std::vector<CertificateFacts> certificates = asking.certificates();
    return certificates.empty() ? assumed("its server shows no certificate" +
                                          (asking.reason().empty() ? "" : ": " + asking.reason()))
           : std::all_of(certificates.begin(), certificates.end(), can_be_made)
               ? ShownCertificates{certificates, "server", ""}
               : assumed("none like its server's can be made");
  } catch (const std::runtime_error& error) {
    return assumed(error.what());
  }
}

ShownCertificates parse_certificates(const std::string& text) {
  ShownCertificates shown = {{}, "option", ""};
  std::istringstream words(text);
  for (std::string word; std::getline(words, word, ',');) {
    const std::optional<CertificateFacts> certificate = certificate_named(word);
    if (!certificate || !can_be_made(*certificate)) {
      throw Failure(kUsage, "\"" + printable(word) + "\" is no certificate that can be made",
                    "Such as rsa:2048, ecdsa:P-256, rsa-pss:3072, ed25519 or ed448.");
    }
    shown.certificates.push_back(*certificate);
  }
  if (shown.certificates.empty()) {
    throw Failure(kUsage, "--certificate needs a kind", "Such as rsa:2048 or ecdsa:P-256.");
  }
  return shown;
}

}  // namespace kelotlsctl

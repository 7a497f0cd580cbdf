// What a level does to a client's hello, against what becomes of the client that sends it.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <algorithm>
#include <string>
#include <vector>

#include "clients/judgement.h"
#include "clients/known_clients.h"
#include "clients/rewriting.h"
#include "first_message.h"
#include "framework.h"
#include "levels/offer.h"
#include "levels/report.h"
#include "loopback_server.h"
#include "private_tree.h"
#include "system/hexadecimal.h"
#include "tls/openssl.h"
#include "tls/registry.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Bytes;
using kelotlsctl::CertificateFacts;
using kelotlsctl::ClientHello;
using kelotlsctl::ContextOwner;
using kelotlsctl::Judge;
using kelotlsctl::Judgement;
using kelotlsctl::kTls10;
using kelotlsctl::kTls11;
using kelotlsctl::kTls12;
using kelotlsctl::kTls13;
using kelotlsctl::SslOwner;
using Session = std::unique_ptr<SSL_SESSION, kelotlsctl::Release<SSL_SESSION_free>>;

constexpr int kModern = 1;
constexpr int kIntermediate = 2;
constexpr int kOld = 3;

/// What a client of OpenSSL is told to offer; empty texts: what it offers by itself.
struct Client {
  const char* name;
  int oldest;
  int newest;
  std::string suites;
  std::string tls13_suites;
  std::string groups;
  std::string signatures;
};

CertificateFacts certificate(const std::string& kind) {
  CertificateFacts facts;
  facts.kind = kind;
  facts.bits = kind == "ECDSA" ? 256 : 2048;
  facts.curve = kind == "ECDSA" ? "prime256v1" : "";
  return facts;
}

/// One at security level 0, so that it is never the client that refuses.
ContextOwner make_client(const Client& client) {
  ContextOwner context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX* const raw = context.get();
  SSL_CTX_set_security_level(raw, 0);
  EXPECT_EQ(SSL_CTX_set_min_proto_version(raw, client.oldest), 1);
  EXPECT_EQ(SSL_CTX_set_max_proto_version(raw, client.newest), 1);
  const auto set = [&](const std::string& text, auto call) {
    EXPECT_TRUE(text.empty() || call(raw, text.c_str()) == 1) << client.name << ": " << text;
  };
  set(client.suites, [](SSL_CTX* c, const char* t) { return SSL_CTX_set_cipher_list(c, t); });
  set(client.tls13_suites,
      [](SSL_CTX* c, const char* t) { return SSL_CTX_set_ciphersuites(c, t); });
  set(client.groups, [](SSL_CTX* c, const char* t) { return SSL_CTX_set1_groups_list(c, t); });
  set(client.signatures, [](SSL_CTX* c, const char* t) { return SSL_CTX_set1_sigalgs_list(c, t); });
  return context;
}

/// An end of a connection whose other end is moved by hand.
struct End {
  explicit End(SSL_CTX* context, bool is_server) : ssl(SSL_new(context)) {
    in = BIO_new(BIO_s_mem());
    out = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(in, -1);
    SSL_set_bio(ssl.get(), in, out);
    is_server ? SSL_set_accept_state(ssl.get()) : SSL_set_connect_state(ssl.get());
  }

  Bytes take() const {
    const Bytes bytes = kelotlsctl::text_of(out);
    static_cast<void>(BIO_reset(out));
    return bytes;
  }

  void give(const Bytes& bytes) const {
    BIO_write(in, bytes.data(), static_cast<int>(bytes.size()));
  }

  bool is_done() const { return SSL_is_init_finished(ssl.get()) == 1; }

  const SslOwner ssl;
  BIO* in;
  BIO* out;
};

Bytes hello_of(const Client& client) { return first_message(make_client(client).get()); }

void carry(const End& client, const End& server) {
  for (int turn = 0; turn < 6; ++turn) {
    SSL_do_handshake(client.ssl.get());
    server.give(client.take());
    SSL_do_handshake(server.ssl.get());
    client.give(server.take());
  }
  ERR_clear_error();
}

std::string key_exchange_of(SSL* client) {
  EVP_PKEY* key = nullptr;
  SSL_get_peer_tmp_key(client, &key);
  const kelotlsctl::KeyOwner owner(key);
  if (key == nullptr || EVP_PKEY_base_id(key) != EVP_PKEY_EC) {
    return "";
  }
  const EC_KEY* const point = EVP_PKEY_get0_EC_KEY(key);
  return OBJ_nid2sn(EC_GROUP_get_curve_name(EC_KEY_get0_group(point)));
}

/// "TLSv1.2 AES128-SHA prime256v1", or "refused".
std::string outcome_of_handshake(SSL_CTX* context, SSL_CTX* client_context) {
  const End client(client_context, false);
  const End server(context, true);
  carry(client, server);
  if (!client.is_done() || !server.is_done()) {
    return "refused";
  }
  return std::string(SSL_get_version(client.ssl.get())) + " " +
         SSL_get_cipher_name(client.ssl.get()) + " " + key_exchange_of(client.ssl.get());
}

std::string text_of(const Judgement& judgement) {
  if (!judgement.is_answered) {
    return "refused";
  }
  const std::string version = kelotlsctl::version_name(judgement.version);
  return "TLSv1" + (judgement.version == kTls10 ? "" : version.substr(5)) + " " +
         kelotlsctl::suite_name(judgement.suite) + " " +
         (judgement.group != 0 ? kelotlsctl::group_name(judgement.group) : "");
}

std::string join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

/// Clients that differ in each thing that a level can refuse.
std::vector<Client> many_clients() {
  constexpr int kAny = 0;
  std::vector<Client> clients = {{"as it comes", kAny, kAny, "", "", "", ""}};
  for (const int newest : {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    clients.push_back({"up to a version", TLS1_VERSION, newest, "", "", "", ""});
    clients.push_back({"one version", newest, newest, "ALL:@SECLEVEL=0", "", "", ""});
  }
  for (const char* suites :
       {"ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384", "DHE-RSA-AES256-GCM-SHA384",
        "DHE-RSA-CHACHA20-POLY1305", "AES128-SHA", "AES256-GCM-SHA384", "CAMELLIA128-SHA",
        "ECDHE-RSA-CAMELLIA128-SHA256", "AES128-SHA:ECDHE-ECDSA-AES128-SHA", "PSK-AES128-CBC-SHA",
        "ECDHE-RSA-CHACHA20-POLY1305:ECDHE-ECDSA-CHACHA20-POLY1305"}) {
    clients.push_back({"suites", kAny, TLS1_2_VERSION, suites, "", "", ""});
  }
  for (const char* suites : {"TLS_AES_128_CCM_SHA256", "TLS_AES_128_CCM_8_SHA256",
                             "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384"}) {
    clients.push_back({"TLS 1.3 suites", kAny, kAny, "", suites, "", ""});
  }
  for (const char* groups : {"X25519", "X25519:P-256", "P-256", "P-384", "P-521:P-384", "X448"}) {
    clients.push_back({"groups", kAny, kAny, "", "", groups, ""});
    clients.push_back({"groups up to TLS 1.2", kAny, TLS1_2_VERSION, "", "", groups, ""});
  }
  for (const char* signatures :
       {"RSA+SHA256", "RSA-PSS+SHA256", "ECDSA+SHA256", "ECDSA+SHA384", "RSA+SHA1", "ed25519",
        "ECDSA+SHA512:RSA+SHA512", "rsa_pss_pss_sha256", "RSA-PSS+SHA512:ECDSA+SHA1"}) {
    clients.push_back({"signatures", kAny, kAny, "", "", "", signatures});
    clients.push_back({"signatures up to TLS 1.2", kAny, TLS1_2_VERSION, "", "", "", signatures});
  }
  return clients;
}

struct Refused {
  const char* what;
  int level;
  Client client;
  const char* lacks;
  const char* text;
};

class ClientsJudge : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    make_directories(kSslDir);
    write_dh_files();
  }

  static Judgement judge(int level, const std::string& kind, const Bytes& hello) {
    const ContextOwner context = kelotlsctl::make_level_context(level);
    const Judge judge(context.get(), {certificate(kind)});
    const Judgement judgement = judge.judge(hello);
    EXPECT_EQ(judge.answers(hello), judgement.is_answered);
    return judgement;
  }
};

TEST_F(ClientsJudge, RefusesAKeyShareOfAGroupThatIsNotOffered) {
  ClientHello hello =
      *kelotlsctl::read_client_hello(hello_of({"", 0, 0, "", "", "P-256:P-384", ""}));
  kelotlsctl::set_extension(hello, kelotlsctl::kGroupsExtension,
                            kelotlsctl::counted(kelotlsctl::list_bytes({0x0018}), 2));

  EXPECT_FALSE(judge(kModern, "RSA", kelotlsctl::write_client_hello(hello)).is_answered);
}

TEST_F(ClientsJudge, ForetellsEveryHandshakeOfManyClients) {
  int answered = 0;
  int refused = 0;
  for (const int level : {kModern, kIntermediate, kOld}) {
    for (const std::string kind : {"rsa", "ecdsa"}) {
      const ContextOwner served = kelotlsctl::make_level_context(level);
      use_certificate(served.get(), kind);
      const ContextOwner judged = kelotlsctl::make_level_context(level);
      const Judge judge(judged.get(), {certificate(kind == "rsa" ? "RSA" : "ECDSA")});
      for (const Client& client : many_clients()) {
        const ContextOwner context = make_client(client);
        const Bytes hello = first_message(context.get());
        if (hello.empty()) {
          continue;  // this OpenSSL cannot offer it
        }

        const Judgement judgement = judge.judge(hello);

        EXPECT_EQ(text_of(judgement), outcome_of_handshake(served.get(), context.get()))
            << client.name << " " << client.suites << client.tls13_suites << client.groups
            << client.signatures << ", level " << level << ", " << kind << ", "
            << join(judgement.lacks) << ": " << judgement.text;
        EXPECT_EQ(judge.answers(hello), judgement.is_answered) << client.name;
        ++(judgement.is_answered ? answered : refused);
      }
    }
  }
  EXPECT_GT(answered, 100);
  EXPECT_GT(refused, 50);
}

TEST_F(ClientsJudge, SaysWhyAHelloIsRefused) {
  const Refused cases[] = {
      {"an old version",
       kIntermediate,
       {"", TLS1_VERSION, TLS1_1_VERSION, "ALL:@SECLEVEL=0", "", "", ""},
       "version",
       "It offers TLS 1.1 at most."},
      {"no newest version",
       kModern,
       {"", 0, TLS1_2_VERSION, "", "", "", ""},
       "version",
       "It offers TLS 1.2 at most."},
      {"a suite of nobody",
       kIntermediate,
       {"", 0, TLS1_2_VERSION, "CAMELLIA128-SHA", "", "", ""},
       "cipher-suite",
       "None of its cipher suites will do with a certificate of RSA 2048."},
      {"a suite for another certificate",
       kIntermediate,
       {"", 0, TLS1_2_VERSION, "ECDHE-ECDSA-AES128-GCM-SHA256", "", "", ""},
       "cipher-suite",
       "None of its cipher suites will do with a certificate of RSA 2048."},
      {"a suite of TLS 1.3",
       kModern,
       {"", 0, 0, "", "TLS_AES_128_CCM_SHA256", "", ""},
       "cipher-suite",
       "None of its cipher suites will do with a certificate of RSA 2048."},
      {"a group",
       kModern,
       {"", 0, 0, "", "", "X25519:X448", ""},
       "group",
       "Its groups are X25519, X448."},
      {"a group up to TLS 1.2",
       kIntermediate,
       {"", 0, TLS1_2_VERSION, "ECDHE-RSA-AES128-GCM-SHA256", "", "X25519", ""},
       "group",
       "Its groups are X25519."},
      {"a signature",
       kModern,
       {"", 0, 0, "", "", "", "ECDSA+SHA256"},
       "signature-algorithm",
       "None of its signature algorithms will do with a certificate of RSA 2048."},
      {"a group and a signature",
       kModern,
       {"", 0, 0, "", "", "X25519", "ECDSA+SHA256"},
       "group signature-algorithm",
       "Its groups are X25519. None of its signature algorithms will do with a certificate of RSA "
       "2048."},
  };
  for (const Refused& one : cases) {
    const Judgement judgement = judge(one.level, "RSA", hello_of(one.client));

    EXPECT_FALSE(judgement.is_answered) << one.what;
    EXPECT_EQ(join(judgement.lacks), one.lacks) << one.what << ": " << judgement.text;
    EXPECT_EQ(judgement.text, one.text) << one.what;
  }
}

TEST_F(ClientsJudge, TellsWhatIsNegotiatedAndWhetherAfterARetry) {
  const Judgement retried = judge(kModern, "RSA", hello_of({"", 0, 0, "", "", "X25519:P-384", ""}));
  const Judgement at_once = judge(kModern, "ECDSA", hello_of({"", 0, 0, "", "", "P-256", ""}));
  const Judgement older = judge(
      kIntermediate, "RSA",
      hello_of({"", 0, TLS1_2_VERSION, "DHE-RSA-AES128-GCM-SHA256", "", "", "RSA-PSS+SHA384"}));

  EXPECT_EQ(text_of(retried), "TLSv1.3 TLS_AES_256_GCM_SHA384 secp384r1");
  EXPECT_TRUE(retried.after_retry);
  EXPECT_EQ(retried.signature.substr(0, 8), "RSA-PSS+");
  EXPECT_EQ(text_of(at_once), "TLSv1.3 TLS_AES_256_GCM_SHA384 prime256v1");
  EXPECT_FALSE(at_once.after_retry);
  EXPECT_EQ(at_once.signature, "ECDSA+SHA256");
  EXPECT_EQ(text_of(older), "TLSv1.2 DHE-RSA-AES128-GCM-SHA256 ");
  EXPECT_EQ(older.signature, "RSA-PSS+SHA384");
}

Session session_of(SSL_CTX* server, SSL_CTX* client) {
  static SSL_SESSION* last = nullptr;
  SSL_CTX_set_session_cache_mode(client, SSL_SESS_CACHE_CLIENT);
  SSL_CTX_sess_set_new_cb(client, [](SSL*, SSL_SESSION* session) {
    SSL_SESSION_free(last);
    last = session;
    return 1;
  });
  const End near(client, false);
  const End far(server, true);
  carry(near, far);
  char byte = 0;
  SSL_read(near.ssl.get(), &byte, 1);
  SSL_set_shutdown(near.ssl.get(), SSL_SENT_SHUTDOWN);  // else the session is taken for broken
  ERR_clear_error();
  return Session(std::exchange(last, nullptr));
}

/// Of a session with another server: with pre-shared keys, a ticket and early data.
Bytes resuming_hello(int version) {
  const ContextOwner other(SSL_CTX_new(TLS_server_method()));
  use_certificate(other.get(), "rsa");
  SSL_CTX_set_max_early_data(other.get(), 1024);
  const ContextOwner client = make_client({"", 0, version, "", "", "X25519:P-256", ""});
  const Session session = session_of(other.get(), client.get());
  EXPECT_NE(session, nullptr);
  const End end(client.get(), false);
  SSL_set_session(end.ssl.get(), session.get());
  std::size_t written = 0;
  version == TLS1_3_VERSION ? SSL_write_early_data(end.ssl.get(), "x", 1, &written)
                            : SSL_do_handshake(end.ssl.get());
  ERR_clear_error();
  const Bytes records = end.take();
  const auto length = static_cast<std::size_t>(static_cast<unsigned char>(records[3]) << 8 |
                                               static_cast<unsigned char>(records[4]));
  return messages_in(records.substr(0, 5 + length));  // early data follows
}

TEST_F(ClientsJudge, TakesHellosThatResumeForWhatTheyOffer) {
  const Bytes newest = resuming_hello(TLS1_3_VERSION);
  const Bytes older = resuming_hello(TLS1_2_VERSION);
  const auto hello = kelotlsctl::read_client_hello(newest);
  ASSERT_TRUE(hello);
  ASSERT_NE(hello->find(kelotlsctl::kPreSharedKeyExtension), nullptr);
  ASSERT_NE(hello->find(0x002a), nullptr) << "no early data";
  const auto older_hello = kelotlsctl::read_client_hello(older);
  ASSERT_TRUE(older_hello);
  ASSERT_FALSE(older_hello->find(kelotlsctl::kSessionTicketExtension)->body.empty());

  const Judgement judgement = judge(kModern, "RSA", newest);

  EXPECT_EQ(text_of(judgement), "TLSv1.3 TLS_AES_256_GCM_SHA384 prime256v1") << judgement.text;
  EXPECT_TRUE(judgement.after_retry);
  EXPECT_TRUE(judge(kIntermediate, "RSA", older).is_answered);
  EXPECT_EQ(join(judge(kModern, "RSA", older).lacks), "version");
}

TEST_F(ClientsJudge, PassesOverWhatMeansNothing) {
  ClientHello hello = *kelotlsctl::read_client_hello(hello_of({"", 0, 0, "", "", "P-256", ""}));
  hello.suites.insert(hello.suites.begin(), 0x2a2a);
  kelotlsctl::set_extension(hello, 0x3a3a, "x");
  kelotlsctl::set_extension(hello, kelotlsctl::kEncryptedHelloExtension, Bytes(200, '\1'));
  kelotlsctl::set_extension(hello, kelotlsctl::kGroupsExtension,
                            kelotlsctl::counted(kelotlsctl::list_bytes({0x4a4a, 0x0017}), 2));

  const Judgement judgement = judge(kModern, "RSA", kelotlsctl::write_client_hello(hello));

  EXPECT_EQ(text_of(judgement), "TLSv1.3 TLS_AES_256_GCM_SHA384 prime256v1") << judgement.text;
}

TEST_F(ClientsJudge, RefusesWhatIsNoHello) {
  const Bytes hello = hello_of({"", 0, 0, "", "", "", ""});

  EXPECT_EQ(judge(kOld, "RSA", "").text, "It is no ClientHello.");
  EXPECT_EQ(judge(kOld, "RSA", hello.substr(0, hello.size() - 1)).text, "It is no ClientHello.");
  EXPECT_EQ(join(judge(kOld, "RSA", hello + "x").lacks), "other");
}

TEST_F(ClientsJudge, RefusesAClientThatHasComeDown) {
  ClientHello hello =
      *kelotlsctl::read_client_hello(hello_of({"", 0, TLS1_2_VERSION, "", "", "", ""}));
  hello.suites.push_back(0x5600);

  const Judgement judgement = judge(kIntermediate, "RSA", kelotlsctl::write_client_hello(hello));

  EXPECT_EQ(join(judgement.lacks), "other");
  EXPECT_EQ(judgement.text, "It has come down from a newer version, which the level gives.");
}

TEST_F(ClientsJudge, UsesACertificateLikeTheServices) {
  const Bytes hello = hello_of({"", 0, 0, "", "", "P-256:P-384", "ECDSA+SHA384:RSA-PSS+SHA512"});
  const ContextOwner context = kelotlsctl::make_level_context(kModern);
  const auto judged_with = [&](const std::string& kind, int bits, const std::string& curve) {
    CertificateFacts facts;
    facts.kind = kind;
    facts.bits = bits;
    facts.curve = curve;
    const Judge judge(context.get(), {facts});
    const Judgement judgement = judge.judge(hello);
    EXPECT_EQ(judge.answers(hello), judgement.is_answered);
    return judgement;
  };

  EXPECT_EQ(judged_with("ECDSA", 384, "secp384r1").signature, "ECDSA+SHA384");
  EXPECT_EQ(join(judged_with("ECDSA", 256, "prime256v1").lacks), "signature-algorithm");
  EXPECT_EQ(judged_with("RSA", 3072, "").signature, "RSA-PSS+SHA512");
  EXPECT_EQ(join(judged_with("Ed25519", 0, "").lacks), "signature-algorithm");
  EXPECT_THROW(judged_with("DSA", 2048, ""), std::runtime_error);
}

TEST_F(ClientsJudge, NamesKnownClients) {
  const Bytes hello = first_message(make_client({"", 0, 0, "", "", "P-256", ""}).get());
  const Bytes again = first_message(make_client({"", 0, 0, "", "", "P-256", ""}).get());
  const Bytes other = first_message(make_client({"", 0, 0, "", "", "P-384", ""}).get());
  const std::string digits = kelotlsctl::hexadecimal_digits(hello);
  write_file("/tmp/known.json", R"({"clients": [{"name": "A 1", "hello": ")" + digits +
                                    R"("}, {"name": "B 2", "hello": ")" + digits +
                                    R"("}, {"name": "C 3", "hello": "zz"}]})");

  const auto known = kelotlsctl::KnownClients::load("/tmp/known.json");

  EXPECT_NE(hello, again);
  EXPECT_EQ(join(known.names_of(again)), "A 1 B 2");
  EXPECT_EQ(join(known.names_of(other)), "");
  write_file("/tmp/known.json", "[");
  EXPECT_EQ(join(kelotlsctl::KnownClients::load("/tmp/known.json").names_of(hello)), "");
}

TEST_F(ClientsJudge, KnowsThePackagedClientsOfItsOwnFile) {
  const auto known = kelotlsctl::KnownClients::load(KELOTLS_KNOWN_CLIENTS);
  const Json::Value clients = read_json(KELOTLS_KNOWN_CLIENTS)["clients"];

  EXPECT_GE(clients.size(), 20U);
  for (const Json::Value& client : clients) {
    const Lines names = known.names_of(kelotlsctl::octets_of(client["hello"].asString()));
    EXPECT_NE(std::find(names.begin(), names.end(), client["name"].asString()), names.end())
        << client["name"].asString();
  }
}

}  // namespace
}  // namespace kelotls::test

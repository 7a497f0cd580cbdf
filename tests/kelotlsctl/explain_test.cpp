// What kelotlsctl tells about a level, against what the library makes of it.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <sstream>
#include <string>

#include "kelotls/api_provider.h"
#include "levels/report.h"
#include "private_tree.h"
#include "profile.h"

namespace kelotls::test {
namespace {

using kelotlsctl::describe_level;
using kelotlsctl::explain_context;

constexpr char kDh1024Path[] = "/usr/kelo/etc/ssl/dh1024.pem";
constexpr char kDh2048Path[] = "/usr/kelo/etc/ssl/dh2048.pem";

struct ContextFree {
  void operator()(SSL_CTX* context) const { APIProvider().release_context(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextFree>;

/// Whether this is OpenSSL 3, whose security levels are stricter.
bool is_openssl_3() { return OpenSSL_version_num() >= 0x30000000UL; }

/// A configuration with these lines for every context.
std::string configuration(const std::string& lines) {
  return "openssl_conf = top\n[top]\nssl_conf = ssl\n[ssl]\nsystem_default = defaults\n"
         "[defaults]\n" +
         lines;
}

Lines strings(const Json::Value& array) {
  Lines lines;
  for (const Json::Value& element : array) {
    lines.push_back(element.asString());
  }
  return lines;
}

/// The differences as "what: kind, cause".
Lines differences(const Json::Value& explanation) {
  Lines lines;
  for (const Json::Value& difference : explanation["differences"]) {
    lines.push_back(difference["what"].asString() + ": " + difference["kind"].asString() + ", " +
                    difference["cause"].asString());
  }
  return lines;
}

std::string text_of(const Json::Value& explanation, const std::string& what) {
  for (const Json::Value& difference : explanation["differences"]) {
    if (difference["what"] == what) {
      return difference["text"].asString();
    }
  }
  return "no difference in " + what;
}

std::string joined(const Json::Value& names) {
  std::string list;
  for (const Json::Value& name : names) {
    list += (list.empty() ? "" : ":") + name.asString();
  }
  return list;
}

Lines cipher_names(SSL_CTX* context) {
  Lines names;
  const STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(ciphers); ++index) {
    names.push_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, index)));
  }
  return names;
}

class Explain : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_file(kDataStore, data_store_text(0, {{"m", "1"}, {"i", "2"}, {"o", "3"}}));
    write_file(kDh1024Path, test_data("bed/data/dh1024.pem"));
    write_file(kDh2048Path, test_data("bed/data/dh2048.pem"));
  }

  static Context acquire(int level) {
    const char* const names[] = {"", "m", "i", "o"};
    return Context(APIProvider().acquire_server_context(names[level]));
  }

  static Json::Value explain(int level) { return explain_context(acquire(level).get(), level); }
};

TEST_F(Explain, DescribesEachLevelWithTheLibrarysOwnSettings) {
  for (const int level : {1, 2, 3}) {
    const Profile& profile = profile_of_level(level);

    const Json::Value description = describe_level(level);

    EXPECT_EQ(description["level"], level);
    EXPECT_EQ(description["guideline"], "5.6");
    EXPECT_EQ("mozilla_" + description["name"].asString(), profile.tier);
    const std::string list = profile.cipher_list == nullptr ? "" : profile.cipher_list;
    EXPECT_EQ(joined(description["cipher-suites"]), list);
    EXPECT_EQ(description["dh-file"].isNull(), profile.dh_file == nullptr);
    if (profile.dh_file != nullptr) {
      EXPECT_EQ(description["dh-file"], std::string(kSslDir) + profile.dh_file);
    }
  }
}

TEST_F(Explain, DescribesALevelThatNamesNoneAsIntermediate) {
  EXPECT_EQ(describe_level(0), describe_level(2));
  EXPECT_EQ(describe_level(7), describe_level(2));
  EXPECT_NE(describe_level(3), describe_level(2));
}

TEST_F(Explain, ListsTheOldestClientsOfEachLevel) {
  EXPECT_EQ(strings(describe_level(1)["oldest-clients"]),
            (Lines{"Firefox 63", "Android 10", "Chrome 70", "Edge 75", "Java 11", "OpenSSL 1.1.1",
                   "Opera 57", "Safari 12.1"}));
  EXPECT_EQ(strings(describe_level(2)["oldest-clients"]),
            (Lines{"Firefox 27", "Android 4.4.2", "Chrome 31", "Edge 12", "IE 11 on Windows 7",
                   "Java 8u31", "OpenSSL 1.0.1", "Opera 20", "Safari 9"}));
  EXPECT_EQ(strings(describe_level(3)["oldest-clients"]),
            (Lines{"Firefox 1", "Android 2.3", "Chrome 1", "Edge 12", "IE 8 on Windows XP",
                   "Java 6", "OpenSSL 0.9.8", "Opera 5", "Safari 1"}));
}

TEST_F(Explain, MakesTheContextThatTheLibraryMakes) {
  for (const int level : {1, 2, 3}) {
    const Context expected = acquire(level);

    const ContextOwner context = kelotlsctl::make_level_context(level);

    EXPECT_EQ(SSL_CTX_get_options(context.get()), SSL_CTX_get_options(expected.get()));
    EXPECT_EQ(cipher_names(context.get()), cipher_names(expected.get()));
    EXPECT_EQ(explain_context(context.get(), level), explain_context(expected.get(), level));
  }
}

TEST_F(Explain, MakesAContextWithoutDheWhenTheFileCannotBeUsed) {
  set_openssl_configuration(kSecurityLevel0);
  write_file(kDh2048Path, "no parameters");

  const ContextOwner context = kelotlsctl::make_level_context(2);

  EXPECT_EQ(differences(explain_context(context.get(), 2)),
            Lines{"2048-bit DH: missing, dh-file-unreadable"});
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(Explain, FindsAllOfALevelAtSecurityLevel0) {
  set_openssl_configuration(kSecurityLevel0);
  for (const int level : {1, 2}) {
    const Json::Value description = describe_level(level);

    const Json::Value explanation = explain(level);

    EXPECT_EQ(differences(explanation), Lines{});
    for (const char* key : {"protocols", "cipher-suites", "tls13-suites", "groups", "dh-bits"}) {
      EXPECT_EQ(explanation["offers"][key], description[key]) << key;
    }
    EXPECT_EQ(explanation["oldest-clients"], description["oldest-clients"]);
    EXPECT_EQ(strings(explanation["lost-clients"]), Lines{});
    EXPECT_EQ(explanation["security-level"], 0);
    EXPECT_EQ(explanation["guideline"], "5.6");
  }
}

TEST_F(Explain, MissesTripleDesOnlyAtSecurityLevel0) {
  set_openssl_configuration(kSecurityLevel0);
  const Json::Value description = describe_level(3);

  const Json::Value explanation = explain(3);

  EXPECT_EQ(differences(explanation), Lines{"DES-CBC3-SHA: missing, suite-unavailable"});
  EXPECT_EQ(text_of(explanation, "DES-CBC3-SHA"), std::string("This machine's library, ") +
                                                      OpenSSL_version(OPENSSL_VERSION) +
                                                      ", does not have it.");
  EXPECT_EQ(explanation["offers"]["protocols"], description["protocols"]);
  EXPECT_EQ(explanation["offers"]["dh-bits"], 1024);
  EXPECT_EQ(joined(explanation["offers"]["cipher-suites"]) + ":DES-CBC3-SHA",
            joined(description["cipher-suites"]));
  EXPECT_EQ(strings(explanation["lost-clients"]),
            (Lines{"IE 8 on Windows XP", "Opera 5", "Safari 1"}));
  EXPECT_EQ(strings(explanation["oldest-clients"]),
            (Lines{"Firefox 1", "Android 2.3", "Chrome 1", "Edge 12", "IE 7 on Windows Vista",
                   "Java 6", "OpenSSL 0.9.8", "Opera 9", "Safari 5 on OS X 10.6"}));
}

TEST_F(Explain, NamesTheKnownDifferencesOfThisMachinesOpenSsl) {
  EXPECT_EQ(differences(explain(1)), Lines{});
  EXPECT_EQ(differences(explain(2)), Lines{});

  const Json::Value explanation = explain(3);

  if (is_openssl_3()) {
    EXPECT_EQ(differences(explanation),
              (Lines{"TLS 1.0: missing, security-level", "TLS 1.1: missing, security-level",
                     "1024-bit DH: missing, dh-file-refused",
                     "DES-CBC3-SHA: missing, suite-unavailable"}));
    EXPECT_EQ(text_of(explanation, "TLS 1.0"),
              "OpenSSL's security level 2 refuses it; level 0 would not.");
    EXPECT_EQ(text_of(explanation, "1024-bit DH"),
              "OpenSSL's security level 2 refuses the 1024-bit parameters of "
              "/usr/kelo/etc/ssl/dh1024.pem; level 1 would not.");
    EXPECT_EQ(strings(explanation["lost-clients"]),
              (Lines{"Firefox 1", "Android 2.3", "Chrome 1", "IE 8 on Windows XP", "Java 6",
                     "OpenSSL 0.9.8", "Opera 5", "Safari 1"}));
  } else {
    EXPECT_EQ(differences(explanation), Lines{"DES-CBC3-SHA: missing, suite-unavailable"});
  }
}

TEST_F(Explain, NamesThePostQuantumGroupsThatALevelLeavesOut) {
  const bool has_them = OpenSSL_version_num() >= 0x30500000UL;
  const Lines expected = has_them ? Lines{"X25519MLKEM768"} : Lines{};
  EXPECT_EQ(strings(explain(1)["left-out-groups"]), expected);
  EXPECT_EQ(strings(explain(3)["left-out-groups"]), expected);
  std::ostringstream text;
  kelotlsctl::print_explanation(text, explain(1), false);
  EXPECT_EQ(text.str().find("X25519MLKEM768") != std::string::npos, has_them);
}

TEST_F(Explain, BlamesTheSystemWideMinimumVersion) {
  set_openssl_configuration(
      configuration("CipherString = DEFAULT:@SECLEVEL=0\nMinProtocol = TLSv1.2\n"));

  const Json::Value explanation = explain(3);

  EXPECT_EQ(differences(explanation),
            (Lines{"TLS 1.0: missing, minimum-version", "TLS 1.1: missing, minimum-version",
                   "DES-CBC3-SHA: missing, suite-unavailable"}));
  EXPECT_EQ(text_of(explanation, "TLS 1.1"), "OpenSSL's system-wide minimum version is TLS 1.2.");
  EXPECT_EQ(strings(explanation["offers"]["protocols"]), (Lines{"TLS 1.2", "TLS 1.3"}));
}

/// What security level 2 has against TLS 1.0: in OpenSSL 1.1 nothing, as far as a server goes.
std::string refused_too() {
  return is_openssl_3() ? " OpenSSL's security level 2 refuses it too; level 0 would not." : "";
}

TEST_F(Explain, NamesTheSecurityLevelBesideTheMinimumVersion) {
  set_openssl_configuration(
      configuration("CipherString = DEFAULT:@SECLEVEL=2\nMinProtocol = TLSv1.2\n"));

  const Json::Value explanation = explain(3);

  EXPECT_EQ(
      differences(explanation),
      (Lines{"TLS 1.0: missing, minimum-version", "TLS 1.1: missing, minimum-version",
             "1024-bit DH: missing, dh-file-refused", "DES-CBC3-SHA: missing, suite-unavailable"}));
  EXPECT_EQ(text_of(explanation, "TLS 1.0"),
            std::string("OpenSSL's system-wide minimum version is TLS 1.2.") + refused_too());
}

TEST_F(Explain, BlamesAMinimumVersionOfTheContextsOwn) {
  set_openssl_configuration(kSecurityLevel0);
  const Context context = acquire(2);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);

  const Json::Value explanation = explain_context(context.get(), 2);

  // Neither the suites nor the DH parameters are missing in themselves.
  EXPECT_EQ(differences(explanation), Lines{"TLS 1.2: missing, minimum-version"});
  EXPECT_EQ(text_of(explanation, "TLS 1.2"), "The context's minimum version is TLS 1.3.");
}

TEST_F(Explain, FindsAMissingDhFileBehindAMissingVersion) {
  set_openssl_configuration(kSecurityLevel0);
  remove_all(kDh2048Path);
  const Context context = acquire(2);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);

  EXPECT_EQ(differences(explain_context(context.get(), 2)),
            (Lines{"TLS 1.2: missing, minimum-version", "2048-bit DH: missing, dh-file-missing"}));
}

TEST_F(Explain, BlamesTheSystemWideMaximumVersion) {
  set_openssl_configuration(
      configuration("CipherString = DEFAULT:@SECLEVEL=0\nMaxProtocol = TLSv1.2\n"));

  const Json::Value intermediate = explain(2);
  const Json::Value modern = explain(1);

  EXPECT_EQ(differences(intermediate), Lines{"TLS 1.3: missing, maximum-version"});
  EXPECT_EQ(text_of(intermediate, "TLS 1.3"), "OpenSSL's system-wide maximum version is TLS 1.2.");
  EXPECT_EQ(strings(intermediate["offers"]["groups"]),
            (Lines{"prime256v1", "secp384r1", "secp521r1"}));
  EXPECT_EQ(differences(modern), Lines{"TLS 1.3: missing, maximum-version"});
  EXPECT_EQ(strings(modern["offers"]["protocols"]), Lines{});
  EXPECT_EQ(strings(modern["oldest-clients"]), Lines{});
  EXPECT_EQ(modern["lost-clients"], describe_level(1)["oldest-clients"]);
}

TEST_F(Explain, NamesAnOptionThatSwitchesAVersionOff) {
  set_openssl_configuration(
      configuration("CipherString = DEFAULT:@SECLEVEL=0\nProtocol = -TLSv1.3\n"));

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"TLS 1.3: missing, other"});
  EXPECT_EQ(text_of(explanation, "TLS 1.3"),
            "An option of the context, its own or system-wide, switches it off.");
}

TEST_F(Explain, BlamesTheSecurityLevelForSuitesAndGroups) {
  set_openssl_configuration(configuration("CipherString = DEFAULT:@SECLEVEL=4\n"));

  const Lines found = differences(explain(3));

  for (const char* line :
       {"AES128-GCM-SHA256: missing, security-level",
        "ECDHE-RSA-AES128-GCM-SHA256: missing, security-level",
        "TLS_AES_128_GCM_SHA256: missing, security-level", "prime256v1: missing, security-level"}) {
    EXPECT_EQ(std::count(found.begin(), found.end(), line), 1) << line;
  }
  for (const std::string& line : found) {
    EXPECT_EQ(line.find("secp384r1"), std::string::npos);
    EXPECT_EQ(line.find("TLS_AES_256_GCM_SHA384"), std::string::npos);
  }
}

TEST_F(Explain, GivesTheThrowAwayCertificatesTheStrengthThatTheSecurityLevelAsksFor) {
  set_openssl_configuration(configuration("CipherString = DEFAULT:@SECLEVEL=3\n"));

  EXPECT_EQ(differences(explain(2)), Lines{"2048-bit DH: missing, dh-file-refused"});
}

TEST_F(Explain, FindsAGroupThatOnlyAnEcdsaCertificateCanShow) {
  set_openssl_configuration(
      configuration("CipherString = DEFAULT:@SECLEVEL=5\nMaxProtocol = TLSv1.2\n"));

  const Json::Value explanation = explain(2);

  // From level 4 on no RSA certificate that anybody has is strong enough.
  EXPECT_EQ(text_of(explanation, "secp521r1"), "no difference in secp521r1");
  EXPECT_EQ(text_of(explanation, "prime256v1"),
            "OpenSSL's security level 5 refuses it; level 3 would not.");
}

TEST_F(Explain, DoesNotBlameTheSecurityLevelForAGroupThatTheContextDoesNotHave) {
  const Context context = acquire(2);
  SSL_CTX_set_security_level(context.get(), 2);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  SSL_CTX_set1_groups_list(context.get(), "prime256v1:secp384r1");

  const Json::Value explanation = explain_context(context.get(), 2);

  EXPECT_EQ(differences(explanation),
            (Lines{"TLS 1.3: missing, other", "secp521r1: missing, other"}));
  EXPECT_EQ(text_of(explanation, "secp521r1"), "The handshake fails: no shared cipher.");
}

TEST_F(Explain, BlamesTheSecurityLevelInAContextWithAGapAmongItsVersions) {
  const Context context = acquire(1);
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
  SSL_CTX_set_cipher_list(context.get(), "ECDHE-ECDSA-AES128-GCM-SHA256");
  SSL_CTX_set_security_level(context.get(), 4);

  EXPECT_EQ(text_of(explain_context(context.get(), 1), "TLS_AES_128_GCM_SHA256"),
            "OpenSSL's security level 4 refuses it; level 3 would not.");
}

TEST_F(Explain, BlamesNoOptionWhereNoneSwitchesTheVersionOff) {
  set_openssl_configuration(kSecurityLevel0);
  const Context context = acquire(2);
  SSL_CTX_set_ciphersuites(context.get(), "");

  const std::string text = text_of(explain_context(context.get(), 2), "TLS 1.3");

  EXPECT_EQ(text.find("OpenSSL does not accept it, whatever setting is lifted: "), 0U) << text;
}

TEST_F(Explain, LiftsOnlyWhatStandsAgainstAVersion) {
  const Context context = acquire(3);
  SSL_CTX_set_security_level(context.get(), 2);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TLSv1_3);
  SSL_CTX_set_ciphersuites(context.get(), "");  // so that with TLS 1.3 no handshake succeeds

  EXPECT_EQ(text_of(explain_context(context.get(), 3), "TLS 1.0"),
            std::string("The context's minimum version is TLS 1.2.") + refused_too());
}

TEST_F(Explain, BlamesAMissingDhFile) {
  remove_all(kDh2048Path);

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, dh-file-missing"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"),
            "The file /usr/kelo/etc/ssl/dh2048.pem does not exist.");
  EXPECT_TRUE(explanation["offers"]["dh-bits"].isNull());
  const Lines suites = strings(explanation["offers"]["cipher-suites"]);
  EXPECT_EQ(suites.size(), 6U);
  EXPECT_EQ(std::count(suites.begin(), suites.end(), "DHE-RSA-AES128-GCM-SHA256"), 0);
  EXPECT_EQ(strings(explanation["lost-clients"]), Lines{"IE 11 on Windows 7"});
}

TEST_F(Explain, BlamesACorruptDhFile) {
  write_file(kDh2048Path, "-----BEGIN DH PARAMETERS-----\nMIIB\n-----END DH PARAMETERS-----\n");

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, dh-file-unreadable"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH")
                .find("The file /usr/kelo/etc/ssl/dh2048.pem holds "
                      "no DH parameters: "),
            0U);
}

TEST_F(Explain, BlamesADhFileThatCannotBeOpened) {
  remove_all(kDh2048Path);
  ASSERT_EQ(::symlink("dh2048.pem", kDh2048Path), 0);  // to itself

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, dh-file-unreadable"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"),
            "The file /usr/kelo/etc/ssl/dh2048.pem cannot be opened: "
            "Too many levels of symbolic links.");
}

TEST_F(Explain, BlamesAFolderInThePlaceOfADhFile) {
  remove_all(kDh2048Path);
  ASSERT_EQ(::mkdir(kDh2048Path, 0755), 0);

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, dh-file-unreadable"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"),
            "The file /usr/kelo/etc/ssl/dh2048.pem cannot be opened: Is a directory.");
}

TEST_F(Explain, NamesTheSizeOfParametersThatTheSecurityLevelRefuses) {
  set_openssl_configuration(configuration("CipherString = DEFAULT:@SECLEVEL=2\n"));
  write_file(kDh2048Path, test_data("bed/data/dh1024.pem"));

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, dh-file-refused"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"),
            "OpenSSL's security level 2 refuses the 1024-bit parameters of "
            "/usr/kelo/etc/ssl/dh2048.pem; level 1 would not.");
}

TEST_F(Explain, NamesTheSizeOfParametersThatAreNotTheLevels) {
  set_openssl_configuration(kSecurityLevel0);
  write_file(kDh2048Path, test_data("bed/data/dh1024.pem"));

  const Json::Value explanation = explain(2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, other"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"), "DHE is done with 1024-bit parameters instead.");
  EXPECT_EQ(explanation["offers"]["dh-bits"], 1024);
}

TEST_F(Explain, TellsAContextThatWasMadeBeforeItsDhFile) {
  remove_all(kDh2048Path);
  const Context context = acquire(2);
  write_file(kDh2048Path, test_data("bed/data/dh2048.pem"));

  const Json::Value explanation = explain_context(context.get(), 2);

  EXPECT_EQ(differences(explanation), Lines{"2048-bit DH: missing, other"});
  EXPECT_EQ(text_of(explanation, "2048-bit DH"),
            "The file /usr/kelo/etc/ssl/dh2048.pem is in order, but this context was made "
            "without it.");
}

TEST_F(Explain, ReportsWhatTheLevelDoesNotAskFor) {
  set_openssl_configuration(kSecurityLevel0);
  const Context context = acquire(1);
  SSL_CTX_clear_options(context.get(), SSL_OP_NO_TLSv1_2);
  SSL_CTX_set1_groups_list(context.get(), "prime256v1:secp384r1:secp521r1:X25519");

  EXPECT_EQ(differences(explain_context(context.get(), 1)),
            (Lines{"TLS 1.2: extra, other", "X25519: extra, other"}));
}

TEST_F(Explain, LeavesTheContextAsItWas) {
  const Context context = acquire(3);
  const auto options = SSL_CTX_get_options(context.get());
  const long minimum = SSL_CTX_get_min_proto_version(context.get());
  const long maximum = SSL_CTX_get_max_proto_version(context.get());
  const int security_level = SSL_CTX_get_security_level(context.get());
  const Lines ciphers = cipher_names(context.get());

  const Json::Value first = explain_context(context.get(), 3);

  EXPECT_EQ(SSL_CTX_get_options(context.get()), options);
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context.get()), minimum);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context.get()), maximum);
  EXPECT_EQ(SSL_CTX_get_security_level(context.get()), security_level);
  EXPECT_EQ(cipher_names(context.get()), ciphers);
  EXPECT_EQ(SSL_CTX_get0_certificate(context.get()), nullptr);
  EXPECT_EQ(SSL_CTX_get0_privatekey(context.get()), nullptr);
  EXPECT_EQ(SSL_CTX_sess_number(context.get()), 0);
  EXPECT_GT(SSL_CTX_sess_accept(context.get()), 0);  // so it was asked
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_EQ(explain_context(context.get(), 3), first);
}

std::string printed(const Json::Value& value, bool colour,
                    void (*print)(std::ostream&, const Json::Value&, bool)) {
  std::ostringstream out;
  print(out, value, colour);
  return out.str();
}

TEST_F(Explain, PrintsAtMost80ColumnsAndTheSameTextInColour) {
  remove_all(kDh2048Path);
  for (const int level : {1, 2, 3}) {
    for (const bool explains : {false, true}) {
      const Json::Value value = explains ? explain(level) : describe_level(level);
      const auto print = explains ? kelotlsctl::print_explanation : kelotlsctl::print_level;

      const std::string plain = printed(value, false, print);
      const std::string coloured = printed(value, true, print);

      std::istringstream lines(plain);
      for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80U) << line;
        EXPECT_FALSE(!line.empty() && line.back() == ' ') << line;
      }
      EXPECT_EQ(plain.find('\033'), std::string::npos);
      EXPECT_NE(coloured.find('\033'), std::string::npos);
      EXPECT_EQ(std::regex_replace(coloured, std::regex("\033\\[[0-9]*m"), ""), plain);
    }
  }
}

TEST_F(Explain, PrintsDifferencesWithTheirReasons) {
  set_openssl_configuration(kSecurityLevel0);
  remove_all(kDh2048Path);

  const std::string text = printed(explain(2), false, kelotlsctl::print_explanation);

  const std::string left_out = OpenSSL_version_num() < 0x30500000UL
                                   ? ""
                                   : "  left out          X25519MLKEM768\n"
                                     "                    which this OpenSSL offers by itself: the "
                                     "level names its\n"
                                     "                    groups\n";
  EXPECT_EQ(text,
            std::string("Level 2, intermediate, on this machine\n") + "  OpenSSL           " +
                OpenSSL_version(OPENSSL_VERSION) +
                ", security level 0\n"
                "  protocols         TLS 1.2, TLS 1.3\n"
                "  TLS 1.3 suites    TLS_AES_128_GCM_SHA256, TLS_AES_256_GCM_SHA384,\n"
                "                    TLS_CHACHA20_POLY1305_SHA256\n"
                "  older suites      ECDHE-ECDSA-AES128-GCM-SHA256, "
                "ECDHE-RSA-AES128-GCM-SHA256,\n"
                "                    ECDHE-ECDSA-AES256-GCM-SHA384, "
                "ECDHE-RSA-AES256-GCM-SHA384,\n"
                "                    ECDHE-ECDSA-CHACHA20-POLY1305, "
                "ECDHE-RSA-CHACHA20-POLY1305\n"
                "  groups            prime256v1, secp384r1, secp521r1\n"
                "  DH parameters     none\n"
                "  oldest clients    Firefox 27, Android 4.4.2, Chrome 31, Edge 12, "
                "Java 8u31,\n"
                "                    OpenSSL 1.0.1, Opera 20, Safari 9\n"
                "                    as version 5.6 of the guideline names them\n"
                "  lost clients      IE 11 on Windows 7\n" +
                left_out +
                "\n"
                "Differences from what the level asks for:\n"
                "  missing           2048-bit DH\n"
                "                    The file /usr/kelo/etc/ssl/dh2048.pem does not exist.\n");
}

}  // namespace
}  // namespace kelotls::test

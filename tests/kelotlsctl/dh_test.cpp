// kelotlsctl dh: makes the files of Diffie-Hellman parameters, and leaves alone those in order.
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

const std::string kDh2048 = std::string(kSslDir) + "dh2048.pem";
const std::string kDh1024 = std::string(kSslDir) + "dh1024.pem";

using Parameters = std::unique_ptr<DH, void (*)(DH*)>;

Parameters read_parameters(const std::string& path) {
  const std::string text = read_file(path);
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
  return {PEM_read_bio_DHparams(bio.get(), nullptr, nullptr, nullptr), DH_free};
}

bool is_ffdhe2048(const std::string& path) {
  const Parameters named(DH_new_by_nid(NID_ffdhe2048), DH_free);
  const Parameters found = read_parameters(path);
  return found != nullptr && BN_cmp(DH_get0_p(found.get()), DH_get0_p(named.get())) == 0;
}

class KelotlsctlDh : public Kelotlsctl {};

TEST_F(KelotlsctlDh, MakesBothFilesWhereThereIsNothing) {
  remove_all(kSslDir);

  const Outcome outcome = run({"dh"}, {}, {});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, kDh2048 + ": made with ffdhe2048, of RFC 7919\n" + kDh1024 +
                             ": made with a new prime of 1024 bits\n");
  EXPECT_TRUE(is_ffdhe2048(kDh2048));
  EXPECT_EQ(DH_bits(read_parameters(kDh1024).get()), 1024);
  EXPECT_EQ(mode(kDh2048), 0644u);
  EXPECT_EQ(mode(kDh1024), 0644u);
  EXPECT_EQ(names_in(kSslDir), (Lines{"dh1024.pem", "dh2048.pem"}));
  EXPECT_EQ(run({"check"}).err, "Nothing is wrong.\n");
  EXPECT_EQ(run_json("explain", {"intermediate"}).document["offers"]["dh-bits"], 2048);
}

TEST_F(KelotlsctlDh, LeavesFilesInOrderAsTheyAre) {
  const Lines before = tree();
  const Outcome outcome = run({"dh"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, kDh2048 + ": stays as it is\n" + kDh1024 + ": stays as it is\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlDh, ReplacesFilesThatAreBroken) {
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"", "holds no DH parameters: "},
      {"-----BEGIN DH PARAMETERS-----\nMAA=\n-----END DH PARAMETERS-----\n",
       "holds no DH parameters: "},
      {test_data("bed/data/dh1024.pem"), "holds parameters of 1024 bits, not 2048"},
      {test_data("bed/data/dh2048_small_factors.pem"),
       "holds unsafe DH parameters: the modulus is no prime"}};
  for (const auto& [text, fault] : texts) {
    write_file(kDh2048, text);
    const JsonOutcome outcome = run_json("dh");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.document["files"][0]["change"], "changed");
    EXPECT_TRUE(contains(outcome.document["files"][0]["fault"].asString(), fault));
    EXPECT_EQ(outcome.document["files"][1]["change"], "none");
    EXPECT_TRUE(is_ffdhe2048(kDh2048)) << fault;
  }
}

TEST_F(KelotlsctlDh, ReplacesAPipeAndALinkAndWaitsForNeither) {
  for (const bool is_pipe : {true, false}) {
    remove_all(kDh2048);
    if (is_pipe) {
      ASSERT_EQ(::mkfifo(kDh2048.c_str(), 0600), 0);
    } else {
      make_link("/usr/kelo/nowhere", kDh2048);
    }
    EXPECT_EQ(run({"dh"}).status, 0);
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(kDh2048)));
    EXPECT_TRUE(is_ffdhe2048(kDh2048));
  }
  EXPECT_FALSE(exists("/usr/kelo/nowhere"));
}

TEST_F(KelotlsctlDh, APipeHoldsUpNoCommand) {
  join_both();
  remove_all(kDh2048);
  ASSERT_EQ(::mkfifo(kDh2048.c_str(), 0600), 0);
  for (const Arguments& words : {Arguments{"explain", "intermediate"}, Arguments{"explain", "web"},
                                 Arguments{"probe", "web"}, Arguments{"check"}, Arguments{"apply"},
                                 Arguments{"set", "web", "intermediate", "--apply"}}) {
    Arguments command = {"timeout", "20", KELOTLSCTL};
    command.insert(command.end(), words.begin(), words.end());
    const Outcome outcome = run_program(command);
    EXPECT_TRUE(outcome.status == 1 || outcome.status == 3) << words[0] << outcome.status;
    EXPECT_TRUE(contains(outcome.out + outcome.err, "is no regular file")) << words[0];
  }
}

TEST_F(KelotlsctlDh, ReplacesFilesInOrderWhereItIsForced) {
  const std::string before = read_file(kDh1024);
  const Outcome outcome = run({"dh", "--force", "--quiet"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, kDh2048 + ": replaced with ffdhe2048, of RFC 7919\n" + kDh1024 +
                             ": replaced with a new prime of 1024 bits\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(is_ffdhe2048(kDh2048));
  EXPECT_EQ(DH_bits(read_parameters(kDh1024).get()), 1024);
  EXPECT_NE(read_file(kDh1024), before);
}

TEST_F(KelotlsctlDh, SaysWhichFileCannotBeWritten) {
  remove_all(kDh2048);
  make_directories(kDh2048);
  const Outcome outcome = run({"dh"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl: error: " + kDh2048 + ": Is a directory\n"));
  EXPECT_EQ(names_in(kSslDir), (Lines{"dh1024.pem", "dh2048.pem"}));
  EXPECT_EQ(names_in(kDh2048), Lines());
}

TEST_F(KelotlsctlDh, OfUnsafeParametersAreAnErrorWhereverTheyAreRead) {
  join_both();
  write_file(kDh2048, test_data("bed/data/dh2048_small_factors.pem"));
  const std::string text = kDh2048 + " holds unsafe DH parameters: the modulus is no prime";

  const JsonOutcome check = run_json("check");
  EXPECT_EQ(check.status, 3);
  ASSERT_EQ(check.document["findings"].size(), 1u);
  EXPECT_EQ(check.document["findings"][0]["severity"], "error");
  EXPECT_EQ(check.document["findings"][0]["path"], kDh2048);
  EXPECT_EQ(check.document["findings"][0]["action"], "kelotlsctl dh, or the appliance's own file");
  for (const Arguments& command : {Arguments{"explain", "intermediate"},
                                   Arguments{"explain", "web"}, Arguments{"probe", "web"}}) {
    const JsonOutcome outcome = run_json(command[0], {command[1]});
    EXPECT_EQ(outcome.status, 3);
    ASSERT_EQ(outcome.document["differences"].size(), 1u) << outcome.document.toStyledString();
    EXPECT_EQ(outcome.document["differences"][0]["cause"], "dh-file-unsafe");
    EXPECT_TRUE(contains(outcome.document["differences"][0]["text"].asString(), text));
  }
  const Outcome apply = run({"apply"});
  EXPECT_EQ(apply.status, 3);
  EXPECT_TRUE(contains(apply.err, "web: probe: " + text));
  EXPECT_EQ(run({"explain", "modern"}).status, 0) << "which uses no such file";

  ASSERT_EQ(run({"dh"}).status, 0);
  EXPECT_EQ(run({"apply"}).status, 0);
}

TEST_F(KelotlsctlDh, NeedsNoFramework) {
  remove_all("/usr/kelo/etc/security-profile");
  remove_all(kDh2048);
  EXPECT_EQ(run({"dh"}).status, 0);
  EXPECT_TRUE(is_ffdhe2048(kDh2048));
}

}  // namespace
}  // namespace kelotls::test

// kelotlsctl clients record, import and forget: real clients of a real server, files of packets,
// and what the process that reads packets is left with.
#include <pcap.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <sstream>

#include "kelotlsctl.h"
#include "nginx.h"
#include "packets.h"

namespace kelotls::test {
namespace {

constexpr char kRecord[] = "/usr/kelo/etc/security-profile/tls-profile/clients/web.json";
constexpr char kCapture[] = "/tmp/capture";
constexpr char kSaid[] = "/tmp/recorder";
constexpr char kSecret[] = "the-secret-of-the-connection";

/// A hello for TLS 1.2 that offers this suite, in one record.
std::string record_of(unsigned suite) {
  const std::string body = number(0x0303, 2) + std::string(32, 'r') + number(0, 1) + number(2, 2) +
                           number(suite, 2) + number(0x0100, 2);
  const std::string message = number(1, 1) + number(body.size(), 3) + body;
  return number(0x160301, 3) + number(message.size(), 2) + message;
}

std::vector<std::string> joined(std::vector<std::string> one,
                                const std::vector<std::string>& other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}

JsonOutcome run_recording(const Arguments& arguments, const std::string& schema) {
  Arguments all = {"--json", "clients"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const Outcome outcome = run(all);
  const JsonOutcome result = {outcome.status, json(outcome.out)};
  EXPECT_EQ(faults_against(std::string(KELOTLS_SCHEMAS) + "/output/" + schema + ".schema.json",
                           result.document),
            "")
      << outcome.out << outcome.err;
  return result;
}

class KelotlsctlClients : public Kelotlsctl {
 protected:
  void SetUp() override {
    if (std::getenv("KELOTLS_EMULATED") != nullptr) {
      GTEST_SKIP() << "the emulator has neither seccomp nor sockets for packets";
    }
    Kelotlsctl::SetUp();
    join_both();
    ASSERT_EQ(run({"address", "web", "localhost:443"}).status, 0);
    log();
  }

  void import(const std::vector<std::string>& packets, const Arguments& options = {},
              const std::string& service = "web") {
    write_file(kCapture, capture_file(packets));
    Arguments arguments = {"clients", "import", service, kCapture};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
  }
};

TEST_F(KelotlsctlClients, AreImportedFromEveryFormatOfFiles) {
  const auto packets = connection(record_of(0x002f) + kSecret, 40000);
  for (const CaptureFormat format :
       {CaptureFormat::kMicroseconds, CaptureFormat::kNanoseconds, CaptureFormat::kOtherByteOrder,
        CaptureFormat::kNextGeneration}) {
    remove_all(kRecord);
    write_file(kCapture, capture_file(packets, 1, format));
    const JsonOutcome imported = run_recording({"import", "web", kCapture}, "clients-record");
    EXPECT_EQ(imported.status, 0);
    EXPECT_EQ(imported.document["packets"], 3);
    EXPECT_EQ(imported.document["ended-by"], "file");
    const Json::Value record = read_json(kRecord);
    EXPECT_EQ(record["since"], "2026-11-16T12:00:00Z");
    EXPECT_EQ(record["until"], "2026-11-16T14:00:00Z");
    ASSERT_EQ(record["hellos"].size(), 1U);
    EXPECT_EQ(record["hellos"][0]["hello"], hexadecimal(record_of(0x002f).substr(5)));
    EXPECT_EQ(record["hellos"][0]["first"], "2026-11-16T13:00:00Z");
    EXPECT_EQ(record["hellos"][0]["hours"], json(R"({"2026-11-16T13": 1})"));
    EXPECT_EQ(record["hellos"][0]["addresses"], json(R"(["192.0.2.7"])"));
  }
}

TEST_F(KelotlsctlClients, AreSaidInWords) {
  auto packets = joined(connection(record_of(0x002f), 40000), connection(record_of(0x002f), 40001));
  packets = joined(packets, connection(record_of(0x0035), 40002));
  packets = joined(packets, connection("GET / HTTP/1.0\r\n\r\n", 40003));
  packets = joined(packets, connection(record_of(0x002f).substr(0, 20), 40004));
  packets = joined(packets, connection(octets("802e010301"), 40005));
  packets = joined(packets, connection(octets("160301000401010000"), 40006));
  packets = joined(packets, connection(record_of(0x002f), 40007, 80));
  write_file(kCapture, capture_file(packets));
  EXPECT_EQ(run({"clients", "import", "web", kCapture}).out,
            "web: 3 connections; 2 new hellos, 2 are kept; without a hello: 1 not TLS, 1 in the "
            "form of SSL 2, 1 incomplete, 1 too large\n");
  EXPECT_EQ(read_json(kRecord)["unread"],
            json(R"({"not-tls": 1, "ssl2": 1, "incomplete": 1, "too-large": 1})"));
}

TEST_F(KelotlsctlClients, LeaveNothingBehindButTheirHellos) {
  auto packets = connection(record_of(0x002f) + kSecret, 40000);
  packets = joined(packets, connection(std::string(kSecret) + "\r\n", 40001));
  packets = joined(packets, connection(record_of(0x002f).substr(0, 20) + kSecret, 40002));
  import(packets);
  ASSERT_EQ(run({"address", "web", "localhost:443", "--starttls", "smtp"}).status, 0);
  import(
      connection("EHLO " + std::string(kSecret) + "\r\nSTARTTLS\r\n" + record_of(0x0035), 40003));
  ASSERT_EQ(read_json(kRecord)["hellos"].size(), 2U);
  for (const std::string& line : tree()) {
    EXPECT_EQ(line.find(kSecret), std::string::npos);
    EXPECT_EQ(line.find(hexadecimal(kSecret)), std::string::npos);
  }
}

TEST_F(KelotlsctlClients, KeepOfTheirAddressesWhatIsAskedFor) {
  const auto addresses = [&](const Arguments& options) {
    remove_all(kRecord);
    import(connection(record_of(0x002f), 40000), options);
    return read_json(kRecord)["hellos"][0]["addresses"];
  };
  EXPECT_EQ(addresses({"--no-addresses"}), json("[]"));
  EXPECT_EQ(addresses({"--prefix", "24"}), json(R"(["192.0.2.0/24"])"));
  EXPECT_EQ(addresses({"--prefix6", "48"}), json(R"(["192.0.2.7"])"));
}

TEST_F(KelotlsctlClients, AreThoseOfThePortAndTheAddress) {
  const auto packets =
      joined(connection(record_of(0x002f), 40000), connection(record_of(0x0035), 40001, 8443));
  import(packets, {"--port", "8443"});
  EXPECT_EQ(read_json(kRecord)["hellos"][0]["hello"], hexadecimal(record_of(0x0035).substr(5)));
  remove_all(kRecord);
  ASSERT_EQ(run({"address", "web", "198.51.100.1:443"}).status, 0);
  import(packets);
  EXPECT_EQ(read_json(kRecord)["hellos"].size(), 1U);
  remove_all(kRecord);
  ASSERT_EQ(run({"address", "web", "198.51.100.2:443"}).status, 0);
  import(packets);
  EXPECT_EQ(read_json(kRecord)["hellos"].size(), 0U);
}

TEST_F(KelotlsctlClients, AreKeptInAFileThatIsNoLargerThanAllowed) {
  std::vector<std::string> packets;
  for (unsigned i = 0; i < 100; ++i) {
    packets = joined(packets, connection(record_of(i + 1), static_cast<std::uint16_t>(1000 + i)));
  }
  import(packets, {"--limit", "8192"});
  EXPECT_LE(read_file(kRecord).size(), 8192U);
  const Json::Value record = read_json(kRecord);
  EXPECT_EQ(record["connections"], 100);
  EXPECT_EQ(record["left-out"]["hellos"].asUInt() + record["hellos"].size(), 100U);
}

TEST_F(KelotlsctlClients, AreNotKeptOfAFileThatCannotBeRead) {
  const std::string good = capture_file(connection(record_of(0x002f), 40000));
  for (const std::string& text : {std::string(), std::string("no capture"),
                                  good.substr(0, good.size() - 1), capture_file({"x"}, 105)}) {
    write_file(kCapture, text);
    const Outcome outcome = run({"clients", "import", "web", kCapture});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err, "packets cannot be read: "));
    EXPECT_FALSE(exists(kRecord));
  }
  EXPECT_EQ(run({"clients", "import", "web", "/tmp/missing"}).status, 1);
}

TEST_F(KelotlsctlClients, AreImportedFromTheStandardInput) {
  const Outcome outcome =
      run({"clients", "import", "web", "-"}, capture_file(connection(record_of(0x002f), 40000)));
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(read_json(kRecord)["connections"], 1);
}

struct Refusal {
  Arguments arguments;
  int status;
  const char* said;
};

TEST_F(KelotlsctlClients, AreRefusedWhereNothingCanBeSeen) {
  ASSERT_EQ(run({"address", "web", "unix:/run/web"}).status, 0);
  write_file(kCapture, capture_file({}));
  const Refusal refusals[] = {
      {{"record", "web"}, 1, "what is said over a socket in the file system is on no network"},
      {{"record", "ssh"}, 1, "no address is kept for ssh"},
      {{"record", "nobody"}, 10, "nobody"},
      {{"record", "web", "ssh", "--port", "1"}, 2, "--port is the port of one service"},
      {{"record", "web", "--port", "0"}, 2, "--port takes a number from 1 to 65535"},
      {{"record", "ssh", "--port", "22", "--for", "1w"}, 2, "--for takes a time"},
      {{"record", "ssh", "--port", "22", "--for", "h"}, 2, "--for takes a number"},
      {{"record", "ssh", "--port", "22", "--prefix", "33"}, 2, "--prefix takes a number"},
      {{"record", "ssh", "--port", "22", "--limit", "1"}, 2, "--limit takes a number"},
      {{"record", "ssh", "--port", "22", "--interface", "none0"}, 1, "packets cannot be read"},
      {{"import", "ssh", kCapture, "--for", "1h"}, 2, "belong to kelotlsctl clients record"},
      {{"import", "ssh"}, 2, "this is no kelotlsctl clients import SERVICE FILE"},
      {{"recrod", "ssh"}, 2, "did you mean \"record\"?"},
  };
  for (const Refusal& refusal : refusals) {
    Arguments arguments = {"clients"};
    arguments.insert(arguments.end(), refusal.arguments.begin(), refusal.arguments.end());
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, refusal.status) << refusal.said;
    EXPECT_TRUE(contains(outcome.err, refusal.said));
  }
  EXPECT_FALSE(exists(kRecord));
}

TEST_F(KelotlsctlClients, AreForgotten) {
  import(connection(record_of(0x002f), 40000));
  const JsonOutcome forgotten = run_recording({"forget", "web"}, "clients-forget");
  EXPECT_EQ(forgotten.document, json(R"({"action": "forget", "service": "web", "removed": true})"));
  EXPECT_FALSE(exists(kRecord));
  EXPECT_EQ(log(), Lines{"<85>kelotlsctl clients forget: web; by root; done"});
  EXPECT_EQ(run({"clients", "forget", "web"}).out, "web: no record of its clients is kept\n");
  EXPECT_EQ(run({"clients", "forget", "nobody"}).status, 10);
}

// Live.

class KelotlsctlClientsLive : public KelotlsctlClients {
 protected:
  void SetUp() override {
    KelotlsctlClients::SetUp();
    if (IsSkipped()) {
      return;
    }
    write_file("/usr/kelo/tls.conf", "ssl_protocols TLSv1.2 TLSv1.3;\n");
    nginx_.include("/usr/kelo/tls.conf");
    nginx_.start();
    ASSERT_TRUE(eventually([] { return connect({}).status == 0; }));
  }

  static Outcome connect(const Arguments& options) {
    Arguments command = {"openssl", "s_client", "-connect", "127.0.0.1:443"};
    command.insert(command.end(), options.begin(), options.end());
    return run_program(command, "");
  }

  static std::unique_ptr<Process> record(const Arguments& options = {}) {
    Arguments command = {KELOTLSCTL, "clients", "record", "web"};
    command.insert(command.end(), options.begin(), options.end());
    return recorder_of(command);
  }

  static std::unique_ptr<Process> recorder_of(const Arguments& command) {
    auto recorder = std::make_unique<Process>(command, kSaid);
    EXPECT_TRUE(eventually([] { return contains(read_file(kSaid), "recording;"); }))
        << read_file(kSaid);
    return recorder;
  }

  /// The process that reads packets.
  static std::string reader_of(const Process& recorder) {
    const std::string id = std::to_string(recorder.id());
    std::istringstream children(read_file("/proc/" + id + "/task/" + id + "/children"));
    std::string child;
    children >> child;
    return child;
  }

  /// All files but the server's log.
  static Lines configuration() {
    Lines files = tree();
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::string& file) {
                                 return file.rfind("/usr/kelo/nginx.log ", 0) == 0;
                               }),
                files.end());
    return files;
  }

  static Json::Value saved(const Process& recorder, unsigned connections) {
    EXPECT_TRUE(eventually([&] {
      ::kill(recorder.id(), SIGUSR1);
      return exists(kRecord) && read_json(kRecord)["connections"].asUInt() >= connections;
    }));
    return read_json(kRecord);
  }

  Nginx nginx_{"nginx"};
};

TEST_F(KelotlsctlClientsLive, AreRecordedFromTheWire) {
  const auto recorder = record();
  EXPECT_EQ(connect({}).status, 0);
  EXPECT_EQ(connect({}).status, 0);
  EXPECT_EQ(connect({"-tls1_2"}).status, 0);
  EXPECT_EQ(connect({"-tls1_1", "-cipher", "ALL:@SECLEVEL=0"}).status, 1);
  const Json::Value while_recording = saved(*recorder, 4);

  EXPECT_EQ(recorder->end(), 0);

  EXPECT_TRUE(contains(read_file(kSaid), "web: 4 connections; 3 new hellos, 3 are kept\n"));
  const Json::Value record = read_json(kRecord);
  EXPECT_EQ(record["connections"], 4);
  EXPECT_EQ(record["kernel-drops"], 0);
  ASSERT_EQ(record["hellos"].size(), 3U);
  EXPECT_EQ(record["hellos"][0]["count"], 2);
  EXPECT_EQ(record["hellos"][0]["addresses"], json(R"(["127.0.0.1"])"));
  EXPECT_EQ(while_recording["hellos"], record["hellos"]);
}

/// Sorted, and without the numbers of sockets and the like.
Lines kinds_of_descriptors(const std::string& process) {
  Lines kinds;
  for (const std::string& descriptor : names_in(process + "/fd")) {
    const std::string target = link_target(process + "/fd/" + descriptor);
    kinds.push_back(target.substr(0, target.find(':')));
  }
  std::sort(kinds.begin(), kinds.end());
  return kinds;
}

TEST_F(KelotlsctlClientsLive, AreNotThoseWithWhichTheCommandAsks) {
  const auto recorder = record();
  EXPECT_EQ(json(run({"--json", "probe", "web"}).out)["target"], "localhost port 443");
  EXPECT_EQ(connect({"-tls1_2"}).status, 0);

  EXPECT_EQ(recorder->end(), 0);

  const Json::Value versions = json(run({"--json", "clients", "show", "web"}).out)["by-protocol"];
  ASSERT_EQ(versions.size(), 2U);
  EXPECT_EQ(versions[0]["newest-protocol"], "TLS 1.2");
  EXPECT_EQ(versions[0]["connections"], 1) << "the one client that there was";
  EXPECT_EQ(versions[1]["newest-protocol"], "TLS 1.3");
  EXPECT_EQ(versions[1]["clients"], 3) << "whole handshakes, for each kind of certificate";
}

TEST_F(KelotlsctlClientsLive, AreReadByAProcessWithoutPrivileges) {
  const auto recorder = record();
  const std::string reader = "/proc/" + reader_of(*recorder);
  const std::string status = read_file(reader + "/status");
  for (const char* const line :
       {"CapInh:\t0000000000000000\n", "CapPrm:\t0000000000000000\n", "CapEff:\t0000000000000000\n",
        "CapBnd:\t0000000000000000\n", "CapAmb:\t0000000000000000\n", "NoNewPrivs:\t1\n",
        "Seccomp:\t2\n"}) {
    EXPECT_TRUE(contains(status, line));
  }
  if (has_many_users()) {
    EXPECT_TRUE(contains(status, "Uid:\t65534\t65534\t65534\t65534\n"));
    EXPECT_TRUE(contains(status, "Gid:\t65534\t65534\t65534\t65534\n"));
  }
  Lines descriptors = {"/dev/null", "/dev/null", "/dev/null", "socket", "socket"};
  if (contains(::pcap_lib_version(), " 1.10.0 ")) {  // keeps what it would be woken by
    descriptors.emplace_back("anon_inode");
    std::sort(descriptors.begin(), descriptors.end());
  }
  EXPECT_EQ(kinds_of_descriptors(reader), descriptors)
      << "the standard ones, packets, and the channel";
  EXPECT_EQ(recorder->end(), 0);
}

TEST_F(KelotlsctlClientsLive, EndWithTheTimeThatWasGiven) {
  Process recorder({KELOTLSCTL, "clients", "record", "web", "--for", "1s"}, kSaid);
  EXPECT_EQ(recorder.exit_status(), 0);
  EXPECT_TRUE(exists(kRecord));
}

TEST_F(KelotlsctlClientsLive, AreSavedByEverySignalThatEndsIt) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    remove_all(kRecord);
    const auto recorder = record();
    EXPECT_EQ(connect({}).status, 0);
    EXPECT_EQ(::kill(recorder->id(), signal), 0);
    EXPECT_EQ(recorder->exit_status(), 0);
    EXPECT_EQ(read_json(kRecord)["connections"], 1) << signal;
  }
}

TEST_F(KelotlsctlClientsLive, AreRecordedOnAfterASignalThatItWasStartedToIgnore) {
  const auto recorder =
      recorder_of({"/bin/sh", "-c", "trap '' HUP && exec \"$0\" clients record web", KELOTLSCTL});
  EXPECT_EQ(::kill(recorder->id(), SIGHUP), 0);
  // One that is asked to end still sees what comes in its last 200 ms.
  for (unsigned connections = 1; connections <= 8; ++connections) {
    EXPECT_EQ(connect({}).status, 0);
    EXPECT_EQ(saved(*recorder, connections)["connections"].asUInt(), connections);
  }
  EXPECT_EQ(recorder->end(), 0);
}

TEST_F(KelotlsctlClientsLive, AreSavedWhereTheReaderIsKilled) {
  const auto recorder = record();
  EXPECT_EQ(connect({}).status, 0);
  saved(*recorder, 1);
  ASSERT_EQ(::kill(std::stoi(reader_of(*recorder)), SIGKILL), 0);
  EXPECT_EQ(recorder->exit_status(), 1);
  EXPECT_TRUE(contains(read_file(kSaid), "was ended by signal 9"));
  EXPECT_EQ(read_json(kRecord)["connections"], 1);
}

TEST_F(KelotlsctlClientsLive, LeaveNoReaderWhereTheRecorderIsKilled) {
  const auto recorder = record();
  const std::string reader = "/proc/" + reader_of(*recorder);
  ASSERT_TRUE(exists(reader));
  recorder->kill();
  EXPECT_TRUE(eventually(
      [&] { return !exists(reader) || contains(read_file(reader + "/status"), "State:\tZ"); }));
}

TEST_F(KelotlsctlClientsLive, HaveOneRecorderAndDoNotKeepOthersFromChanges) {
  const auto recorder = record();
  const Outcome second = run({"clients", "record", "web"});
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(contains(second.err, "the clients of web are being recorded already"));
  EXPECT_EQ(run({"clients", "forget", "web"}).status, 1);
  EXPECT_EQ(run({"set", "web", "modern"}).status, 0);
  EXPECT_EQ(run({"render", "web"}).status, 0);
  EXPECT_EQ(run({"reload", "web"}).status, 0);
  EXPECT_EQ(recorder->end(), 0);
}

TEST_F(KelotlsctlClientsLive, LeaveTheServerAsItIs) {
  const auto processes = [&] {
    const std::string id = std::to_string(nginx_.process().id());
    return id + " " + read_file("/proc/" + id + "/task/" + id + "/children");
  };
  const std::string before = processes();
  const Lines files = configuration();
  const auto recorder = record();
  EXPECT_EQ(connect({}).status, 0);
  EXPECT_EQ(recorder->end(), 0);
  EXPECT_EQ(processes(), before);
  remove_all("/usr/kelo/etc/security-profile/tls-profile/clients");
  EXPECT_EQ(configuration(), files);
}

}  // namespace
}  // namespace kelotls::test

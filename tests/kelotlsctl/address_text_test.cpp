// How the address of a running server is written: on the command line, and in JSON.
#include "store/address.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework.h"
#include "output/console.h"

namespace kelotls::test {
namespace {

using kelotlsctl::Address;
using kelotlsctl::parse_address;

/// What refuses it; "taken" where nothing does.
std::string fault_of(const std::string& text, const std::string& starttls = "",
                     const std::string& server_name = "") {
  try {
    parse_address(text, starttls, server_name);
    return "taken";
  } catch (const kelotlsctl::Failure& failure) {
    EXPECT_EQ(failure.code, kelotlsctl::kUsage) << text;
    return failure.what();
  }
}

struct Good {
  const char* text;
  const char* host;
  const char* port;
};

TEST(Address, TakesHostsAndPorts) {
  const Good cases[] = {
      {"localhost:443", "localhost", "443"},
      {"127.0.0.1:1", "127.0.0.1", "1"},
      {"mail.a-b_c.example.:65535", "mail.a-b_c.example.", "65535"},
      {"[::1]:8443", "::1", "8443"},
      {"[2001:db8::1]:443", "2001:db8::1", "443"},
      {"[fe80::1%eth0.2]:443", "fe80::1%eth0.2", "443"},
  };
  for (const Good& one : cases) {
    const Address address = parse_address(one.text);
    EXPECT_EQ(address.host, one.host);
    EXPECT_EQ(address.port, one.port);
    EXPECT_EQ(address.unix_path + address.starttls + address.server_name, "");
    EXPECT_EQ(kelotlsctl::address_text(address), one.text);
  }
}

TEST(Address, TakesSocketsOfTheFileSystem) {
  const std::string longest = "/" + std::string(106, 'a');
  for (const std::string& path : {std::string("/run/web.sock"), std::string("/a b:1"), longest}) {
    const Address address = parse_address("unix:" + path);
    EXPECT_EQ(address.unix_path, path);
    EXPECT_EQ(address.host + address.port, "");
    EXPECT_EQ(kelotlsctl::address_text(address), "unix:" + path);
  }
}

struct Bad {
  std::string text;
  std::string reason;
};

TEST(Address, RefusesWhatIsNone) {
  const Bad cases[] = {
      {"", "names no port"},
      {"localhost", "names no port"},
      {"[::1]", "names no port"},
      {"[::1]x:443", "names no port"},
      {":443", "names no host"},
      {"localhost:", "\"\" is no port from 1 to 65535"},
      {"127.0.0.1:99999", "\"99999\" is no port from 1 to 65535"},
      {"127.0.0.1:65536", "\"65536\" is no port from 1 to 65535"},
      {"127.0.0.1:0", "\"0\" is no port from 1 to 65535"},
      {"127.0.0.1:0443", "\"0443\" is no port from 1 to 65535"},
      {"127.0.0.1:+443", "\"+443\" is no port from 1 to 65535"},
      {"127.0.0.1: 443", "\" 443\" is no port from 1 to 65535"},
      {"127.0.0.1:https", "\"https\" is no port from 1 to 65535"},
      {"127.0.0.1:4294967739", "\"4294967739\" is no port from 1 to 65535"},
      {"[::1]:66000", "\"66000\" is no port from 1 to 65535"},
      {"::1:443", "holds an IPv6 address without brackets"},
      {"[::1:443", "lacks a \"]\""},
      {"[]:443", "\"\" is no IPv6 address"},
      {"[1.2.3.4]:443", "\"1.2.3.4\" is no IPv6 address"},
      {"[::1%]:443", "\"::1%\" is no IPv6 address"},
      {"[::1%a/b]:443", "\"::1%a/b\" is no IPv6 address"},
      {"a b:443", "\"a b\" is no name of a host"},
      {"-a:443", "\"-a\" is no name of a host"},
      {".a:443", "\".a\" is no name of a host"},
      {"https://a:443", "holds an IPv6 address without brackets"},
      {"a/b:443", "\"a/b\" is no name of a host"},
      {std::string(254, 'a') + ":443", "names a host with more than 253 characters"},
      {"unix:", "names no absolute path"},
      {"unix:web.sock", "names no absolute path"},
      {"unix:/" + std::string(107, 'a'), "names a path of more than 107 bytes"},
  };
  for (const Bad& one : cases) {
    EXPECT_EQ(fault_of(one.text), "the address \"" + one.text + "\": " + one.reason);
  }
}

TEST(Address, RefusesWhatNobodyCanRead) {
  for (const std::string& text :
       {std::string("a\n:443"), std::string("unix:/a\x1b"), std::string("unix:/a\x7f"),
        std::string("unix:/a\0b", 9), std::string("unix:/\xff"), std::string("a\u202e:443")}) {
    const std::string fault = fault_of(text);
    EXPECT_EQ(fault.rfind("the address \"", 0), 0U) << fault;
    for (const char one : fault) {
      EXPECT_TRUE(one >= ' ' && one != '\x7f') << fault;
    }
  }
}

TEST(Address, TakesWhatIsSpokenFirstAndTheName) {
  const Address address = parse_address("a:25", "smtp", "mail.example");
  EXPECT_EQ(address.starttls, "smtp");
  EXPECT_EQ(address.server_name, "mail.example");
  EXPECT_EQ(kelotlsctl::describe_address(address),
            "a:25, STARTTLS by smtp, server name mail.example");
  EXPECT_EQ(kelotlsctl::describe_address(parse_address("unix:/a")), "unix:/a");
}

TEST(Address, RefusesAnUnknownProtocolAndAName) {
  EXPECT_EQ(fault_of("a:25", "SMTP"),
            "\"SMTP\" is no protocol that can start TLS: smtp, imap, pop3, ftp, ldap, postgres, "
            "mysql, sieve, xmpp, nntp are");
  for (const std::string& name : {std::string("a b"), std::string("::1"), std::string("127.0.0.1"),
                                  std::string("-a"), std::string(254, 'a')}) {
    EXPECT_EQ(fault_of("a:25", "", name), "\"" + name + "\" is no name of a server");
  }
}

std::string faults_of(const std::string& text) {
  Faults faults;
  kelotlsctl::append_address_faults(json(text), "$.probe", faults);
  std::string lines;
  for (const Fault& fault : faults) {
    lines += fault.path + ": " + fault.text + "\n";
  }
  return lines;
}

TEST(Address, IsReadFromJson) {
  const Address text = kelotlsctl::address_of(json(R"("[::1]:443")"));
  EXPECT_EQ(kelotlsctl::describe_address(text), "[::1]:443");
  const char* const whole = R"({"address": "a:25", "server-name": "b", "starttls": "imap"})";
  EXPECT_EQ(faults_of(whole), "");
  const Address address = kelotlsctl::address_of(json(whole));
  EXPECT_EQ(kelotlsctl::describe_address(address), "a:25, STARTTLS by imap, server name b");
  EXPECT_EQ(kelotlsctl::address_json(address), json(whole));
  EXPECT_EQ(kelotlsctl::address_json(text), json(R"({"address": "[::1]:443"})"));
}

TEST(Address, HasItsFaultsNamedInJson) {
  EXPECT_EQ(faults_of(R"("a:0")"), "$.probe: \"0\" is no port from 1 to 65535\n");
  EXPECT_EQ(faults_of("null"), "$.probe: must be an address, as a string or in an object\n");
  EXPECT_EQ(faults_of("[]"), "$.probe: must be an address, as a string or in an object\n");
  EXPECT_EQ(faults_of("{}"), "$.probe: lacks \"address\"\n");
  EXPECT_EQ(faults_of(R"({"address": 5})"), "$.probe.address: is a number, must be a string\n");
  EXPECT_EQ(faults_of(R"({"address": "a"})"), "$.probe.address: names no port\n");
  EXPECT_EQ(faults_of(R"({"address": "a:1", "port": 1})"),
            "$.probe.port: no such member; they are address, starttls, server-name, expected\n");
  EXPECT_EQ(faults_of(R"({"address": "a:1", "starttls": ""})"),
            "$.probe.starttls: must not be empty\n");
  EXPECT_EQ(faults_of(R"({"address": "a:1", "starttls": "gopher"})")
                .find("$.probe.starttls: \"gopher\" is no protocol that can start TLS: "),
            0U);
  EXPECT_EQ(faults_of(R"({"address": "a:1", "server-name": "::1"})"),
            "$.probe.server-name: \"::1\" is no name of a server\n");
}

}  // namespace
}  // namespace kelotls::test

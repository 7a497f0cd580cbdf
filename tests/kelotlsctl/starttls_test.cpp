// The plain part of protocols that begin without TLS, against servers that follow a script.
#include "peers/starttls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kelotls::test {
namespace {

using kelotlsctl::PlainStream;
using kelotlsctl::start_tls;
using kelotlsctl::starttls_protocols;

std::string bytes(const char* text, std::size_t size) { return {text, size}; }

/// A server that answers each thing that it is told with the next of its replies, and is silent
/// without one. The first reply is the greeting, said to nothing.
class Script {
 public:
  explicit Script(std::vector<std::string> replies, bool is_greeting = true)
      : replies_(std::move(replies)) {
    if (is_greeting) {
      answer();
    }
  }

  /// Where in all that it says a piece ends that comes on its own; 0: every byte comes alone.
  void cut_at(std::size_t cut) { cut_ = cut; }

  PlainStream stream() {
    return {[this](const std::string& said) {
              told_.push_back(said);
              answer();
              return std::string();
            },
            [this](std::string& received) { return give(received); }};
  }

  const std::vector<std::string>& told() const { return told_; }
  std::size_t given() const { return given_; }
  std::size_t pending() const { return pending_.size(); }

 private:
  void answer() {
    if (next_ < replies_.size()) {
      pending_ += replies_[next_++];
    }
  }

  std::string give(std::string& received) {
    if (pending_.empty()) {
      return "timed out";
    }
    const std::size_t size = cut_ == 0       ? 1
                             : given_ < cut_ ? std::min(cut_ - given_, pending_.size())
                                             : pending_.size();
    received += pending_.substr(0, size);
    pending_.erase(0, size);
    given_ += size;
    return "";
  }

  const std::vector<std::string> replies_;
  std::size_t next_ = 0;
  std::string pending_;
  std::size_t cut_ = std::string::npos;
  std::size_t given_ = 0;
  std::vector<std::string> told_;
};

bool greets(const std::string& protocol) {
  return protocol != "ldap" && protocol != "postgres" && protocol != "xmpp";
}

std::string run(const std::string& protocol, const std::vector<std::string>& replies) {
  Script server(replies, greets(protocol));
  return start_tls(protocol, "a.example", server.stream());
}

std::string ldap_response(char number, char code, const std::string& text) {
  const std::string result =
      bytes("\x0a\x01", 2) + code + bytes("\x04\0\x04", 3) + static_cast<char>(text.size()) + text;
  const std::string parts =
      bytes("\x02\x01", 2) + number + '\x78' + static_cast<char>(result.size()) + result;
  return '\x30' + std::string(1, static_cast<char>(parts.size())) + parts;
}

std::string mysql_packet(const std::string& content) {
  return static_cast<char>(content.size()) + bytes("\0\0\0", 3) + content;
}

/// The lower half of what the server can do is 0xffff with TLS.
std::string mysql_greeting(char abilities) {
  return mysql_packet("\x0a" + bytes("8.0.36\0", 7) + bytes("\x01\0\0\0abcdefgh\0\xff", 14) +
                      abilities + bytes("\xff\x02\0\xff\xdf\x15", 6));
}

const std::string kXmppHeader =
    "<?xml version='1.0'?><stream:stream id='1' xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>";
const std::string kXmppFeatures =
    "<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/></starttls>"
    "</stream:features>";
const std::string kXmppProceed = "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
const std::string kSieveAbilities = "\"IMPLEMENTATION\" \"x\"\r\n\"STARTTLS\"\r\nOK \"ready\"\r\n";

struct Case {
  const char* protocol;
  std::vector<std::string> replies;
};

const std::vector<Case>& good_cases() {
  static const std::vector<Case> cases = {
      {"smtp", {"220-a\r\n220 b\r\n", "250-a\r\n250-STARTTLS\r\n250 HELP\r\n", "220 go\r\n"}},
      {"smtp", {"220\n", "250 a\n", "220 go\n"}},
      {"imap", {"* OK IMAP4rev1 ready\r\n", "* CAPABILITY IMAP4rev1\r\na1 OK begin\r\n"}},
      {"pop3", {"+OK ready\r\n", "+OK begin\r\n"}},
      {"ftp", {"220-Welcome\r\n 220 no end\r\nany\r\n220 ready\r\n", "234 AUTH TLS\r\n"}},
      {"ldap", {ldap_response(1, 0, "")}},
      {"ldap",
       {bytes("\x30\x84\0\0\0\x10\x02\x01\x01\x78\x84\0\0\0\x07\x0a\x01\0\x04\0\x04\0", 22)}},
      {"postgres", {"S"}},
      {"mysql", {mysql_greeting('\xff')}},
      {"sieve", {kSieveAbilities, "OK \"begin\"\r\n"}},
      {"xmpp", {kXmppHeader + kXmppFeatures, kXmppProceed}},
      {"xmpp", {kXmppHeader + kXmppFeatures, "<proceed xmlns='x'></proceed>"}},
      {"nntp", {"201 no posting\r\n", "382 begin\r\n"}},
  };
  return cases;
}

TEST(Starttls, NamesItsProtocols) {
  EXPECT_EQ(starttls_protocols(),
            (std::vector<std::string>{"smtp", "imap", "pop3", "ftp", "ldap", "postgres", "mysql",
                                      "sieve", "xmpp", "nntp"}));
  for (const std::string& protocol : starttls_protocols()) {
    EXPECT_TRUE(std::any_of(good_cases().begin(), good_cases().end(), [&](const Case& one) {
      return one.protocol == protocol;
    })) << protocol;
  }
}

TEST(Starttls, RefusesAnUnknownProtocol) {
  EXPECT_EQ(run("gopher\x1b", {}),
            "cannot be asked to start TLS by the unknown protocol \"gopher\\x1b\"");
}

TEST(Starttls, GoesAheadWhereverTheRepliesAreCut) {
  for (const Case& one : good_cases()) {
    std::size_t all = 0;
    for (const std::string& reply : one.replies) {
      all += reply.size();
    }
    for (std::size_t cut = 0; cut <= all; ++cut) {
      Script server(one.replies, greets(one.protocol));
      server.cut_at(cut);
      EXPECT_EQ(start_tls(one.protocol, "a.example", server.stream()), "")
          << one.protocol << " " << cut;
      EXPECT_EQ(server.given(), all) << one.protocol;
    }
  }
}

TEST(Starttls, TakesNothingBehindTheGoAhead) {
  for (const Case& one : good_cases()) {
    std::vector<std::string> replies = one.replies;
    replies.back() += "\x16hidden";
    Script server(replies, greets(one.protocol));
    server.cut_at(0);
    EXPECT_EQ(start_tls(one.protocol, "", server.stream()), "") << one.protocol;
    EXPECT_EQ(server.pending(), 7U) << one.protocol;
    EXPECT_EQ(run(one.protocol, replies), "says more than to go ahead: \"\\x16hidden\"")
        << one.protocol;
  }
}

TEST(Starttls, SaysWhatTheProtocolsAsk) {
  const auto told = [](const char* protocol, const std::vector<std::string>& replies) {
    Script server(replies, greets(protocol));
    start_tls(protocol, "a'<&b", server.stream());
    return server.told();
  };
  using Told = std::vector<std::string>;
  EXPECT_EQ(told("smtp", good_cases()[0].replies), (Told{"EHLO localhost\r\n", "STARTTLS\r\n"}));
  EXPECT_EQ(told("imap", {"* OK\r\n"}), (Told{"a1 STARTTLS\r\n"}));
  EXPECT_EQ(told("pop3", {"+OK\r\n"}), (Told{"STLS\r\n"}));
  EXPECT_EQ(told("ftp", {"220 a\r\n"}), (Told{"AUTH TLS\r\n"}));
  EXPECT_EQ(told("sieve", {"OK\r\n"}), (Told{"STARTTLS\r\n"}));
  EXPECT_EQ(told("nntp", {"200 a\r\n"}), (Told{"STARTTLS\r\n"}));
  EXPECT_EQ(told("postgres", {}), (Told{bytes("\0\0\0\x08\x04\xd2\x16\x2f", 8)}));
  EXPECT_EQ(told("ldap", {}),
            (Told{bytes("\x30\x1d\x02\x01\x01\x77\x18\x80\x16", 9) + "1.3.6.1.4.1.1466.20037"}));
  EXPECT_EQ(told("mysql", {mysql_greeting('\xff')}),
            (Told{bytes("\x20\0\0\x01\0\x8a\0\0\0\0\0\x01\x21", 13) + std::string(23, '\0')}));
  const Told stream = told("xmpp", {kXmppHeader + kXmppFeatures});
  ASSERT_EQ(stream.size(), 2U);
  EXPECT_NE(stream[0].find(" to='a&#39;&#60;&#38;b'>"), std::string::npos) << stream[0];
  EXPECT_EQ(stream[1], "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
}

TEST(Starttls, LeavesOutTheNameThatItDoesNotKnow) {
  Script server({}, false);
  start_tls("xmpp", "", server.stream());
  EXPECT_EQ(server.told().at(0).find("to="), std::string::npos);
}

struct Refusal {
  const char* protocol;
  std::vector<std::string> replies;
  const char* reason;
};

TEST(Starttls, TellsARefusal) {
  const std::string stream_error = "<stream:error><host-unknown/></stream:error></stream:stream>";
  const std::vector<Refusal> refusals = {
      {"smtp", {"554 no service\r\n"}, "refuses the connection: \"554 no service\""},
      {"smtp", {"220 a\r\n", "502 what\r\n"}, "refuses EHLO: \"502 what\""},
      {"smtp",
       {"220 a\r\n", "250 a\r\n", "454-not\r\n454 now\r\n"},
       "refuses STARTTLS: \"454-not\""},
      {"imap", {"* BYE full\r\n"}, "refuses the connection: \"* BYE full\""},
      {"imap", {"* PREAUTH a\r\n"}, "refuses the connection: \"* PREAUTH a\""},
      {"imap", {"* OK a\r\n", "* 1 EXISTS\r\na1 NO b\r\n"}, "refuses STARTTLS: \"a1 NO b\""},
      {"imap", {"* OK a\r\n", "a1 BAD b\r\n"}, "refuses STARTTLS: \"a1 BAD b\""},
      {"imap", {"* OK a\r\n", "* BYE b\r\n"}, "refuses STARTTLS: \"* BYE b\""},
      {"pop3", {"-ERR full\r\n"}, "refuses the connection: \"-ERR full\""},
      {"pop3", {"+OK a\r\n", "-ERR no\x1b[2J\r\n"}, "refuses STLS: \"-ERR no\\x1b[2J\""},
      {"ftp", {"220 a\r\n", "500 b\r\n"}, "refuses AUTH TLS: \"500 b\""},
      {"ftp", {"220 a\r\n", "334 b\r\n"}, "refuses AUTH TLS: \"334 b\""},
      {"ldap",
       {ldap_response(1, 52, "no TLS")},
       "refuses the StartTLS request: result code 52, \"no TLS\""},
      {"ldap",
       {ldap_response(0, 0, "bye")},
       "refuses the StartTLS request: result code 0, \"bye\""},
      {"postgres", {"N"}, "refuses the request for TLS: \"N\""},
      {"postgres", {"E"}, "refuses the request for TLS: \"E\""},
      {"mysql", {mysql_greeting('\xf7')}, "offers no TLS"},
      {"mysql",
       {mysql_packet("\xff\x6a\x04Host is blocked")},
       "refuses the connection: \"Host is blocked\""},
      {"sieve", {"BYE a\r\n"}, "refuses the connection: \"BYE a\""},
      {"sieve", {kSieveAbilities, "NO b\r\n"}, "refuses STARTTLS: \"NO b\""},
      {"xmpp", {kXmppHeader + "<stream:features/>"}, "offers no TLS"},
      {"xmpp", {kXmppHeader + "<stream:features><a/></stream:features>"}, "offers no TLS"},
      {"xmpp",
       {"<stream:stream>" + stream_error},
       "refuses the beginning of a stream: \"<stream:error><host-unknown/></stream:error>\""},
      {"xmpp",
       {kXmppHeader + kXmppFeatures, "<failure xmlns='x'/></stream:stream>"},
       "refuses starttls: \"<failure xmlns='x'/>\""},
      {"nntp", {"502 a\r\n"}, "refuses the connection: \"502 a\""},
      {"nntp", {"200 a\r\n", "580 b\r\n"}, "refuses STARTTLS: \"580 b\""},
  };
  for (const Refusal& one : refusals) {
    EXPECT_EQ(run(one.protocol, one.replies), one.reason);
  }
}

TEST(Starttls, TellsAServerOfAnotherProtocol) {
  const std::string web = "HTTP/1.1 400 Bad Request\r\n\r\n";
  const std::string says_web = "\"HTTP/1.1 400 Bad Request\"";
  const std::string to_connection = ": it answers the connection with ";
  for (const auto& [protocol, name] :
       std::vector<std::pair<std::string, std::string>>{{"smtp", "SMTP"},
                                                        {"imap", "IMAP"},
                                                        {"pop3", "POP3"},
                                                        {"ftp", "FTP"},
                                                        {"sieve", "ManageSieve"},
                                                        {"nntp", "NNTP"}}) {
    EXPECT_EQ(run(protocol, {web}), "does not speak " + name + to_connection + says_web);
  }
  EXPECT_EQ(run("smtp", {"2200 a\r\n"}),
            "does not speak SMTP: it answers the connection with \"2200 a\"");
  EXPECT_EQ(run("smtp", {"22\r\n"}), "does not speak SMTP: it answers the connection with \"22\"");
  EXPECT_EQ(run("imap", {"* OK a\r\n", "b\r\n"}),
            "does not speak IMAP: it answers STARTTLS with \"b\"");
  EXPECT_EQ(run("postgres", {web}),
            "does not speak PostgreSQL: it answers the request for TLS with \"H\"");
  EXPECT_EQ(run("xmpp", {web}),
            "does not speak XMPP: it answers the beginning of a stream with \"H\"");
  EXPECT_EQ(run("xmpp", {"<html>"}),
            "does not speak XMPP: it answers the beginning of a stream with \"<html>\"");
}

TEST(Starttls, TellsBinaryRepliesOfAnotherProtocol) {
  const std::string ldap = "does not speak LDAP: it answers the StartTLS request with ";
  EXPECT_EQ(run("ldap", {"HTTP"}), ldap + "\"HT\"");
  EXPECT_EQ(run("ldap", {bytes("\x30\x80", 2)}), ldap + "\"0\\x80\"");
  EXPECT_EQ(run("ldap", {bytes("\x30\x85", 2)}), ldap + "\"0\\x85\"");
  EXPECT_EQ(run("ldap", {bytes("\x30\x03\x02\x09\x01", 5)}), ldap + "\"\\x02\\x09\\x01\"");
  EXPECT_EQ(run("ldap", {bytes("\x30\x00", 2)}), ldap + "\"\"");
  const std::string mysql = "does not speak MySQL: it answers the connection with ";
  EXPECT_EQ(run("mysql", {"SSH-2.0-x\r\n"}), mysql + "\"SSH-\"");
  EXPECT_EQ(run("mysql", {mysql_packet("\xff")}), mysql + "\"\\x01\\x00\\x00\\x00\"");
  EXPECT_EQ(run("mysql", {mysql_packet("\x0a"
                                       "8.0.36")}),
            mysql +
                "\"\\x0a"
                "8.0.36\"");
  EXPECT_EQ(run("mysql", {mysql_packet("\x0a" + bytes("8\0abc", 5))}), mysql +
                                                                           "\"\\x0a"
                                                                           "8\\x00abc\"");
  EXPECT_EQ(run("mysql", {mysql_packet("\x09"
                                       "3.2" +
                                       std::string(40, '\0'))})
                .substr(0, 60),
            (mysql + "\"\\x09"
                     "3.2\\x00")
                .substr(0, 60));
}

TEST(Starttls, TellsAServerThatIsSilent) {
  EXPECT_EQ(run("smtp", {""}), "gives no answer to the connection: timed out");
  EXPECT_EQ(run("smtp", {"220 a"}), "gives no whole answer to the connection: timed out");
  EXPECT_EQ(run("smtp", {"220 a\r\n"}), "gives no answer to EHLO: timed out");
  EXPECT_EQ(run("smtp", {"220 a\r\n", "250-b\r\n"}), "gives no whole answer to EHLO: timed out");
  EXPECT_EQ(run("ldap", {}), "gives no answer to the StartTLS request: timed out");
  EXPECT_EQ(run("postgres", {}), "gives no answer to the request for TLS: timed out");
  EXPECT_EQ(run("mysql", {"\x0a"}), "gives no whole answer to the connection: timed out");
  EXPECT_EQ(run("xmpp", {kXmppHeader}),
            "gives no whole answer to the beginning of a stream: timed out");
}

TEST(Starttls, TellsAServerThatDoesNotListen) {
  const PlainStream stream = {[](const std::string&) { return "connection reset"; },
                              [](std::string& received) {
                                received += "+OK a\r\n";
                                return "";
                              }};
  EXPECT_EQ(start_tls("pop3", "", stream), "does not take STLS: connection reset");
}

TEST(Starttls, TakesAStreamThatBringsNothingForOneThatEnds) {
  const PlainStream stream = {[](const std::string&) { return ""; },
                              [](std::string&) { return ""; }};
  EXPECT_EQ(start_tls("pop3", "", stream), "gives no answer to the connection");
}

TEST(Starttls, EndsAFlood) {
  for (const std::string& protocol : starttls_protocols()) {
    for (const std::string& piece :
         {std::string("220-a\r\n"), std::string("* a\r\n"), std::string("\"a\"\r\n"),
          std::string("a"), std::string("<a>"), bytes("\x30\x84\xff\xff\xff\xff", 6),
          bytes("\0\xff\0\0", 4)}) {
      std::size_t given = 0;
      const PlainStream stream = {[](const std::string&) { return ""; },
                                  [&](std::string& received) {
                                    received += piece;
                                    given += piece.size();
                                    return "";
                                  }};
      EXPECT_NE(start_tls(protocol, "", stream), "") << protocol << piece;
      EXPECT_LE(given, 64U * 1024 + piece.size()) << protocol << piece;
    }
  }
  EXPECT_EQ(run("imap", {"* OK a\r\n", std::string(70000, 'a')}),
            "says more than 64 KiB before TLS");
}

TEST(Starttls, QuotesNoMoreThanALine) {
  EXPECT_EQ(run("pop3", {"-ERR " + std::string(1000, 'a') + "\r\n"}),
            "refuses the connection: \"-ERR " + std::string(195, 'a') + "\"");
}

}  // namespace
}  // namespace kelotls::test

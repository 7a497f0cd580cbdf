// The example of a TLS service and the ready web server, as real servers: they join, their levels
// change, and clients meet what the level says.
#include <arpa/inet.h>
#include <json/json.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "private_tree.h"
#include "process.h"

namespace kelotls::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Names = std::vector<std::string>;

constexpr char kNginx[] = "/usr/sbin/nginx";
constexpr char kNginxConfiguration[] = "/usr/kelo/etc/nginx/nginx.conf";
constexpr char kPidFile[] = "/usr/kelo/run/tls_service.pid";

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  ~Descriptor() {
    if (number_ >= 0) {
      ::close(number_);
    }
  }
  Descriptor& operator=(Descriptor&&) = delete;
  int get() const { return number_; }

 private:
  int number_;
};

int run(const Names& command) { return Process(command, "/tmp/run.out").exit_status(); }

// Clients

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int free_port() {
  const Descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  auto* const bare = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener.get(), bare, length) != 0 ||
      ::getsockname(listener.get(), bare, &length) != 0) {
    throw std::system_error(errno, std::generic_category(), "bind");
  }
  return ntohs(address.sin_port);
}

/// A TCP connection; nothing is said yet.
std::optional<Descriptor> connect_to(int port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval patience = {std::chrono::duration_cast<std::chrono::seconds>(kPatience).count(), 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const sockaddr_in address = loopback(port);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::nullopt;
  }
  return socket;
}

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct ConnectionFree {
  void operator()(SSL* connection) const { SSL_free(connection); }
};
struct SessionFree {
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using Session = std::unique_ptr<SSL_SESSION, SessionFree>;

/// A client that takes whatever it is offered, but for what a test narrows down.
class Client {
 public:
  Client() : context_(SSL_CTX_new(TLS_client_method())) {
    SSL_CTX_set_cipher_list(context_.get(), "ALL:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
  }

  Client& version(int version) {
    SSL_CTX_set_min_proto_version(context_.get(), version);
    SSL_CTX_set_max_proto_version(context_.get(), version);
    return *this;
  }
  Client& ciphers(const std::string& list) {
    EXPECT_EQ(SSL_CTX_set_cipher_list(context_.get(), (list + ":@SECLEVEL=0").c_str()), 1) << list;
    return *this;
  }
  Client& groups(const std::string& list) {
    EXPECT_EQ(SSL_CTX_set1_groups_list(context_.get(), list.c_str()), 1) << list;
    return *this;
  }

  /// The names of all TLS 1.2 suites that this OpenSSL can offer.
  Names suites() const {
    Names names;
    STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context_.get());
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
      const SSL_CIPHER* const cipher = sk_SSL_CIPHER_value(ciphers, i);
      if (std::string(SSL_CIPHER_get_version(cipher)) != "TLSv1.3") {
        names.emplace_back(SSL_CIPHER_get_name(cipher));
      }
    }
    return names;
  }

  /// One request. The response's body, which says what was negotiated, or nothing if the server
  /// refused. Fails the test where the server's word differs from what the client sees.
  std::optional<std::string> ask(int port, SSL_SESSION* resumed = nullptr) {
    const std::optional<Descriptor> socket = connect_to(port);
    if (!socket) {
      ADD_FAILURE() << "nobody listens on port " << port;
      return std::nullopt;
    }
    connection_.reset(SSL_new(context_.get()));
    SSL_set_fd(connection_.get(), socket->get());
    if (resumed != nullptr) {
      SSL_set_session(connection_.get(), resumed);
    }
    std::optional<std::string> response = exchange();
    ERR_clear_error();
    return response;
  }

  /// The handshake alone; the connection stays.
  Descriptor shake_hands(int port) {
    std::optional<Descriptor> socket = connect_to(port);
    connection_.reset(SSL_new(context_.get()));
    SSL_set_fd(connection_.get(), socket.value().get());
    EXPECT_EQ(SSL_connect(connection_.get()), 1);
    return std::move(*socket);
  }

  /// One request, and gone before the response.
  void ask_and_go(int port) {
    const Descriptor socket = shake_hands(port);
    EXPECT_GT(SSL_write(connection_.get(), kRequest, sizeof kRequest - 1), 0);
  }

  bool resumed() const { return SSL_session_reused(connection_.get()) == 1; }
  Session session() const { return Session(SSL_get1_session(connection_.get())); }

 private:
  static constexpr char kRequest[] = "GET / HTTP/1.0\r\n\r\n";

  std::optional<std::string> exchange() {
    if (SSL_connect(connection_.get()) != 1 ||
        SSL_write(connection_.get(), kRequest, sizeof kRequest - 1) <= 0) {
      return std::nullopt;
    }
    std::string response;
    char piece[1024];
    for (int length; (length = SSL_read(connection_.get(), piece, sizeof piece)) > 0;) {
      response.append(piece, static_cast<std::size_t>(length));
    }
    SSL_shutdown(connection_.get());
    const std::size_t body = response.find("\r\n\r\n");
    if (body == std::string::npos) {
      return std::nullopt;
    }
    response.erase(0, body + 4);
    const std::string negotiated = std::string(SSL_get_version(connection_.get())) + ' ' +
                                   SSL_get_cipher_name(connection_.get());
    EXPECT_EQ(response.substr(0, negotiated.size()), negotiated);
    return response;
  }

  std::unique_ptr<SSL_CTX, ContextFree> context_;
  std::unique_ptr<SSL, ConnectionFree> connection_;
};

/// In an order in which each level differs from the one before.
constexpr TlsProfileLevel kLevels[] = {TLS_PROFILE_LEVEL_MODERN, TLS_PROFILE_LEVEL_OLD,
                                       TLS_PROFILE_LEVEL_INTERMEDIATE, TLS_PROFILE_LEVEL_MODERN};

Names versions_of(TlsProfileLevel level) {
  switch (level) {
    case TLS_PROFILE_LEVEL_MODERN:
      return {"TLSv1.3"};
    case TLS_PROFILE_LEVEL_OLD:
      return {"TLSv1", "TLSv1.1", "TLSv1.2", "TLSv1.3"};
    default:
      return {"TLSv1.2", "TLSv1.3"};
  }
}

Names accepted_versions(int port) {
  Names accepted;
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    if (const auto response = Client().version(version).ask(port)) {
      accepted.push_back(response->substr(0, response->find(' ')));
    }
  }
  return accepted;
}

Names accepted_suites(int port) {
  Names accepted;
  for (const std::string& suite : Client().suites()) {
    if (Client().version(TLS1_2_VERSION).ciphers(suite).ask(port)) {
      accepted.push_back(suite);
    }
  }
  return accepted;
}

Names accepted_groups(int port) {
  Names accepted;
  for (const char* group : {"X25519", "X448", "P-256", "P-384", "P-521"}) {
    if (Client().version(TLS1_3_VERSION).groups(group).ask(port)) {
      accepted.emplace_back(group);
    }
  }
  return accepted;
}

/// A private tree in which both services are installed and have joined, at the default level
/// intermediate. The servers take up the OpenSSL configuration, so that level old is whole there.
class Services : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    ::signal(SIGPIPE, SIG_IGN);
    ASSERT_TRUE(exists(kNginx)) << "these tests need nginx";
    set_openssl_configuration(kSecurityLevel0);
    write_dh_files();
    for (const char* directory : {"/usr/kelo/run", "/usr/kelo/share", "/usr/kelo/etc/nginx"}) {
      make_directories(directory);
    }
    write_file(kDataStore, data_store_text(TLS_PROFILE_LEVEL_INTERMEDIATE, {}));
    std::filesystem::copy(TLS_SERVICE_DIR, "/usr/kelo/share/tls_service");
    std::filesystem::copy(NGINX_DIR, "/usr/kelo/share/nginx");
    std::filesystem::copy(NGINX_TEMPLATE, "/usr/kelo/share/nginx");
    for (const char* service : {"nginx", "tls_service"}) {
      ASSERT_EQ(APIProvider().join_framework(registration_of(service)), 0);
    }
    ASSERT_EQ(APIProvider().render_service_template(), 0);
    ASSERT_EQ(log(), Lines());
  }

  /// Whatever a test did to them, the servers end cleanly, which to sanitizers means without leaks.
  void TearDown() override {
    for (const auto& server : {std::ref(tls_service_), std::ref(nginx_)}) {
      if (server.get() != nullptr) {
        EXPECT_EQ(server.get()->end(), 0);
      }
    }
  }

  /// The packages' directory belongs to the host: here the files are elsewhere.
  static Json::Value registration_of(const std::string& service) {
    const std::string packaged = "/usr/share/kelotls/services/";
    std::string text = read_file("/usr/kelo/share/" + service + "/registration.json");
    for (auto place = text.find(packaged); place != std::string::npos;
         place = text.find(packaged)) {
      text.replace(place, packaged.size(), "/usr/kelo/share/");
    }
    Json::Value registration;
    std::istringstream(text) >> registration;
    return registration;
  }

  static void set_level(const std::string& service, TlsProfileLevel level) {
    ASSERT_EQ(DataStoreProvider().set_service_level(service, level), 0);
  }

  void start_tls_service(const std::string& certificate = "rsa",
                         const std::string& program = TLS_SERVICE_PROGRAM) {
    const std::string output = "/tmp/tls_service.out";
    tls_service_ =
        std::make_unique<Process>(Names{program, "--pid-file", kPidFile, "tls_service",
                                        KELOTLS_CERTIFICATES + ("/" + certificate + ".pem")},
                                  output);
    const std::string start = "listening on 127.0.0.1:";
    ASSERT_TRUE(eventually([&] {
      return exists(output) && read_file(output).find('\n') != std::string::npos;
    })) << "tls_service did not start";
    const std::string line = read_file(output);
    ASSERT_EQ(line.substr(0, start.size()), start);
    tls_service_port_ = std::stoi(line.substr(start.size()));
  }

  void start_nginx(const std::string& certificate = "rsa", const std::string& user = "root") {
    write_file("/usr/kelo/etc/ssl/nginx.pem",
               read_file(KELOTLS_CERTIFICATES + ("/" + certificate + ".pem")));
    nginx_port_ = free_port();
    std::string configuration = read_file("/usr/kelo/share/nginx/nginx.conf");
    const std::string port = ":8443";
    configuration.replace(configuration.find(port), port.size(), ":" + std::to_string(nginx_port_));
    write_file(kNginxConfiguration, configuration);
    nginx_ = std::make_unique<Process>(nginx_command("daemon off;", user), "/tmp/nginx.out");
    // It listens before its process identifier is on file and before it has workers; a reload that
    // came in between would reach nobody.
    ASSERT_TRUE(eventually([&] { return !nginx_workers().empty(); })) << "nginx did not start";
  }

  /// The user that its workers become; not every tree has more than root.
  static Names nginx_command(const std::string& settings, const std::string& user = "root") {
    return {kNginx, "-c", kNginxConfiguration, "-g", "user " + user + "; " + settings};
  }

  static int test_of_nginx_configuration() {
    Names command = nginx_command("");
    command.insert(command.begin() + 1, {"-t", "-q"});
    return run(command);
  }

  /// Renders, runs the reloaders and waits until nginx serves with new workers only.
  void apply_levels_to_nginx() {
    const Names former = nginx_workers();
    ASSERT_EQ(APIProvider().render_service_template(), 0);
    ASSERT_EQ(APIProvider().execute_service_reloader(), 0);
    ASSERT_TRUE(eventually([&] {
      const Names now = nginx_workers();
      return !now.empty() && std::none_of(now.begin(), now.end(), [&](const std::string& worker) {
        return std::find(former.begin(), former.end(), worker) != former.end();
      });
    })) << "nginx kept its workers";
  }

  /// Of a process. A worker is forked before it changes them.
  static std::pair<unsigned, unsigned> user_and_group(const std::string& process) {
    struct stat status = {};
    EXPECT_EQ(::stat(("/proc/" + process).c_str(), &status), 0);
    return {status.st_uid, status.st_gid};
  }

  Names nginx_workers() const {
    const std::string id = std::to_string(nginx_->id());
    std::istringstream ids(read_file("/proc/" + id + "/task/" + id + "/children"));
    return Names(std::istream_iterator<std::string>(ids), {});
  }

  std::unique_ptr<Process> tls_service_;
  std::unique_ptr<Process> nginx_;
  int tls_service_port_ = 0;
  int nginx_port_ = 0;
};

class TlsService : public Services {};

TEST_F(TlsService, AcceptsTheVersionsOfItsLevelAfterEachReload) {
  start_tls_service();

  for (const TlsProfileLevel level : kLevels) {
    set_level("tls_service", level);
    ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

    EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(level)) << "level " << level;
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(TlsService, InCppAcceptsTheVersionsOfItsLevelAfterEachReload) {
  start_tls_service("rsa", TLS_SERVICE_CPP_PROGRAM);

  for (const TlsProfileLevel level : kLevels) {
    set_level("tls_service", level);
    ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

    EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(level)) << "level " << level;
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(TlsService, InCppKeepsItsSettingsWhileReadingItsLevelThrows) {
  set_level("tls_service", TLS_PROFILE_LEVEL_OLD);
  start_tls_service("rsa", TLS_SERVICE_CPP_PROGRAM);

  write_file(kDataStore, R"({"default-level": 2, "services": {"tls_service": 1}})");
  ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_OLD));
}

TEST_F(TlsService, FollowsADefaultLevelThatChanges) {
  start_tls_service();
  ASSERT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_INTERMEDIATE));

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);
  ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_OLD));
}

TEST_F(TlsService, KeepsItsSettingsUntilItIsReloaded) {
  start_tls_service();

  set_level("tls_service", TLS_PROFILE_LEVEL_MODERN);

  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_INTERMEDIATE));
}

TEST_F(TlsService, KeepsItsSettingsWhileTheDataStoreIsBroken) {
  set_level("tls_service", TLS_PROFILE_LEVEL_OLD);
  start_tls_service();
  const std::string intact = read_file(kDataStore);

  write_file(kDataStore, "{");
  ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_OLD));
  EXPECT_EQ(log(), Lines({error_line("framework_config.cpp:16 Load json data failed. [Success] " +
                                     std::string(kDataStore)),
                          error_line("framework_config.cpp:123 Service is not joined framework. "
                                     "tls_service")}));

  write_file(kDataStore, intact);
  set_level("tls_service", TLS_PROFILE_LEVEL_MODERN);
  ASSERT_EQ(APIProvider().execute_service_reloader(), 0);
  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_MODERN));
}

TEST_F(TlsService, DoesNotStartForAServiceThatHasNotJoined) {
  EXPECT_EQ(run({TLS_SERVICE_PROGRAM, "nobody", KELOTLS_CERTIFICATES "/rsa.pem"}), 1);

  EXPECT_EQ(
      log(),
      Lines({error_line("framework_config.cpp:123 Service is not joined framework. nobody")}));
}

TEST_F(TlsService, ServesOthersOnceASilentClientsTimeIsUp) {
  start_tls_service();
  const std::optional<Descriptor> silent = connect_to(tls_service_port_);
  ASSERT_TRUE(silent.has_value());

  EXPECT_TRUE(Client().ask(tls_service_port_).has_value());
}

TEST_F(TlsService, EndsAtOnceThoughAClientIsConnected) {
  start_tls_service();
  Client client;
  const Descriptor silent = client.version(TLS1_2_VERSION).shake_hands(tls_service_port_);
  ASSERT_TRUE(exists(kPidFile));

  const auto start = steady_clock::now();
  EXPECT_EQ(tls_service_->end(), 0);
  EXPECT_LT(steady_clock::now() - start, milliseconds(4000));  // a connection's time is 5000
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_FALSE(connect_to(tls_service_port_).has_value());
}

TEST_F(TlsService, SurvivesClientsThatGoAwayInTheMiddle) {
  start_tls_service();

  for (const std::string& said : {std::string(), std::string("\x16\x03\x01\x02\x00\x01", 6),
                                  std::string("GET / HTTP/1.0\r\n\r\n")}) {
    const std::optional<Descriptor> hasty = connect_to(tls_service_port_);
    ASSERT_TRUE(hasty.has_value());
    ASSERT_EQ(::send(hasty->get(), said.data(), said.size(), 0), static_cast<ssize_t>(said.size()));
  }
  for (int i = 0; i < 50; ++i) {
    Client().ask_and_go(tls_service_port_);
  }

  EXPECT_EQ(accepted_versions(tls_service_port_), versions_of(TLS_PROFILE_LEVEL_INTERMEDIATE));
}

class Nginx : public Services {};

TEST_F(Nginx, AcceptsTheVersionsOfItsLevelAfterEachReload) {
  start_nginx();

  for (const TlsProfileLevel level : kLevels) {
    set_level("nginx", level);
    apply_levels_to_nginx();

    EXPECT_EQ(test_of_nginx_configuration(), 0) << "level " << level;
    EXPECT_EQ(accepted_versions(nginx_port_), versions_of(level)) << "level " << level;
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(Nginx, FollowsADefaultLevelThatChanges) {
  start_nginx();
  ASSERT_EQ(accepted_versions(nginx_port_), versions_of(TLS_PROFILE_LEVEL_INTERMEDIATE));

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_MODERN);
  apply_levels_to_nginx();

  EXPECT_EQ(accepted_versions(nginx_port_), versions_of(TLS_PROFILE_LEVEL_MODERN));
}

TEST_F(Nginx, TakesEveryLevelAtTheHostsOwnSecurityLevel) {
  start_nginx();
  nginx_.reset();
  ASSERT_EQ(::unsetenv("OPENSSL_CONF"), 0);

  for (const TlsProfileLevel level : kLevels) {
    set_level("nginx", level);
    ASSERT_EQ(APIProvider().render_service_template(), 0);

    EXPECT_EQ(test_of_nginx_configuration(), 0) << "level " << level;
  }
}

TEST_F(Nginx, KeepsItsSettingsWhenItsConfigurationIsFaulty) {
  start_nginx();
  write_file(std::string(kConfig) + "nginx.conf", "ssl_protocols;\n");

  ASSERT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(log(),
            Lines({error_line("api_provider.cpp:349 Reload service return error code. [1]: " +
                              std::string(kPackageReloaders) + "nginx.conf")}));
  EXPECT_EQ(accepted_versions(nginx_port_), versions_of(TLS_PROFILE_LEVEL_INTERMEDIATE));
}

TEST_F(Nginx, TakesUpALevelWithWorkersThatAreNotRoot) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  start_nginx("rsa", "daemon");

  for (const TlsProfileLevel level : kLevels) {
    set_level("nginx", level);
    apply_levels_to_nginx();

    EXPECT_EQ(accepted_versions(nginx_port_), versions_of(level)) << "level " << level;
    for (const std::string& worker : nginx_workers()) {
      EXPECT_TRUE(eventually([&] { return user_and_group(worker) == std::pair(1u, 1u); }))
          << worker;
    }
  }
}

TEST_F(Nginx, DoesNotResumeASessionOfAnotherLevel) {
  set_level("nginx", TLS_PROFILE_LEVEL_OLD);
  ASSERT_EQ(APIProvider().render_service_template(), 0);
  start_nginx();
  Client client;
  client.version(TLS1_2_VERSION);
  ASSERT_TRUE(client.ask(nginx_port_).has_value());
  const Session session = client.session();
  ASSERT_TRUE(client.ask(nginx_port_, session.get()).has_value());
  ASSERT_TRUE(client.resumed());

  set_level("nginx", TLS_PROFILE_LEVEL_INTERMEDIATE);
  apply_levels_to_nginx();

  ASSERT_TRUE(client.ask(nginx_port_, session.get()).has_value());
  EXPECT_FALSE(client.resumed());
}

/// With each kind of certificate, so that the suites of both are met.
class BothServices : public Services, public ::testing::WithParamInterface<const char*> {};

TEST_P(BothServices, OfferTheSameSuitesAndGroups) {
  start_tls_service(GetParam());
  start_nginx(GetParam());

  for (const TlsProfileLevel level : {TLS_PROFILE_LEVEL_INTERMEDIATE, TLS_PROFILE_LEVEL_OLD}) {
    set_level("nginx", level);
    set_level("tls_service", level);
    apply_levels_to_nginx();

    const Names suites = accepted_suites(tls_service_port_);
    EXPECT_FALSE(suites.empty());
    EXPECT_EQ(accepted_suites(nginx_port_), suites) << "level " << level;
    EXPECT_EQ(accepted_groups(nginx_port_), Names({"P-256", "P-384", "P-521"}));
    EXPECT_EQ(accepted_groups(tls_service_port_), Names({"P-256", "P-384", "P-521"}));
  }
}

INSTANTIATE_TEST_SUITE_P(WithACertificate, BothServices, ::testing::Values("rsa", "ecdsa"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_F(Services, HaveReloadersThatAreContentWhenNothingRuns) {
  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(log(), Lines());
}

TEST_F(Services, LeaveNothingBehind) {
  for (const char* service : {"nginx", "tls_service"}) {
    ASSERT_EQ(APIProvider().leave_framework(registration_of(service)), 0);
  }

  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(names_in(kConfig), Lines());
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_EQ(DataStoreProvider().list_services(), Json::Value(Json::objectValue));
  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test

#include "nginx.h"

#include <gtest/gtest.h>

#include <utility>

#include "framework.h"

namespace kelotls::test {
namespace {

constexpr char kProgram[] = "/usr/sbin/nginx";
constexpr char kCertificate[] = "/usr/kelo/certificate.pem";

}  // namespace

Nginx::Nginx(std::string name, std::string port) : name_(std::move(name)), port_(std::move(port)) {
  EXPECT_TRUE(exists(kProgram)) << "this test needs nginx";
}

void Nginx::include(const std::string& path, const std::string& more) const {
  write_file(kCertificate, read_file(KELOTLS_CERTIFICATES "/rsa.pem"));
  write_file(file(".conf"),
             "pid " + file(".pid") + "; error_log " + file(".log") +
                 " info; events {} http { access_log off; client_body_temp_path /tmp/nginx_body;" +
                 " proxy_temp_path /tmp/nginx_proxy; fastcgi_temp_path /tmp/nginx_fastcgi;" +
                 " uwsgi_temp_path /tmp/nginx_uwsgi; scgi_temp_path /tmp/nginx_scgi;" +
                 " server { listen 127.0.0.1:" + port_ + " ssl; ssl_certificate " + kCertificate +
                 "; ssl_certificate_key " + kCertificate + "; include " + path +
                 "; return 200 well; } " + more + " }\n");
  write_program(file("-reload"), "#!/bin/sh\ntest ! -s " + file(".pid") + " || " + kProgram +
                                     " -c " + file(".conf") + " -s reload\n");
}

void Nginx::start() {
  process_ = std::make_unique<Process>(
      std::vector<std::string>{kProgram, "-c", file(".conf"), "-g", "user root; daemon off;"},
      file(".out"));
}

}  // namespace kelotls::test

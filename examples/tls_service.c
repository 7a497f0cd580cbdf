/*
 * A small TLS server whose settings follow its service's level: how a service uses the C interface.
 *
 *   tls_service [--pid-file PATH] NAME CERTIFICATE.pem [PORT]
 *
 * Serves on the loopback interface, on a port of the kernel's choice without PORT. Answers each
 * request with what was negotiated. SIGHUP makes it take up its current level, SIGTERM ends it.
 */
#include <arpa/inet.h>
#include <err.h>
#include <fcntl.h>
#include <getopt.h>
#include <kelotls/server_context.h>
#include <openssl/err.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kConnectionTime = 5000 /* ms */ };

struct service {
  const char* name;
  const char* certificate; /* chain and key in one PEM file */
  SSL_CTX* context;
  int signals; /* readable when SIGHUP or SIGTERM came */
  bool stopping;
};

static SSL_CTX* make_context(const char* name, const char* certificate) {
  SSL_CTX* context = KELOTLS_acquire_server_context(name);
  if (context == NULL) {
    fprintf(stderr, "tls_service: no settings for %s; the system log says why\n", name);
    return NULL;
  }
  if (SSL_CTX_use_certificate_chain_file(context, certificate) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, certificate, SSL_FILETYPE_PEM) != 1) {
    ERR_print_errors_fp(stderr);
    KELOTLS_release_context(context);
    return NULL;
  }
  return context;
}

/* The level may have changed. A service that cannot have its new settings goes on with the old. */
static void reload(struct service* service) {
  SSL_CTX* context = make_context(service->name, service->certificate);
  if (context == NULL) {
    fputs("tls_service: keeping the former settings\n", stderr);
    return;
  }
  KELOTLS_release_context(service->context); /* open connections hold references of their own */
  service->context = context;
}

static void take_signal(struct service* service) {
  struct signalfd_siginfo received;
  if (read(service->signals, &received, sizeof received) > 0 && received.ssi_signo == SIGHUP) {
    reload(service);
  } else {
    service->stopping = true;
  }
}

static int64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (int64_t)time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

/*
 * Waits until the socket is ready; false when the time is up or the service ends. Signals are
 * served meanwhile, and before the socket, so that a connection made after SIGHUP gets the new
 * level.
 */
static bool wait_until_ready(struct service* service, int socket, short events, int64_t deadline) {
  while (!service->stopping) {
    struct pollfd polled[] = {{service->signals, POLLIN, 0}, {socket, events, 0}};
    const int64_t left = deadline - now();
    if (left <= 0 || poll(polled, 2, deadline == INT64_MAX ? -1 : (int)left) == 0) {
      return false;
    }
    if (polled[0].revents != 0) {
      take_signal(service);
    } else if (polled[1].revents != 0) {
      return true;
    }
  }
  return false;
}

/* Whether to repeat the TLS call that gave this result, once what it waits for has come. */
static bool again(struct service* service, SSL* tls, int result, int64_t deadline) {
  switch (SSL_get_error(tls, result)) {
    case SSL_ERROR_WANT_READ:
      return wait_until_ready(service, SSL_get_fd(tls), POLLIN, deadline);
    case SSL_ERROR_WANT_WRITE:
      return wait_until_ready(service, SSL_get_fd(tls), POLLOUT, deadline);
    default:
      return false;
  }
}

/* Makes the handshake and reads the request's first record; what it asks for does not matter. */
static bool read_request(struct service* service, SSL* tls, int64_t deadline) {
  char request[SSL3_RT_MAX_PLAIN_LENGTH];
  int result;
  do {
    result = SSL_read(tls, request, sizeof request);
  } while (result <= 0 && again(service, tls, result, deadline));
  return result > 0;
}

static void write_response(SSL* tls) {
  char response[256];
  const int length = snprintf(response, sizeof response, "HTTP/1.0 200 OK\r\n\r\n%s %s\n",
                              SSL_get_version(tls), SSL_get_cipher_name(tls));
  if (SSL_write(tls, response, length) == length) { /* the empty send buffer holds it whole */
    SSL_shutdown(tls);
  }
}

static void serve(struct service* service, int socket) {
  SSL* tls = SSL_new(service->context);
  if (tls != NULL && SSL_set_fd(tls, socket) == 1 && fcntl(socket, F_SETFL, O_NONBLOCK) == 0) {
    SSL_set_accept_state(tls);
    if (read_request(service, tls, now() + kConnectionTime)) {
      write_response(tls);
    }
  }
  SSL_free(tls);
  ERR_clear_error(); /* one peer's failure must not spoil the next SSL_get_error */
  close(socket);
}

/* Blocks the signals before anything else, so that none is lost or ends the service halfway. */
static int watch_signals(void) {
  sigset_t watched;
  sigemptyset(&watched);
  sigaddset(&watched, SIGHUP);
  sigaddset(&watched, SIGTERM);
  signal(SIGPIPE, SIG_IGN); /* a peer that goes away fails the write, not the service */
  sigprocmask(SIG_BLOCK, &watched, NULL);
  return signalfd(-1, &watched, 0);
}

static int listen_on(struct sockaddr_in* address) {
  socklen_t length = sizeof *address;
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &(int){1}, sizeof(int));
  if (bind(listener, (struct sockaddr*)address, length) != 0 || listen(listener, 16) != 0 ||
      getsockname(listener, (struct sockaddr*)address, &length) != 0) {
    err(1, "port %d", ntohs(address->sin_port));
  }
  return listener;
}

int main(int argc, char** argv) {
  const struct option options[] = {{"pid-file", required_argument, NULL, 'p'}, {0}};
  const char* pid_file = NULL;
  int option;
  while ((option = getopt_long(argc, argv, "", options, NULL)) == 'p') {
    pid_file = optarg;
  }
  if (option != -1 || argc - optind < 2) {
    errx(2, "usage: tls_service [--pid-file PATH] NAME CERTIFICATE.pem [PORT]");
  }
  const long port = argc - optind > 2 ? strtol(argv[optind + 2], NULL, 10) : 0;

  struct service service = {argv[optind], argv[optind + 1], NULL, watch_signals(), false};
  if ((service.context = make_context(service.name, service.certificate)) == NULL) {
    return 1;
  }
  struct sockaddr_in address = {AF_INET, htons((uint16_t)port), {htonl(INADDR_LOOPBACK)}, {0}};
  const int listener = listen_on(&address);
  FILE* file = pid_file != NULL ? fopen(pid_file, "w") : NULL;
  if (pid_file != NULL && (file == NULL || fprintf(file, "%d\n", getpid()) < 0 || fclose(file))) {
    err(1, "%s", pid_file);
  }
  printf("listening on 127.0.0.1:%d\n", ntohs(address.sin_port));
  fflush(stdout);

  while (wait_until_ready(&service, listener, POLLIN, INT64_MAX)) {
    const int socket = accept(listener, NULL, NULL);
    if (socket >= 0) { /* else the peer has gone again */
      serve(&service, socket);
    }
  }

  close(listener);
  close(service.signals);
  KELOTLS_release_context(service.context);
  return pid_file == NULL || unlink(pid_file) == 0 ? 0 : 1;
}

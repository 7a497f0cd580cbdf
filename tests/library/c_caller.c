/* A service in C, whose frame lies between the library and the test. */
#include <kelotls/server_context.h>

int can_be_served(const char* service);

int can_be_served(const char* service) {
  SSL_CTX* const context = KELOTLS_acquire_server_context(service);
  const int served = context != NULL;
  KELOTLS_release_context(context);
  return served;
}

// Any bytes as the file of temporary DH parameters: the context comes all the same, and OpenSSL's
// error queue is empty afterwards. An input that begins like a DER sequence is put into the PEM
// form first, so that what changes is the parameters and not their wrapping.
//
// A file that OpenSSL cannot read stays open and its BIO stays allocated, by contract. What stays
// is recorded here, compared with that contract and released, because a long run would exhaust
// memory and descriptors otherwise.
#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdio>
#include <memory>
#include <set>
#include <utility>

#include "harness.h"
#include "kelotls/api_provider.h"
#include "private_tree.h"

namespace {

std::set<std::FILE*> files;
std::set<BIO*> bios;
bool is_recording = false;

}  // namespace

// The linker makes the library's units call these instead of the functions without the prefix.
extern "C" {
std::FILE* __real_fopen64(const char* path, const char* mode);
int __real_fclose(std::FILE* file);
BIO* __real_BIO_new(const BIO_METHOD* method);
int __real_BIO_free(BIO* bio);

std::FILE* __wrap_fopen64(const char* path, const char* mode) {
  std::FILE* const file = __real_fopen64(path, mode);
  if (is_recording && file != nullptr) {
    files.insert(file);
  }
  return file;
}

int __wrap_fclose(std::FILE* file) {
  files.erase(file);
  return __real_fclose(file);
}

BIO* __wrap_BIO_new(const BIO_METHOD* method) {
  BIO* const bio = __real_BIO_new(method);
  if (is_recording && bio != nullptr) {
    bios.insert(bio);
  }
  return bio;
}

int __wrap_BIO_free(BIO* bio) {
  bios.erase(bio);
  return __real_BIO_free(bio);
}
}

namespace kelotls::fuzz {
namespace {

constexpr char kStore[] =
    R"({"default-level": 2, "services": {"web": {"display-name": "Web", "current-level": 2}}})";
constexpr char kDerSequence = 0x30;

std::string in_pem(std::string_view der) {
  std::string base64(4 * (der.size() / 3 + 1) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                     reinterpret_cast<const unsigned char*>(der.data()),
                                     static_cast<int>(der.size()));
  base64.resize(static_cast<std::size_t>(length));
  std::string text = "-----BEGIN DH PARAMETERS-----\n";
  for (std::size_t at = 0; at < base64.size(); at += 64) {
    text += base64.substr(at, 64) + '\n';
  }
  return text + "-----END DH PARAMETERS-----\n";
}

/// Whether OpenSSL reads parameters from the text. Leaves the error queue as it makes it.
bool holds_parameters(const std::string& text) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
  const std::unique_ptr<DH, void (*)(DH*)> parameters(
      PEM_read_bio_DHparams(bio.get(), nullptr, nullptr, nullptr), DH_free);
  return parameters != nullptr;
}

/// A context that a connection can be made from.
void require_usable(SSL_CTX* context) {
  require(context != nullptr, "a context comes whatever the DH file holds");
  const std::unique_ptr<SSL, void (*)(SSL*)> connection(SSL_new(context), SSL_free);
  require(connection != nullptr, "a connection can be made from the context");
}

void release_what_stayed() {
  for (std::FILE* const file : std::exchange(files, {})) {
    std::fclose(file);
  }
  for (BIO* const bio : std::exchange(bios, {})) {
    BIO_free(bio);
  }
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  const std::string_view input = text_of(data, size);
  const std::string text =
      input.substr(0, 1) == std::string_view(&kDerSequence, 1) ? in_pem(input) : std::string(input);
  test::write_file(test::kDataStore, kStore);
  test::write_file(std::string(test::kSslDir) + "dh2048.pem", text);
  const bool is_readable = holds_parameters(text);

  is_recording = true;
  SSL_CTX* const context = APIProvider().acquire_server_context("web");
  is_recording = false;

  require(ERR_peek_error() == 0, "the error queue is empty afterwards");
  require_usable(context);
  require(files.size() == (is_readable ? 0 : 1), "a file stays open where it cannot be read, only");
  require(bios.size() == files.size(), "and so does the BIO with the reasons");
  APIProvider().release_context(context);
  release_what_stayed();
  return 0;
}

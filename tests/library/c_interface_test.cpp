// The two C functions, called from C and from C++.
#include <json/value.h>

#include <stdexcept>
#include <string>

#include "kelotls/server_context.h"
#include "private_tree.h"

extern "C" int can_be_served(const char* service);  // c_caller.c

namespace kelotls::test {
namespace {

using CInterface = PrivateTree;

std::string not_joined(const std::string& service) {
  return error_line("framework_config.cpp:123 Service is not joined framework. " + service);
}

/// What the standard library says to a null pointer for a string.
std::string null_string_text() {
  const char* volatile none = nullptr;
  try {
    return std::string(none);
  } catch (const std::logic_error& error) {
    return error.what();
  }
}

TEST_F(CInterface, ServesAServiceInC) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  EXPECT_EQ(can_be_served("web"), 1);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, GivesAServiceInCNullForAnUnknownName) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  EXPECT_EQ(can_be_served("mail"), 0);
  EXPECT_EQ(log(), Lines{not_joined("mail")});
}

TEST_F(CInterface, GivesAContextThatIsTheCallersUntilReleased) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  SSL_CTX* const context = KELOTLS_acquire_server_context("web");
  ASSERT_NE(context, nullptr);
  EXPECT_NE(SSL_CTX_get_options(context) & SSL_OP_NO_TLSv1_2, 0u);

  KELOTLS_release_context(context);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, ReadsTheNameToItsEnd) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  EXPECT_EQ(can_be_served("web\0site"), 1);
  EXPECT_EQ(can_be_served("we"), 0);
  EXPECT_EQ(can_be_served("web "), 0);
  EXPECT_EQ(log(), (Lines{not_joined("we"), not_joined("web ")}));
}

TEST_F(CInterface, TakesTheEmptyStringForAnOrdinaryUnknownName) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  EXPECT_EQ(can_be_served(""), 0);
  EXPECT_EQ(log(), Lines{not_joined("")});
}

TEST_F(CInterface, ServesAServiceNamedByTheEmptyString) {
  write_file(kDataStore, data_store_text(1, {{"", "0"}}));

  EXPECT_EQ(can_be_served(""), 1);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, GivesNullWithoutALineForANegativeLevel) {
  write_file(kDataStore, data_store_text(1, {{"web", "-4"}}));

  EXPECT_EQ(can_be_served("web"), 0);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, LetsTheExceptionForANullNamePassThroughC) {
  write_file(kDataStore, data_store_text(1, {{"web", "0"}}));

  try {
    can_be_served(nullptr);
    FAIL() << "a null name was taken";
  } catch (const std::logic_error& error) {
    EXPECT_EQ(error.what(), null_string_text());
#ifdef __arm__  // the appliance: its standard library's words are part of the contract
    EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
#endif
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, LetsAnExceptionOfTheJsonLibraryPassThroughC) {
  write_file(kDataStore, R"({"default-level": "x", "services": {"web": {"display-name": "W"}}})");

  EXPECT_THROW(can_be_served("web"), Json::LogicError);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CInterface, ReleasesNullWithoutEffect) {
  KELOTLS_release_context(nullptr);

  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test

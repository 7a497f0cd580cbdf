// The whole catalogue of log lines: every text, number and priority is frozen.
#include <cerrno>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

#include "log_messages.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

using LogCatalogue = PrivateTree;

using Message = std::pair<std::string, void (*)()>;

// The name of a function, and a call of it.
#define MESSAGE(function, ...) Message(#function, [] { log::function(__VA_ARGS__); })

// In the order of the header.
const std::vector<Message> kMessages = {
    MESSAGE(no_default_level),
    MESSAGE(no_services_field),
    MESSAGE(no_display_name),
    MESSAGE(bad_i18n_display_name),
    MESSAGE(bad_current_level),

    MESSAGE(data_store_not_loaded, "/data/store"),
    MESSAGE(data_store_invalid, "/data/store"),
    MESSAGE(data_store_not_saved, "/data/store"),
    MESSAGE(lookup_of_unjoined_service, "name"),
    MESSAGE(update_of_unjoined_service, "name"),
    MESSAGE(saved_file_not_loaded, "/saved/file"),
    MESSAGE(saved_file_invalid, "/saved/file"),
    MESSAGE(saved_service_without_entry, "name"),
    MESSAGE(saved_service_not_live, "name"),

    MESSAGE(dh_file_not_opened, "/dh/file"),
    MESSAGE(dh_parameters_unreadable, "reasons"),

    MESSAGE(invalid_registration_to_join),
    MESSAGE(services_not_merged),
    MESSAGE(descriptor_not_joined),
    MESSAGE(reloader_not_joined),
    MESSAGE(joined_data_store_not_saved),
    MESSAGE(installed_file_not_removed, "/installed/file"),
    MESSAGE(invalid_registration_to_leave),
    MESSAGE(left_data_store_not_saved),
    MESSAGE(reloader_not_left),
    MESSAGE(descriptor_not_left),
    MESSAGE(rendered_file_not_left),
    MESSAGE(descriptor_not_read, "/descriptor"),
    MESSAGE(no_level_to_render),
    MESSAGE(temporary_file_not_made),
    MESSAGE(template_not_rendered, "/output"),
    MESSAGE(rendered_file_not_renamed, "/output.XXXXXX"),
    MESSAGE(rendered_file_not_removed, "/output"),
    MESSAGE(descriptor_not_installed, "/descriptor"),
    MESSAGE(descriptor_not_removed, "/descriptor"),
    MESSAGE(old_reloader_not_removed, "/link"),
    MESSAGE(reloader_not_linked, "/reloader", "/link"),
    MESSAGE(reloader_link_not_removed, "/link"),
    MESSAGE(reloaders_not_listed, "/directory/"),
    MESSAGE(reloader_not_run, "/reloader"),
    MESSAGE(reloader_failed, 3, "/reloader"),
    MESSAGE(descriptors_not_listed, "/directory/"),
    MESSAGE(descriptor_not_loaded, "name.conf"),
    MESSAGE(regenerated_data_store_not_saved),
    MESSAGE(no_memory_bio),
    MESSAGE(openssl_failure, "Message", "reasons"),
};

#undef MESSAGE

Lines lines_of(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

Lines golden_lines() { return lines_of(test_data("library/snapshots/log_catalogue.txt")); }

/// The functions that the header declares, in its order.
Lines declared_functions() {
  Lines names;
  for (const std::string& line : lines_of(test_data("../src/log_messages.h"))) {
    std::smatch match;
    if (std::regex_search(line, match, std::regex("^(?:LINE\\w*\\(|inline void )(\\w+)"))) {
      names.push_back(match[1]);
    }
  }
  return names;
}

TEST_F(LogCatalogue, IsAsItAlwaysWas) {
  for (const Message& message : kMessages) {
    errno = ENOSPC;
    message.second();
  }

  EXPECT_EQ(log(), golden_lines());
}

TEST_F(LogCatalogue, KnowsEveryFunctionOfTheHeader) {
  Lines called;
  for (const Message& message : kMessages) {
    called.push_back(message.first);
  }

  EXPECT_EQ(called, declared_functions());
}

TEST_F(LogCatalogue, GivesNoNumberTwiceWithinAUnit) {
  std::map<std::string, std::set<int>> numbers;
  Lines without_prefix;
  for (const std::string& line : golden_lines()) {
    std::smatch match;
    if (!std::regex_search(line, match, std::regex("^<11>(\\w+\\.cpp):(\\d+) "))) {
      without_prefix.push_back(line);
      continue;
    }
    EXPECT_TRUE(numbers[match[1]].insert(std::stoi(match[2])).second) << line;
  }

  EXPECT_EQ(without_prefix, Lines{"<11>service entry not found. name"});
  EXPECT_EQ(numbers.size(), 4u);
}

TEST_F(LogCatalogue, WritesTextsThatLookLikeFormatsUnchanged) {
  errno = 0;
  log::reloader_not_linked("%s%n", "%d");
  log::openssl_failure("100%", "%s");

  EXPECT_EQ(log(), (Lines{"<11>api_provider.cpp:305 Install service reloader failed. "
                          "[0][Success]: %s%n -> %d",
                          "<11>api_provider.cpp:409 100%. [%s]"}));
}

}  // namespace
}  // namespace kelotls::test

// Any JSON value as a registration, to join and to leave with: the result is compared with a second
// writing of the rules, and the files with what that verdict makes of them. The key "data-store",
// which the library ignores, may hold the text of the data store. jsoncpp's exception may pass
// through, before any file is written, for a "system-service" that is no boolean, for a list or an
// object in place of a text when leaving, and for a service entry in the data store that is no
// object.
#include <kelotls/api_provider.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "harness.h"
#include "private_tree.h"
#include "rules.h"

namespace kelotls::fuzz {
namespace {

using test::kConfig;
using test::kDataStore;
using test::kPackageReloaders;
using test::kServices;
using test::Lines;

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kLongestTarget = 4095;

constexpr char kStore[] = R"({"default-level": 2, "extra": [1], "services": {
  "one": {"display-name": "One", "display-name-i18n": "app:one", "current-level": 3, "x": 1},
  "two": {"display-name": "Two", "current-level": 1},
  "old": {"display-name": "Without a level"}}})";

/// What the library may change.
struct Tree {
  std::map<std::string, Json::Value> descriptors;
  std::map<std::string, std::string> links;
  std::map<std::string, std::string> rendered;
  Json::Value store;

  bool operator==(const Tree& other) const {
    return descriptors == other.descriptors && links == other.links && rendered == other.rendered &&
           store == other.store;
  }
};

/// The files as they are, and "-> " with the target of each link.
using Files = std::map<std::string, std::string>;

void add_files(Files& files, const std::string& directory) {
  for (const std::string& name : test::names_in(directory)) {
    const std::string path = directory + name;
    char target[4097];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    files[path] = length < 0 ? test::read_file(path)
                             : "-> " + std::string(target, static_cast<std::size_t>(length));
  }
}

Files read_files() {
  Files files;
  for (const char* directory : {kServices, kConfig, kPackageReloaders}) {
    add_files(files, directory);
  }
  files[kDataStore] = test::read_file(kDataStore);
  return files;
}

Files make_files() {
  for (const char* directory : {kServices, kConfig, kPackageReloaders}) {
    test::remove_all(directory);
    test::make_directories(directory);
  }
  test::remove_all(kDataStore);
  test::write_file(kDataStore, kStore);
  for (const std::string name : {"one", "two"}) {
    test::write_file(kServices + name + ".conf",
                     R"({"service": ")" + name + R"(", "display-name": "From its file"})");
    test::write_file(kConfig + name + ".conf", "level = 2\n");
    const std::string link = kPackageReloaders + name + ".conf";
    require(::symlink("/opt/reload", link.c_str()) == 0, "a link can be made");
  }
  return read_files();
}

/// The tree that the files make up. What the data store holds is left out.
Tree tree_of(const Files& files) {
  Tree tree;
  for (const auto& [path, text] : files) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    if (directory == kServices) {
      require(parse(text, tree.descriptors[name]), "a descriptor file is JSON");
    } else if (directory == kPackageReloaders) {
      tree.links[name] = text.substr(3);
    } else if (directory == kConfig) {
      tree.rendered[name] = text;
    }
  }
  return tree;
}

std::string text_under(const Json::Value& service, const char* key) {
  return service.get(key, "").asString();
}

/// Whether the name of a service names files in the framework's own directories.
bool is_plain(const Json::Value& service) {
  const std::string name = text_under(service, "service");
  const std::string target = text_under(service, "reloader-path");
  return name.find('/') == std::string::npos && name.find('\0') == std::string::npos &&
         target.find('\0') == std::string::npos;
}

/// Whether that holds for all services. Only the framework's own directories are looked at, but a
/// registration that is refused must not leave a file anywhere.
bool all_are_plain(const Json::Value& registration) {
  if (judge_leaving(registration) != Verdict::kAccepted) {
    return true;
  }
  const Json::Value& services = registration["services"];
  return std::all_of(services.begin(), services.end(), is_plain);
}

/// The members of an object that have one of the keys.
Json::Value members(const Json::Value& object, const std::vector<std::string>& keys) {
  Json::Value picked(Json::objectValue);
  for (const std::string& key : keys) {
    if (object.isMember(key)) {
      picked[key] = object[key];
    }
  }
  return picked;
}

void add_entry(Json::Value& store, const Json::Value& service) {
  Json::Value& entry = store["services"][text_under(service, "service")];
  const Json::Value level = entry.isNull() ? Json::Value(0) : entry["current-level"];
  entry = members(service, {"display-name", "display-name-i18n"});
  entry["current-level"] = level;
}

/// Adds a service's files. False for the one that cannot be made; what it would replace is gone.
bool add_files(Tree& tree, const Json::Value& service, bool is_linked, Lines& made_descriptors,
               Lines& made_links) {
  const std::string file = text_under(service, "service") + ".conf";
  const std::string target = text_under(service, "reloader-path");
  if (file.size() > kLongestName) {
    return false;
  }
  tree.descriptors[file] = members(
      service, {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"});
  made_descriptors.push_back(file);
  if (is_linked && !target.empty()) {
    tree.links[file] = target;
    made_links.push_back(file);
    return target.size() <= kLongestTarget;
  }
  return true;
}

/// What a join makes of the tree. False when it fails, and takes back what it made.
bool join(Tree& tree, const Json::Value& registration) {
  const bool is_linked = !*is_of_base_system(registration);
  Json::Value store = tree.store;
  Lines made_descriptors;
  Lines made_links;
  for (const Json::Value& service : registration["services"]) {
    add_entry(store, service);
    if (!add_files(tree, service, is_linked, made_descriptors, made_links)) {
      for (const std::string& file : made_descriptors) {
        tree.descriptors.erase(file);
      }
      for (const std::string& file : made_links) {
        tree.links.erase(file);
      }
      return false;
    }
  }
  tree.store = store;
  return true;
}

/// What leaving makes of the tree.
void leave(Tree& tree, const Json::Value& registration) {
  for (const Json::Value& service : registration["services"]) {
    const std::string name = text_under(service, "service");
    if (!tree.store.isNull()) {
      tree.store["services"].removeMember(name);
    }
    if (!*is_of_base_system(registration) && text_under(service, "reloader-path") != "") {
      tree.links.erase(name + ".conf");
    }
    tree.descriptors.erase(name + ".conf");
    if (text_under(service, "mustache-path") != "") {
      tree.rendered.erase(name + ".conf");
    }
  }
}

struct Call {
  Verdict verdict;  // on the registration
  std::function<int()> call;
  std::function<bool(Tree&)> effect;  // on the tree; false where the call fails
};

/// The files that a call meets. Made anew only after one that has changed them.
Files fresh_files(const std::string& store, bool& are_changed) {
  static const Files kFiles = make_files();
  if (are_changed) {
    make_files();
    are_changed = false;
  }
  Files files = kFiles;
  files[kDataStore] = store;
  test::write_file(kDataStore, store);
  return files;
}

/// Makes the call on fresh files, and holds its result and the files against the verdict.
void check_call(const Json::Value& registration, const std::string& store, const Call& call) {
  static bool are_changed = true;
  const Files before = fresh_files(store, are_changed);
  Json::Value document;
  document.fromFile(kDataStore);
  const Verdict store_verdict = judge_data_store(document);

  int result = 0;
  const bool raised = raises([&] { result = call.call(); });

  const Files after = all_are_plain(registration) ? read_files() : before;
  are_changed = after != before || !all_are_plain(registration);
  require(raised == (call.verdict == Verdict::kRaises ||
                     (call.verdict == Verdict::kAccepted && store_verdict == Verdict::kRaises)),
          "what raises an exception is what should");
  if (raised || call.verdict == Verdict::kRefused) {
    require(raised || result == -1, "a registration that breaks a rule is refused");
    require(after == before, "a registration that is refused changes nothing");
    return;
  }
  if (!all_are_plain(registration)) {
    return;  // its files may be anywhere
  }
  Tree expected = tree_of(before);
  expected.store = store_verdict == Verdict::kAccepted ? document : Json::Value();
  const bool succeeds = call.effect(expected);
  require(result == (succeeds ? 0 : -1), "a registration that keeps all rules is taken");
  Tree found = tree_of(after);
  require(succeeds || after.at(kDataStore) == store,
          "a join that fails leaves the data store alone");
  found.store = succeeds ? written_value(kDataStore) : expected.store;
  require(found == expected, "the files are those of the services that are joined");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  Json::Value registration;
  if (!parse(text_of(data, size), registration)) {
    return -1;
  }
  std::string store = kStore;
  if (registration.isObject() && registration["data-store"].isString()) {
    store = registration["data-store"].asString();
  }
  check_call(
      registration, store,
      {judge_joining(registration), [&] { return APIProvider().join_framework(registration); },
       [&](Tree& tree) { return join(tree, registration); }});
  check_call(
      registration, store,
      {judge_leaving(registration), [&] { return APIProvider().leave_framework(registration); },
       [&](Tree& tree) {
         leave(tree, registration);
         return true;
       }});
  return 0;
}

// Owns what a change may alter of a service.
#include "changes/snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "files.h"
#include "json_document.h"
#include "paths.h"
#include "service/service_state.h"
#include "store/addresses.h"
#include "store/dated_levels.h"

namespace kelotlsctl {

namespace {

/// A file of the command's own that keeps something for each service, in its member "services".
struct KeptFile {
  const char* member;  ///< of the snapshot
  const char* path;
  mode_t mode;
};

constexpr KeptFile kDated = {"dated", DatedLevels::kPath, 0600};
constexpr KeptFile kAddress = {"address", Addresses::kPath, 0600};
constexpr KeptFile kStamp = {"stamp", Stamp::kPath, 0644};
constexpr KeptFile kKeptFiles[] = {kDated, kAddress, kStamp};

/// {"text", "mode"}; null where there is no file.
Json::Value file_json(const std::string& path) {
  struct stat status = {};
  std::string text;
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
    return {};
  }
  if (!kelotls::read_file(path, text)) {
    throw system_failure(path);
  }
  return object({{"text", text}, {"mode", static_cast<int>(status.st_mode & 07777)}});
}

Json::Value link_json(const std::string& service) {
  const std::string target = link_target(service);
  return target.empty() ? Json::Value() : Json::Value(target);
}

/// What the file keeps by service. A file that cannot be used keeps nothing that could be lost
/// here: it is named where it is used.
Json::Value kept_in(const KeptFile& file) {
  Json::Value document;
  kelotls::JsonReader().read(file.path, document);
  const Json::Value* const services = kelotls::find_member(document, "services");
  return services != nullptr && services->isObject() ? *services : Json::Value(Json::objectValue);
}

void require_removed(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw system_failure(path);
  }
}

/// A rendered file is replaced whole. A descriptor is written in place, because a temporary beside
/// it would be read as a service; its mode comes with it.
void put_back_file(const std::string& path, const Json::Value& file, bool is_descriptor) {
  if (file.isNull()) {
    require_removed(path);
    return;
  }
  if (file_json(path) == file) {
    return;
  }
  const std::string text = file["text"].asString();
  const mode_t mode = file["mode"].asUInt();
  const bool is_written = is_descriptor ? kelotls::write_in_place(path, text)
                                        : kelotls::replace_entry(path, text, mode);
  // What was there may have had another mode, which both of them leave to it.
  if (!is_written || ::chmod(path.c_str(), mode) != 0) {
    throw system_failure(path);
  }
}

void put_back_link(const std::string& service, const Json::Value& target) {
  const std::string path = kelotls::link_path(service);
  if (target == link_json(service)) {
    return;
  }
  require_removed(path);
  if (!target.isNull() && ::symlink(target.asCString(), path.c_str()) != 0) {
    throw system_failure(path);
  }
}

bool is_membership(const Json::Value& former) { return former["extent"] == "membership"; }

/// The level as it was: an entry may have none, which follows the default.
void put_back_level(Json::Value& entry, const Json::Value& former) {
  if (former.isMember("current-level")) {
    entry["current-level"] = former["current-level"];
  } else {
    entry.removeMember("current-level");
  }
}

/// The data store with the levels, or the entries, of the snapshot.
Store with_entries(Store store, const Json::Value& snapshot) {
  if (snapshot.isMember("default-level")) {
    store.root["default-level"] = snapshot["default-level"];
  }
  Json::Value& services = store.root["services"];
  for (const std::string& service : snapshot["services"].getMemberNames()) {
    const Json::Value& former = snapshot["services"][service];
    if (!is_membership(former)) {
      if (services.isMember(service)) {
        put_back_level(services[service], former["entry"]);
      }
    } else if (former["entry"].isNull()) {
      services.removeMember(service);
    } else {
      services[service] = former["entry"];
    }
  }
  return store;
}

/// Whether something is put back for a service, by what it was.
using Concerns = bool (*)(const Json::Value& former);

void put_back_kept(const KeptFile& file, const Json::Value& snapshot, Concerns is_concerned) {
  const Json::Value before = kept_in(file);
  Json::Value services = before;
  for (const std::string& service : snapshot["services"].getMemberNames()) {
    const Json::Value& kept = snapshot["services"][service][file.member];
    if (!is_concerned(snapshot["services"][service])) {
      continue;
    }
    if (kept.isNull()) {
      services.removeMember(service);
    } else {
      services[service] = kept;
    }
  }
  if (services != before &&
      !kelotls::replace_entry(file.path, kelotls::json_text(object({{"services", services}})),
                              file.mode)) {
    throw system_failure(file.path);
  }
}

}  // namespace

Json::Value take_snapshot(const Store& store, const std::vector<std::string>& services,
                          Extent extent) {
  Json::Value kept(Json::objectValue);
  for (const KeptFile& file : kKeptFiles) {
    kept[file.member] = kept_in(file);
  }
  Json::Value snapshot = object({{"services", object({})}});
  for (const std::string& service : services) {
    Json::Value& former = snapshot["services"][service];
    former["extent"] = extent == Extent::kMembership ? "membership" : "level";
    former["entry"] = store.services().get(service, Json::Value());
    former["descriptor"] = file_json(kelotls::descriptor_path(service));
    former["link"] = link_json(service);
    former["rendered"] = file_json(kelotls::rendered_path(service));
    for (const KeptFile& file : kKeptFiles) {
      former[file.member] = kept[file.member].get(service, Json::Value());
    }
  }
  return snapshot;
}

void add_default_level(Json::Value& snapshot, const Store& store) {
  snapshot["default-level"] = store.root["default-level"];
}

void merge_snapshot(Json::Value& snapshot, const Json::Value& later) {
  if (later.isMember("default-level") && !snapshot.isMember("default-level")) {
    snapshot["default-level"] = later["default-level"];
  }
  for (const std::string& service : later["services"].getMemberNames()) {
    Json::Value& former = snapshot["services"][service];
    if (former.isNull()) {
      former = later["services"][service];
    } else if (is_membership(later["services"][service])) {
      former["extent"] = "membership";
    }
  }
}

void put_back(const Json::Value& snapshot, bool with_stamps) {
  const Store before = load_store();
  const Store store = with_entries(before, snapshot);
  if (store.root != before.root) {
    save_store(store);
  }
  for (const std::string& service : snapshot["services"].getMemberNames()) {
    const Json::Value& former = snapshot["services"][service];
    if (is_membership(former)) {
      put_back_file(kelotls::descriptor_path(service), former["descriptor"], true);
      put_back_link(service, former["link"]);
    }
    if (is_membership(former) || store.has(service)) {
      put_back_file(kelotls::rendered_path(service), former["rendered"], false);
    }
  }
  const Concerns always = [](const Json::Value&) { return true; };
  const Concerns has_left = [](const Json::Value& former) {
    return is_membership(former) && former["entry"].isNull();
  };
  put_back_kept(kDated, snapshot, always);
  put_back_kept(kAddress, snapshot, is_membership);
  put_back_kept(kStamp, snapshot, with_stamps ? always : has_left);
  bring_to_disk();  // links and entries of directories, too, before the snapshot itself may go
}

void bring_to_disk() {
  for (const char* const path : {kelotls::kFrameworkDir, kelotls::kPackageReloaderDir}) {
    const kelotls::Descriptor directory(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.is_open() && ::syncfs(directory.get()) != 0) {
      throw system_failure(path);
    }
  }
}

std::vector<std::string> services_in(const Json::Value& snapshot, const Store& store) {
  std::vector<std::string> names = snapshot["services"].getMemberNames();
  names.erase(std::remove_if(names.begin(), names.end(),
                             [&](const std::string& name) { return !store.has(name); }),
              names.end());
  return names;
}

}  // namespace kelotlsctl

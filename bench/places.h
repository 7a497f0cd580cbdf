// Where the two sides of a measurement keep their files, and the data that both find there.
#ifndef KELOTLS_BENCH_PLACES_H
#define KELOTLS_BENCH_PLACES_H

#include <json/value.h>

#include <string>

namespace kelotls::bench {

/// One side's files. Both sides' lie on the same file systems, at paths of the same depth.
struct Places {
  std::string data_store;
  std::string services;
  std::string config;
  std::string reloaders;
};

const Places& library_places();  // the real paths
const Places& floor_places();

/// Ends the program unless the condition holds.
void require(bool condition, const std::string& what);

/// The data below /usr/kelo/etc goes to this directory of the host, on its disk; rendered files
/// stay in memory. Needs the namespace of tests/bed/in_private_tree. Empty: everything stays in
/// memory.
void make_places(const std::string& disk_directory);

/// "service-00006" for 6; its level is 6 % 4, so this one's is 2.
std::string service_name(int number);

/// A JSON text as the library writes it.
std::string json_text(const Json::Value& value);

/// The registration of the services from 0 on, each with a template and a reloader.
Json::Value registration(int services);

/// The data store that holds these services.
Json::Value data_store(int services);

// Each for both sides alike.

void write_data_stores(int services);
void write_descriptors(int services);
void write_template();
void write_reloaders(int reloaders);  // at the library's places alone; the floor runs the same ones
void remove_service_files();

/// Whether both sides' files are the same, byte for byte.
bool same_files();

/// What was written so far is on the disk, so that no later fsync pays for it.
void settle_disk();

}  // namespace kelotls::bench

#endif

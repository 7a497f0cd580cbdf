// Owns who of a service's recorded clients a level answers, and who would be lost by it.
#pragma once

#include <json/value.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "clients/records.h"
#include "clients/shown_certificates.h"
#include "levels/survey.h"
#include "output/console.h"
#include "store/store.h"

namespace kelotlsctl {

/// What the record of a service is held against.
struct LevelQuestion {
  int today = 0;  ///< the service's effective level
  int level = 0;  ///< the one in question; not judged where it is today's
  ShownCertificates shown;
  std::time_t now = 0;
};

/// Each client of the record: how often it came, what today's level does to it and what the other
/// would; and their counts, of the last day, of the last 7 days, and of all. Lost is who is
/// answered today and would not be. {"verdict": "none-lost", "some-lost" or "not-known"}, as
/// schemas/output has it: without a hello nothing is known, and where hellos were left out it is
/// not known that none is lost. Throws std::runtime_error where OpenSSL makes no context or
/// certificate.
Json::Value judge_record(const ClientRecords& records, const LevelQuestion& question,
                         const Progress& progress);

/// The same without the clients themselves, of whom it is not asked why: in a fraction of the time.
Json::Value count_losses(const ClientRecords& records, const LevelQuestion& question);

/// "3 of 214 clients of the last 7 days would be lost (192.0.2.7, 192.0.2.9)", of judge_record's
/// document.
std::string loss_text(const Json::Value& judged);

/// Whether the service gets the library's context, so that a verdict about the level is one about
/// the service; else what there is to say about it.
std::string subject_text(const Addresses& addresses, const std::string& service);

/// Tells on the console, before a change of levels is made, who would be lost by it: of each of the
/// services that has a record and whose effective level changes. A Failure, where losses are
/// refused, unless it is known of each service that nobody is lost. What was told, for each of
/// them: {"service", "today", "level", "verdict", "text", "last-day", "last-week", "all",
/// "addresses"}, the counts null where nothing is known.
Json::Value tell_losses(Console& console, const Store& before, const Store& after,
                        const std::vector<std::string>& services, bool are_refused);

/// "2 of 214 recorded clients of web are refused at its level, which kelotlsctl clients show web
/// tells about"; empty where none is, or no record is kept.
std::string refused_text(const std::string& service, int level);

}  // namespace kelotlsctl

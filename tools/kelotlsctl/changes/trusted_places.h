// Owns what each command trusts: the places that it is about to write to, render, link or run.
#pragma once

#include <string>
#include <vector>

#include "output/console.h"
#include "registration.h"
#include "store/store.h"
#include "system/trust.h"

namespace kelotlsctl {

/// Kinds of places, to be combined.
enum Places : unsigned int {
  kNoPlaces = 0,
  kFrameworkPlaces = 1,   ///< its directories and the data store
  kDescriptorPlaces = 2,  ///< the descriptor of each service
  kTemplatePlaces = 4,    ///< that each descriptor names, with the partials that these name
  kReloaderPlaces = 8,    ///< all that is run, with what its links lead to
  kDhPlaces = 16,
  kDescribedPlaces = kFrameworkPlaces | kDescriptorPlaces,
  kRenderingPlaces = kDescribedPlaces | kTemplatePlaces,
  kAllPlaces = kRenderingPlaces | kReloaderPlaces | kDhPlaces,
};

/// Walks all places of these kinds, whichever services they are for. Shows how far it has come.
TrustWalk walk_places(Console& console, unsigned int kinds);

/// The same of what is read, rendered and run for these services alone.
TrustWalk walk_places(Console& console, unsigned int kinds, const Selection& selection);

/// Walks templates, and the partials that they name.
TrustWalk walk_templates(const std::vector<std::string>& paths);

/// Walks what joining overwrites and links, and what it has read and run later.
TrustWalk walk_registration(Console& console, const std::vector<kelotls::ServiceDesc>& services);

/// How a command takes what the walk has found.
struct Confidence {
  std::string command;
  bool is_blind = false;  ///< --trust-anyway
  bool is_dry_run = false;
};

/// A Failure that names every fault of the walk; or, where confidence is blind, a warning and a
/// line of the system log for each that was not met in a walk before.
void require_trust(Console& console, const TrustWalk& walk, const Confidence& confidence);

}  // namespace kelotlsctl

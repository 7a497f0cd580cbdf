// Owns whether a path can be trusted: whether anybody but root could change what is found there.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelotlsctl {

/// A component of a path that somebody else than root may change, or that cannot be looked at.
struct Distrust {
  std::string component;  ///< its path, free of links and of ".."
  std::string place;      ///< the path that was to be trusted
  bool is_end = false;    ///< it is what the place leads to, not on the way there
  enum class Kind { kOwner, kMode, kUnknown } kind = Kind::kUnknown;
  std::string reason;  ///< "others than its owner may change it"
  std::string remedy;  ///< "chmod go-w /a/b"
};

/// Walks paths from the root on, component by component, following links itself, so that each link
/// and each directory on the way is looked at. A component belongs to root and is not writable by
/// its group or by others, unless it is a sticky directory, where they can replace nothing of
/// root's. Access lists need no look of their own: what they grant is within the group's bits.
///
/// Where there is no fault, nobody but root can make the path lead elsewhere afterwards. What is
/// missing, lies behind a file or leads in a circle is left to the step that needs it. Each
/// component is looked at once in a walk's life.
class TrustWalk {
 public:
  /// Walks to the place, and to where its links lead. A relative path starts at the working
  /// directory.
  void add(const std::string& place);
  void add(const std::vector<std::string>& places);

  /// In the order in which they were met.
  const std::vector<Distrust>& faults() const { return faults_; }

 private:
  struct Component {
    bool exists;
    std::string link_target;  ///< empty for what is no link
  };

  static Component look_at(Distrust& fault);
  const Component& step_to(Distrust fault);

  std::map<std::string, Component> components_;
  std::vector<Distrust> faults_;
};

}  // namespace kelotlsctl

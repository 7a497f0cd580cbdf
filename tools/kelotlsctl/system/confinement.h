// Owns how a process that reads what strangers send gives up what it does not need for that.
#pragma once

#include <initializer_list>

namespace kelotlsctl {

/// Gives up, for good: user and group, for those of "nobody"; all capabilities, and gaining any by
/// running a program; core files; and every system call but those that read and write open
/// descriptors, wait, take memory, ask the time, and end. Any other kills the process. It ends with
/// its parent. A Failure where the kernel does not grant all of that. In a user namespace that has
/// no user but root it stays that root, without capabilities.
void confine();

/// Has this process killed once its parent has ended. A change of the user undoes it.
void end_with_parent();

/// Closes every descriptor but these, which are above the standard ones; those lead nowhere from
/// then on. A Failure where that cannot be done.
void close_descriptors_but(std::initializer_list<int> kept);

}  // namespace kelotlsctl

#pragma once
// The processes that stem from one of ours. A group's number reaches only those that stayed in the
// group; who made a group or session of its own is found as a child of one that is known. The
// system lists children per thread, so a look costs in proportion to the family and not to the
// machine. A system that does not list them leaves the family empty.
//
// Who is orphaned leaves this tree for good: gather before ending anybody, and freeze before the
// last look. What detached itself wholly before (orphaned, in a group of its own) is not found.

#include <cstdint>
#include <vector>

/// Threads: one at a time.
class ZrProcessFamily {
 public:
  /// Looks for processes that stem from this one or from known ones. Whether there are new ones.
  /// The first process is a child that was not yet collected; it is no member itself.
  bool Gather(int first);
  /// Signals every member that still runs, but for those of that group: they are signalled with it.
  void Signal(int number, int exceptGroup) const;

 private:
  // The number of a process that ended may become another's; its start time tells them apart.
  struct Member {
    int id = 0;
    std::uint64_t begun = 0;
  };

  bool GatherChildrenOf(int parent);

  std::vector<Member> members_;
};

// The file systems that are mounted at, above and below some folders, and the kernel's notice of
// another one: a disk that comes reports nothing to who watches the folder that it covers.
//
// Threads  one at a time.
// Links    in the folders' own paths are resolved once, in the beginning.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace nuvio::controller {

class Mounts {
  public:
    explicit Mounts(const std::vector<std::string>& folders);

    // Has POLLPRI once after each change of any mount; negative where the kernel tells of none.
    int fd() const { return m_table.get(); }
    // Whether a file system has come since the last call, or since this was made. What goes away
    // does not count: an automounter's disk, looked for at once, would never come to rest.
    bool have_come();

  private:
    std::set<std::string> lines() const;

    const UniqueFd m_table;
    std::vector<std::string> m_folders;  // as the table has them
    std::set<std::string> m_known;       // of the table those that concern the folders
};

}  // namespace nuvio::controller

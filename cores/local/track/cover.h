// Covers, as files that whoever shows the track can read.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace local_core {

// A cover as a file in the state directory, as long as somebody keeps it.
class KeptCover {
  public:
    // The picture as a file; one that is kept already is shared. Null where it is of no known kind,
    // or can't be written. Any thread; blocks on the disk.
    static std::shared_ptr<const KeptCover> keep(std::string_view picture);
    ~KeptCover();
    KeptCover(const KeptCover&) = delete;
    KeptCover& operator=(const KeptCover&) = delete;

    std::string url() const;

  private:
    explicit KeptCover(std::string path) : m_path(std::move(path)) {}

    const std::string m_path;
};

}  // namespace local_core

// The bytes of a source as a reader asks for them.
//
// One thread, which waits for the source as its read() does.
#pragma once

#include "local/network/remote_source.h"
#include "reader/client/remote_bytes.h"

namespace local_core {

class SourceBytes : public nuvio::reader::RemoteBytes {
  public:
    // `source` must outlive it.
    SourceBytes(RemoteSource& source, bool is_radio) : m_source(source), m_is_radio(is_radio) {}

    bool is_radio() const override { return m_is_radio; }
    std::optional<uint64_t> duration_us() const override { return m_source.duration_us(); }
    nuvio::reader::Bytes go_to_time(uint64_t time_us) override;
    nuvio::reader::Bytes read(uint64_t place, char* to, size_t wanted, size_t room) override;

  private:
    nuvio::reader::Bytes said_of(uint64_t place, size_t got, bool is_reached) const;

    RemoteSource& m_source;
    const bool m_is_radio;
};

}  // namespace local_core

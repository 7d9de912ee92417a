#include "local/network/source_bytes.h"

#include <algorithm>

namespace local_core {

using nuvio::reader::Bytes;

Bytes SourceBytes::read(uint64_t place, char* to, size_t wanted, size_t room) {
    if (!m_source.seek(place)) {
        return said_of(place, 0, false);
    }
    size_t got = m_source.read(to, wanted);
    if (got == wanted) {
        got += m_source.look_ahead(to + got, room - got);
    }
    if (const auto next = m_source.run_behind(place)) {
        got = static_cast<size_t>(std::min<uint64_t>(got, *next - place));
    }
    return said_of(place, got, true);
}

Bytes SourceBytes::go_to_time(uint64_t time_us) {
    const auto run = m_source.go_to_time(time_us);
    Bytes said = said_of(run ? run->place : 0, 0, run.has_value());
    said.time_us = run ? run->begin_us : 0;
    return said;
}

Bytes SourceBytes::said_of(uint64_t place, size_t got, bool is_reached) const {
    const auto length = m_is_radio ? std::nullopt : m_source.length();
    return {place,      length.value_or(Bytes::kUnknown),        static_cast<uint32_t>(got),
            is_reached, m_source.failure() != HttpFailure::none, m_source.begins_run(place)};
}

}  // namespace local_core

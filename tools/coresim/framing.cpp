#include "framing.hpp"

#include <algorithm>

namespace coresim {

namespace {

constexpr std::string_view ENVELOPE_START = "<client_request";

}  // namespace

// Where the record at the front ends: RECORD_LEN for a whole one, earlier
// when its padding stops or another envelope begins inside it, npos while
// that cannot be told yet.
std::size_t RecordFramer::record_end() const {
    std::size_t end = pending_.find(ENVELOPE_START, 1);
    const std::size_t padding = pending_.find('\0');
    if (padding != std::string::npos)
        end = std::min(end, pending_.find_first_not_of('\0', padding));
    if (end < RECORD_LEN) return end;
    return pending_.size() >= RECORD_LEN ? RECORD_LEN : std::string::npos;
}

std::optional<Frame> RecordFramer::next() {
    // Padding left behind by a record that broke off starts no record: no
    // connector sends an empty text.
    pending_.erase(0, std::min(pending_.find_first_not_of('\0'), pending_.size()));
    const std::size_t end = record_end();
    if (end == std::string::npos) return std::nullopt;
    const std::string_view record = std::string_view(pending_).substr(0, end);
    Frame frame{std::string(record.substr(0, record.find('\0'))),
                end == RECORD_LEN && record.back() == '\0'};
    pending_.erase(0, end);
    return frame;
}

}  // namespace coresim

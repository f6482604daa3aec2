#include "framing.hpp"

namespace coresim {

std::optional<std::string> RecordFramer::next() {
    std::size_t end = pending_.find("<client_request", 1);
    if (end > RECORD_LEN) end = RECORD_LEN;
    if (end > pending_.size()) return std::nullopt;
    const std::string_view record = std::string_view(pending_).substr(0, end);
    std::string text(record.substr(0, record.find('\0')));
    pending_.erase(0, end);
    return text;
}

}  // namespace coresim

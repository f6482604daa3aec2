// The command FIFOs carry the connectors' fixed-length records: a text
// followed by NUL padding up to the record length.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace coresim {

inline constexpr std::size_t RECORD_LEN = 512;

// Cuts a command FIFO's byte stream into records. A connector writes each
// record in one piece and every record is an envelope, so a stray write of
// another length shows up as a record into which the next envelope begins
// before RECORD_LEN bytes; the next record is taken from there. One bad write
// costs no more than itself and, at most, the one request it cuts short.
class RecordFramer {
  public:
    void append(std::string_view bytes) { pending_.append(bytes); }
    // The text of the next record (up to its padding), once it is complete.
    std::optional<std::string> next();

  private:
    std::string pending_;
};

}  // namespace coresim

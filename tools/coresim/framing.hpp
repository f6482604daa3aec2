// The command FIFOs carry the connectors' fixed-length records: a text
// followed by NUL padding up to the record length.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace coresim {

inline constexpr std::size_t RECORD_LEN = 512;

struct Frame {
    std::string text;   // up to the first NUL
    bool whole = true;  // false: it ended early or never ended, and is not to be applied
};

// Cuts a command FIFO's byte stream into records. A connector writes each
// record in one piece, so a stray write of another length shows up as a
// record that ends early: its padding stops, or a new envelope begins, before
// RECORD_LEN bytes. The next record is taken from there, so one bad write
// costs no more than itself.
class RecordFramer {
  public:
    void append(std::string_view bytes) { pending_.append(bytes); }
    // The next record, once it is complete.
    std::optional<Frame> next();

  private:
    std::size_t record_end() const;
    std::string pending_;
};

}  // namespace coresim

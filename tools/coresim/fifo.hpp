// One of the core's FIFOs, held open read-write: a connector's non-blocking
// open for writing always finds a reader, its blocking open for reading always
// finds a writer, and a connector that goes away never leaves us reading
// end-of-file.
#pragma once

#include <string>

namespace coresim {

class HeldFifo {
  public:
    explicit HeldFifo(std::string path) : path_(std::move(path)) {}
    ~HeldFifo();
    HeldFifo(const HeldFifo&) = delete;
    HeldFifo& operator=(const HeldFifo&) = delete;

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

    // Makes sure that the path is a FIFO and the one held open. Whatever else
    // is found there (a regular file, someone else's FIFO, nothing) is
    // reported on standard error and replaced by a FIFO: written into, a
    // regular file would swallow the connectors' records, and read, it would
    // be at end-of-file for ever. False while the path cannot be made a FIFO.
    bool keep();

  private:
    bool holds_path() const;
    bool reopen();

    std::string path_;
    int fd_ = -1;
    bool failure_reported_ = false;
};

}  // namespace coresim

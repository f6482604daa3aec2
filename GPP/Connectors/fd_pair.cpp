// The FIFO pair to the core process: records to the core go through a FIFO
// that is opened and closed per record; records from the core are read from
// a FIFO that, once opened, stays open.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"

namespace {

constexpr int kLastSequence = 10000;
constexpr std::size_t kReportLen = 128;

// perror() of the fixed text followed by the path, cut to 127 characters.
void report(std::string_view text, std::string_view path) {
    std::array<char, kReportLen> line{};
    tx::copy_bounded(line, text);
    tx::append_bounded(line, path);
    std::perror(line.data());
}

std::string_view path_of(const char (&field)[FD_PAIR_PATH_LEN]) {
    return tx::field_view(std::span<const char>(field));
}

// Whether fd, just opened on path, is a FIFO. Anything else there (a regular
// file, or one that the open made where nothing was) would swallow the
// records written into it, or hand out what it holds and then end-of-file
// for ever: it is closed, reported and replaced by a FIFO.
bool opened_fifo(int fd, const char* path) {
    struct stat info {};
    if (fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode)) return true;
    close(fd);
    (void)osal_queue_remake(path);
    return false;
}

int pair_create(FdPair* pair) {
    if (pair == nullptr) return -1;
    // An existing FIFO is kept.
    (void)mkfifo(pair->in_path, 0666);
    (void)mkfifo(pair->out_path, 0666);
    return 0;
}

int pair_destroy(FdPair* pair) {
    if (pair == nullptr) return -1;
    (void)unlink(pair->in_path);
    (void)unlink(pair->out_path);
    return 0;
}

int pair_write(FdPair* pair, char* record, std::size_t record_len) {
    if (pair == nullptr) {
        report("NULL or empty/large message : ", "NULL instance");
        return -1;
    }
    // Only the record's own bytes are examined: a text without a terminator
    // inside the record is too long for it.
    const std::size_t text_len = record != nullptr ? strnlen(record, record_len) : 0;
    if (record == nullptr || text_len == 0 || text_len >= record_len) {
        report("NULL or empty/large message : ", path_of(pair->out_path));
        return -1;
    }
    // Non-blocking: fails at once (ENXIO) while the core has no reader.
    // The core reader thread looks at out_fd while a writer thread sets it.
    const int out_fd = open(pair->out_path, O_WRONLY | O_CREAT | O_NONBLOCK, 0666);
    std::atomic_ref<int>(pair->out_fd).store(out_fd);
    if (out_fd < 0) {
        const int error = errno;
        report("Failed to open fd_pair_out : ", path_of(pair->out_path));
        return error;
    }
    // Like a FIFO without a reader: the core is not there to take the record.
    if (!opened_fifo(out_fd, pair->out_path)) return ENXIO;
    // Every record on the FIFO has the same length, NUL-padded.
    std::memset(record + text_len, 0, record_len - text_len);
    const ssize_t written = write(out_fd, record, record_len);
    if (written < 0) {
        report("Failed to write to fd_pair_out : ", path_of(pair->out_path));
        close(out_fd);
        return static_cast<int>(written);
    }
    close(out_fd);
    return 0;
}

void pair_read(FdPair* pair, char* buffer, std::size_t length) {
    if (pair == nullptr || buffer == nullptr) return;
    if (pair->in_fd < 1) {
        // Blocks until the core opens its end for writing.
        const int in_fd = open(pair->in_path, O_RDONLY);
        if (in_fd >= 0 && !opened_fifo(in_fd, pair->in_path)) return;
        pair->in_fd = in_fd;
        // It is the out descriptor that is tested here, not the one just
        // opened: long-standing behaviour, kept as it is.
        if (std::atomic_ref<int>(pair->out_fd).load() < 0) {
            report("Failed to open fd_pair_in : ", path_of(pair->in_path));
            return;
        }
    }
    if (read(pair->in_fd, buffer, length) < 0) {
        report("Failed to write to fd_pair_in : ", path_of(pair->in_path));
    }
}

int pair_next_sequence(FdPair* pair) {
    if (pair == nullptr) return 0;
    const int used = pair->sequence > kLastSequence ? 0 : pair->sequence;
    pair->sequence = used + 1;
    return used;
}

}  // namespace

FdPair fd_pairs[2] = {
    {"/tmp/CoreTxEvent0", "/tmp/CoreRxCommand0", 0, 0, 0, pair_create, pair_destroy, pair_write,
     pair_read, pair_next_sequence},
    {"/tmp/CoreTxEvent1", "/tmp/CoreRxCommand1", 0, 0, 0, pair_create, pair_destroy, pair_write,
     pair_read, pair_next_sequence},
};

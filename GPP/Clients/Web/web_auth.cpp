// Accounts, password hashes, sessions, the login slow-down and the audit trail.
#include "web_auth.hpp"

#include <crypt.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace tx::web {

namespace {

constexpr std::string_view kRoleNames[] = {"admin", "operator", "viewer"};

std::string_view env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// The whole of a small regular file of this process's user, opened without
// following a symlink; nothing when it is anything else.
std::optional<std::string> read_own_file(const std::string& path, mode_t forbidden_bits) {
    const Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        (st.st_mode & forbidden_bits) != 0 || st.st_size > 1 << 20) {
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(st.st_size), '\0');
    const ssize_t n = pread(fd.get(), text.data(), text.size(), 0);
    if (n < 0) return std::nullopt;
    text.resize(static_cast<std::size_t>(n));
    return text;
}

// Writes text to path through path.new (O_EXCL, never through a symlink)
// renamed over it; the file gets mode 0600 and the given owner.
bool replace_file(const std::string& path, std::string_view text, uid_t uid, gid_t gid) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());  // left by a writer that died; the caller holds the lock
    const Fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) return false;
    const bool written = write_all(fd.get(), text) && fsync(fd.get()) == 0 &&
                         (geteuid() != 0 || fchown(fd.get(), uid, gid) == 0);
    if (!written || rename(fresh.c_str(), path.c_str()) != 0) {
        unlink(fresh.c_str());
        return false;
    }
    return true;
}

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

long now_seconds() {
    return static_cast<long>(std::time(nullptr));
}

// SHA-256 (FIPS 180-4).
constexpr std::array<std::uint32_t, 64> kSha256K = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::uint32_t rotr(std::uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

void sha256_block(std::array<std::uint32_t, 8>& h, const unsigned char* p) {
    std::array<std::uint32_t, 64> w{};
    for (int i = 0; i < 16; ++i) {
        w[i] = std::uint32_t{p[4 * i]} << 24 | std::uint32_t{p[4 * i + 1]} << 16 |
               std::uint32_t{p[4 * i + 2]} << 8 | std::uint32_t{p[4 * i + 3]};
    }
    for (int i = 16; i < 64; ++i) {
        const std::uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
        const std::uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    std::array<std::uint32_t, 8> v = h;
    for (int i = 0; i < 64; ++i) {
        const std::uint32_t s1 = rotr(v[4], 6) ^ rotr(v[4], 11) ^ rotr(v[4], 25);
        const std::uint32_t ch = (v[4] & v[5]) ^ (~v[4] & v[6]);
        const std::uint32_t t1 = v[7] + s1 + ch + kSha256K[i] + w[i];
        const std::uint32_t s0 = rotr(v[0], 2) ^ rotr(v[0], 13) ^ rotr(v[0], 22);
        const std::uint32_t maj = (v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]);
        std::copy_backward(v.begin(), v.end() - 1, v.end());
        v[4] += t1;
        v[0] = t1 + s0 + maj;
    }
    for (int i = 0; i < 8; ++i) h[i] += v[i];
}

std::string address_file_name(std::string_view address) {
    std::string name(address.substr(0, 64));
    for (char& c : name) {
        if (!std::isxdigit(static_cast<unsigned char>(c)) && c != '.') c = '_';
    }
    return name.empty() ? "_" : name;
}

}  // namespace

std::optional<Role> role_from_name(std::string_view name) {
    for (std::size_t i = 0; i < std::size(kRoleNames); ++i) {
        if (kRoleNames[i] == name) return static_cast<Role>(i);
    }
    return std::nullopt;
}

std::string_view role_name(Role role) {
    return kRoleNames[static_cast<std::size_t>(role)];
}

uid_t grammar_uid(Role role) {
    return role == Role::admin ? 0 : 1001;
}

bool valid_account_name(std::string_view name) {
    if (name.empty() || name.size() > 32 || name.front() < 'a' || name.front() > 'z') return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '-';
    });
}

bool valid_password(std::string_view password) {
    return password.size() >= 8 && password.size() <= 128 &&
           std::all_of(password.begin(), password.end(),
                       [](char c) { return c >= 0x20 && c < 0x7f; });
}

std::string Accounts::default_path() {
    const std::string_view configured = env("TX_WEB_ACCOUNTS");
    return std::string(configured.empty() ? kDefaultAccountsFile : configured);
}

bool Accounts::load(const std::string& path, std::string* error) {
    accounts_.clear();
    const std::optional<std::string> text = read_own_file(path, 0077);
    if (!text) {
        *error = path + " is missing, or not a regular file that only its owner may read";
        return false;
    }
    std::string_view rest = *text;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        if (line.empty()) continue;
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        const std::optional<Role> role =
            second == std::string_view::npos
                ? std::nullopt
                : role_from_name(line.substr(first + 1, second - first - 1));
        if (!role || !valid_account_name(line.substr(0, first))) {
            *error = path + " holds a malformed line";
            accounts_.clear();
            return false;
        }
        accounts_.push_back(
            {std::string(line.substr(0, first)), *role, std::string(line.substr(second + 1))});
    }
    return true;
}

bool Accounts::save(const std::string& path, std::string* error) const {
    std::string text;
    for (const Account& account : accounts_) {
        text +=
            account.name + ":" + std::string(role_name(account.role)) + ":" + account.hash + "\n";
    }
    struct stat dir {};
    if (stat(directory_of(path).c_str(), &dir) != 0 ||
        !replace_file(path, text, dir.st_uid, dir.st_gid)) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

const Account* Accounts::find(std::string_view name) const {
    const auto found = std::find_if(accounts_.begin(), accounts_.end(),
                                    [&](const Account& a) { return a.name == name; });
    return found == accounts_.end() ? nullptr : &*found;
}

void Accounts::put(Account account) {
    const auto found = std::find_if(accounts_.begin(), accounts_.end(),
                                    [&](const Account& a) { return a.name == account.name; });
    if (found != accounts_.end()) {
        *found = std::move(account);
    } else {
        accounts_.push_back(std::move(account));
    }
}

bool Accounts::remove(std::string_view name) {
    return std::erase_if(accounts_, [&](const Account& a) { return a.name == name; }) > 0;
}

AccountsLock::AccountsLock(const std::string& accounts_path)
    : fd_(open(directory_of(accounts_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ >= 0 && flock(fd_, LOCK_EX) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

AccountsLock::~AccountsLock() {
    if (fd_ >= 0) close(fd_);
}

std::string random_bytes(std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t got = 0;
    while (got < count) {
        const ssize_t n = getrandom(bytes.data() + got, count - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return {};
        got += static_cast<std::size_t>(n);
    }
    return bytes;
}

std::string random_password() {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789";
    std::string password;
    // Rejection sampling keeps every character equally likely.
    while (password.size() < 16) {
        const std::string bytes = random_bytes(32);
        if (bytes.empty()) return {};
        for (const char b : bytes) {
            const unsigned value = static_cast<unsigned char>(b);
            if (value < 256 - 256 % kAlphabet.size() && password.size() < 16)
                password += kAlphabet[value % kAlphabet.size()];
        }
    }
    return password;
}

std::string hash_password(std::string_view password) {
    const std::string entropy = random_bytes(16);
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (entropy.empty() ||
        crypt_gensalt_rn("$6$", 0, entropy.data(), static_cast<int>(entropy.size()), setting,
                         sizeof setting) == nullptr) {
        return {};
    }
    auto data = std::make_unique<crypt_data>();
    const std::string phrase(password);
    const char* hash = crypt_r(phrase.c_str(), setting, data.get());
    if (hash == nullptr || hash[0] == '*') return {};
    return hash;
}

bool password_matches(std::string_view password, const std::string& hash) {
    if (!hash.starts_with("$6$")) return false;
    auto data = std::make_unique<crypt_data>();
    const std::string phrase(password);
    const char* computed = crypt_r(phrase.c_str(), hash.c_str(), data.get());
    return computed != nullptr && same_secret(computed, hash);
}

std::string_view hash_salt(std::string_view hash) {
    const std::size_t end = hash.find('$', 3);
    return end == std::string_view::npos ? hash : hash.substr(0, end + 1);
}

std::string hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char b : bytes) {
        out += kDigits[static_cast<unsigned char>(b) >> 4];
        out += kDigits[static_cast<unsigned char>(b) & 15];
    }
    return out;
}

std::string sha256(std::string_view data) {
    std::array<std::uint32_t, 8> h = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::string padded(data);
    padded += '\x80';
    while (padded.size() % 64 != 56) padded += '\0';
    const std::uint64_t bits = std::uint64_t{data.size()} * 8;
    for (int shift = 56; shift >= 0; shift -= 8) padded += static_cast<char>(bits >> shift);
    for (std::size_t at = 0; at < padded.size(); at += 64) {
        sha256_block(h, reinterpret_cast<const unsigned char*>(padded.data() + at));
    }
    std::string digest;
    for (const std::uint32_t word : h) {
        for (int shift = 24; shift >= 0; shift -= 8) digest += static_cast<char>(word >> shift);
    }
    return digest;
}

std::optional<std::string> base64_decode(std::string_view text) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    std::string out;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const std::size_t value = kAlphabet.find(c);
        if (value == std::string_view::npos) return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>(bits >> count);
        }
    }
    return out;
}

bool same_secret(std::string_view a, std::string_view b) {
    unsigned char differ = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) differ |= a[i] ^ b[i];
    return differ == 0;
}

std::optional<std::string> runtime_subdir(std::string_view name) {
    struct stat st {};
    if (lstat(kRuntimeDir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & 0077) != 0) {
        return std::nullopt;
    }
    const std::string path = std::string(kRuntimeDir) + "/" + std::string(name);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return std::nullopt;
    if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
        return std::nullopt;
    }
    return path;
}

LoginThrottle::LoginThrottle(std::string_view address) {
    if (const std::optional<std::string> dir = runtime_subdir("logins")) {
        path_ = *dir + "/" + address_file_name(address);
    }
}

long LoginThrottle::delay_after(long failures) {
    if (failures <= 0) return 0;
    return std::min(60L, 1L << std::min(failures - 1, 6L));
}

long LoginThrottle::wait_seconds() const {
    if (path_.empty()) return 0;
    const std::optional<std::string> text = read_own_file(path_, 0077);
    long failures = 0;
    long last = 0;
    if (!text || std::sscanf(text->c_str(), "%ld %ld", &failures, &last) != 2) return 0;
    return std::max(0L, last + delay_after(failures) - now_seconds());
}

void LoginThrottle::failed() {
    if (path_.empty()) return;
    const std::optional<std::string> text = read_own_file(path_, 0077);
    long failures = 0;
    long last = 0;
    if (text) std::sscanf(text->c_str(), "%ld %ld", &failures, &last);
    replace_file(path_, std::to_string(failures + 1) + " " + std::to_string(now_seconds()) + "\n",
                 geteuid(), getegid());
}

void LoginThrottle::succeeded() {
    if (!path_.empty()) unlink(path_.c_str());
}

std::string open_session(const Account& account, Session* session) {
    const std::optional<std::string> dir = runtime_subdir("sessions");
    const std::string token = hex(random_bytes(32));
    const std::string csrf = hex(random_bytes(32));
    if (!dir || token.empty() || csrf.empty()) return {};
    // Sessions that ran out go when a new one comes.
    if (std::unique_ptr<DIR, int (*)(DIR*)> listing{opendir(dir->c_str()), closedir}) {
        while (const dirent* entry = readdir(listing.get())) {
            const std::string path = *dir + "/" + entry->d_name;
            const std::optional<std::string> text = read_own_file(path, 0077);
            long expires = 0;
            if (text && std::sscanf(text->c_str(), "%*s %*s %*s %ld", &expires) == 1 &&
                expires < now_seconds()) {
                unlink(path.c_str());
            }
        }
    }
    *session = {account.name, csrf, std::string(hash_salt(account.hash)),
                now_seconds() + kSessionSeconds};
    const std::string path = *dir + "/" + hex(sha256(token));
    const Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const std::string text = session->user + " " + session->csrf + " " + session->salt + " " +
                             std::to_string(session->expires) + "\n";
    if (fd.get() < 0 || !write_all(fd.get(), text)) return {};
    return token;
}

std::optional<Session> find_session(std::string_view token) {
    const std::optional<std::string> dir = runtime_subdir("sessions");
    if (!dir || token.size() != 64) return std::nullopt;
    const std::string path = *dir + "/" + hex(sha256(token));
    const std::optional<std::string> text = read_own_file(path, 0077);
    char user[64] = {};
    char csrf[80] = {};
    char salt[64] = {};
    long expires = 0;
    if (!text || std::sscanf(text->c_str(), "%63s %79s %63s %ld", user, csrf, salt, &expires) != 4)
        return std::nullopt;
    if (expires < now_seconds()) {
        unlink(path.c_str());
        return std::nullopt;
    }
    return Session{user, csrf, salt, expires};
}

void close_session(std::string_view token) {
    const std::optional<std::string> dir = runtime_subdir("sessions");
    if (dir && token.size() == 64) unlink((*dir + "/" + hex(sha256(token))).c_str());
}

std::optional<std::string_view> cookie_value(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        std::string_view pair = header.substr(0, header.find(';'));
        header.remove_prefix(std::min(header.size(), pair.size() + 1));
        while (pair.starts_with(' ')) pair.remove_prefix(1);
        if (pair.starts_with(name) && pair.size() > name.size() && pair[name.size()] == '=')
            return pair.substr(name.size() + 1);
    }
    return std::nullopt;
}

void audit(AuditKind kind, bool failure, std::string_view text) {
    // authpriv (10) or user (1), with notice (5) or warning (4).
    const int priority = (kind == AuditKind::login ? 10 : 1) * 8 + (failure ? 4 : 5);
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
    char head[96];
    std::snprintf(head, sizeof head, "<%d>%s tx416-web[%ld]: ", priority, stamp,
                  static_cast<long>(getpid()));
    const std::string message = head + std::string(text);

    const std::string_view configured = env("TX_WEB_SYSLOG");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path(configured.empty() ? "/dev/log" : configured);
    if (path.size() >= sizeof address.sun_path) return;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // Never waits: a syslog daemon that is behind must not hold up the page.
    if (fd.get() < 0 || sendto(fd.get(), message.data(), message.size(), MSG_DONTWAIT,
                               reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        // No syslog, or it is behind: the web server's error log gets it.
        std::fprintf(stderr, "%s\n", message.c_str());
    }
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace tx::web

// Who may use the settings page: accounts with roles, password hashes,
// browser sessions, the slow-down of failed logins per client address, the
// private runtime directory and the audit trail in syslog.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tx::web {

// The web side's own runtime files (request slots, sessions, login
// failures, event streams) live here: made by the start-up for the web
// server's user, mode 0700.
inline constexpr const char* kRuntimeDir = "/run/tx416";
inline constexpr const char* kDefaultAccountsFile = "/etc/tx416/web/accounts";

// admin: what cli allows root; operator: what cli allows uid 1001; viewer:
// the operator's get rows only.
enum class Role { admin, operator_, viewer };

std::optional<Role> role_from_name(std::string_view name);
std::string_view role_name(Role role);
// The account of the command grammar that a role runs lines as.
uid_t grammar_uid(Role role);

struct Account {
    std::string name;
    Role role = Role::viewer;
    std::string hash;  // SHA-512 crypt: $6$salt$digest
};

// Account names: a lower-case letter, then up to 31 letters, digits, '_', '.', '-'.
bool valid_account_name(std::string_view name);
// Passwords: 8 to 128 bytes of printable ASCII.
bool valid_password(std::string_view password);

// The accounts file: one "name:role:hash" line per account, readable by its
// owner only (the web server's user).
class Accounts {
  public:
    // The file that the web server's configuration names (TX_WEB_ACCOUNTS),
    // or the default.
    static std::string default_path();

    // Reads path; false (with a reason) when it is missing, not a regular
    // file of mode 0600 or less, or malformed.
    bool load(const std::string& path, std::string* error);
    // Writes the accounts to path through a new file renamed over it, owned
    // by the owner of its directory. False (with a reason) on failure.
    bool save(const std::string& path, std::string* error) const;

    const Account* find(std::string_view name) const;
    // Adds or replaces the account.
    void put(Account account);
    bool remove(std::string_view name);
    const std::vector<Account>& all() const { return accounts_; }

  private:
    std::vector<Account> accounts_;
};

// Holds an exclusive lock on the accounts file's directory while it lives,
// so that writers of the file follow one another.
class AccountsLock {
  public:
    explicit AccountsLock(const std::string& accounts_path);
    ~AccountsLock();
    AccountsLock(const AccountsLock&) = delete;
    AccountsLock& operator=(const AccountsLock&) = delete;
    bool held() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// Random bytes from the kernel (getrandom); empty on failure.
std::string random_bytes(std::size_t count);
// A random password of 16 letters and digits.
std::string random_password();
// SHA-512 crypt of password with a random salt; empty on failure.
std::string hash_password(std::string_view password);
bool password_matches(std::string_view password, const std::string& hash);
// The "$6$salt$" part of a hash: it changes with every new password.
std::string_view hash_salt(std::string_view hash);

std::string hex(std::string_view bytes);
std::string sha256(std::string_view data);
// Decoded base64, or nothing when text is not base64.
std::optional<std::string> base64_decode(std::string_view text);
bool same_secret(std::string_view a, std::string_view b);

// The runtime directory is usable only when it is a directory of this
// process's user that no one else may enter. Its subdirectory `name` is made
// on demand (mode 0700). Returns the subdirectory's path, or nothing.
std::optional<std::string> runtime_subdir(std::string_view name);

// Failed logins per client address: after n failures in a row the address
// waits 2^(n-1) s (at most 60 s) before its next try counts.
class LoginThrottle {
  public:
    explicit LoginThrottle(std::string_view address);
    // Seconds until the address may try again; 0 when it may now.
    long wait_seconds() const;
    void failed();
    void succeeded();
    static long delay_after(long failures);

  private:
    std::string path_;
};

// A browser session: a random token in a cookie, kept in the runtime
// directory only as its SHA-256 (a reader of the directory cannot use it).
struct Session {
    std::string user;
    std::string csrf;  // the anti-CSRF token of the session's pages
    std::string salt;  // the salt of the password at login: a new password ends it
    long expires = 0;  // seconds since the epoch
};
inline constexpr const char* kSessionCookie = "tx416_session";
inline constexpr long kSessionSeconds = 8 * 3600;

// Makes a session for user; returns the cookie's token, or empty on failure.
std::string open_session(const Account& account, Session* session);
std::optional<Session> find_session(std::string_view token);
void close_session(std::string_view token);
// The value of the cookie `name` in a Cookie header.
std::optional<std::string_view> cookie_value(std::string_view header, std::string_view name);

// One line for the audit trail, sent to the syslog socket (/dev/log, or the
// socket that TX_WEB_SYSLOG names) as "tx416-web[pid]: text". Failed
// logins and password changes go to the authpriv facility, changes of the
// device to user.
enum class AuditKind { change, login };
void audit(AuditKind kind, bool failure, std::string_view text);

// Writes all of text to fd, retrying short writes. False when the peer has gone.
bool write_all(int fd, std::string_view text);

}  // namespace tx::web

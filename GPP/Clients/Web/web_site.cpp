// The page program: the settings page for a logged-in user, the login form,
// the logout and the password change.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "web_cgi.hpp"

namespace tx::web {

namespace {

constexpr const char* kDefaultPage = "/usr/share/tx416/web/index.html";
constexpr const char* kLoginPath = "/cgi-bin/login";

std::string_view env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

Answer redirect(std::string_view location) {
    return Answer{303, "text/plain; charset=utf-8", "",
                  "Location: " + std::string(location) + "\r\n"};
}

std::string session_cookie(std::string_view token) {
    return "Set-Cookie: " + std::string(kSessionCookie) + "=" + std::string(token) +
           "; Path=/; Secure; HttpOnly; SameSite=Strict" + (token.empty() ? "; Max-Age=0" : "") +
           "\r\n";
}

Answer login_form(int status, std::string_view message) {
    std::string page = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>TX-416 log in</title>
<style>
  body { font: 14px/1.4 system-ui, sans-serif; margin: 0; color: #1d2430; background: #f4f6f9; }
  form { max-width: 22em; margin: 5em auto; background: #fff; padding: 1em 1.5em 1.5em;
         border-radius: 6px; box-shadow: 0 1px 2px #0002; display: grid; gap: .6em; }
  h1 { font-size: 1.2em; }
  .error { color: #b00020; }
</style>
</head>
<body>
<form method="post" action="/cgi-bin/login">
<h1>TX-416 IP management</h1>
<p class="error" id="message">@MESSAGE@</p>
<label for="user">Name</label>
<input id="user" name="user" autocomplete="username" required autofocus>
<label for="password">Password</label>
<input id="password" name="password" type="password" autocomplete="current-password" required>
<button type="submit">Log in</button>
</form>
</body>
</html>
)";
    page.replace(page.find("@MESSAGE@"), 9, message);  // the messages are this file's own
    return Answer{status, "text/html; charset=utf-8", page, ""};
}

Answer log_in(const HttpRequest& http) {
    Caller caller;
    if (http.method == "GET") {
        return authenticate(http, &caller) ? login_form(200, "") : redirect("/");
    }
    Answer failure;
    const std::optional<std::string> form = read_form(http, &failure);
    if (!form) return failure;
    if (http.content_type.substr(0, http.content_type.find(';')) !=
        "application/x-www-form-urlencoded") {
        return login_form(415, "The login takes a form.");
    }
    const std::string user = form_field(*form, "user").value_or("");
    const std::string password = form_field(*form, "password").value_or("");
    LoginThrottle throttle(http.remote_addr);
    if (const long wait = throttle.wait_seconds(); wait > 0) {
        Answer slowed = login_form(429, "Too many failed logins from this address: try again in " +
                                            std::to_string(wait) + " s.");
        slowed.headers = "Retry-After: " + std::to_string(wait) + "\r\n";
        return slowed;
    }
    Accounts accounts;
    std::string error;
    if (!accounts.load(Accounts::default_path(), &error)) return login_form(503, "No accounts.");
    const Account* account = accounts.find(user);
    if (account == nullptr || !password_matches(password, account->hash)) {
        throttle.failed();
        audit(AuditKind::login, true,
              "failed login as " + json_string(user) + " from " + http.remote_addr);
        return login_form(401, "Wrong name or password.");
    }
    throttle.succeeded();
    Session session;
    const std::string token = open_session(*account, &session);
    if (token.empty()) return login_form(503, "The runtime directory /run/tx416 is not usable.");
    audit(AuditKind::login, false, account->name + " logged in from " + http.remote_addr);
    Answer answer = redirect("/");
    answer.headers += session_cookie(token);
    return answer;
}

// Checks shared by the logout and the password change: a POST of a
// logged-in user with the page's token.
std::optional<Answer> check_action(const HttpRequest& http, Caller* caller, std::string* form) {
    if (std::optional<Answer> refused = authenticate(http, caller)) return refused;
    if (http.method != "POST") return error_answer(405, "only POST is served");
    Answer failure;
    const std::optional<std::string> read = read_form(http, &failure);
    if (!read) return failure;
    *form = *read;
    return check_post(http, *caller, *form);
}

Answer log_out(const HttpRequest& http) {
    Caller caller;
    std::string form;
    if (std::optional<Answer> refused = check_action(http, &caller, &form)) return *refused;
    close_session(caller.session);
    Answer answer = redirect(kLoginPath);
    answer.headers += session_cookie("");
    return answer;
}

Answer change_password(const HttpRequest& http) {
    Caller caller;
    std::string form;
    if (std::optional<Answer> refused = check_action(http, &caller, &form)) return *refused;
    const std::string old_password = form_field(form, "old").value_or("");
    const std::string new_password = form_field(form, "new").value_or("");
    if (!valid_password(new_password)) {
        return error_answer(400, "a password is 8 to 128 printable ASCII characters");
    }
    const std::string path = Accounts::default_path();
    const AccountsLock lock(path);
    Accounts accounts;
    std::string error;
    if (!lock.held() || !accounts.load(path, &error)) return error_answer(503, error);
    const Account* account = accounts.find(caller.user);
    if (account == nullptr || !password_matches(old_password, account->hash)) {
        audit(
            AuditKind::login, true,
            "wrong password for a password change of " + caller.user + " from " + http.remote_addr);
        return error_answer(403, "the current password is wrong");
    }
    Account changed = *account;
    changed.hash = hash_password(new_password);
    if (changed.hash.empty()) return error_answer(503, "no random numbers for the salt");
    accounts.put(changed);
    if (!accounts.save(path, &error)) return error_answer(503, error);
    audit(AuditKind::login, false, caller.user + " changed the password from " + http.remote_addr);
    return Answer{200, "application/json", "{\"reply\": \"password changed: log in again\"}", ""};
}

Answer page(const HttpRequest& http) {
    Caller caller;
    if (std::optional<Answer> refused = authenticate(http, &caller)) {
        return refused->status == 401 ? redirect(kLoginPath) : *refused;
    }
    const std::string_view configured = env("TX_WEB_PAGE");
    const std::string path(configured.empty() ? kDefaultPage : configured);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    std::string html;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        html.resize(static_cast<std::size_t>(st.st_size));
        const ssize_t n = pread(fd, html.data(), html.size(), 0);
        html.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    if (fd >= 0) close(fd);
    if (html.empty()) return error_answer(503, "the page " + path + " is missing");
    // Names, roles and tokens hold no character that HTML would take as markup.
    for (const auto& [mark, value] :
         {std::pair<std::string_view, std::string_view>{"@USER@", caller.user},
          {"@ROLE@", role_name(caller.role)},
          {"@CSRF@", caller.csrf}}) {
        for (std::size_t at = html.find(mark); at != std::string::npos; at = html.find(mark, at)) {
            html.replace(at, mark.size(), value);
            at += value.size();
        }
    }
    return Answer{200, "text/html; charset=utf-8", html, ""};
}

}  // namespace

Answer serve_site() {
    const HttpRequest http = HttpRequest::from_environment();
    if (std::optional<Answer> refused = check_host(http)) return *refused;
    if (std::optional<Answer> refused = check_origin(http)) return *refused;
    const std::string_view script = env("SCRIPT_NAME");
    if (script == kLoginPath) return log_in(http);
    if (script == "/cgi-bin/logout") return log_out(http);
    if (script == "/cgi-bin/password") return change_password(http);
    return page(http);
}

}  // namespace tx::web

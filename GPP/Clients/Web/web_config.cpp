// The configuration program: the device's configuration as one text for the
// admin, shown, checked and applied by txconfig's own code over cgiconn.
// The admin runs it as root runs txconfig: every setting that root may read
// and change; secrets only when asked for, and the page's own reports show
// them as "(secret)" (the admin holds the file that has them).
#include <unistd.h>

#include <string>
#include <vector>

#include "cgi_connector.hpp"
#include "osal.hpp"
#include "queue_link.hpp"
#include "web_cgi.hpp"

namespace tx::web {

namespace {

using tx::config::Change;
using tx::config::Configuration;

constexpr std::size_t kMaxNameBytes = 64;

// The file's name as the errors show it ("backup.conf:3: ..."): the one the
// form names, when it is a plain file name.
std::string upload_name(const std::optional<std::string>& name) {
    const bool plain = name && !name->empty() && name->size() <= kMaxNameBytes &&
                       name->find_first_not_of(
                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                           "0123456789._- ") == std::string::npos;
    return plain ? *name : "upload";
}

std::string json_list(const std::vector<std::string>& items) {
    std::string out = "[";
    for (const std::string& item : items) out += (out.size() > 1 ? ", " : "") + json_string(item);
    return out + "]";
}

Answer json_answer(int status, const std::string& fields) {
    return Answer{status, "application/json", "{" + fields + "}", ""};
}

// What the admin confirms: the changes, secrets and all, as the check found
// them. An apply whose changes differ (the device or the file changed) is
// refused.
std::string plan_token(const std::vector<Change>& changes) {
    return hex(sha256(tx::config::plan_text(changes, true)));
}

}  // namespace

// cgiconn as txconfig's Device: the shared loop, within this process's
// slots. A connector that stops answers nothing for 2 s; one that ends
// removes its queues.
class ConfigRequest::Link final : public tx::config::QueueLink {
  public:
    explicit Link(int slots)
        : QueueLink(&cgi_client_channel, getpid(), "cgiconn", static_cast<std::size_t>(slots),
                    std::chrono::seconds(kReplyWaitMs / 1000)) {}
};

ConfigRequest::ConfigRequest() = default;
ConfigRequest::~ConfigRequest() = default;

Answer ConfigRequest::serve() {
    const HttpRequest http = HttpRequest::from_environment();
    Caller caller;
    if (std::optional<Answer> refused = check_host(http)) return *refused;
    if (std::optional<Answer> refused = check_origin(http)) return *refused;
    if (std::optional<Answer> refused = authenticate(http, &caller)) return *refused;
    if (caller.role != Role::admin) {
        return error_answer(403, "the configuration as a whole is the admin's");
    }
    Answer failure;
    const std::optional<std::string> form = read_form(http, &failure, kMaxConfigFormBytes);
    if (!form) return failure;
    if (http.method == "POST") {
        if (std::optional<Answer> refused = check_post(http, caller, *form)) return *refused;
    }
    const std::string action = form_field(*form, "action").value_or("");
    if (action == "show") return show(http, caller, form_field(*form, "secrets") == "1");
    if (action != "check" && action != "apply") {
        return error_answer(400, "the action is show, check or apply");
    }
    if (http.method != "POST") {
        Answer refused = error_answer(405, "a configuration file comes as a POST");
        refused.headers = "Allow: POST\r\n";
        return refused;
    }
    return check_or_apply(http, caller, *form, action == "apply");
}

std::optional<Answer> ConfigRequest::connect() {
    if (std::optional<Answer> refused = turn_.begin(kConfigSlots)) return refused;
    link_ = std::make_unique<Link>(turn_.slots());
    return std::nullopt;
}

Answer ConfigRequest::show(const HttpRequest& http, const Caller& caller, bool with_secrets) {
    const Configuration configuration({grammar_uid(caller.role), osal_voip_capable()});
    if (std::optional<Answer> refused = connect()) return *refused;
    tx::config::Running running;
    std::string error;
    if (!configuration.read(*link_, with_secrets, running, error)) {
        return error_answer(504, "reading the configuration: " + error);
    }
    if (with_secrets) {
        audit(AuditKind::login, false,
              caller.user + " from " + http.remote_addr + ": read the configuration with secrets");
    }
    return Answer{200, "text/plain; charset=utf-8", configuration.text(running),
                  "Content-Disposition: attachment; filename=\"tx416.conf\"\r\n"};
}

Answer ConfigRequest::check_or_apply(const HttpRequest& http, const Caller& caller,
                                     std::string_view form, bool apply) {
    const std::optional<std::string> file = form_field(form, "file");
    if (!file) return error_answer(400, "form without a well-formed field file");
    const std::string who = caller.user + " from " + http.remote_addr + ": ";
    const Configuration configuration({grammar_uid(caller.role), osal_voip_capable()});
    std::vector<tx::config::Assignment> assignments;
    std::vector<std::string> errors;
    if (!configuration.check(*file, upload_name(form_field(form, "name")), assignments, errors)) {
        const std::string error = "nothing sent: " + std::to_string(errors.size()) + " bad line" +
                                  (errors.size() == 1 ? "" : "s");
        if (apply) audit(AuditKind::change, true, who + "configuration not applied, " + error);
        return json_answer(
            400, "\"error\": " + json_string(error) + ", \"lines\": " + json_list(errors));
    }
    if (std::optional<Answer> refused = connect()) return *refused;
    std::vector<Change> changes;
    std::string error;
    if (!configuration.changes(*link_, assignments, changes, error)) {
        return error_answer(504, "reading the configuration: " + error);
    }
    const std::string plan = tx::config::plan_text(changes, false);
    const std::string count = "\"changes\": " + std::to_string(changes.size());
    if (!apply) {
        return json_answer(200, count + ", \"plan\": " + json_string(plan) +
                                    ", \"confirm\": " + json_string(plan_token(changes)));
    }
    if (const std::optional<std::string> confirmed = form_field(form, "confirm");
        confirmed && *confirmed != plan_token(changes)) {
        audit(AuditKind::change, true,
              who + "configuration not applied: it changed since the check");
        return json_answer(409, "\"error\": \"the changes are not those checked: check again\", " +
                                    count + ", \"plan\": " + json_string(plan));
    }
    const std::vector<tx::config::Result> results = configuration.apply(*link_, changes, error);
    std::size_t not_taken = 0;
    for (const tx::config::Result& r : results) {
        const bool taken = r.outcome == tx::config::Outcome::took_effect;
        not_taken += taken ? 0 : 1;
        const tx::config::Assignment& a = *r.change->assignment;
        audit(AuditKind::change, !taken,
              who + "configuration line " + std::to_string(a.line) + " " +
                  json_string(tx::config::line_shown(a.text)) + " -> " +
                  json_string(tx::config::report_line(r, false)));
    }
    const std::string report = tx::config::report_text(results, false);
    if (!error.empty()) {
        return json_answer(504, "\"error\": " +
                                    json_string(error + "; the last change that took effect: " +
                                                tx::config::last_taken(results, false)) +
                                    ", \"report\": " + json_string(report));
    }
    return json_answer(200, count + ", \"not_taken\": " + std::to_string(not_taken) +
                                ", \"report\": " + json_string(report));
}

void ConfigRequest::finish() {
    if (!link_) return;
    // Every answer came: no reply waits on the connector's queue. Else the
    // marker stays for the connector's monitor, when they do not come now.
    if (link_->outstanding() == 0 || link_->drain(std::chrono::milliseconds(kLateReplyWaitMs))) {
        turn_.end();
    }
}

}  // namespace tx::web

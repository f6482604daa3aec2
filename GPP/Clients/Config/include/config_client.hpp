// The device's configuration as one text: every setting that an account may
// both read and change, printed as the set lines that give it back, and a
// file of such lines checked, compared with the device and applied. txconfig
// runs it over cliconn, the settings page over cgiconn (queue_link.hpp).
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "regexparser.hpp"
#include "request_record.hpp"
#include "settings.hpp"

namespace tx::config {

// One request as it goes to the device: its XML text, and the property and
// target that its answer carries.
struct Request {
    std::string property;
    std::string target;
    std::string xml;
};

// The request of a record; false when it does not fit in one message.
bool make_request(const RequestRecord& record, Request& request);

// What the device answered to one request.
struct Answer {
    bool answered = false;
    std::string value;  // the response's value; a list of values joined by blanks
};

// The way to the device: requests out, answers in.
class Device {
  public:
    virtual ~Device() = default;
    // Sends the requests, several in flight at once, and gives one answer per
    // request in the requests' order, matched to them by property and target.
    // When the device stops answering, the answers that did not come are left
    // unanswered and failure() says why.
    virtual std::vector<Answer> exchange(std::span<const Request> requests) = 0;
    virtual std::string failure() const = 0;
};

// One setting's value on the device.
struct SettingValue {
    const tx::grammar::Setting* setting = nullptr;
    std::string id;     // for a setting read by id; else empty
    std::string value;  // as the device gave it
};

struct Running {
    std::vector<SettingValue> values;           // in table order
    std::vector<std::string> secrets_left_out;  // names
};

// One line of a configuration file that sets a setting.
struct Assignment {
    std::size_t line = 0;  // from 1
    std::string text;      // the line as written, without its line end
    const tx::grammar::Setting* setting = nullptr;
    std::string id;
    std::string value;  // what the line sets, as its request carries it
    Request request;    // the line's set request
};

// Changes and results point into the assignments and changes they were made
// from, which must outlive them.
struct Change {
    const Assignment* assignment = nullptr;
    std::string now;  // the device's value before the change
};

enum class Outcome {
    took_effect,  // read back as set
    refused,      // read back otherwise
    unconfirmed,  // the device stopped answering before it was read back
};

struct Result {
    const Change* change = nullptr;
    Outcome outcome = Outcome::unconfirmed;
    std::string read_back;
    std::string answer;  // what the device answered to the set itself
};

class Configuration {
  public:
    // The settings that the caller may both read and change. On a device
    // without VoIP, the settings that only a VoIP device has are left out.
    explicit Configuration(const tx::grammar::Caller& caller);
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;

    const std::vector<tx::grammar::Setting>& settings() const { return settings_; }
    // Names of the settings left out for want of VoIP.
    const std::vector<std::string>& voip_left_out() const { return voip_left_out_; }

    // Reads every setting; secrets only `with_secrets`. False, with the
    // device's failure in `error`, when it stopped answering.
    bool read(Device& device, bool with_secrets, Running& running, std::string& error) const;
    // The running configuration as set lines in table order, headed by
    // comment lines that name what was left out. A value that no set line
    // gives back gets a comment line instead.
    std::string text(const Running& running) const;
    // The same as one JSON document: {"settings": {NAME: VALUE or {ID:
    // VALUE}}, "secrets_left_out": [...], "voip_left_out": [...]}.
    std::string json(const Running& running) const;

    // The set line that gives the setting this value back: it replays byte
    // for byte. Empty when no line does.
    std::string set_line(const tx::grammar::Setting& setting, std::string_view id,
                         std::string_view value) const;

    // Checks every line of a file for this account, before anything is
    // sent: empty lines and lines whose first non-blank character is '#' are
    // skipped, a line may end in CR LF and the last one needs no line end.
    // Each refused line is an error "FILE:LINE: reason"; true when there
    // are none.
    bool check(std::string_view text, std::string_view file_name,
               std::vector<Assignment>& assignments, std::vector<std::string>& errors) const;

    // The assignments whose value differs from the device's, in file order.
    bool changes(Device& device, const std::vector<Assignment>& assignments,
                 std::vector<Change>& changes, std::string& error) const;

    // Sends each change and reads it back, all in file order. `error` holds
    // the device's failure when it stopped answering; the results say what
    // took effect.
    std::vector<Result> apply(Device& device, const std::vector<Change>& changes,
                              std::string& error) const;

  private:
    bool get_request(const tx::grammar::Setting& setting, std::string_view id,
                     Request& request) const;

    tx::grammar::Caller caller_;
    std::vector<tx::grammar::Setting> settings_;
    std::vector<std::string> voip_left_out_;
};

// What txconfig prints. A secret's values are shown as "(secret)" unless
// `with_secrets`.

// diff: the set line of each change, with the value the device has now as a
// trailing comment ("set speaker-volume 12  # now 9").
std::string diff_text(const Configuration& configuration, const std::vector<Change>& changes,
                      bool with_secrets);
// apply --check: one line per change ("speaker-volume 9 -> 12").
std::string plan_text(const std::vector<Change>& changes, bool with_secrets);
// apply: one line per change and what became of it.
std::string report_text(const std::vector<Result>& results, bool with_secrets);
// One of those lines, without its line end.
std::string report_line(const Result& result, bool with_secrets);
// "speaker-volume 9 -> 12 (line 14)" of the last change that took effect, or
// "none" when none did.
std::string last_taken(const std::vector<Result>& results, bool with_secrets);

// A value as a report shows it: as it is when it is one plain word, else in
// double quotes with C escapes.
std::string shown(std::string_view value);
// A line of a file as a message shows it: without its value when its
// command names a secret ("set password ...").
std::string line_shown(std::string_view line);
// A JSON string literal of a text in any encoding: bytes that are not UTF-8
// become U+FFFD, control characters \u escapes.
std::string json_string(std::string_view text);
bool valid_utf8(std::string_view text);

}  // namespace tx::config

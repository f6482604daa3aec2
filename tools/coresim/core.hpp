// The simulated device core: settings, calls and notification registrations,
// driven one request record at a time. The FIFO plumbing lives in main.cpp so
// that this part can be exercised directly.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framing.hpp"

namespace coresim {

// One request as the connectors send it, with entities decoded.
struct Request {
    std::string client_id;
    std::string sub_client_id;
    std::string message_seq;
    std::string action;
    std::string property;
    std::string target;
    std::vector<std::pair<std::string, std::string>> params;  // <p name="..">value</p>
    bool complete = false;                                    // the envelope's end tag is there
};

// Pulls the envelope and request fields out of a record. False when the
// record holds no client_request.
bool parse_request(std::string_view record, Request& request);

// Escapes the five XML special characters.
std::string xml_escape(std::string_view text);

// What one request produces: records for the asking connector's pipe (the
// response first) and, per connector instance, notifications.
struct Output {
    std::vector<std::pair<int, std::string>> records;  // {instance, text}
    bool changed = false;                              // a setting or a call changed
};

struct CallState {
    std::string status = "idle";
    std::string number;
    std::string start_time;
};

class Core {
  public:
    Core();
    // Handles one record that arrived from connector instance `instance`. A
    // request whose envelope is cut short gets an error response and is not
    // applied.
    Output handle(int instance, std::string_view record);

    // Settings persistence: "key=value" lines.
    bool load_state(const std::string& path);
    bool save_state(const std::string& path) const;

    const std::string* setting(const std::string& key) const;

    // Forgets who listens on a connector's pipe (it stopped reading).
    void forget_registrations(int instance);

  private:
    struct Reply {
        std::string action;
        std::string property;
        std::string target;
        std::vector<std::pair<std::string, std::string>>
            values;  // one unnamed value or a named list
    };
    struct Change {
        std::string event;
        std::string target;
        std::string value;
    };

    Reply handle_request(int instance, const Request& request, std::vector<Change>& changes);
    Reply handle_setting(const Request& request, std::vector<Change>& changes);
    static Reply call_reply(const Request& request, std::string value);
    Reply handle_call(const Request& request, std::vector<Change>& changes);
    Reply handle_call_report(const Request& request, std::vector<Change>& changes);
    Reply handle_dial(const Request& request, std::vector<Change>& changes);
    Reply handle_hangup_or_hold(const Request& request, std::vector<Change>& changes);
    Reply handle_answer_or_resume(const Request& request, std::vector<Change>& changes);
    Reply handle_swap_or_transfer(const Request& request, std::vector<Change>& changes);
    Reply handle_join(const Request& request, std::vector<Change>& changes);
    Reply handle_call_get(const Request& request);
    void set_call_status(const std::string& line, const std::string& status,
                         std::vector<Change>& changes);
    std::string param_value(const Request& request) const;
    std::string render_response(const Request& request, const Reply& reply) const;
    std::string render_notify(const std::string& client_id, const Change& change);

    std::map<std::string, std::string> settings_;
    std::map<std::string, CallState> calls_;
    std::set<std::pair<std::string, std::string>>
        registered_[2];  // per instance: {client id, sub client}
    long notify_seq_ = 0;
};

}  // namespace coresim

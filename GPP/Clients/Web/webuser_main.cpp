// tx416-webuser: manages the accounts of the settings page.
//
//   tx416-webuser [--accounts FILE] init
//   tx416-webuser [--accounts FILE] add NAME ROLE [--password-stdin]
//   tx416-webuser [--accounts FILE] passwd NAME [--password-stdin]
//   tx416-webuser [--accounts FILE] role NAME ROLE
//   tx416-webuser [--accounts FILE] remove NAME
//   tx416-webuser [--accounts FILE] list
//
// ROLE is admin, operator or viewer. A new password is random and printed
// once as "NAME password: PASSWORD", unless --password-stdin reads it from
// the first line of standard input. `init` makes the first account, admin,
// when the file does not exist yet, and does nothing otherwise. The file is
// written with mode 0600 and the owner of its directory (the web server's
// user); passwords are kept only as SHA-512 crypt hashes.
#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "web_auth.hpp"

namespace {

using tx::web::Account;
using tx::web::Accounts;

int usage() {
    std::cerr
        << "usage: tx416-webuser [--accounts FILE] init | add NAME ROLE [--password-stdin] |\n"
           "       passwd NAME [--password-stdin] | role NAME ROLE | remove NAME | list\n"
           "ROLE: admin, operator or viewer\n";
    return 2;
}

int fail(const std::string& text) {
    std::cerr << "tx416-webuser: " << text << '\n';
    return 1;
}

// The new password: random and printed, or the first line of standard input.
bool new_password(const std::string& name, bool from_stdin, std::string* password) {
    if (from_stdin) {
        std::getline(std::cin, *password);
        if (!password->empty() && password->back() == '\r') password->pop_back();
        return tx::web::valid_password(*password);
    }
    *password = tx::web::random_password();
    if (password->empty()) return false;
    std::cout << name << " password: " << *password << std::endl;
    return true;
}

bool has_admin(const Accounts& accounts) {
    const auto& all = accounts.all();
    return std::any_of(all.begin(), all.end(),
                       [](const Account& a) { return a.role == tx::web::Role::admin; });
}

}  // namespace

int main(int argc, char** argv) {
    constexpr option kOptions[] = {{"accounts", required_argument, nullptr, 'a'},
                                   {"password-stdin", no_argument, nullptr, 'p'},
                                   {nullptr, 0, nullptr, 0}};
    std::string path = Accounts::default_path();
    bool from_stdin = false;
    opterr = 0;  // the usage lines say it all
    for (int o; (o = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (o == 'a') {
            path = optarg;
        } else if (o == 'p') {
            from_stdin = true;
        } else {
            return usage();
        }
    }
    const std::vector<std::string> args(argv + optind, argv + argc);
    // The whole command line is checked before the file is looked at: a
    // mistyped command or role is a usage error, whatever the file holds.
    const std::string command = args.empty() ? "" : args[0];
    tx::web::Role role = tx::web::Role::viewer;
    bool role_named = false;
    if (args.size() == 3) {
        if (const std::optional<tx::web::Role> named = tx::web::role_from_name(args[2])) {
            role = *named;
            role_named = true;
        }
    }
    const bool well_formed = ((command == "init" || command == "list") && args.size() == 1) ||
                             ((command == "passwd" || command == "remove") && args.size() == 2) ||
                             ((command == "add" || command == "role") && role_named);
    if (!well_formed) return usage();

    const tx::web::AccountsLock lock(path);
    if (!lock.held()) return fail("cannot lock the directory of " + path);
    Accounts accounts;
    std::string error;
    struct stat st {};
    if (command == "init") {
        if (lstat(path.c_str(), &st) == 0) return 0;
        std::string password;
        if (!new_password("admin", from_stdin, &password)) return fail("no usable password");
        const std::string hash = tx::web::hash_password(password);
        if (hash.empty()) return fail("no random numbers for the salt");
        accounts.put({"admin", tx::web::Role::admin, hash});
        return accounts.save(path, &error) ? 0 : fail(error);
    }
    if (!accounts.load(path, &error)) return fail(error);
    if (command == "list") {
        for (const Account& account : accounts.all())
            std::cout << account.name << ' ' << tx::web::role_name(account.role) << '\n';
        return 0;
    }
    const std::string& name = args[1];
    const Account* existing = accounts.find(name);
    const bool had_admin = has_admin(accounts);
    if (command == "add") {
        if (!tx::web::valid_account_name(name))
            return fail("a name is a lower-case letter and up to 31 of a-z 0-9 _ . -");
        if (existing != nullptr) return fail(name + " exists");
        std::string password;
        if (!new_password(name, from_stdin, &password)) return fail("no usable password");
        accounts.put({name, role, tx::web::hash_password(password)});
    } else if (existing == nullptr) {
        return fail("no account " + name);
    } else if (command == "passwd") {
        std::string password;
        if (!new_password(name, from_stdin, &password)) return fail("no usable password");
        accounts.put({name, existing->role, tx::web::hash_password(password)});
    } else if (command == "role") {
        accounts.put({name, role, existing->hash});
    } else {
        accounts.remove(name);
    }
    // Without an admin no one could manage the device's configuration from
    // the page any more.
    if (had_admin && !has_admin(accounts)) return fail("the last admin account stays an admin");
    for (const Account& account : accounts.all()) {
        if (account.hash.empty()) return fail("no random numbers for the salt");
    }
    return accounts.save(path, &error) ? 0 : fail(error);
}

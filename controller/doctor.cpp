#include "local.h"

#include "common/child.h"
#include "common/log.h"
#include "common/lookup.h"
#include "common/unique_fd.h"

#include "conf.h"
#include "interface.h"
#include "lint.h"
#include "openssl.h"
#include "ping.h"
#include "pipe.h"
#include "reasons.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr double step_patience = 3;  // seconds for each thing that the gateway must answer
constexpr int    build_year    = (__DATE__[9] - '0') * 10 + (__DATE__[10] - '0');  // of this century

// One thing that was looked at. verdict: "ok", "failed", "skipped", "note".
struct check {
    std::string name, verdict, text, code;
};

class doctor {
public:
    doctor(const doctor_options &options, const print_options &print) : options_(options), print_(print) {}

    int run() {
        check_root();
        check_tun_device();
        check_paths();
        check_conf();
        check_clock();
        check_address();
        check_tcp();
        check_handshake();
        check_agent();
        check_tunnel();
        return tell();
    }

private:
    void add(const char *name, const char *verdict, const std::string &text, const char *code = "") {
        checks_.push_back({name, verdict, printable(text), code});
        if (!print_.as_json) printf("%-10s %-8s %s\n", name, verdict, printable(text).c_str());
        fflush(stdout);
    }

    void check_root() {
        if (geteuid() == 0) return add("root", "ok", "this runs as root");
        add("root", "failed", "this does not run as root: the daemon needs it, and some checks do", "not-permitted");
    }

    void check_tun_device() {
        unique_fd fd(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
        if (fd) return add("tun", "ok", "/dev/net/tun can be opened");
        bool is_forbidden = errno == EPERM || errno == EACCES;
        add("tun", "failed", failure_text("open", "/dev/net/tun"), is_forbidden ? "not-permitted" : "tun-missing");
    }

    void check_paths() {
        reader daemon = reader_of(options_.to_daemon), agent = reader_of(options_.from_daemon);
        if (daemon == reader::present) add("daemon", "ok", "somebody reads " + options_.to_daemon);
        else if (daemon == reader::hidden)
            add("daemon", "failed", options_.to_daemon + " may not be opened", "not-permitted");
        else add("daemon", "failed", "nobody reads " + options_.to_daemon, "daemon-gone");
        if (readers_of(options_.to_daemon).size() > 1)
            add("daemon", "failed", "more than one process reads " + options_.to_daemon, "daemon-second");
        add("agent", agent == reader::present ? "ok" : "failed",
            agent == reader::present ? "somebody reads " + options_.from_daemon
                                     : "nobody reads " + options_.from_daemon + ": start wlcctl agent");
        for (const std::string &path : {options_.to_daemon, options_.from_daemon}) {
            struct stat facts;
            if (lstat(path.c_str(), &facts) != 0) continue;
            if (!S_ISFIFO(facts.st_mode)) add("pipes", "failed", path + " is no pipe", "not-permitted");
            else if (facts.st_uid != 0 && facts.st_uid != geteuid())
                add("pipes", "failed", path + " belongs to user " + std::to_string(facts.st_uid), "not-permitted");
        }
    }

    void check_conf() {
        std::vector<finding> findings   = lint_file(options_.conf);
        bool                 is_missing = access(options_.conf.c_str(), F_OK) != 0;
        for (const finding &f : findings)
            if (f.level == severity::error) {
                is_conf_good_ = false;
                return add("conf", "failed",
                           (f.line ? "line " + std::to_string(f.line) + ": " : "") + f.text + "; " + f.fix,
                           is_missing                     ? "conf-missing"
                           : f.code.starts_with("cipher") ? "no-tls-context"
                                                          : "conf-invalid");
            }
        add("conf", "ok",
            options_.conf + ": " + std::to_string(findings.size()) + " remark(s), wlcctl lint shows them");
    }

    void check_clock() {
        time_t now = time(nullptr);
        tm     parts{};
        gmtime_r(&now, &parts);
        if (parts.tm_year - 100 >= build_year) return add("clock", "ok", wall_text(static_cast<int64_t>(now) * 1000));
        add("clock", "failed", "the clock says " + wall_text(static_cast<int64_t>(now) * 1000), "clock");
    }

    void check_address() {
        std::string text = conf_value(options_.conf, "server_ip_address");
        in_addr     ignored;
        if (inet_pton(AF_INET, text.c_str(), &ignored) == 1) {
            address_ = text;
            return;
        }
        if (text.empty()) return add("resolve", "skipped", "there is no gateway in the configuration");
        loop   owner;
        lookup names(owner);
        names.start(text, milliseconds(5000), [&](const lookup_result &result) {
            const auto &all  = result.addresses;
            auto        ipv4 = std::find_if(all.begin(), all.end(), [&](const std::string &each) {
                return inet_pton(AF_INET, each.c_str(), &ignored) == 1;
            });
            if (ipv4 != all.end()) address_ = *ipv4;
            else if (all.empty()) add("resolve", "failed", text + ": " + result.error, "name-unresolved");
            else
                add("resolve", "failed",
                    text + " has IPv6 addresses only (" + all.front() + "), and the daemon speaks IPv4 to the gateway",
                    "name-unresolved");
            owner.stop();
        });
        owner.run();
        if (!address_.empty()) add("resolve", "ok", text + " is " + address_);
    }

    void check_tcp() {
        if (address_.empty()) return add("connect", "skipped", "there is no address");
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port   = htons(static_cast<uint16_t>(atoi(conf_value(options_.conf, "server_port").c_str())));
        inet_pton(AF_INET, address_.c_str(), &to.sin_addr);
        std::string place = address_ + " port " + std::to_string(ntohs(to.sin_port));
        unique_fd   fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        int         error = connect(fd.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 ? 0 : errno;
        pollfd      state = {fd.get(), POLLOUT, 0};
        if (error == EINPROGRESS && poll(&state, 1, static_cast<int>(step_patience * 1000)) == 0) error = ETIMEDOUT;
        socklen_t size = sizeof error;
        if (error == EINPROGRESS) getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error == 0) {
            gateway_ = std::move(fd);
            return add("connect", "ok", place + " takes connections");
        }
        add("connect", "failed", place + ": " + strerror(error),
            error == ECONNREFUSED ? "gateway-refused" : "gateway-unreachable");
    }

    // In a child of its own: whatever OpenSSL does ends with it, and so does the key's copy.
    void check_handshake() {
        if (!gateway_ || !is_conf_good_)
            return add("handshake", "skipped", "it needs a connection and a good configuration");
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return add("handshake", "skipped", failure_text("make", "a pipe"));
        unique_fd from(fds[0]), to(fds[1]);
        pid_t     child = fork();
        if (child == 0) {
            alarm(15);
            auto             conf = [this](const char *key) { return conf_value(options_.conf, key); };
            handshake_result done = try_handshake(gateway_.get(), conf("cipher_algo"), conf("psk_identity"),
                                                  conf("psk_key"), step_patience);
            std::string      line = (done.is_done   ? "y"
                                     : done.is_late ? "l"
                                                    : "n") +
                               (done.is_done ? done.cipher : done.error);
            (void)!write(to.get(), line.data(), line.size());
            _exit(0);
        }
        to.reset();
        std::string told;
        char        bytes[1024];
        for (ssize_t count; (count = read(from.get(), bytes, sizeof bytes)) > 0;)
            told.append(bytes, static_cast<size_t>(count));
        waitpid(child, nullptr, 0);
        judge_handshake(told);
        gateway_.reset();
    }

    void judge_handshake(const std::string &told) {
        if (told.empty()) return add("handshake", "failed", "the attempt ended without a word", "tls-failed");
        std::string text = told.substr(1);
        if (told[0] == 'y') return add("handshake", "ok", "done with the configured key, cipher " + text);
        if (told[0] == 'l') return add("handshake", "failed", text, "handshake-stalled");
        bool is_key = text.find("bad record mac") != std::string::npos || text.find("decrypt") != std::string::npos;
        bool is_identity = text.find("unknown psk identity") != std::string::npos;
        bool is_cipher   = text.find("handshake failure") != std::string::npos;
        add("handshake", "failed", text,
            is_key        ? "key-mismatch"
            : is_identity ? "identity-unknown"
            : is_cipher   ? "no-common-cipher"
                          : "tls-failed");
    }

    void check_agent() {
        status_ = fetch_answer(options_.socket, {{"request", "status"}}, agent_reserve);
        if (!status_.contains("tunnel")) return add("status", "skipped", status_.value("error", "no answer"));
        json        reason = status_["reason"];
        std::string health = status_["health"]["value"].get<std::string>();
        if (health == "up") return add("dpd", "ok", "the tunnel is up and the gateway answers");
        std::string         code  = reason.is_object() ? reason["code"].get<std::string>() : "";
        const reason_entry *entry = find_reason(code);
        add("dpd", "failed", "health " + health + (code.empty() ? "" : ": " + code), entry ? entry->code : "");
    }

    void check_tunnel() {
        bool is_up = status_.contains("health") && status_["health"]["value"] == "up";
        if (!is_up) return add("ping", "skipped", "the tunnel is not up");
        std::string name      = conf_value(options_.conf, "tun_interface_name"),
                    source    = conf_value(options_.conf, "management_ip");
        interface_facts facts = read_interface(name);
        add("interface", facts.is_up ? "ok" : "failed",
            name + (facts.is_up ? " is up, MTU " + std::to_string(facts.mtu) : " is not up"),
            facts.is_up ? "" : "tun-missing");
        std::string target = options_.ping;
        if (target.empty() && status_["dns"]["value"].is_array() && !status_["dns"]["value"].empty())
            target = status_["dns"]["value"][0].get<std::string>();
        if (target.empty()) return add("ping", "skipped", "no address behind the tunnel is known: --ping ADDRESS");
        ping_result done = ping(target, source, name, 84, false, step_patience);
        add("ping", done.is_answered ? "ok" : "failed", target + (done.is_answered ? " answers" : ": " + done.error));
        if (!options_.checks_mtu) return;
        for (size_t size : {size_t{1406}, size_t{1436}}) {
            ping_result large = ping(target, source, name, size, true, step_patience);
            std::string what  = std::to_string(size) +
                               " bytes, not to be cut: " + (large.is_answered ? "answered" : large.error);
            add("mtu", large.is_answered ? "ok" : size == 1406 ? "failed" : "note", what);
        }
    }

    int tell() {
        auto first = std::find_if(checks_.begin(), checks_.end(), [](const check &c) { return c.verdict == "failed"; });
        const reason_entry *entry  = first == checks_.end() ? nullptr : find_reason(first->code);
        json                answer = local_answer("doctor", first == checks_.end() ? exit_done : exit_failed);
        if (print_.as_json) {
            answer["checks"] = json::array();
            for (const check &c : checks_)
                answer["checks"].push_back({{"check", c.name},
                                            {"verdict", c.verdict},
                                            {"text", c.text},
                                            {"code", c.code.empty() ? json(nullptr) : json(c.code)}});
            answer["reason"] = entry ? json{{"code", entry->code}, {"cause", entry->cause}, {"remedy", entry->remedy}}
                                     : json(nullptr);
            return print_answer(answer, print_);
        }
        if (first == checks_.end()) printf("\nall is well\n");
        else printf("\nfirst cause: %s: %s\n", first->name.c_str(), first->text.c_str());
        if (entry) printf("%s: %s\nto do: %s\n", entry->code, entry->cause, entry->remedy);
        return answer["exit"];
    }

    const doctor_options &options_;
    const print_options  &print_;
    std::vector<check>    checks_;
    bool                  is_conf_good_ = true;
    std::string           address_;
    unique_fd             gateway_;
    json                  status_;
};

}  // namespace

int run_doctor(const doctor_options &options, const print_options &print) { return doctor(options, print).run(); }

}  // namespace wlcctl

#include <fcntl.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "control.h"
#include "ctl.h"
#include "errors.h"
#include "gateway.h"
#include "metrics.h"
#include "options.h"

namespace gw {

namespace {

// Time in which clients answer our FIN: what they send into a closed socket would turn it into an RST.
constexpr std::chrono::milliseconds farewell{100};

void open_log(const gateway_options &options) {
    try {
        common::open_log("gateway", options.log, options.log_level);
    } catch (const std::exception &error) {
        throw usage_error(error.what());
    }
}

// Exists while the gateway accepts clients.
class ready_file {
public:
    ready_file(const std::string &path, const std::string &listen) : path_(path) {
        if (path_.empty()) return;
        std::string       text  = "pid=" + std::to_string(getpid()) + " listen=" + listen + "\n";
        std::string       fresh = path_ + ".new";  // renamed, so that it is never seen half written
        common::unique_fd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        bool good = file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                    rename(fresh.c_str(), path_.c_str()) == 0;
        if (!good) throw usage_error("cannot write the ready file " + path_ + ": " + strerror(errno));
    }
    ~ready_file() {
        if (!path_.empty()) (void)unlink(path_.c_str());
    }
    ready_file(const ready_file &)            = delete;
    ready_file &operator=(const ready_file &) = delete;

private:
    std::string path_;
};

// Ends the loop when the clients had time to answer.
void end_gateway(tunnel_gateway &gateway, common::loop &loop, common::timer &goodbye, const char *reason) {
    bool alone = gateway.clients().empty();
    gateway.shut_down(reason);
    if (alone) return loop.stop();
    goodbye.start(farewell, [&loop] { loop.stop(); });
}

void serve(const gateway_options &options) {
    signal(SIGPIPE, SIG_IGN);
    common::loop                         loop;
    tunnel_gateway                       gateway(options, loop);
    std::unique_ptr<common::json_server> control;
    if (!options.control.empty()) control = serve_control(options.control, gateway, loop);
    std::unique_ptr<metrics_server> metrics;
    if (options.http) metrics = serve_metrics(*options.http, gateway, loop);
    common::timer        goodbye(loop);
    common::signal_watch term(loop, SIGTERM, [&] { end_gateway(gateway, loop, goodbye, "SIGTERM"); });
    common::signal_watch interrupt(loop, SIGINT, [&] { end_gateway(gateway, loop, goodbye, "SIGINT"); });
    common::signal_watch hang_up(loop, SIGHUP, [&] { (void)gateway.read_keys_again(); });  // it tells the log itself
    common::signal_watch log_moved(loop, SIGUSR1, [] { (void)common::reopen_log(); });
    ready_file           ready(options.ready_file, gateway.listen_text());

    spdlog::info("ready listen={} tun={} pool={}", gateway.listen_text(), options.use_tun ? options.tun : "none",
                 options.pool_text);
    loop.run([&] { gateway.finish_batch(); });
    spdlog::info("stopped");
}

int run(int argc, const char *const *argv) {
    try {
        auto options = parse_options(argc, argv);
        if (!options) return 0;
        open_log(*options);
        serve(*options);
        return 0;
    } catch (const usage_error &error) {
        fprintf(stderr, "tlsc-gateway: %s\n", error.what());
        return 2;
    } catch (const std::exception &error) {
        fprintf(stderr, "tlsc-gateway: %s\n", error.what());
        return 1;
    }
}

}  // namespace

}  // namespace gw

int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], "ctl") == 0) return gw::run_ctl(argc - 1, argv + 1);
    return gw::run(argc, argv);
}

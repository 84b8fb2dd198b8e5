#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "control.h"
#include "errors.h"
#include "gateway.h"
#include "options.h"

namespace gw {

namespace {

// Time in which clients answer our FIN: what they send into a closed socket would turn it into an RST.
constexpr std::chrono::milliseconds farewell{100};

void open_log(const gateway_options &options) {
    std::shared_ptr<spdlog::logger> logger;
    try {
        logger = options.log == "-" ? spdlog::stderr_logger_st("gateway")
                                    : spdlog::basic_logger_st("gateway", options.log);
    } catch (const spdlog::spdlog_ex &error) {
        throw usage_error("cannot write the log " + options.log + ": " + strerror(errno));
    }
    logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l %v");
    logger->set_level(spdlog::level::from_str(options.log_level));
    logger->flush_on(spdlog::level::trace);  // lines are rare, and somebody may be waiting for one
    spdlog::set_default_logger(logger);
}

// SIGTERM and SIGINT as a descriptor of the loop, signalfd(2).
unique_fd block_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    unique_fd fd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!fd) throw runtime_failure(std::string("cannot receive signals: ") + strerror(errno));
    return fd;
}

// Exists while the gateway accepts clients.
class ready_file {
public:
    ready_file(const std::string &path, const std::string &listen) : path_(path) {
        if (path_.empty()) return;
        std::string text  = "pid=" + std::to_string(getpid()) + " listen=" + listen + "\n";
        std::string fresh = path_ + ".new";  // renamed, so that it is never seen half written
        unique_fd   file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        bool        good = file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
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

void serve(const gateway_options &options) {
    unique_fd                       signals = block_signals();
    event_loop                      loop;
    tunnel_gateway                  gateway(options, loop);
    std::unique_ptr<control_socket> control;
    if (!options.control.empty()) control = std::make_unique<control_socket>(options.control, gateway, loop);
    ready_file ready(options.ready_file, gateway.listen_text());

    loop.watch(signals.get(), EPOLLIN, [&](uint32_t) {
        signalfd_siginfo info{};
        if (read(signals.get(), &info, sizeof info) != sizeof info) return;
        bool alone = gateway.clients().empty();
        gateway.shut_down(info.ssi_signo == SIGTERM ? "SIGTERM" : "SIGINT");
        if (alone) return loop.stop();
        loop.after(farewell, [&loop] { loop.stop(); });
    });
    spdlog::info("ready listen={} tun={} pool={}", gateway.listen_text(), options.use_tun ? options.tun : "none",
                 options.pool_text);
    loop.run([&] {
        gateway.finish_batch();
        if (control) control->finish_batch();
    });
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

int main(int argc, char **argv) { return gw::run(argc, argv); }

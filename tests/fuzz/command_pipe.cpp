// The command pipe: whole commands, shorter ones, and what a start finds waiting.
// Input: settings, then commands: a choice, and the bytes.
#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_session.h"
#include "tlsc_timer.h"

using namespace kernel;

namespace {

void one_command(fuzz_input &in) {
    const uint8_t choice = in.byte();
    tlsc_cli_cmd  cmd    = in.fill<tlsc_cli_cmd>();
    if (choice & 1) cmd.id = static_cast<int32_t>(choice >> 1) % 6;
    if (choice & 0x20) cmd.value &= 7;
    const size_t size = choice & 0x40 ? in.below(sizeof(cmd) + 1) : sizeof(cmd);
    world.command     = std::string(reinterpret_cast<const char *>(&cmd), size);

    const std::string server = tlsc_get_config()->svr_addr_ipv4;
    const int32_t     level = tlsc_log_level, dest = tlsc_log_dest;
    exit_client          = 0;
    const int32_t result = tlsc_handle_cli_cmds();
    tlsc_cli_cmd  seen{};  // what a short read did not fill is zero
    memcpy(&seen, &cmd, size);
    if (result <= 0 && world.faults) return;
    if (size == 0) MUST(result <= 0);

    MUST(exit_client == (size != 0 && seen.id == CLI_CMD_EXIT_CLIENT ? 1 : 0));
    MUST(tlsc_log_level == (size != 0 && seen.id == CLI_CMD_LOG_LEVEL ? seen.value : level));
    MUST(tlsc_log_dest == (size != 0 && seen.id == CLI_CMD_LOG_DEST ? seen.value : dest));
    const bool takes_address = size != 0 && seen.id == CLI_CMD_GW_IP && seen.value == ADDR_IPV4;
    if (!takes_address) MUST(server == tlsc_get_config()->svr_addr_ipv4);
    if (size != 0 && seen.id == CLI_CMD_GW_IP) MUST(result == (takes_address ? 1 : 0));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    tlsc_sock    *sock     = tlsc_get_sock();
    tlsc_attach_session(sock);
    tlsc_epoll_fd   = open_one(kind::epoll);
    world.faults    = (settings & 1) != 0;
    world.countdown = world.faults ? in.byte() : 255;

    if (settings & 2) {
        world.command = std::string(in.bytes(in.below(400)));
        tlsc_clear_cli_cmds();
        MUST(world.command.empty() || world.faults);
    }
    for (unsigned i = 0; i < 16 && !in.empty(); ++i) {
        one_command(in);
        check_counts();
        if (tlsc_log_level > LOG_DEBUG || tlsc_log_dest > LOG_DEST_BOTH) tlsc_log_level = LOG_ERRORS - 1;
    }

    world.faults = false;
    (void)tlsc_sock_error(TLSC_DOWN_NO_ERROR);
    tlsc_stop_all_timers();
    MUST(count(kind::timer) == 0 && count(kind::stream) == 0);
    MUST(world.live_ssl == 0);
    *sock         = {};
    tlsc_epoll_fd = -1;
    return 0;
}

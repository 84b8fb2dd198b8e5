// The controller's messages: 520 bytes each through the dispatcher, the start of a client included but for its threads.
// Input: one byte of settings, then messages: a choice of id, a length, the payload's first bytes.
#include <vector>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_platform.h"
#include "tlsc_wlc.h"

using namespace kernel;

namespace {

constexpr uint32_t ids[] = {1, 2, 20, 21, 22, 23, 27, 28, 29, 30, 31, 32, 34, 35, 37};

constexpr const char *words[] = {"level",      "destination", "errors", "warnings", "info", "debug",
                                 "ssl-dbg",    "buf-print",   "file",   "console",  "both", "",
                                 "192.0.2.77", "2001:db8::1"};

int32_t  client_result;
uint32_t starts;

std::string message(fuzz_input &in) {
    const uint8_t choice = in.byte();
    uint32_t      id     = choice < 200 ? ids[choice % std::size(ids)] : in.fill<uint32_t>();
    std::string   text(wlc_msg_size, '\0');
    memcpy(text.data(), &id, sizeof(id));
    if (id == WLC_SEC_TUN_MSG_TLSC_DEBUG_SET && in.chance(192)) {
        for (const size_t at : {8, 72}) {
            const std::string word = words[in.below(std::size(words))];
            text.replace(at, word.size(), word);
        }
        return text;
    }
    if (id == WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES && in.chance(64)) {
        const std::string word = words[in.below(std::size(words))];
        text.replace(8, word.size(), word);
        return text;
    }
    const std::string_view payload = in.bytes(in.below(600));
    const size_t           kept    = std::min(payload.size(), wlc_payload_size);
    text.replace(8, kept, payload.substr(0, kept));
    if (in.chance(8)) text.resize(in.below(wlc_msg_size));  // a reader gets less than a message
    return text;
}

}  // namespace

extern "C" {

int32_t __wrap_tlsc_start_epoll_mon_thread() {
    ++starts;
    return client_result;
}
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    if ((settings & 0x38) == 0x38) tlsc_log_level = LOG_DEBUG;
    client_result   = settings & 2 ? 1 : 0;
    starts          = 0;
    world.faults    = (settings & 1) != 0;
    world.countdown = world.faults ? in.byte() : 255;

    std::vector<std::string> messages;
    while (!in.empty() && messages.size() < 64) messages.insert(messages.begin(), message(in));
    world.messages = messages;

    unsigned dispatches = 0;
    while (!world.messages.empty()) {
        const size_t before = world.messages.size();
        const int    result = wlcTlscFifoHandler();
        MUST(result == 0 || result == -2);
        MUST(world.messages.size() < before);
        if (result == -2) {  // the last message read was the exit's
            uint32_t id;
            memcpy(&id, messages[world.messages.size()].data(), sizeof(id));
            MUST(id == WLC_MSG_EXIT_PROCESS);
        }
        // What reached the command pipe are whole commands of the known kinds.
        MUST(world.command.size() % sizeof(tlsc_cli_cmd) == 0);
        for (size_t at = 0; at < world.command.size(); at += sizeof(tlsc_cli_cmd)) {
            tlsc_cli_cmd cmd;
            memcpy(&cmd, world.command.data() + at, sizeof(cmd));
            MUST(cmd.id >= CLI_CMD_EXIT_CLIENT && cmd.id <= CLI_CMD_GW_IP);
            if (cmd.id == CLI_CMD_LOG_LEVEL) MUST(cmd.value >= LOG_ERRORS && cmd.value <= LOG_BUF_PRINT);
            if (cmd.id == CLI_CMD_LOG_DEST) MUST(cmd.value >= LOG_DEST_FILE && cmd.value <= LOG_DEST_BOTH);
            if (cmd.id == CLI_CMD_GW_IP) MUST(cmd.value == ADDR_IPV4 || cmd.value == ADDR_IPV6);
        }
        world.command.clear();
        check_counts();
        MUST(count(kind::fifo_out) == 0);
        MUST(++dispatches < 200);
    }
    world.faults = false;
    return 0;
}

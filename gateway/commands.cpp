#include "commands.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "record_seal.h"

namespace gw {

// Contents: 1 members of a request  2 looking  3 changing behaviour  4 sending and closing  5 the table of requests

namespace {

using common::flag_of;
using common::number_of;
using common::refusal;

constexpr size_t largest_record  = 16384;  // plaintext, RFC 5246
constexpr size_t largest_payload = largest_record - frame_header_size;
constexpr size_t largest_packet  = frame_ring::slot_size - frame_header_size;
constexpr double largest_count   = 100000;       // of packets in one request
constexpr double longest_delay   = 3600 * 1000;  // milliseconds
constexpr double largest_cut     = 1 << 20;      // bytes

// ---- 1 Members of a request -----------------------------------------------------------------------------------------
// Names, types, words and limits have been checked against the table of requests below.

std::string word_of(const json &request, const char *name, const char *standard = "") {
    return common::text_of(request, name, standard);
}

uint8_t byte_of(const json &request, const char *name, uint64_t standard) {
    return static_cast<uint8_t>(number_of(request, name, standard));
}

std::chrono::milliseconds delay_of(const json &request, const char *name, uint64_t standard) {
    return std::chrono::milliseconds(number_of(request, name, standard));
}

byte_vector hex_value(const char *name, const json &value, size_t limit) {
    if (!value.is_string()) throw refusal(std::string(name) + ": a hexadecimal text is needed");
    auto bytes = from_hex(value.get<std::string>());
    if (!bytes) throw refusal(std::string(name) + ": not a hexadecimal text of whole bytes");
    if (bytes->size() > limit) throw refusal(std::string(name) + ": more than " + std::to_string(limit) + " bytes");
    return *bytes;
}

byte_vector hex_member(const json &request, const char *name, size_t limit) {
    if (!request.contains(name)) throw refusal(std::string("\"") + name + "\" is missing");
    return hex_value(name, request[name], limit);
}

tunnel_client &client_with(tunnel_gateway &gateway, uint64_t id) {
    tunnel_client *client = gateway.find_client(id);
    if (!client) throw refusal("no client " + std::to_string(id));
    return *client;
}

// A number, "all", or absent: the newest connection.
std::vector<tunnel_client *> chosen_clients(tunnel_gateway &gateway, const json &request) {
    if (request.contains("client") && request["client"] == "all") return gateway.clients();
    if (request.contains("client")) {
        const json &client = request["client"];
        if (!client.is_number_unsigned()) throw refusal("\"client\" must be the number of a connection or \"all\"");
        return {&client_with(gateway, client.get<uint64_t>())};
    }
    auto clients = gateway.clients();
    if (clients.empty()) throw refusal("no client");
    return {clients.back()};
}

void refuse_fatal(const tunnel_gateway &gateway, byte_view bytes) {
    if (!gateway.options().allow_fatal && has_fatal_dpd(text_of(bytes)))
        throw refusal("a DPD interval below 5 kills the client; start the gateway with --allow-fatal");
}

// The text of a payload inside raw bytes begins behind a header that holds zero bytes.
void refuse_fatal_raw(const tunnel_gateway &gateway, const byte_vector &raw) {
    size_t at = text_of(raw).find("X-CSTP-DPD:");
    if (at != std::string_view::npos) refuse_fatal(gateway, byte_view(raw).subspan(at));
}

template <class word_type, size_t count>
word_type word_value(const char *what, const std::string &text,
                     const std::pair<const char *, word_type> (&words)[count]) {
    for (const auto &[word, value] : words) {
        if (text == word) return value;
    }
    throw refusal(std::string(what) + ": '" + text + "' is unknown");
}

template <class word_type, size_t count>
const char *word_text(word_type value, const std::pair<const char *, word_type> (&words)[count]) {
    for (const auto &[word, candidate] : words) {
        if (candidate == value) return word;
    }
    return "";
}

constexpr std::pair<const char *, accept_mode> accept_words[] = {
    {"normal", accept_mode::normal}, {"refuse", accept_mode::refuse},       {"reset", accept_mode::reset},
    {"stall", accept_mode::stall},   {"stall_tls", accept_mode::stall_tls},
};

constexpr std::pair<const char *, config_answer> config_words[] = {
    {"normal", config_answer::normal}, {"hold", config_answer::hold},       {"delay", config_answer::delay},
    {"drop", config_answer::drop},     {"replace", config_answer::replace}, {"malform", config_answer::malform},
};

// ---- 2 Looking ------------------------------------------------------------------------------------------------------

json overrides_of(const tunnel_gateway &gateway) {
    json list = json::array();
    for (const auto &entry : gateway.lab.overrides.entries())
        list.push_back({{"header", entry.name}, {"values", entry.values}, {"once", entry.once}});
    return list;
}

json show_status(tunnel_gateway &gateway, const json &) {
    const gateway_options &options = gateway.options();
    return {
        {"pid", getpid()},
        {"listen", gateway.listen_text()},
        {"tun", options.use_tun ? json(gateway.tun_name()) : json(nullptr)},
        {"tun_addr", cidr_text(options.tun_address)},
        {"pool", options.pool_text},
        {"accept", word_text(gateway.lab.accept, accept_words)},
        {"dpd", gateway.lab.answers_dpd},
        {"config", word_text(gateway.lab.config.kind, config_words)},
        {"overrides", overrides_of(gateway)},
        {"clients", gateway.clients().size()},
        {"last", gateway.events.log().last()},
        {"uptime_ms", gateway.uptime().count()},
    };
}

json counters_json(const counter_set &counters, size_t count) {
    json json = json::object();
    for (size_t i = 0; i < count; i++) json[counter_names[i]] = counters.at(i);
    return json;
}

const char *state_text(const tunnel_client &client) {
    if (client.state() == client_connection::phase::stalled) return "stalled";
    if (client.state() == client_connection::phase::handshake) return "handshake";
    if (client.is_half_shut()) return "half";
    if (client.withheld) return "held";
    return client.configured ? "up" : "tls";
}

json client_json(const tunnel_gateway &gateway, const tunnel_client &client) {
    return {
        {"client", client.id()},
        {"peer", client.peer()},
        {"identity", client.identity},
        {"device_id", client.device_id},
        {"name", client.name},
        {"serial", client.serial},
        {"cipher", client.cipher},
        {"inner", client.inner ? ipv4_text(client.inner) : ""},
        {"state", state_text(client)},
        {"active", gateway.is_active(client)},
        {"age_ms", client.age().count()},
        {"queued", client.queued()},
        {"dpd", client.answers_dpd ? json(*client.answers_dpd) : json(nullptr)},
        {"silent", client.is_silent()},
        {"counters", counters_json(client.counters(), connection_counter_count)},
    };
}

json list_clients(tunnel_gateway &gateway, const json &) {
    json list = json::array();
    for (const tunnel_client *client : gateway.clients()) list.push_back(client_json(gateway, *client));
    return {{"clients", list}};
}

json show_counters(tunnel_gateway &gateway, const json &) {
    return {{"counters", counters_json(gateway.totals(), counter_count)}};
}

json list_leases(tunnel_gateway &gateway, const json &) {
    json list = json::array();
    for (const address_lease &lease : gateway.pool().leases()) {
        list.push_back({{"identity", lease.identity},
                        {"device_id", lease.device_id},
                        {"address", ipv4_text(lease.address)},
                        {"cookie", lease.cookie},
                        {"connections", lease.connections}});
    }
    return {{"leases", list}};
}

// ---- 3 Changing behaviour -------------------------------------------------------------------------------------------

json set_dpd(tunnel_gateway &gateway, const json &request) {
    bool on = flag_of(request, "on");
    if (request.contains("client") && request["client"] != "all") {
        chosen_clients(gateway, request).front()->answers_dpd = on;
        return json::object();
    }
    gateway.lab.answers_dpd = on;
    gateway.forget_dpd_choices();
    return json::object();
}

json release_config(tunnel_gateway &gateway, const json &request) {
    tunnel_client *only = nullptr;
    if (request.contains("client") && request["client"] != "all") only = chosen_clients(gateway, request).front();
    if (!only) gateway.lab.config = {};
    return {{"released", gateway.release_withheld(only)}};
}

byte_vector replacement(const json &request) {
    if (!request.contains("text")) return hex_member(request, "hex", largest_payload);
    std::string text = word_of(request, "text");
    if (text.size() > largest_payload) throw refusal("text: more than " + std::to_string(largest_payload) + " bytes");
    return byte_vector(text.begin(), text.end());
}

json set_config(tunnel_gateway &gateway, const json &request) {
    std::string word = word_of(request, "mode");
    if (word == "release") return release_config(gateway, request);
    config_mode mode;
    mode.kind = word_value("mode", word, config_words);
    mode.once = flag_of(request, "once", false);
    if (mode.kind == config_answer::delay) mode.delay = delay_of(request, "ms", 0);
    if (mode.kind == config_answer::replace) {
        mode.bytes = replacement(request);
        refuse_fatal(gateway, mode.bytes);
    }
    if (mode.kind == config_answer::malform) {
        mode.bytes = hex_member(request, "hex", largest_record);
        refuse_fatal_raw(gateway, mode.bytes);
    }
    gateway.lab.config = mode;
    return json::object();
}

std::string header_name(const json &request) {
    std::string name = word_of(request, "header");
    if (!name.empty() && name.back() == ':') name.pop_back();
    if (name.empty()) throw refusal("header: empty");
    return name;
}

header_overrides::value_list header_values(const json &request) {
    if (!request.contains("value")) throw refusal("value is missing");
    const json &value = request["value"];
    if (value.is_null()) return {};
    if (value.is_string()) return {value.get<std::string>()};
    if (value.is_number_integer()) return {std::to_string(value.get<int64_t>())};
    if (!value.is_array()) throw refusal("value: a text, a list of texts or null is needed");
    header_overrides::value_list values;
    for (const json &entry : value) {
        if (!entry.is_string()) throw refusal("value: a text, a list of texts or null is needed");
        values.push_back(entry.get<std::string>());
    }
    return values;
}

json set_header(tunnel_gateway &gateway, const json &request) {
    std::string                  name   = header_name(request);
    header_overrides::value_list values = header_values(request);
    for (const std::string &value : values) refuse_fatal(gateway, bytes_of(name + ":" + value));
    gateway.lab.overrides.set(name, values, flag_of(request, "once", false));
    return {{"overrides", overrides_of(gateway)}};
}

json unset_header(tunnel_gateway &gateway, const json &request) {
    if (!request.contains("header")) gateway.lab.overrides.clear();
    else if (!gateway.lab.overrides.unset(header_name(request))) throw refusal("that header is not set");
    return {{"overrides", overrides_of(gateway)}};
}

json set_accept(tunnel_gateway &gateway, const json &request) {
    accept_mode mode = word_value("mode", word_of(request, "mode"), accept_words);
    try {
        gateway.set_accept(mode);
    } catch (const std::runtime_error &error) {
        throw refusal(error.what());
    }
    return json::object();
}

json set_silence(tunnel_gateway &gateway, const json &request) {
    bool on = flag_of(request, "on", true);
    for (tunnel_client *client : chosen_clients(gateway, request)) client->set_silent(on);
    return json::object();
}

json faults_of(const tunnel_gateway &gateway) {
    json list = json::array();
    for (const armed_fault &fault : gateway.faults().armed())
        list.push_back({{"fault", fault.text}, {"left", fault.left == UINT64_MAX ? json(nullptr) : json(fault.left)}});
    return {{"faults", list}};
}

json order_fault(tunnel_gateway &gateway, const json &request) {
    try {
        gateway.order_fault(word_of(request, "fault"));
    } catch (const std::runtime_error &error) {
        throw refusal(error.what());
    }
    return faults_of(gateway);
}

json list_faults(tunnel_gateway &gateway, const json &) { return faults_of(gateway); }

json reload_keys(tunnel_gateway &gateway, const json &) {
    std::string failure = gateway.read_keys_again();
    if (!failure.empty()) throw refusal(failure);
    return json::object();
}

json set_data_events(tunnel_gateway &gateway, const json &request) {
    gateway.lab.data_events = flag_of(request, "on");
    return json::object();
}

// ---- 4 Sending and closing ------------------------------------------------------------------------------------------

json report_sent(tunnel_gateway &gateway, const tunnel_client &client, const char *what, size_t bytes) {
    gateway.events.emit("sent", client.id(), {{"what", what}, {"bytes", bytes}});
    return {{"client", client.id()}, {"sent", bytes}};
}

void send_one_record(tunnel_client &client, uint8_t type, byte_view plain) {
    try {
        client.send_record(type, plain);
    } catch (const std::runtime_error &error) {
        throw refusal(error.what());
    }
}

byte_vector crafted_frame(const json &request) {
    if (request.contains("raw")) return hex_member(request, "raw", largest_record);
    byte_vector payload = request.contains("payload") ? hex_member(request, "payload", largest_payload) : byte_vector{};
    if (!request.contains("type")) throw refusal("type is missing");
    byte_vector frame = make_frame(byte_of(request, "type", 0), payload);
    std::string magic = word_of(request, "magic", "STF");
    if (magic.size() != 3) throw refusal("magic: 3 characters are needed");
    std::copy(magic.begin(), magic.end(), frame.begin());
    frame[3]        = byte_of(request, "version", 1);
    uint64_t length = number_of(request, "length", payload.size());
    frame[4]        = static_cast<uint8_t>(length >> 8);
    frame[5]        = static_cast<uint8_t>(length);
    frame[7]        = byte_of(request, "reserved", 0);
    return frame;
}

json send_frame(tunnel_gateway &gateway, const json &request) {
    byte_vector frame = crafted_frame(request);
    refuse_fatal_raw(gateway, frame);
    json answer;
    for (tunnel_client *client : chosen_clients(gateway, request)) {
        send_one_record(*client, SSL3_RT_APPLICATION_DATA, frame);
        client->count(counter::frames_tx);
        answer = report_sent(gateway, *client, "frame", frame.size());
    }
    return answer;
}

std::vector<byte_vector> record_contents(const json &request) {
    if (!request.contains("hex")) throw refusal("hex is missing");
    const json &value = request["hex"];
    if (!value.is_array()) return {hex_value("hex", value, crafted_record_limit)};
    std::vector<byte_vector> records;
    for (const json &entry : value) records.push_back(hex_value("hex", entry, crafted_record_limit));
    return records;
}

json send_record(tunnel_gateway &gateway, const json &request) {
    auto                      records = record_contents(request);
    auto                      type    = byte_of(request, "type", SSL3_RT_APPLICATION_DATA);
    uint64_t                  cut     = number_of(request, "cut", 0);
    std::chrono::milliseconds gap(number_of(request, "gap_ms", 200));
    byte_vector               joined;
    for (const byte_vector &record : records) joined.insert(joined.end(), record.begin(), record.end());
    refuse_fatal_raw(gateway, joined);

    tunnel_client &client = *chosen_clients(gateway, request).front();
    if (cut) client.flush();
    size_t before = client.unsent();
    for (const byte_vector &record : records) send_one_record(client, type, record);
    if (cut) client.interrupt_output(before + cut, gap);
    json answer         = report_sent(gateway, client, "record", joined.size());
    answer["records"]   = records.size();
    answer["encrypted"] = client.unsent() - before;
    return answer;
}

json send_packet(tunnel_gateway &gateway, const json &request) {
    byte_vector    packet = hex_member(request, "hex", largest_packet);
    uint64_t       count  = number_of(request, "count", 1);
    tunnel_client *client = request.contains("client") ? chosen_clients(gateway, request).front() : nullptr;
    uint64_t       sent   = 0;
    for (uint64_t i = 0; i < count; i++) {
        bool taken = false;
        client     = gateway.send_packet(packet, client, taken);
        if (!client) throw refusal("no client has that destination address");
        if (taken) sent++;
        if (!client->is_open()) throw refusal("the connection cannot send");
    }
    if (!client) return {{"packets", 0}};
    json answer       = report_sent(gateway, *client, "packet", packet.size() * sent);
    answer["packets"] = sent;
    return answer;
}

json send_bytes(tunnel_gateway &gateway, const json &request) {
    byte_vector    bytes  = hex_member(request, "hex", 1 << 20);
    tunnel_client &client = *chosen_clients(gateway, request).front();
    try {
        client.send_raw(bytes);
    } catch (const std::runtime_error &error) {
        throw refusal(error.what());
    }
    return report_sent(gateway, client, "bytes", bytes.size());
}

void close_client(tunnel_client &client, const std::string &how, const json &request) {
    auto code  = static_cast<int>(number_of(request, "code", 80));
    auto level = static_cast<int>(number_of(request, "level", 2));
    if (how == "fin") client.end_with_fin("command");
    else if (how == "notify") client.end_with_notify("command");
    else if (how == "rst") client.end_with_reset("command");
    else if (how == "alert") client.end_with_alert(level, code);
    else if (how == "half") client.shut_sending();
}

json close_clients(tunnel_gateway &gateway, const json &request) {
    std::string how    = word_of(request, "how", "fin");
    size_t      closed = 0;
    for (tunnel_client *client : chosen_clients(gateway, request)) {
        try {
            close_client(*client, how, request);
        } catch (const std::runtime_error &error) {
            throw refusal(error.what());
        }
        closed++;
    }
    return {{"closed", closed}};
}

// ---- 5 The table of requests ----------------------------------------------------------------------------------------

using common::member_type;

common::member client_member(const char *help) { return {"client", member_type::any, help}; }

const char *const one_client     = "number of a connection; the newest one by itself";
const char *const chosen         = "number of a connection, or \"all\"; the newest one by itself";
const char *const all_by_default = "number of a connection; all of them by itself";

common::member flag(const char *name, const char *help) { return {name, member_type::flag, help}; }
common::member text(const char *name, const char *help) { return {name, member_type::text, help}; }
common::member number(const char *name, const char *help, double highest) {
    return {name, member_type::number, help, false, {}, highest};
}
common::member needed(common::member which) {
    which.is_needed = true;
    return which;
}
common::member one_of(common::member which, std::vector<std::string> words) {
    which.words = std::move(words);
    return which;
}

struct served {
    common::request_type type;
    json (*run)(tunnel_gateway &, const json &);
};

std::vector<served> looking() {
    return {
        {{"status", "the gateway as a whole: listening, pool, laboratory, number of clients"}, show_status},
        {{"clients", "the connections, oldest first"}, list_clients},
        {{"counters", "totals since the start"}, show_counters},
        {{"faults", "the faults that wait for their trigger"}, list_faults},
        {{"leases", "the devices with their inner addresses"}, list_leases},
    };
}

std::vector<served> changing() {
    return {
        {{"data_events", "makes events for packets, or not", {needed(flag("on", "true: from now on"))}, false},
         set_data_events},
        {{"fault",
          "orders a fault for the laboratory",
          {needed(text("fault", "NAME[@TRIGGER[=N]][#COUNT|#*], or none: forget all of them"))},
          false},
         order_fault},
        {{"reload", "reads the key file again; live connections stay", {}, false}, reload_keys},
        {{"dpd",
          "goes on answering DPD requests, or stops",
          {needed(flag("on", "false: stop")), client_member(all_by_default)},
          false},
         set_dpd},
        {{"config",
          "what the next configuration requests get",
          {needed(one_of(text("mode", "what they get; release sends what was withheld"),
                         {"normal", "hold", "delay", "drop", "replace", "malform", "release"})),
           number("ms", "of delay, milliseconds", longest_delay), text("text", "payload of replace"),
           text("hex", "payload of replace, or raw bytes of malform"), flag("once", "only for the next request"),
           client_member(all_by_default)},
          false},
         set_config},
        {{"set",
          "gives a header of the next responses another value",
          {needed(text("header", "its name")),
           {"value", member_type::any, "a text, a list of texts, or null: omit it"},
           flag("once", "only in the next response")},
          false},
         set_header},
        {{"unset", "forgets that", {text("header", "its name; all of them by itself")}, false}, unset_header},
        {{"accept",
          "what happens to the next connections",
          {needed(one_of(text("mode", "what happens"), {"normal", "refuse", "reset", "stall", "stall_tls"}))},
          false},
         set_accept},
        {{"silence",
          "neither reads nor writes on a connection, or does so again",
          {client_member(chosen), flag("on", "true by itself")},
          false},
         set_silence},
    };
}

std::vector<served> sending() {
    return {
        {{"send_frame",
          "sends one frame in one record",
          {client_member(chosen), number("type", "of the frame", 255), text("payload", "hexadecimal"),
           number("version", "1 by itself", 255), number("length", "the announced one", 65535),
           number("reserved", "0 by itself", 255), text("magic", "3 characters"),
           text("raw", "the whole record instead, hexadecimal")},
          false},
         send_frame},
        {{"send_record",
          "sends exactly these bytes as records",
          {client_member(one_client), needed({"hex", member_type::texts, "content of each record, hexadecimal"}),
           number("type", "content type, 23 by itself", 255), number("cut", "bytes that go at once", largest_cut),
           number("gap_ms", "milliseconds until the others, 200 by itself", longest_delay)},
          false},
         send_record},
        {{"send_packet",
          "sends data frames through the client's queue",
          {client_member("number of a connection; by the packet's destination otherwise"),
           needed(text("hex", "the packet, hexadecimal")), number("count", "how many, 1 by itself", largest_count)},
          false},
         send_packet},
        {{"send_bytes",
          "writes into the TCP stream, past TLS",
          {client_member(one_client), needed(text("hex", "hexadecimal"))},
          false},
         send_bytes},
        {{"close",
          "ends connections",
          {client_member(chosen), one_of(text("how", "fin by itself"), {"fin", "notify", "rst", "alert", "half"}),
           number("code", "of the alert, 80 by itself", 255), number("level", "of the alert, 2 by itself", 255)},
          false},
         close_clients},
    };
}

}  // namespace

void add_requests(common::json_server &server, tunnel_gateway &gateway) {
    for (const auto &group : {looking(), changing(), sending()}) {
        for (const served &each : group)
            server.add(each.type, [&gateway, run = each.run](const json &request, const common::ticket &) {
                return run(gateway, request);
            });
    }
}

}  // namespace gw

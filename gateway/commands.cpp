#include "commands.h"

#include <unistd.h>

#include <algorithm>

#include "record_seal.h"

namespace gw {

// Contents: 1 members of a request  2 looking  3 changing behaviour  4 sending and closing  5 the table of commands

namespace {

constexpr size_t   largest_record  = 16384;  // plaintext, RFC 5246
constexpr size_t   largest_payload = largest_record - frame_header_size;
constexpr size_t   largest_packet  = frame_ring::slot_size - frame_header_size;
constexpr uint64_t largest_count   = 100000;       // of packets in one request
constexpr uint64_t longest_delay   = 3600 * 1000;  // milliseconds

}  // namespace

// ==== 1 Members of a request =====================================================================================

void check_members(const json &request, const std::set<std::string> &allowed) {
    for (const auto &[name, value] : request.items()) {
        if (name != "cmd" && name != "id" && !allowed.contains(name))
            throw command_error("unknown member '" + name + "'");
    }
}

uint64_t number_member(const json &request, const char *name, uint64_t standard, uint64_t limit) {
    if (!request.contains(name)) return standard;
    const json &value = request[name];
    if (!value.is_number_unsigned() || value.get<uint64_t>() > limit)
        throw command_error(std::string(name) + ": a number from 0 to " + std::to_string(limit) + " is needed");
    return value.get<uint64_t>();
}

std::set<std::string> event_kinds(const json &request, const char *name) {
    if (!request.contains(name)) return {};
    const json &value = request[name];
    if (value.is_string()) return {value.get<std::string>()};
    std::set<std::string> kinds;
    if (!value.is_array()) throw command_error(std::string(name) + ": a text or a list of texts is needed");
    for (const json &kind : value) {
        if (!kind.is_string()) throw command_error(std::string(name) + ": a text or a list of texts is needed");
        kinds.insert(kind.get<std::string>());
    }
    return kinds;
}

event_filter read_event_filter(const json &request, const char *kinds_member) {
    event_filter filter;
    filter.kinds  = event_kinds(request, kinds_member);
    filter.client = number_member(request, "client", 0);
    if (request.contains("match")) filter.match = request["match"];
    if (!filter.match.is_object()) throw command_error("match: an object is needed");
    return filter;
}

bool event_filter::accepts(const json &event) const {
    if (!kinds.empty() && !kinds.contains(event["event"].get<std::string>())) return false;
    if (client && event.value("client", uint64_t{0}) != client) return false;
    return std::all_of(match.items().begin(), match.items().end(), [&](const auto &item) {
        return event.contains(item.key()) && event[item.key()] == item.value();
    });
}

namespace {

bool flag_member(const json &request, const char *name, bool standard) {
    if (!request.contains(name)) return standard;
    if (!request[name].is_boolean()) throw command_error(std::string(name) + ": true or false is needed");
    return request[name].get<bool>();
}

bool needed_flag(const json &request, const char *name) {
    if (!request.contains(name)) throw command_error(std::string(name) + " is missing");
    return flag_member(request, name, false);
}

std::string text_member(const json &request, const char *name, const char *standard = nullptr) {
    if (!request.contains(name)) {
        if (standard) return standard;
        throw command_error(std::string(name) + " is missing");
    }
    if (!request[name].is_string()) throw command_error(std::string(name) + ": a text is needed");
    return request[name].get<std::string>();
}

byte_vector hex_value(const char *name, const json &value, size_t limit) {
    if (!value.is_string()) throw command_error(std::string(name) + ": a hexadecimal text is needed");
    auto bytes = from_hex(value.get<std::string>());
    if (!bytes) throw command_error(std::string(name) + ": not a hexadecimal text of whole bytes");
    if (bytes->size() > limit)
        throw command_error(std::string(name) + ": more than " + std::to_string(limit) + " bytes");
    return *bytes;
}

byte_vector hex_member(const json &request, const char *name, size_t limit) {
    if (!request.contains(name)) throw command_error(std::string(name) + " is missing");
    return hex_value(name, request[name], limit);
}

tunnel_client &client_with(tunnel_gateway &gateway, uint64_t id) {
    tunnel_client *client = gateway.find_client(id);
    if (!client) throw command_error("no client " + std::to_string(id));
    return *client;
}

// A number, "all", or absent: the newest connection.
std::vector<tunnel_client *> chosen_clients(tunnel_gateway &gateway, const json &request) {
    if (request.contains("client") && request["client"] == "all") return gateway.clients();
    if (request.contains("client")) return {&client_with(gateway, number_member(request, "client", 0))};
    auto clients = gateway.clients();
    if (clients.empty()) throw command_error("no client");
    return {clients.back()};
}

void refuse_fatal(const tunnel_gateway &gateway, byte_view bytes) {
    if (!gateway.options().allow_fatal && has_fatal_dpd(text_of(bytes)))
        throw command_error("a DPD interval below 5 kills the client; start the gateway with --allow-fatal");
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
    throw command_error(std::string(what) + ": '" + text + "' is unknown");
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

// ==== 2 Looking ==================================================================================================

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
        {"seq", gateway.events.last()},
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

json list_events(tunnel_gateway &gateway, const json &request) {
    uint64_t     since  = number_member(request, "since", 0);
    uint64_t     limit  = number_member(request, "limit", UINT64_MAX);
    event_filter filter = read_event_filter(request, "events");
    json         list   = json::array();
    gateway.events.visit(since, [&](const json &event) {
        if (list.size() >= limit) return false;
        if (filter.accepts(event)) list.push_back(event);
        return true;
    });
    return {{"events", list}, {"seq", gateway.events.last()}, {"lost", gateway.events.lost(since)}};
}

// ==== 3 Changing behaviour =======================================================================================

json set_dpd(tunnel_gateway &gateway, const json &request) {
    bool on = needed_flag(request, "on");
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
    std::string text = text_member(request, "text");
    if (text.size() > largest_payload)
        throw command_error("text: more than " + std::to_string(largest_payload) + " bytes");
    return byte_vector(text.begin(), text.end());
}

json set_config(tunnel_gateway &gateway, const json &request) {
    std::string word = text_member(request, "mode");
    if (word == "release") return release_config(gateway, request);
    config_mode mode;
    mode.kind = word_value("mode", word, config_words);
    mode.once = flag_member(request, "once", false);
    if (mode.kind == config_answer::delay)
        mode.delay = std::chrono::milliseconds(number_member(request, "ms", 0, longest_delay));
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
    std::string name = text_member(request, "header");
    if (!name.empty() && name.back() == ':') name.pop_back();
    if (name.empty()) throw command_error("header: empty");
    return name;
}

header_overrides::value_list header_values(const json &request) {
    if (!request.contains("value")) throw command_error("value is missing");
    const json &value = request["value"];
    if (value.is_null()) return {};
    if (value.is_string()) return {value.get<std::string>()};
    if (value.is_number_integer()) return {std::to_string(value.get<int64_t>())};
    if (!value.is_array()) throw command_error("value: a text, a list of texts or null is needed");
    header_overrides::value_list values;
    for (const json &entry : value) {
        if (!entry.is_string()) throw command_error("value: a text, a list of texts or null is needed");
        values.push_back(entry.get<std::string>());
    }
    return values;
}

json set_header(tunnel_gateway &gateway, const json &request) {
    std::string                  name   = header_name(request);
    header_overrides::value_list values = header_values(request);
    for (const std::string &value : values) refuse_fatal(gateway, bytes_of(name + ":" + value));
    gateway.lab.overrides.set(name, values, flag_member(request, "once", false));
    return {{"overrides", overrides_of(gateway)}};
}

json unset_header(tunnel_gateway &gateway, const json &request) {
    if (!request.contains("header")) gateway.lab.overrides.clear();
    else if (!gateway.lab.overrides.unset(header_name(request))) throw command_error("that header is not set");
    return {{"overrides", overrides_of(gateway)}};
}

json set_accept(tunnel_gateway &gateway, const json &request) {
    accept_mode mode = word_value("mode", text_member(request, "mode"), accept_words);
    try {
        gateway.set_accept(mode);
    } catch (const std::runtime_error &error) {
        throw command_error(error.what());
    }
    return json::object();
}

json set_silence(tunnel_gateway &gateway, const json &request) {
    bool on = flag_member(request, "on", true);
    for (tunnel_client *client : chosen_clients(gateway, request)) client->set_silent(on);
    return json::object();
}

json set_data_events(tunnel_gateway &gateway, const json &request) {
    gateway.lab.data_events = needed_flag(request, "on");
    return json::object();
}

// ==== 4 Sending and closing ======================================================================================

json report_sent(tunnel_gateway &gateway, const tunnel_client &client, const char *what, size_t bytes) {
    gateway.events.emit("sent", client.id(), {{"what", what}, {"bytes", bytes}});
    return {{"client", client.id()}, {"sent", bytes}};
}

void send_one_record(tunnel_client &client, uint8_t type, byte_view plain) {
    try {
        client.send_record(type, plain);
    } catch (const std::runtime_error &error) {
        throw command_error(error.what());
    }
}

byte_vector crafted_frame(const json &request) {
    if (request.contains("raw")) return hex_member(request, "raw", largest_record);
    byte_vector payload = request.contains("payload") ? hex_member(request, "payload", largest_payload) : byte_vector{};
    if (!request.contains("type")) throw command_error("type is missing");
    byte_vector frame = make_frame(static_cast<uint8_t>(number_member(request, "type", 0, 255)), payload);
    std::string magic = text_member(request, "magic", "STF");
    if (magic.size() != 3) throw command_error("magic: 3 characters are needed");
    std::copy(magic.begin(), magic.end(), frame.begin());
    frame[3]        = static_cast<uint8_t>(number_member(request, "version", 1, 255));
    uint64_t length = number_member(request, "length", payload.size(), 65535);
    frame[4]        = static_cast<uint8_t>(length >> 8);
    frame[5]        = static_cast<uint8_t>(length);
    frame[7]        = static_cast<uint8_t>(number_member(request, "reserved", 0, 255));
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
    if (!request.contains("hex")) throw command_error("hex is missing");
    const json &value = request["hex"];
    if (!value.is_array()) return {hex_value("hex", value, crafted_record_limit)};
    std::vector<byte_vector> records;
    for (const json &entry : value) records.push_back(hex_value("hex", entry, crafted_record_limit));
    return records;
}

json send_record(tunnel_gateway &gateway, const json &request) {
    auto     records = record_contents(request);
    auto     type    = static_cast<uint8_t>(number_member(request, "type", SSL3_RT_APPLICATION_DATA, 255));
    uint64_t cut     = number_member(request, "cut", 0, 1 << 20);
    std::chrono::milliseconds gap(number_member(request, "gap_ms", 200, longest_delay));
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
    uint64_t       count  = number_member(request, "count", 1, largest_count);
    tunnel_client *client = request.contains("client") ? chosen_clients(gateway, request).front() : nullptr;
    uint64_t       sent   = 0;
    for (uint64_t i = 0; i < count; i++) {
        bool taken = false;
        client     = gateway.send_packet(packet, client, taken);
        if (!client) throw command_error("no client has that destination address");
        if (taken) sent++;
        if (!client->is_open()) throw command_error("the connection cannot send");
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
        throw command_error(error.what());
    }
    return report_sent(gateway, client, "bytes", bytes.size());
}

void close_client(tunnel_client &client, const std::string &how, const json &request) {
    auto code  = static_cast<int>(number_member(request, "code", 80, 255));
    auto level = static_cast<int>(number_member(request, "level", 2, 255));
    if (how == "fin") client.end_with_fin("command");
    else if (how == "notify") client.end_with_notify("command");
    else if (how == "rst") client.end_with_reset("command");
    else if (how == "alert") client.end_with_alert(level, code);
    else if (how == "half") client.shut_sending();
    else throw command_error("how: '" + how + "' is unknown");
}

json close_clients(tunnel_gateway &gateway, const json &request) {
    std::string how    = text_member(request, "how", "fin");
    size_t      closed = 0;
    for (tunnel_client *client : chosen_clients(gateway, request)) {
        try {
            close_client(*client, how, request);
        } catch (const std::runtime_error &error) {
            throw command_error(error.what());
        }
        closed++;
    }
    return {{"closed", closed}};
}

// ==== 5 The table of commands ====================================================================================

const struct {
    const char *name;
    json (*run)(tunnel_gateway &, const json &);
    std::set<std::string> members;
} commands[] = {
    {"status", show_status, {}},
    {"clients", list_clients, {}},
    {"counters", show_counters, {}},
    {"leases", list_leases, {}},
    {"events", list_events, {"since", "events", "client", "limit", "match"}},
    {"data_events", set_data_events, {"on"}},
    {"dpd", set_dpd, {"on", "client"}},
    {"config", set_config, {"mode", "ms", "text", "hex", "once", "client"}},
    {"set", set_header, {"header", "value", "once"}},
    {"unset", unset_header, {"header"}},
    {"accept", set_accept, {"mode"}},
    {"silence", set_silence, {"client", "on"}},
    {"send_frame", send_frame, {"client", "type", "payload", "version", "length", "reserved", "magic", "raw"}},
    {"send_record", send_record, {"client", "hex", "type", "cut", "gap_ms"}},
    {"send_packet", send_packet, {"client", "hex", "count"}},
    {"send_bytes", send_bytes, {"client", "hex"}},
    {"close", close_clients, {"client", "how", "code", "level"}},
};

}  // namespace

json run_command(tunnel_gateway &gateway, const json &request) {
    std::string name = text_member(request, "cmd");
    for (const auto &command : commands) {
        if (name != command.name) continue;
        check_members(request, command.members);
        return command.run(gateway, request);
    }
    throw command_error("unknown command '" + name + "'");
}

}  // namespace gw

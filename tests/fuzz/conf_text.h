// Texts of the controller's configuration file as a hostile hand writes them, with a key that can be found again: no
// piece of it comes from the input.
// Input: pieces of the file: a choice, a length, bytes; or the key's line, whole, over-long or behind an over-long
// beginning.
#pragma once

#include <iterator>
#include <string>

#include "input.h"

inline const std::string secret     = "Zq7#kPw2vXn9!Rt4mJc6@Ls8yHd3&Bg5";
constexpr uint32_t       piece_size = 511;

constexpr const char *conf_words[] = {"server_ip_address",  "server_port",  "inner_ip",  "management_ip", "cipher_algo",
                                      "tun_interface_name", "psk_identity", "log_level", "log_dest",      "device_id",
                                      "serial_num",         "system_name",  "psk",       "psk_key_other", "server_ip"};

// Of the input only characters that the secret does not consist of, so that what is found is the key itself.
inline std::string harmless(std::string_view bytes) {
    std::string text(bytes);
    for (char &c : text)
        if (secret.find(c) != std::string::npos) c = '-';
    return text;
}

inline std::string key_text(fuzz_input &in) {
    std::string key = secret;
    for (size_t more = in.below(40); more > 0; --more) key += secret;
    return key;
}

inline std::string key_line(fuzz_input &in) {
    std::string line;
    if (in.chance(96))
        line.assign(piece_size - 6 + in.below(7), 'x');  // the word itself is cut apart, or begins a piece
    return line + "psk_key;" + key_text(in) + (in.chance(200) ? ";1\n" : "\n");
}

inline std::string conf_text(fuzz_input &in) {
    std::string text;
    while (!in.empty() && text.size() < 6000) {
        switch (in.below(6)) {
        case 0:
        case 1:
            if (!text.empty() && text.back() != '\n') text += '\n';
            text += key_line(in);
            break;
        case 2:
            text += std::string(conf_words[in.below(std::size(conf_words))]) + ";" + harmless(in.bytes(in.below(100))) +
                    ";1\n";
            break;
        case 3: text += harmless(in.bytes(in.below(600))); break;
        case 4: text.append(in.below(600), 'y'); break;
        default: text += "\n"; break;
        }
    }
    return text;
}

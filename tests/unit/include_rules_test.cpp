// Holds the rules that keep the headers free of circles and the modules in their ranks.
//
//   rank 0  records: tlsc.h, wlc.h        rank 3  the seam: tlsc_platform
//   rank 1  services: debug, config, utils, turn, transport  rank 4  main thread: tlsc_main, tlsc_wlc
//   rank 2  the tunnel thread's peers

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

struct include_line {
    std::string name;
    bool        own_tree;    // in double quotes
    bool        has_reason;  // a comment stands behind it
    int         number;
};

struct source_file {
    fs::path                  path;
    std::string               name;
    std::vector<std::string>  lines;
    std::vector<include_line> includes;
};

const std::set<std::string>      records{"tlsc.h", "wlc.h"};
const std::set<std::string>      services{"tlsc_debug.h", "tlsc_config.h", "tlsc_utils.h", "tlsc_turn.h",
                                     "tlsc_transport.h"};
const std::map<std::string, int> ranks{{"tlsc.h", 0},          {"wlc.h", 0},
                                       {"tlsc_openssl.h", 0},  {"tlsc_debug.h", 1},
                                       {"tlsc_config.h", 1},   {"tlsc_utils.h", 1},
                                       {"tlsc_turn.h", 1},     {"tlsc_transport.h", 1},
                                       {"tlsc_tun_intf.h", 2}, {"tlsc_route_utils.h", 2},
                                       {"tlsc_session.h", 2},  {"tlsc_timer.h", 2},
                                       {"tlsc_cstp.h", 2},     {"tlsc_engine.h", 2},
                                       {"tlsc_platform.h", 3}, {"tlsc_main.h", 4},
                                       {"tlsc_wlc.h", 4}};

// Takes '#include "name"  // reason' apart; false for any other line.
bool parse_include(const std::string &line, include_line *out) {
    const std::string word = "#include ";
    if (!line.starts_with(word) || line.size() < word.size() + 3) return false;

    const char open = line[word.size()];
    if (open != '<' && open != '"') return false;
    const size_t start = word.size() + 1;
    const size_t end   = line.find(open == '<' ? '>' : '"', start);
    if (end == std::string::npos) return false;

    const size_t comment = line.find("// ", end);
    out->name            = line.substr(start, end - start);
    out->own_tree        = open == '"';
    out->has_reason      = comment != std::string::npos && line.size() > comment + 3;
    return true;
}

source_file read_source(const fs::path &path) {
    source_file   file{path, path.filename().string(), {}, {}};
    std::ifstream in(path);
    std::string   line;
    while (std::getline(in, line)) {
        file.lines.push_back(line);
        include_line include{};
        if (!parse_include(line, &include)) continue;
        include.number = static_cast<int>(file.lines.size());
        file.includes.push_back(include);
    }
    return file;
}

std::vector<source_file> read_tree(const std::string &suffix) {
    const fs::path           root = TLSC_SOURCE_TREE;
    std::vector<source_file> files;
    for (const char *folder : {"src", "wlc"})
        for (const fs::directory_entry &entry : fs::directory_iterator(root / folder))
            if (entry.path().extension() == suffix) files.push_back(read_source(entry.path()));
    return files;
}

std::string place(const source_file &file, const include_line &include) {
    return file.path.string() + ":" + std::to_string(include.number) + " includes " + include.name;
}

std::string own_header(const source_file &file) { return file.path.stem().string() + ".h"; }

int rank_of(const std::string &header) {
    const auto found = ranks.find(header);
    return found == ranks.end() ? -1 : found->second;
}

// First a module's own header, then the services, then the peers and the upward ones.
int group_of(const source_file &file, const include_line &include) {
    if (include.name == own_header(file)) return 0;
    if (services.contains(include.name)) return 1;
    return 2;
}

}  // namespace

TEST(include_rules, the_tree_is_found) {
    EXPECT_GE(read_tree(".h").size(), 15u);
    EXPECT_EQ(read_tree(".cpp").size(), 14u);
}

TEST(include_rules, every_header_has_a_rank) {
    for (const source_file &file : read_tree(".h")) EXPECT_GE(rank_of(file.name), 0) << file.path;
}

TEST(include_rules, headers_include_system_headers_and_records_only) {
    for (const source_file &file : read_tree(".h"))
        for (const include_line &include : file.includes)
            if (include.own_tree) {
                EXPECT_TRUE(records.contains(include.name)) << place(file, include);
            }
}

TEST(include_rules, the_tunnel_records_know_nothing_of_the_controller) {
    for (const source_file &file : read_tree(".h"))
        for (const include_line &include : file.includes)
            if (file.name == "tlsc.h") {
                EXPECT_FALSE(include.own_tree) << place(file, include);
            }
}

TEST(include_rules, openssl_headers_stand_in_one_header_only) {
    for (const char *suffix : {".h", ".cpp"})
        for (const source_file &file : read_tree(suffix))
            for (const include_line &include : file.includes)
                if (include.name.starts_with("openssl/")) {
                    EXPECT_EQ(file.name, "tlsc_openssl.h") << place(file, include);
                }
}

TEST(include_rules, every_header_is_guarded) {
    for (const source_file &file : read_tree(".h"))
        EXPECT_NE(std::find(file.lines.begin(), file.lines.end(), "#pragma once"), file.lines.end()) << file.path;
}

TEST(include_rules, a_source_includes_its_own_header_first) {
    for (const source_file &file : read_tree(".cpp")) {
        ASSERT_FALSE(file.includes.empty()) << file.path;
        EXPECT_EQ(file.includes.front().name, own_header(file)) << file.path;
    }
}

TEST(include_rules, a_source_includes_services_before_peers) {
    for (const source_file &file : read_tree(".cpp")) {
        int last = 0;
        for (const include_line &include : file.includes) {
            if (!include.own_tree || include.name == "tlsc_openssl.h") continue;
            EXPECT_GE(group_of(file, include), last) << place(file, include);
            last = std::max(last, group_of(file, include));
        }
    }
}

TEST(include_rules, an_include_of_a_peer_or_upward_says_what_for) {
    for (const source_file &file : read_tree(".cpp"))
        for (const include_line &include : file.includes)
            if (include.own_tree && include.name != own_header(file) && rank_of(include.name) >= 2) {
                EXPECT_TRUE(include.has_reason) << place(file, include);
            }
}

TEST(include_rules, services_call_services_only) {
    for (const source_file &file : read_tree(".cpp"))
        if (services.contains(own_header(file)))
            for (const include_line &include : file.includes)
                if (include.own_tree) {
                    EXPECT_LE(rank_of(include.name), 1) << place(file, include);
                }
}

TEST(include_rules, the_tunnel_thread_reaches_upward_through_the_platform_only) {
    for (const source_file &file : read_tree(".cpp"))
        if (rank_of(own_header(file)) == 2)
            for (const include_line &include : file.includes)
                if (include.own_tree) {
                    EXPECT_LE(rank_of(include.name), 3) << place(file, include);
                }
}

TEST(include_rules, in_the_tunnel_client_only_main_and_platform_know_the_controller_interface) {
    for (const char *suffix : {".h", ".cpp"})
        for (const source_file &file : read_tree(suffix)) {
            if (file.path.parent_path().filename() != "src") continue;
            if (file.name == "tlsc_main.cpp" || file.name == "tlsc_platform.cpp") continue;
            for (const include_line &include : file.includes) {
                EXPECT_NE(include.name, "tlsc_wlc.h") << place(file, include);
                EXPECT_NE(include.name, "wlc.h") << place(file, include);
            }
        }
}

TEST(include_rules, no_source_declares_what_another_owns) {
    for (const source_file &file : read_tree(".cpp"))
        for (size_t i = 0; i < file.lines.size(); ++i)
            EXPECT_FALSE(file.lines[i].starts_with("extern ")) << file.path << ":" << i + 1;
}

TEST(include_rules, nothing_uses_streams) {
    const std::set<std::string> streams{"iostream", "fstream", "sstream", "ostream", "istream", "iomanip"};
    for (const char *suffix : {".h", ".cpp"})
        for (const source_file &file : read_tree(suffix))
            for (const include_line &include : file.includes)
                EXPECT_FALSE(streams.contains(include.name)) << place(file, include);
}

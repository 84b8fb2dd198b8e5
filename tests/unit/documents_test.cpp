// Holds the documents to what they name: every test that docs/security.md refers to exists.

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

const fs::path tree = TLSC_SOURCE_TREE;

std::string text_of(const fs::path &path) {
    std::ifstream     in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void collect(const std::string &text, const char *pattern, const std::string &front, const char *between,
             std::set<std::string> *names) {
    const std::regex expression(pattern);
    for (std::sregex_iterator found(text.begin(), text.end(), expression), end; found != end; ++found)
        names->insert(found->size() == 3 ? (*found)[1].str() + between + (*found)[2].str()
                                         : front + between + (*found)[1].str());
}

// As the documents write them: "suite.test", "test_file.py::test".
std::set<std::string> existing_tests() {
    std::set<std::string> names;
    for (const char *folder : {"tests/unit", "tests/system"})
        for (const fs::directory_entry &entry : fs::directory_iterator(tree / folder)) {
            if (entry.path().extension() == ".cpp")
                collect(text_of(entry.path()), "TEST(?:_F|_P)?\\((\\w+),\\s*(\\w+)\\)", "", ".", &names);
            if (entry.path().extension() == ".py")
                collect(text_of(entry.path()), "def (test_\\w+)\\(", entry.path().filename().string(), "::", &names);
        }
    return names;
}

}  // namespace

TEST(documents, every_test_that_the_page_on_security_names_exists) {
    const std::set<std::string> existing = existing_tests();
    std::set<std::string>       named;
    const std::string           page = text_of(tree / "docs/security.md");
    collect(page, "`(\\w+)\\.(\\w+_\\w+)`", "", ".", &named);
    collect(page, "`(test_\\w+\\.py)::(\\w+)`", "", "::", &named);
    EXPECT_GT(named.size(), 25U);
    for (const std::string &name : named) EXPECT_TRUE(existing.contains(name)) << name;
}

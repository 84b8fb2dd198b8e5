#include "metrics_text.h"

#include <cmath>
#include <cstdio>

namespace common {

namespace {

std::string escaped(const char *value) {
    std::string all;
    for (char c = *value; c != '\0'; c = *++value) {
        if (c == '\\' || c == '"') all += '\\';
        if (c == '\n') all += "\\n";
        else all += c;
    }
    return all;
}

}  // namespace

void metrics_text::family(const char *name, const char *type, const char *help) {
    name_ = name;
    head_ = "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
}

void metrics_text::put(const std::string &value, labels with) {
    text_ += head_ + name_;
    head_.clear();
    const char *before = "{";
    for (const auto &[label, is] : with) {
        text_ += before + std::string(label) + "=\"" + escaped(is) + "\"";
        before = ",";
    }
    text_ += (with.size() > 0 ? "} " : " ") + value + "\n";
}

void metrics_text::sample(uint64_t value, labels with) { put(std::to_string(value), with); }

void metrics_text::sample(double value, labels with) {
    char text[40];
    snprintf(text, sizeof text, "%.3f", std::isfinite(value) ? value : 0);
    put(text, with);
}

}  // namespace common

// Metrics in Prometheus' text format 0.0.4: families with HELP and TYPE, each with its samples. Called on any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

namespace common {

class metrics_text {
public:
    using labels = std::initializer_list<std::pair<const char *, const char *>>;

    // Begins a family. type: "counter" or "gauge". One without samples is left out.
    void family(const char *name, const char *type, const char *help);

    // Adds a sample to the family that was begun last.
    void sample(double value, labels with = {});
    void sample(uint64_t value, labels with = {});

    const std::string &text() const { return text_; }

private:
    void put(const std::string &value, labels with);

    std::string text_, head_, name_;
};

}  // namespace common

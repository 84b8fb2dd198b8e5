// Name lookups off the agent's loop: one thread per lookup, so that a name server that does not answer stops nothing.
#pragma once

#include <memory>
#include <string>

namespace wlcctl {

class resolver {
public:
    resolver();
    ~resolver();
    resolver(const resolver &)            = delete;
    resolver &operator=(const resolver &) = delete;

    // Starts a lookup of `name`, a fresh one each time. A lookup still under way is given up: its result is thrown away.
    // Called on the agent's thread. Returns false when no thread could be started.
    bool start(const std::string &name);

    // Gives the lookup under way up.
    void abandon();

    // Becomes readable when the lookup has ended; -1 when none is under way.
    int descriptor() const;

    struct result {
        std::string address;  // empty if the lookup failed; IPv4 if the name has one, else IPv6
        std::string error;    // set if the lookup failed
    };

    // Takes the result of the lookup that has ended.
    result take();

private:
    struct lookup;
    std::shared_ptr<lookup> m_current;
};

}  // namespace wlcctl

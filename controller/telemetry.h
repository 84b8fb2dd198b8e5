// What the agent shows of itself to machines and browsers: metrics, history, and the HTTP side that serves both with
// status and events. Called on the loop's thread, which never waits for an HTTP client.
#pragma once

#include "agent.h"
#include "base.h"
#include "history.h"
#include "http_pages.h"
#include "keeper.h"
#include "known.h"
#include "metrics.h"
#include "redact.h"
#include "verbs.h"

#include "common/loop.h"

#include <memory>
#include <string>

namespace wlcctl {

class telemetry {
public:
    telemetry(loop &owner, const agent_options &options, knowledge &known, keeper &keep, verbs &requests);

    // Takes what an earlier agent left. kept: its memory, or no object.
    void load(const json &kept);

    // Begins to serve HTTP, if that was asked for. Returns an empty text or what is wrong, and the agent's exit status.
    std::string open(int &status);

    // After everything that may have changed something, and every second.
    void look(const moment &now);

    json save() const;
    void finish(const moment &now);

private:
    std::string show_all();
    void        offer_texts();
    std::string conf_text();
    std::string history_text() const;
    void        add_event(const event &e, const json &members);
    void        show_event(const event &e);

    loop                             &owner_;
    const agent_options              &options_;
    knowledge                        &known_;
    verbs                            &verbs_;
    metrics                           metrics_;
    history                           history_;
    redactor                          secrets_;
    double                            secrets_read_ = -1;                     // monotonic
    std::unique_ptr<http_pages>       pages_;                                 // null without --http
    std::unique_ptr<descriptor_watch> bell_;                                  // goes before the pages
    std::shared_ptr<bool>             alive_ = std::make_shared<bool>(true);  // for the events' listener
};

}  // namespace wlcctl

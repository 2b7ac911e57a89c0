#pragma once

#include "support/CallerCredentials.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Kestrel::Private {

class SystemInterface;

// Who sent the call being processed, and whether it lets an agent ask its
// user (the header flag for interactive authorization).
struct Caller {
    std::string sender;
    CallerCredentials credentials;
    bool interactive = false;

    // On the bus thread, while the call is the one being processed.
    static Caller ofCurrentCall(const sdbus::IObject& object);
};

// Decides whether a caller may take an action: root always; anyone else as
// polkitd answers. While polkitd does not answer, root and members of
// lpadmin, which is said once as a warning. The question goes out
// asynchronously, so no thread waits for a person at an agent.
class Authorizer {
public:
    using Decision = std::function<void(bool authorized)>;

    Authorizer(sdbus::IConnection& connection, std::shared_ptr<SystemInterface> system);

    // On the bus thread; `decided` runs once, there, at once or on polkitd's answer.
    void authorize(const Caller& caller, const std::string& action, Decision decided);

private:
    // How long polkitd may take to decide, and a person at an agent.
    static constexpr auto AnswerBound = std::chrono::seconds(5);
    static constexpr auto InteractiveBound = std::chrono::seconds(60);

    // The rule from before polkit, by the groups the bus vouches for.
    bool administers(const CallerCredentials& caller);
    void cancel(const std::string& check);

    std::unique_ptr<sdbus::IProxy> polkit;
    std::shared_ptr<SystemInterface> system;
    unsigned checks = 0;
    // Set while polkitd does not answer, so an outage is reported once.
    bool unanswered = false;
};

} // namespace Kestrel::Private

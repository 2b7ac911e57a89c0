#include "support/Authorizer.h"

#include "support/Diagnostics.h"
#include "support/SystemInterface.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <map>

namespace Kestrel::Private {

namespace {

const char* const PolkitName = "org.freedesktop.PolicyKit1";
const char* const AuthorityPath = "/org/freedesktop/PolicyKit1/Authority";
const char* const AuthorityInterface = "org.freedesktop.PolicyKit1.Authority";
// CheckAuthorization's flag that lets polkitd ask the caller's agent.
constexpr uint32_t AllowUserInteraction = 1;

using Subject = sdbus::Struct<std::string, std::map<std::string, sdbus::Variant>>;
using Result = sdbus::Struct<bool, bool, std::map<std::string, std::string>>;

// sdbus-c++ 1.2 does not show the header flags; the message it wraps does.
struct RawMessage : sdbus::Message {
    static sd_bus_message* of(const sdbus::Message& message)
    {
        return static_cast<sd_bus_message*>(message.*(&RawMessage::msg_));
    }
};

} // namespace

Caller Caller::ofCurrentCall(const sdbus::IObject& object)
{
    const auto* message = object.getCurrentlyProcessedMessage();
    Caller caller;
    caller.sender = message->getSender();
    caller.credentials = CallerCredentials::ofSender(object.getConnection(), caller.sender);
    caller.interactive = sd_bus_message_get_allow_interactive_authorization(RawMessage::of(*message)) > 0;
    return caller;
}

Authorizer::Authorizer(sdbus::IConnection& connection, std::shared_ptr<SystemInterface> system)
    : polkit(sdbus::createProxy(connection, PolkitName, AuthorityPath))
    , system(std::move(system))
{
}

void Authorizer::authorize(const Caller& caller, const std::string& action, Decision decided)
{
    if (caller.credentials.uid == 0)
        return decided(true);
    const auto check = "kestrel-" + std::to_string(++checks);
    const Subject subject{"system-bus-name", {{"name", sdbus::Variant(caller.sender)}}};
    // A person at an agent may take a while; polkitd alone should not.
    const auto bound = caller.interactive ? InteractiveBound : AnswerBound;
    polkit->callMethodAsync("CheckAuthorization")
        .onInterface(AuthorityInterface)
        .withTimeout(bound)
        .withArguments(subject, action, std::map<std::string, std::string>{},
                       caller.interactive ? AllowUserInteraction : 0u, check)
        .uponReplyInvoke([this, caller, check, decided](const sdbus::Error* error, const Result& result) {
            if (!error) {
                unanswered = false;
                return decided(std::get<0>(result));
            }
            // A person who did not answer in time is refused; the agent's
            // question is withdrawn.
            if (caller.interactive && error->getName() == "org.freedesktop.DBus.Error.NoReply") {
                cancel(check);
                return decided(false);
            }
            if (!unanswered)
                logWarning("polkit does not answer (" + error->getMessage() +
                           "); until it does, only root and members of lpadmin may manage printers and jobs");
            unanswered = true;
            decided(administers(caller.credentials));
        });
}

bool Authorizer::administers(const CallerCredentials& caller)
{
    const auto administrators = system->groupId("lpadmin");
    return administrators &&
           std::find(caller.groups.begin(), caller.groups.end(), *administrators) != caller.groups.end();
}

void Authorizer::cancel(const std::string& check)
{
    auto call = polkit->createMethodCall(AuthorityInterface, "CancelCheckAuthorization");
    call << check;
    call.dontExpectReply();
    polkit->callMethod(call);
}

} // namespace Kestrel::Private

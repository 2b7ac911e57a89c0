#pragma once

#include "service/BusEventLoop.h"
#include "service/BusMessageLimit.h"
#include "support/Authorizer.h"
#include "support/WorkerPool.h"

#include <sdbus-c++/sdbus-c++.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace Kestrel::Private {

// A bus call whose work waits on a peer: the bus thread only hands it to a
// pool, and the worker answers it, a failure as the interface's error with
// the failure's text. A full backlog or a stopping pool answers at once.
class PooledCall {
public:
    PooledCall(WorkerPool& pool, std::string errorName)
        : pool(pool)
        , errorName(std::move(errorName))
    {
    }

    template <typename... Results, typename Work>
    void run(sdbus::Result<Results...>&& result, Work work) const
    {
        // Shared, as the pool keeps copyable tasks and the result is move-only.
        auto call = std::make_shared<sdbus::Result<Results...>>(std::move(result));
        const auto refuse = [call, name = errorName] {
            call->returnError(sdbus::Error(name, "the print service is stopping; try again later"));
            BusEventLoop::messageSent();
        };
        const bool queued = pool.post([call, name = errorName, work] { answer(*call, name, work); }, refuse);
        if (queued)
            return;
        if (pool.stopped())
            return refuse();
        call->returnError(sdbus::Error(errorName, "the print service is busy; try again"));
    }

    // Runs the work only when the caller may take the action; a refusal is
    // answered at once, without waiting behind the pool's other calls.
    template <typename... Results, typename Work>
    void runAuthorized(sdbus::Result<Results...>&& result, Authorizer& authorizer, const Caller& caller,
                       const std::string& action, const std::string& refusal, Work work) const
    {
        whenDecided(std::move(result), authorizer, caller, action, [self = *this, refusal, work](auto call, bool may) {
            if (may)
                return self.run(std::move(*call), work);
            call->returnError(sdbus::Error(self.errorName, refusal));
        });
    }

    // Runs work(authorized) once it is known whether the caller may take the action.
    template <typename... Results, typename Work>
    void runKnowing(sdbus::Result<Results...>&& result, Authorizer& authorizer, const Caller& caller,
                    const std::string& action, Work work) const
    {
        whenDecided(std::move(result), authorizer, caller, action, [self = *this, work](auto call, bool may) {
            self.run(std::move(*call), [work, may] { return work(may); });
        });
    }

private:
    template <typename... Results, typename Then>
    static void whenDecided(sdbus::Result<Results...>&& result, Authorizer& authorizer, const Caller& caller,
                            const std::string& action, Then then)
    {
        // Shared, as the decision is a copyable function and the result is move-only.
        auto call = std::make_shared<sdbus::Result<Results...>>(std::move(result));
        authorizer.authorize(caller, action, [call, then](bool may) { then(call, may); });
    }

    template <typename... Results, typename Work>
    static void answer(const sdbus::Result<Results...>& call, const std::string& name, const Work& work)
    {
        try {
            if constexpr (sizeof...(Results) == 0) {
                work();
                call.returnResults();
            } else {
                call.returnResults(work());
            }
        } catch (const std::exception& error) {
            std::string text = error.what();
            if (!fitsOnBus(text.size()))
                text = "the answer to this call is too long for the bus";
            call.returnError(sdbus::Error(name, text));
        }
        // Also writes out the signals the work emitted.
        BusEventLoop::messageSent();
    }

    WorkerPool& pool;
    const std::string errorName;
};

} // namespace Kestrel::Private

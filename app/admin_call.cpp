#include "app/admin_call.hpp"

#include "core/server.hpp"

#include <asio.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace orv {
namespace {

struct CallState {
    enum Stage { Pending, Running, Done, Cancelled };
    std::mutex mutex;
    std::condition_variable changed;
    Stage stage = Pending;
};

} // namespace

bool run_on_event_thread(Server& server, const std::function<void()>& fn) {
    if (server.io().get_executor().running_in_this_thread()) {
        fn();
        return true;
    }
    auto state = std::make_shared<CallState>();
    const std::function<void()>* body = &fn;
    server.post([state, body] {
        {
            std::lock_guard lock(state->mutex);
            // The caller gave up (the loop had stopped): `body` may be gone.
            if (state->stage == CallState::Cancelled)
                return;
            state->stage = CallState::Running;
        }
        (*body)();
        {
            std::lock_guard lock(state->mutex);
            state->stage = CallState::Done;
        }
        state->changed.notify_all();
    });
    std::unique_lock lock(state->mutex);
    while (state->stage != CallState::Done) {
        if (state->changed.wait_for(lock, std::chrono::milliseconds(100),
                                    [&] { return state->stage == CallState::Done; }))
            break;
        // A stopped loop never runs the step; one that is still loading the tables will.
        if (state->stage == CallState::Pending && server.io().stopped()) {
            state->stage = CallState::Cancelled;
            return false;
        }
    }
    return true;
}

} // namespace orv

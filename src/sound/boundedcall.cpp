#include "sound/boundedcall.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

// Calls of run() whose thread has not returned yet.
std::atomic<int> sUnfinishedCalls{0};

} // namespace

bool BoundedCall::run(int timeoutMs, const std::function<PaError()>& call, PaError* result)
{
    struct State
    {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        PaError result = paNoError;
    };
    auto state = std::make_shared<State>();
    sUnfinishedCalls.fetch_add(1);
    std::thread([state, call] {
        const PaError outcome = call();
        sUnfinishedCalls.fetch_sub(1);
        std::lock_guard<std::mutex> lock(state->mutex);
        state->result = outcome;
        state->done = true;
        state->finished.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(state->mutex);
    if (!state->finished.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return state->done; })) {
        return false;
    }
    *result = state->result;
    return true;
}

int BoundedCall::unfinished()
{
    return sUnfinishedCalls.load();
}

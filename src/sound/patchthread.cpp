#include "sound/patchthread.h"

namespace {

thread_local bool tOnPatchThread = false;

} // namespace

PatchThread::PatchThread() : mThread([this] { loop(); }) {}

PatchThread& PatchThread::instance()
{
    // Never destroyed: an instance closed while static objects are torn
    // down still finds it. It waits, idle, until the process ends.
    static PatchThread* thread = new PatchThread;
    return *thread;
}

void PatchThread::run(const std::function<void()>& work)
{
    if (tOnPatchThread) {
        work();
        return;
    }
    PatchThread& self = instance();
    std::lock_guard<std::mutex> caller(self.mCallers);
    std::unique_lock<std::mutex> lock(self.mMutex);
    self.mWork = &work;
    self.mWake.notify_one();
    self.mDone.wait(lock, [&self] { return self.mWork == nullptr; });
}

void PatchThread::loop()
{
    tOnPatchThread = true;
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        mWake.wait(lock, [this] { return mWork != nullptr; });
        // Unlocked while it runs: nothing else touches mWork meanwhile,
        // since the one caller waits for it.
        const std::function<void()>* work = mWork;
        lock.unlock();
        (*work)();
        lock.lock();
        mWork = nullptr;
        mDone.notify_all();
    }
}

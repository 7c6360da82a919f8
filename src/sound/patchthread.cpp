#include "sound/patchthread.h"

namespace {

thread_local bool tOnPatchThread = false;

} // namespace

PatchThread::PatchThread() : mThread([this] { loop(); }) {}

PatchThread::~PatchThread()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mWake.notify_one();
    mThread.join();
}

PatchThread& PatchThread::instance()
{
    static PatchThread thread;
    return thread;
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
        mWake.wait(lock, [this] { return mStop || mWork; });
        if (mWork) {
            // Unlocked while it runs: nothing else touches mWork meanwhile,
            // since the one caller waits for it.
            const std::function<void()>* work = mWork;
            lock.unlock();
            (*work)();
            lock.lock();
            mWork = nullptr;
            mDone.notify_all();
        } else if (mStop) {
            return;
        }
    }
}

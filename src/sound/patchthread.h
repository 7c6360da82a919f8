#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// The one thread on which voice patches are opened and closed.
//
// A voice patch is tens of megabytes of small Pd objects, made when it opens
// and freed when it closes, several times an hour. Made on the GUI thread,
// they land in the same heap as the window's own long-lived objects, which
// then pin pages among the freed patch: the heap never gives them back and
// grows by a megabyte here and there at each later open, without a single
// leak, for as long as the program runs. On a thread of their own they get
// an arena of their own (glibc gives each thread one), which a closed patch
// leaves wholly free for the next.
//
// run() is synchronous: the caller waits, as if it did the work itself,
// and one piece of work runs at a time. Work that runs work of its own
// (opening closes first) runs it at once, on this thread.
class PatchThread
{
public:
    // Runs `work` on the patch thread and returns when it is done. Any
    // thread but the audio thread.
    static void run(const std::function<void()>& work);

private:
    PatchThread();
    static PatchThread& instance();
    void loop();

    std::mutex mMutex;
    std::mutex mCallers; // one piece of work at a time
    std::condition_variable mWake;
    std::condition_variable mDone;
    const std::function<void()>* mWork = nullptr;
    std::thread mThread;
};

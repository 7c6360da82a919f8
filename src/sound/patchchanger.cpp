#include "sound/patchchanger.h"

#include "sound/pdinstance.h"
#include "sound/playerresultqueue.h"
#include "sound/voicepool.h"

#include <QElapsedTimer>
#include <QThread>

PatchChanger::PatchChanger(PatchMixer& mixer, VoicePool& voices, PlayerResultQueue& results)
    : mMixer(mixer), mVoices(voices), mResults(results)
{
}

PatchChanger::~PatchChanger()
{
    delete mIncoming.exchange(nullptr);
    delete mActiveSwap;
    Swap* swap = nullptr;
    while (mRetired.pop(swap)) {
        delete swap;
    }
    mMixer.forget();
    mPool = {};
}

void PatchChanger::makeInstances()
{
    for (auto& instance : mPool) {
        if (!instance) {
            instance = std::make_unique<PdInstance>();
        }
    }
}

void PatchChanger::initAudio(int outChannels, int sampleRate)
{
    for (auto& instance : mPool) {
        if (instance) {
            instance->initAudio(outChannels, sampleRate);
        }
    }
}

// ---------------------------------------------------------------------------
// GUI thread

void PatchChanger::handOver(PdInstance* instance, std::uint32_t serial)
{
    auto* swap = new Swap;
    swap->incoming = instance;
    swap->serial = serial;
    if (instance) {
        matchMacros(*swap, *instance);
        mMacroNames = instance->macroNames();
    } else {
        mMacroNames.clear();
    }
    mInUse[poolIndex(instance)] = true;
    // A change not yet taken up by the audio thread is replaced: only the
    // latest one counts.
    if (Swap* replaced = mIncoming.exchange(swap, std::memory_order_acq_rel)) {
        release(replaced->incoming);
        delete replaced;
    }
}

void PatchChanger::matchMacros(Swap& swap, const PdInstance& instance) const
{
    // Macros carry over where the new patch has the same name (as the
    // window shows it: in any case).
    const QStringList& names = instance.macroNames();
    for (int i = 0; i < MACRO_COUNT; ++i) {
        const QString name = names.value(i).trimmed();
        swap.macroSource[i] = -1;
        for (int j = 0; j < mMacroNames.size() && !name.isEmpty(); ++j) {
            if (mMacroNames.at(j).trimmed().compare(name, Qt::CaseInsensitive) == 0) {
                swap.macroSource[i] = j;
                break;
            }
        }
        if (swap.macroSource[i] >= MACRO_COUNT) {
            swap.macroSource[i] = -1;
        }
        swap.macroDefault[i] = instance.macroDefaults().value(i, -1.0f);
    }
}

void PatchChanger::completeNow()
{
    for (int i = 0; i < 2; ++i) { // a change left over, then this one
        if (mMixer.old()) {
            finishSwap();
        }
        takeSwap(VoicePool::VOICE_COUNT); // every note at once: the change is over
    }
    if (mMixer.old()) {
        finishSwap();
    }
}

void PatchChanger::collectRetired()
{
    Swap* swap = nullptr;
    while (mRetired.pop(swap)) {
        release(swap->retired);
        delete swap;
    }
}

void PatchChanger::release(PdInstance* instance)
{
    if (!instance) {
        return;
    }
    instance->close();
    mInUse[poolIndex(instance)] = false;
}

int PatchChanger::poolIndex(const PdInstance* instance) const
{
    for (int i = 0; i < POOL_SIZE; ++i) {
        if (mPool[i].get() == instance) {
            return i;
        }
    }
    return POOL_SIZE; // the spare slot of mInUse: no instance (a closing change)
}

PdInstance* PatchChanger::spareInstance()
{
    // Three instances: the one playing, one fading out, one being prepared.
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        for (int i = 0; i < POOL_SIZE; ++i) {
            if (!mInUse[i] && mPool[i]) {
                return mPool[i].get();
            }
        }
        // A change the audio thread has not taken up yet is given up: only
        // the latest one counts, so its instance is this one's.
        if (Swap* pending = mIncoming.exchange(nullptr, std::memory_order_acq_rel)) {
            release(pending->incoming);
            delete pending;
            continue;
        }
        // Otherwise a crossfade holds the third: it ends within tens of
        // milliseconds, while the audio thread goes on.
        if (waited.elapsed() > SPARE_WAIT_MS) {
            return nullptr;
        }
        QThread::msleep(2);
        collectRetired();
    }
}

// ---------------------------------------------------------------------------
// Audio thread

bool PatchChanger::takeSwap(int noteLimit)
{
    if (!mPreparing && !takeUp()) {
        return false;
    }
    PdInstance* next = mActiveSwap->incoming;
    if (next && !prepare(*next, noteLimit)) {
        return true;
    }
    mPreparing = false;
    beginCrossfade();
    return false;
}

bool PatchChanger::takeUp()
{
    // One change at a time; a change waits while the queues lack room for
    // what it may report and return (the old patch's voice-stops during the
    // preparation included).
    if (mMixer.old() || mIncoming.load(std::memory_order_relaxed) == nullptr ||
        mRetired.freeSlots() == 0 ||
        mResults.freeSlots() < std::size_t(2 * VoicePool::VOICE_COUNT + MACRO_COUNT + 1)) {
        return false;
    }
    Swap* swap = mIncoming.exchange(nullptr, std::memory_order_acq_rel);
    if (!swap) {
        return false;
    }
    mActiveSwap = swap;
    mPreparing = true;
    mPrepareCursor = 0;
    mTakenUp = swap->serial;
    // Macros carry over where the new patch has the same name; the others
    // take its defaults.
    for (int i = 0; i < MACRO_COUNT; ++i) {
        const int from = swap->macroSource[i];
        mNextMacroValues[i] = from >= 0 ? mMacroValues[from] : swap->macroDefault[i];
    }
    return true;
}

bool PatchChanger::prepare(PdInstance& next, int noteLimit)
{
    // The new patch is made to sound as the old one does before it is heard:
    // its macros, then the notes held, at their pitches and volumes. A macro
    // goes to all 128 voices and costs about as much as a dozen note starts
    // (some 20 us each in a patch whose memory this core has not touched
    // yet), so a change under a full chord would take milliseconds in one
    // buffer. Instead the work is spread over buffers, `noteLimit` notes'
    // worth each, while the old patch plays on alone and the commands wait
    // in their rings, which keeps the voice table and the macros as they
    // were when the change was taken up. True when all is done.
    constexpr int STEPS = MACRO_COUNT + VoicePool::VOICE_COUNT;
    for (int spent = 0; mPrepareCursor < STEPS && spent < noteLimit; ++mPrepareCursor) {
        spent += mPrepareCursor < MACRO_COUNT ? sendMacro(next, mPrepareCursor)
                                              : startHeldNote(next, mPrepareCursor - MACRO_COUNT);
    }
    return mPrepareCursor >= STEPS;
}

int PatchChanger::sendMacro(PdInstance& next, int macro)
{
    constexpr int MACRO_COST = 12;
    if (mNextMacroValues[macro] < 0.0f) {
        return 0;
    }
    next.sendList("arbo-in", mNextMacroValues[macro], float(PatchMixer::Macro1 + macro), 0.0f);
    return MACRO_COST;
}

int PatchChanger::startHeldNote(PdInstance& next, int voice)
{
    const VoicePool::NoteOn& record = mVoices.voices()[voice];
    if (record.seqId == 0 || record.released || !record.started) {
        return 0;
    }
    const float number = float(record.voice + 1);
    next.sendList("arbo-in", record.frequency, float(PatchMixer::Frequency), number);
    next.sendList("arbo-in", record.volume, float(PatchMixer::Volume), number);
    next.sendList("arbo-in", 1.0f, float(PatchMixer::Gate), number);
    return 1;
}

void PatchChanger::beginCrossfade()
{
    PdInstance* next = mActiveSwap->incoming;
    if (!next) {
        mVoices.allNotesOff(); // closing: every note ends
    }
    mMixer.crossfadeTo(next);
    mActiveSwap->retired = mMixer.old();
    mPlayingSerial = mActiveSwap->serial;
    // Those in their release finish in the old patch.
    mVoices.leaveToOldPatch(!next);
    if (next) {
        for (int i = 0; i < MACRO_COUNT; ++i) {
            mMacroValues[i] = mNextMacroValues[i];
            if (mMacroValues[i] >= 0.0f) {
                mResults.report(PlayerResult::MacroValue, i + 1, mMacroValues[i]);
            }
        }
    }
    if (!mMixer.old()) {
        finishSwap(); // from silence: nothing to fade from
    }
}

void PatchChanger::finishSwap()
{
    mVoices.freeOldPatchVoices();
    if (!mMixer.current()) {
        mVoices.forgetMonoVoice();
    }
    mRetired.push(mActiveSwap); // room was made sure of in takeUp()
    mActiveSwap = nullptr;
    mMixer.endCrossfade();
}

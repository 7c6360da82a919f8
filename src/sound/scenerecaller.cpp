#include "sound/scenerecaller.h"

#include "model/arboconstants.h"
#include "model/arboevent.h"
#include "sound/patchchanger.h"
#include "sound/playercontrols.h"
#include "sound/playerresultqueue.h"
#include "sound/recordtap.h"
#include "sound/voicepool.h"

#include <cstdlib>
#include <cstring>

namespace {

// Room in the result queue that the settings of a recall need at most: every
// prime flag, the base frequency, two volumes, monophony, eight macros and a
// transposition of up to MAX_TRANSPOSE_STEPS steps after its reset.
constexpr int MAX_TRANSPOSE_STEPS = 64;
constexpr std::size_t SETTINGS_RESULTS =
    SceneTable::PRIME_FLAG_COUNT + 4 + SceneTable::MACRO_COUNT + 1 + MAX_TRANSPOSE_STEPS;
// A note change: a stolen voice's end and stop, a mono voice's end, the note.
constexpr std::size_t NOTE_RESULTS = 4;

int exponentOf(unsigned long long& value, unsigned long long prime)
{
    int exponent = 0;
    while (value % prime == 0) {
        value /= prime;
        ++exponent;
    }
    return exponent;
}

} // namespace

SceneRecaller::SceneRecaller(PlayerControls& controls, VoicePool& voices, PatchChanger& changer,
                             PlayerResultQueue& results)
    : mControls(controls), mVoices(voices), mChanger(changer), mResults(results)
{
}

SceneRecaller::~SceneRecaller()
{
    // No thread uses the tables any more.
    delete mPending.exchange(nullptr);
    delete mRetired.exchange(nullptr);
    delete mTable;
}

void SceneRecaller::publish(std::unique_ptr<SceneTable> table)
{
    // A table the audio thread has not taken up yet it never will: ours to free.
    delete mPending.exchange(table.release(), std::memory_order_acq_rel);
}

void SceneRecaller::collectRetired()
{
    delete mRetired.exchange(nullptr, std::memory_order_acq_rel);
}

void SceneRecaller::adoptTable()
{
    // Not while a recall reads the table, and only with the retired slot
    // free, so that the GUI thread always finds the table to free there.
    if (busy() || mPending.load(std::memory_order_relaxed) == nullptr ||
        mRetired.load(std::memory_order_acquire) != nullptr) {
        return;
    }
    SceneTable* table = mPending.exchange(nullptr, std::memory_order_acq_rel);
    if (!table) {
        return;
    }
    mRetired.store(mTable, std::memory_order_release);
    mTable = table;
    mCurrent = mCurrent >= 0 ? mTable->indexOf(mCurrentId) : -1;
}

void SceneRecaller::recall(int index)
{
    if (!mTable || index < 0 || index >= mTable->size()) {
        return;
    }
    mCurrent = index;
    mCurrentId = mTable->scene(index).id;
    mPhase = Settings;
    mCursor = 0;
}

void SceneRecaller::step(int direction)
{
    if (!mTable || mTable->size() == 0) {
        return;
    }
    const int next = mCurrent < 0 ? 0 : mCurrent + (direction > 0 ? 1 : -1);
    if (next != mCurrent && next >= 0 && next < mTable->size()) {
        recall(next);
    }
}

void SceneRecaller::store(int source, float ticket)
{
    SceneTable::Scene& scene = mScratch.scene;
    scene.transposition = mControls.transposition();
    scene.volume = mControls.volume();
    scene.voiceVolume = mControls.voiceVolume();
    scene.baseFrequency = mVoices.baseFrequency();
    scene.monophonic = mVoices.monophonic();
    for (int macro = 0; macro < SceneTable::MACRO_COUNT; ++macro) {
        scene.macros[macro] = mChanger.macroValue(macro);
    }
    for (int prime = 0; prime < SceneTable::PRIME_FLAG_COUNT; ++prime) {
        scene.primeEnabled[prime] = mControls.primeEnabled(prime);
    }
    // The notes sounding now, in the order they were struck (insertion by
    // note-on number), so that a recall strikes them in that order again.
    std::int32_t order[SceneTable::MAX_NOTES];
    int count = 0;
    for (const VoicePool::NoteOn& voice : mVoices.voices()) {
        if (voice.seqId == 0 || !voice.inMap || voice.released) {
            continue;
        }
        int at = count++;
        for (; at > 0 && order[at - 1] > voice.seqId; --at) {
            order[at] = order[at - 1];
            mScratch.notes[at] = mScratch.notes[at - 1];
        }
        order[at] = voice.seqId;
        SceneTable::Note& note = mScratch.notes[at];
        note.ratio = voice.ratio;
        note.held = voice.held;
        // Only a key's note knows its path here; the window fills in the
        // others' from the lattice.
        note.path = voice.held ? voice.heldPath : ArboPath(ArboPath::INVALID_STEP);
    }
    scene.firstNote = 0;
    scene.noteCount = count;
    const bool taken = mSnapshots.push(mScratch);
    mResults.report(PlayerResult::SceneStored, source, ticket, taken);
}

int SceneRecaller::proceed(int budget)
{
    int used = 0;
    while (mPhase != Idle && used < budget) {
        const SceneTable::Scene& scene = mTable->scene(mCurrent);
        if (mPhase == Settings) {
            if (mResults.freeSlots() < SETTINGS_RESULTS) {
                return used; // the GUI thread catches up first
            }
            applySettings(scene);
            ++used;
            mPhase = NotesOff;
            mCursor = 0;
        } else if (mPhase == NotesOff) {
            const auto& voices = mVoices.voices();
            for (; mCursor < int(voices.size()) && used < budget; ++mCursor) {
                const VoicePool::NoteOn& voice = voices[mCursor];
                if (voice.seqId == 0 || !voice.inMap || voice.released ||
                    (!mRestrike && inScene(voice.ratio))) {
                    continue;
                }
                if (mResults.freeSlots() < NOTE_RESULTS) {
                    return used;
                }
                logToggle(voice.ratio);
                mVoices.toggle(voice.ratio);
                ++used;
            }
            if (mCursor >= int(voices.size())) {
                mPhase = NotesOn;
                mCursor = 0;
            }
        } else {
            const SceneTable::Note* notes = mTable->notes(scene);
            for (; mCursor < scene.noteCount && used < budget; ++mCursor) {
                const SceneTable::Note& note = notes[mCursor];
                if (sounding(note.ratio)) {
                    continue;
                }
                if (mResults.freeSlots() < NOTE_RESULTS) {
                    return used;
                }
                if (note.held) {
                    // The log has no ratio with a key's path: a held note
                    // goes in as its key's start where the path still leads
                    // to it, else as a plain note.
                    ArboRatio resolved;
                    if (mLog && mControls.resolveNote(note.path, resolved) &&
                        resolved == note.ratio) {
                        log(ArboEvent::NoteStart, 1.0f, note.path);
                    } else {
                        logToggle(note.ratio);
                    }
                    mVoices.start(note.ratio, note.path);
                } else {
                    logToggle(note.ratio);
                    mVoices.toggle(note.ratio);
                }
                ++used;
            }
            if (mCursor >= scene.noteCount) {
                mPhase = Idle;
                mResults.report(PlayerResult::SceneRecalled, mCurrent, 0.0f, false, nullptr,
                                int(mCurrentId));
            }
        }
    }
    return used;
}

void SceneRecaller::applySettings(const SceneTable::Scene& scene)
{
    for (int prime = 0; prime < SceneTable::PRIME_FLAG_COUNT; ++prime) {
        if (mControls.primeEnabled(prime) != scene.primeEnabled[prime]) {
            mControls.togglePrimeEnabled(prime);
            log(ArboEvent::PrimeToggle, float(prime));
        }
    }
    // The sounding voices keep the frequency they were struck at: under
    // another base frequency a note the scenes share would be out of tune.
    mRestrike = mVoices.baseFrequency() != scene.baseFrequency;
    if (mRestrike) {
        mControls.setBaseFrequency(scene.baseFrequency);
        log(ArboEvent::BaseFrequency, scene.baseFrequency);
    }
    if (mControls.volume() != scene.volume) {
        mControls.setVolume(scene.volume);
        log(ArboEvent::MasterVolume, scene.volume);
    }
    if (mControls.voiceVolume() != scene.voiceVolume) {
        mControls.setVoiceVolume(scene.voiceVolume);
        log(ArboEvent::VoiceVolume, scene.voiceVolume);
    }
    if (mVoices.monophonic() != scene.monophonic) {
        mControls.setMonophonic(scene.monophonic);
        log(ArboEvent::Monophonic, scene.monophonic ? 1.0f : 0.0f);
    }
    for (int macro = 0; macro < SceneTable::MACRO_COUNT; ++macro) {
        const float value = scene.macros[macro];
        if (value >= 0.0f && mChanger.macroValue(macro) != value) {
            mControls.setMacroValue(macro + 1, value);
            log(ArboEvent::Macro1 + macro, value);
        }
    }
    if (!(mControls.transposition() == scene.transposition)) {
        transposeTo(scene.transposition);
    }
}

void SceneRecaller::transposeTo(const ArboRatio& ratio)
{
    signed char steps[MAX_TRANSPOSE_STEPS];
    const int count = transpositionSteps(ratio, steps, MAX_TRANSPOSE_STEPS);
    if (count < 0) {
        return; // no transposition of the lattice's steps: left as it is
    }
    // Back to 1/1 and up the steps, so that the lattice follows step by
    // step, as it does for the transpose strip.
    mControls.transpose(0);
    log(ArboEvent::Transpose, 0.0f);
    for (int i = 0; i < count; ++i) {
        mControls.transpose(steps[i]);
        log(ArboEvent::Transpose, float(steps[i]));
    }
}

int SceneRecaller::transpositionSteps(const ArboRatio& ratio, signed char* steps, int capacity)
{
    unsigned long long numerator = ratio.numerator();
    unsigned long long denominator = ratio.denominator();
    if (numerator == 0 || denominator == 0) {
        return -1;
    }
    // A step of an odd prime p is p over the power of two below it; so the
    // odd primes' exponents give their steps, and the power of two left over
    // is made of octave steps.
    int twos = exponentOf(numerator, 2) - exponentOf(denominator, 2);
    int count = 0;
    for (int i = 2; i < int(std::size(ArboConstants::PRIMES)); ++i) { // from 3
        const int prime = ArboConstants::PRIMES[i];
        const int exponent = exponentOf(numerator, prime) - exponentOf(denominator, prime);
        const unsigned long long stepDenominator = ArboConstants::PRIME_RATIONALS[prime].denominator();
        int octaveBelow = 0;
        for (unsigned long long d = stepDenominator; d > 1; d /= 2) {
            ++octaveBelow;
        }
        twos += exponent * octaveBelow;
        for (int k = 0; k < std::abs(exponent); ++k) {
            if (count == capacity) {
                return -1;
            }
            steps[count++] = static_cast<signed char>(exponent > 0 ? prime : -prime);
        }
    }
    if (numerator != 1 || denominator != 1) {
        return -1; // a prime beyond the lattice's
    }
    for (int k = 0; k < std::abs(twos); ++k) {
        if (count == capacity) {
            return -1;
        }
        steps[count++] = static_cast<signed char>(twos > 0 ? 2 : -2);
    }
    return count;
}

void SceneRecaller::log(int type, float value, const ArboPath& path)
{
    if (mLog) {
        PdMessageBuffer::Chunk command;
        command.type = type;
        command.value = value;
        command.path = path;
        mLog->logCommand(command);
    }
}

void SceneRecaller::logToggle(const ArboRatio& ratio)
{
    PdMessageBuffer::Chunk command;
    if (mLog && ratioCommand(ratio, &command)) {
        mLog->logCommand(command);
    }
}

bool SceneRecaller::ratioCommand(const ArboRatio& ratio, PdMessageBuffer::Chunk* command)
{
    unsigned long long numerator = ratio.numerator();
    unsigned long long denominator = ratio.denominator();
    if (numerator == 0 || denominator == 0) {
        return false;
    }
    signed char exponents[12] = {};
    for (int i = 1; i < int(std::size(ArboConstants::PRIMES)); ++i) {
        const unsigned long long prime = ArboConstants::PRIMES[i];
        exponents[i - 1] =
            static_cast<signed char>(exponentOf(numerator, prime) - exponentOf(denominator, prime));
    }
    if (numerator != 1 || denominator != 1) {
        return false;
    }
    command->type = ArboEvent::RatioToggle;
    std::memcpy(static_cast<void*>(&command->path), exponents, sizeof(ArboPath));
    std::memcpy(&command->value, exponents + sizeof(ArboPath), sizeof(float));
    return true;
}

bool SceneRecaller::commandRatio(const PdMessageBuffer::Chunk& command, ArboRatio* ratio)
{
    signed char exponents[12];
    std::memcpy(exponents, static_cast<const void*>(&command.path), sizeof(ArboPath));
    std::memcpy(exponents + sizeof(ArboPath), &command.value, sizeof(float));
    ArboRatio result(1, 1);
    for (int i = 1; i < int(std::size(ArboConstants::PRIMES)); ++i) {
        const int exponent = exponents[i - 1];
        const ArboRatio factor = exponent > 0 ? ArboRatio(ArboConstants::PRIMES[i], 1)
                                              : ArboRatio(1, ArboConstants::PRIMES[i]);
        for (int k = 0; k < std::abs(exponent); ++k) {
            if (!result.multiplyIfExact(factor)) {
                return false;
            }
        }
    }
    *ratio = result;
    return true;
}

bool SceneRecaller::inScene(const ArboRatio& ratio) const
{
    const SceneTable::Scene& scene = mTable->scene(mCurrent);
    const SceneTable::Note* notes = mTable->notes(scene);
    for (int i = 0; i < scene.noteCount; ++i) {
        if (notes[i].ratio == ratio) {
            return true;
        }
    }
    return false;
}

bool SceneRecaller::sounding(const ArboRatio& ratio) const
{
    for (const VoicePool::NoteOn& voice : mVoices.voices()) {
        if (voice.seqId != 0 && voice.inMap && !voice.released && voice.ratio == ratio) {
            return true;
        }
    }
    return false;
}
